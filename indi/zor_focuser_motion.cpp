// Moves and motion settings, what each poll shows, and temperature
// compensation.
#include "zor_focuser.h"

#include "focuser_catalog.h"

#include <libindi/indilogger.h>

#include <algorithm>
#include <cmath>

namespace zorindi {
namespace {

// The smallest change of temperature worth sending to clients.
constexpr double kTemperatureResolution = 0.05;

} // namespace

int ZorFocuser::move(int target)
{
    const int code = ZORMove(m_id, target);
    if (!succeeded(code, "starting a move"))
        return code;
    FocusAbsPosNP.s = IPS_BUSY;
    IDSetNumber(&FocusAbsPosNP, nullptr);
    return code;
}

// Focus set by hand (a move, a sync, compensation switched on) is where
// compensation starts again, from the temperature read once the focuser is
// at rest.
void ZorFocuser::restartCompensation()
{
    m_compensation.forget();
    showReference();
}

void ZorFocuser::showReference()
{
    const std::optional<double> reference = m_compensation.reference();
    m_referenceNP[0].setValue(reference.value_or(0));
    m_referenceNP.setState(reference ? IPS_OK : IPS_IDLE);
    if (isConnected())
        m_referenceNP.apply();
}

IPState ZorFocuser::MoveAbsFocuser(uint32_t targetTicks)
{
    if (move(static_cast<int>(targetTicks)) != ZOR_SUCCESS)
        return IPS_ALERT;
    restartCompensation();
    return IPS_BUSY;
}

IPState ZorFocuser::MoveRelFocuser(FocusDirection dir, uint32_t ticks)
{
    const double step = dir == FOCUS_INWARD ? -static_cast<double>(ticks) : ticks;
    const double target = std::clamp(FocusAbsPosN[0].value + step, 0.0, FocusAbsPosN[0].max);
    if (move(static_cast<int>(target)) != ZOR_SUCCESS)
        return IPS_ALERT;
    restartCompensation();
    return IPS_BUSY;
}

bool ZorFocuser::AbortFocuser()
{
    if (!succeeded(ZORStop(m_id), "stopping"))
        return false;
    FocusAbsPosNP.s = FocusRelPosNP.s = IPS_IDLE;
    IDSetNumber(&FocusAbsPosNP, nullptr);
    IDSetNumber(&FocusRelPosNP, nullptr);
    return true;
}

bool ZorFocuser::SyncFocuser(uint32_t ticks)
{
    if (!succeeded(ZORResetPostion(m_id, static_cast<int>(ticks)), "setting the position"))
        return false;
    FocusAbsPosN[0].value = ticks;
    IDSetNumber(&FocusAbsPosNP, nullptr);
    restartCompensation();
    return true;
}

bool ZorFocuser::ReverseFocuser(bool enabled)
{
    if (isConfigLoading())
        LOGF_INFO("Configuration applied: motion %s.", enabled ? "reversed" : "not reversed");
    return succeeded(ZORSetReverse(m_id, enabled), "setting the direction");
}

bool ZorFocuser::SetFocuserMaxPosition(uint32_t ticks)
{
    if (!succeeded(ZORSetMaxStep(m_id, static_cast<int>(ticks)), "setting the maximum step"))
        return false;
    if (isConfigLoading())
        LOGF_INFO("Configuration applied: maximum step %u.", ticks);
    return INDI::Focuser::SetFocuserMaxPosition(ticks);
}

bool ZorFocuser::SetFocuserBacklash(int32_t steps)
{
    if (FocusBacklashS[INDI_ENABLED].s != ISS_ON)
        return true; // kept for when backlash is switched on
    if (isConfigLoading())
        LOGF_INFO("Configuration applied: backlash %d steps.", steps);
    return succeeded(ZORSetBacklash(m_id, steps), "setting the backlash");
}

// The focuser has one backlash value: off is 0, on is the steps shown.
bool ZorFocuser::SetFocuserBacklashEnabled(bool enabled)
{
    const int steps = enabled ? static_cast<int>(FocusBacklashN[0].value) : 0;
    return succeeded(ZORSetBacklash(m_id, steps), "setting the backlash");
}

void ZorFocuser::showStatus(const Status &status)
{
    const bool busy = status.moving || status.handMoving;
    const IPState before = FocusAbsPosNP.s;
    const double position = FocusAbsPosN[0].value;
    if (busy)
        FocusAbsPosNP.s = IPS_BUSY; // also a move from the hand controller
    else if (before == IPS_BUSY)
        FocusAbsPosNP.s = IPS_OK;
    FocusAbsPosN[0].value = status.position;
    if (FocusAbsPosNP.s != before || position != status.position)
        IDSetNumber(&FocusAbsPosNP, nullptr);
    if (!busy && FocusRelPosNP.s == IPS_BUSY) {
        FocusRelPosNP.s = IPS_OK;
        IDSetNumber(&FocusRelPosNP, nullptr);
    }
    showTemperature(status.temperature);
}

void ZorFocuser::showTemperature(std::optional<double> celsius)
{
    if (!celsius) {
        if (m_temperatureNP.getState() != IPS_ALERT) {
            m_temperatureNP.setState(IPS_ALERT);
            m_temperatureNP.apply("No reading from the temperature probe; is it plugged in?");
        }
        return;
    }
    if (std::fabs(*celsius - m_temperatureNP[0].getValue()) >= kTemperatureResolution ||
        m_temperatureNP.getState() != IPS_OK) {
        m_temperatureNP[0].setValue(*celsius);
        m_temperatureNP.setState(IPS_OK);
        m_temperatureNP.apply();
    }
}

// Only a focuser at rest is compensated, so a move of the user's or of the
// hand controller is never changed under it.
void ZorFocuser::compensateTemperature(const Status &status)
{
    if (m_compensateSP.findOnSwitchIndex() != 0 || status.moving || status.handMoving || !status.temperature)
        return;
    const double celsius = *status.temperature;
    if (!m_compensation.reference()) {
        m_compensation.setReference(celsius);
        showReference();
        return;
    }
    const int steps =
        m_compensation.stepsDue(celsius, m_compensationNP[0].getValue(), m_compensationNP[1].getValue());
    if (steps == 0)
        return;
    showReference();
    const int target = std::clamp(status.position + steps, 0, static_cast<int>(FocusAbsPosN[0].max));
    LOGF_INFO("Temperature %.2f °C: compensating by %d steps, to %d.", celsius, steps, target);
    move(target);
}

} // namespace zorindi
