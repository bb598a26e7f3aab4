// Moves, motion settings and compensation: each a command to the focuser's
// worker, whose outcome comes back to the event loop.
#include "zor_focuser.h"

#include "loop_bridge.h"

#include <libindi/indilogger.h>

#include <chrono>

namespace zorindi {

zorservice::Done ZorFocuser::onLoop(std::function<void(int code)> shown)
{
    return
        [shown = std::move(shown)](int code) { LoopBridge::instance().post([shown, code] { shown(code); }); };
}

void ZorFocuser::reportFailure(INumberVectorProperty &property, int code, const char *doing)
{
    if (code == 0)
        return;
    property.s = IPS_ALERT;
    IDSetNumber(&property, "Failed %s: %s", doing, zorservice::resultText(code).c_str());
}

void ZorFocuser::reportFailure(ISwitchVectorProperty &property, int code, const char *doing)
{
    if (code == 0)
        return;
    property.s = IPS_ALERT;
    IDSetSwitch(&property, "Failed %s: %s", doing, zorservice::resultText(code).c_str());
}

// A new target while the focuser moves is a retarget (the worker stops it
// and moves again), not an error.
IPState ZorFocuser::MoveAbsFocuser(uint32_t targetTicks)
{
    if (!linkUp()) {
        LOG_ERROR("The focuser's link is lost; the move waits for a reconnection.");
        return IPS_ALERT;
    }
    ++m_movesPending;
    m_stopping = false;
    m_focuser->moveTo(static_cast<int>(targetTicks),
                      onLoop([this](int code) { moveStarted(FocusAbsPosNP, code); }));
    return IPS_BUSY;
}

IPState ZorFocuser::MoveRelFocuser(FocusDirection dir, uint32_t ticks)
{
    if (!linkUp()) {
        LOG_ERROR("The focuser's link is lost; the move waits for a reconnection.");
        return IPS_ALERT;
    }
    const int steps = dir == FOCUS_INWARD ? -static_cast<int>(ticks) : static_cast<int>(ticks);
    ++m_movesPending;
    m_stopping = false;
    m_focuser->moveBy(steps, onLoop([this](int code) { moveStarted(FocusRelPosNP, code); }));
    return IPS_BUSY;
}

// Until the worker has taken a move, a snapshot at rest is from before it
// and must not end the Busy that the move showed.
void ZorFocuser::moveStarted(INumberVectorProperty &property, int code)
{
    --m_movesPending;
    reportFailure(property, code, "starting a move");
    if (code == 0 && isConnected() && m_focuser)
        showMotion(m_focuser->snapshot());
}

bool ZorFocuser::AbortFocuser()
{
    if (!linkUp())
        return false;
    m_focuser->stop(onLoop([this](int code) { reportFailure(FocusAbortSP, code, "stopping"); }));
    m_stopping = true; // Idle from now on, though the next readings may still show it slowing down
    FocusAbsPosNP.s = FocusRelPosNP.s = IPS_IDLE;
    IDSetNumber(&FocusAbsPosNP, nullptr);
    IDSetNumber(&FocusRelPosNP, nullptr);
    return true;
}

bool ZorFocuser::SyncFocuser(uint32_t ticks)
{
    if (!linkUp())
        return false;
    m_focuser->sync(static_cast<int>(ticks),
                    onLoop([this](int code) { reportFailure(FocusSyncNP, code, "setting the position"); }));
    return true;
}

bool ZorFocuser::ReverseFocuser(bool enabled)
{
    if (!linkUp())
        return false;
    if (isConfigLoading())
        LOGF_INFO("Configuration applied: motion %s.", enabled ? "reversed" : "not reversed");
    m_focuser->setReverse(
        enabled, onLoop([this](int code) { reportFailure(FocusReverseSP, code, "setting the direction"); }));
    return true;
}

// FOCUS_MAX is bounded by the firmware's range, and a maximum below the
// position is refused (the focuser would stand outside its own travel):
// move inside first.
bool ZorFocuser::SetFocuserMaxPosition(uint32_t ticks)
{
    if (!linkUp())
        return false;
    const zorservice::Snapshot now = m_focuser->snapshot();
    if (now.stepRange > 0 && ticks > static_cast<uint32_t>(now.stepRange)) {
        LOGF_ERROR("The maximum step can be at most %d on this focuser.", now.stepRange);
        return false;
    }
    if (ticks < static_cast<uint32_t>(now.position)) {
        LOGF_ERROR("The maximum step %u is below the position %d; move the focuser inside it first.", ticks,
                   now.position);
        return false;
    }
    if (isConfigLoading())
        LOGF_INFO("Configuration applied: maximum step %u.", ticks);
    m_focuser->setMaxStep(static_cast<int>(ticks), onLoop([this](int code) {
                              reportFailure(FocusMaxPosNP, code, "setting the maximum step");
                          }));
    return INDI::Focuser::SetFocuserMaxPosition(ticks);
}

bool ZorFocuser::SetFocuserBacklash(int32_t steps)
{
    if (FocusBacklashS[INDI_ENABLED].s != ISS_ON)
        return true; // kept for when backlash is switched on
    if (!linkUp())
        return false;
    if (isConfigLoading())
        LOGF_INFO("Configuration applied: backlash %d steps.", steps);
    m_focuser->setBacklash(
        steps, onLoop([this](int code) { reportFailure(FocusBacklashNP, code, "setting the backlash"); }));
    return true;
}

// The focuser has one backlash value: off is 0, on is the steps shown.
bool ZorFocuser::SetFocuserBacklashEnabled(bool enabled)
{
    if (!linkUp())
        return false;
    const int steps = enabled ? static_cast<int>(FocusBacklashN[0].value) : 0;
    m_focuser->setBacklash(
        steps, onLoop([this](int code) { reportFailure(FocusBacklashSP, code, "setting the backlash"); }));
    return true;
}

// The compensation properties, handed to the focuser's worker, which
// compensates only at rest and waits after each client's move.
void ZorFocuser::applyCompensation()
{
    if (!m_focuser)
        return;
    zorservice::CompensationSettings settings;
    settings.enabled = m_compensateSP.findOnSwitchIndex() == 0;
    settings.stepsPerDegree = m_compensationNP[0].getValue();
    settings.threshold = m_compensationNP[1].getValue();
    settings.settle = std::chrono::seconds(static_cast<long>(m_compensationNP[2].getValue()));
    m_focuser->setCompensation(settings, onLoop([this](int code) {
                                   if (code != 0) {
                                       m_compensationNP.setState(IPS_ALERT);
                                       m_compensationNP.apply("Compensation not applied: %s",
                                                              zorservice::resultText(code).c_str());
                                   }
                               }));
}

} // namespace zorindi
