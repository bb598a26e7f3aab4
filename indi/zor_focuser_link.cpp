// Connecting and disconnecting, and what each snapshot of the focuser's
// worker shows: position and motion, a lost and regained link, limits,
// settings, temperature, battery and compensation.
#include "zor_focuser.h"

#include "loop_bridge.h"

#include <libindi/indilogger.h>

#include <cmath>

namespace zorindi {
namespace {

using zorservice::Link;
using zorservice::Snapshot;

// The smallest change of temperature worth sending to clients.
constexpr double kTemperatureResolution = 0.05;

} // namespace

bool ZorFocuser::linkUp() const { return m_focuser && m_shown.link == Link::Connected; }

// CONNECTION is Busy while the worker connects; the event loop goes on.
void ZorFocuser::startConnect()
{
    if (isConnected() || m_connecting)
        return;
    const std::string key = choice();
    if (key.empty() && !m_catalogueKnown) { // the driver has just started: its default choice is coming
        m_connectWaits = true;
        auto connection = getSwitch("CONNECTION");
        connection.setState(IPS_BUSY);
        connection.apply("Looking for focusers...");
        return;
    }
    std::string problem = key.empty() ? "no focuser is chosen" : m_holder(key, this);
    if (!problem.empty()) {
        LOGF_ERROR("Cannot connect: %s.", problem.c_str());
        setConnected(false, IPS_ALERT);
        return;
    }
    if (m_focuser && m_focuser->key() != key)
        m_focuser->setListener({});
    m_focuser = m_service.focuser(key);
    m_focuser->setPollInterval(std::chrono::milliseconds(getCurrentPollingPeriod()));
    // Many snapshots may come between two turns of the loop: one refresh shows the last.
    m_focuser->setListener([pending = m_refreshPending, this] {
        if (!pending->exchange(true))
            LoopBridge::instance().post([pending, this] {
                pending->store(false);
                showSnapshot();
            });
    });
    m_connecting = true;
    auto connection = getSwitch("CONNECTION");
    connection.setState(IPS_BUSY);
    connection.apply("Connecting to %s...", key.c_str());
    m_focuser->connect(onLoop([this](int code) { connectDone(code); }));
}

void ZorFocuser::connectDone(int code)
{
    if (!m_connecting)
        return; // disconnected meanwhile; the worker disconnects after connecting
    m_connecting = false;
    if (code != 0) {
        const Snapshot now = m_focuser->snapshot();
        LOGF_ERROR("Cannot connect: %s.", now.lastErrorText.empty() ? zorservice::resultText(code).c_str()
                                                                    : now.lastErrorText.c_str());
        setConnected(false, IPS_ALERT);
        return;
    }
    m_shown = m_focuser->snapshot();
    m_hasTemperature = m_shown.temperature.has_value();
    m_temperatureNP[0].setValue(m_shown.temperature.value_or(0));
    m_temperatureNP.setState(IPS_OK);
    m_batteryNP[0].setValue(m_shown.battery.value_or(0));
    m_batteryNP.setState(IPS_OK);
    m_chargingLP[0].setState(m_shown.charging ? IPS_OK : IPS_IDLE);
    showSettings(m_shown);
    showLimits(m_shown);
    FocusAbsPosN[0].value = m_shown.position;
    FocusAbsPosNP.s = m_shown.moving ? IPS_BUSY : IPS_OK;
    FocusRelPosNP.s = IPS_OK;
    m_adoptingSettings = true;
    setConnected(true, IPS_OK);
    updateProperties();
    LOGF_INFO("Connected to %s.", choice().c_str());
    LOGF_INFO("The focuser's settings: maximum %d, %s, backlash %d steps.", m_shown.maxStep,
              m_shown.reverse ? "reversed" : "not reversed", m_shown.backlash);
    showSnapshot();
}

void ZorFocuser::startDisconnect()
{
    if (m_focuser) {
        m_focuser->setListener({});
        m_focuser->disconnect();
    }
    m_connecting = m_connectWaits = false;
    m_shown = Snapshot();
    setConnected(false, IPS_IDLE);
    updateProperties();
    LOG_INFO("Disconnected from the focuser.");
}

void ZorFocuser::showSnapshot()
{
    if (!isConnected() || !m_focuser)
        return;
    const Snapshot now = m_focuser->snapshot();
    if (now.sequence == m_shown.sequence)
        return;
    if (now.link != m_shown.link)
        showLinkChange(now);
    if (now.link == Link::Connected) {
        showMotion(now);
        showLimits(now);
        showSettings(now);
        showTemperature(now);
        showBattery(now);
    }
    showCompensation(now);
    m_shown = now;
}

// A lost link is Alert at once on both moves, never a move left Busy; the
// worker reconnects with backoff and the properties come back by themselves.
void ZorFocuser::showLinkChange(const Snapshot &now)
{
    if (now.link == Link::Lost) {
        LOGF_ERROR("%s. Reconnecting when it is back.",
                   now.lastErrorText.empty() ? "Lost the focuser's link" : now.lastErrorText.c_str());
        for (INumberVectorProperty *p : {&FocusAbsPosNP, &FocusRelPosNP}) {
            p->s = IPS_ALERT;
            IDSetNumber(p, nullptr);
        }
        if (m_hasTemperature) {
            m_temperatureNP.setState(IPS_ALERT);
            m_temperatureNP.apply();
        }
    } else if (now.link == Link::Connected && m_shown.link == Link::Lost) {
        LOGF_INFO("Reconnected to %s.", choice().c_str());
        FocusAbsPosNP.s = now.moving ? IPS_BUSY : IPS_OK;
        FocusRelPosNP.s = IPS_OK;
        IDSetNumber(&FocusAbsPosNP, nullptr);
        IDSetNumber(&FocusRelPosNP, nullptr);
    }
}

void ZorFocuser::showMotion(const Snapshot &now)
{
    const IPState before = FocusAbsPosNP.s;
    if (m_stopping && !now.moving)
        m_stopping = false;
    if (now.moving && !m_stopping)
        FocusAbsPosNP.s = IPS_BUSY; // also a move from the hand controller or compensation
    else if (before == IPS_BUSY && m_movesPending == 0)
        FocusAbsPosNP.s = IPS_OK;
    if (FocusAbsPosNP.s != before || FocusAbsPosN[0].value != now.position) {
        FocusAbsPosN[0].value = now.position;
        IDSetNumber(&FocusAbsPosNP, nullptr);
    }
    if (!now.moving && m_movesPending == 0 && FocusRelPosNP.s == IPS_BUSY) {
        FocusRelPosNP.s = IPS_OK;
        IDSetNumber(&FocusRelPosNP, nullptr);
    }
}

// The maximum is bounded by the firmware's range; moves, syncs and presets
// span the focuser's travel up to its maximum.
void ZorFocuser::showLimits(const Snapshot &now)
{
    if (now.maxStep == m_shown.maxStep && now.stepRange == m_shown.stepRange && isConnected())
        return;
    if (now.stepRange > 0)
        FocusMaxPosN[0].max = now.stepRange;
    if (now.maxStep <= 0)
        return;
    FocusMaxPosN[0].value = now.maxStep;
    FocusAbsPosN[0].max = FocusSyncN[0].max = FocusRelPosN[0].max = now.maxStep;
    INDI::Focuser::SetFocuserMaxPosition(static_cast<uint32_t>(now.maxStep)); // the presets' limits
    if (isConnected()) {
        IUUpdateMinMax(&FocusAbsPosNP);
        IUUpdateMinMax(&FocusRelPosNP);
        IUUpdateMinMax(&FocusSyncNP);
        IUUpdateMinMax(&FocusMaxPosNP);
        IDSetNumber(&FocusMaxPosNP, nullptr);
    }
}

void ZorFocuser::showSettings(const Snapshot &now)
{
    const bool first = !isConnected();
    if (first || now.reverse != m_shown.reverse) {
        showOnOff(FocusReverseS, now.reverse);
        if (!first)
            IDSetSwitch(&FocusReverseSP, nullptr);
    }
    if (first || now.backlash != m_shown.backlash) {
        showOnOff(FocusBacklashS, now.backlash > 0);
        if (now.backlash > 0)
            FocusBacklashN[0].value = now.backlash;
        if (!first) {
            IDSetSwitch(&FocusBacklashSP, nullptr);
            IDSetNumber(&FocusBacklashNP, nullptr);
        }
    }
    if (first || now.identity.serial != m_shown.identity.serial ||
        now.identity.alias != m_shown.identity.alias) {
        m_identityTP[0].setText(now.identity.firmware);
        m_identityTP[1].setText(now.identity.model);
        m_identityTP[2].setText(now.identity.serial);
        m_identityTP[3].setText(now.identity.alias);
        m_identityTP[4].setText(now.identity.transport == zorservice::Transport::Bluetooth ? "Bluetooth"
                                                                                           : "USB");
        m_identityTP.setState(IPS_OK);
        if (!first)
            m_identityTP.apply();
    }
    if (now.led)
        showOnOff(m_ledSP, *now.led);
    if (now.beep)
        showOnOff(m_beepSP, *now.beep);
}

// FOCUS_TEMPERATURE exists only for a focuser with a probe reading, so a
// client never takes a missing probe for a temperature.
void ZorFocuser::showTemperature(const Snapshot &now)
{
    if (!now.temperature) {
        if (m_hasTemperature && m_temperatureNP.getState() != IPS_ALERT) {
            m_temperatureNP.setState(IPS_ALERT);
            m_temperatureNP.apply("No reading from the temperature probe; is it plugged in?");
        }
        return;
    }
    if (!m_hasTemperature) { // a probe plugged in while connected
        m_hasTemperature = true;
        m_temperatureNP[0].setValue(*now.temperature);
        m_temperatureNP.setState(IPS_OK);
        defineProperty(m_temperatureNP);
        return;
    }
    if (std::fabs(*now.temperature - m_temperatureNP[0].getValue()) >= kTemperatureResolution ||
        m_temperatureNP.getState() != IPS_OK) {
        m_temperatureNP[0].setValue(*now.temperature);
        m_temperatureNP.setState(IPS_OK);
        m_temperatureNP.apply();
    }
}

void ZorFocuser::showBattery(const Snapshot &now)
{
    if (!now.battery || (now.battery == m_shown.battery && now.charging == m_shown.charging))
        return;
    m_batteryNP[0].setValue(*now.battery);
    m_batteryNP.setState(IPS_OK);
    m_chargingLP[0].setState(now.charging ? IPS_OK : IPS_IDLE);
    m_batteryNP.apply();
    m_chargingLP.apply();
}

void ZorFocuser::showCompensation(const Snapshot &now)
{
    if (now.compensating && !m_shown.compensating)
        LOGF_INFO("Temperature %.2f °C: compensating, to %d.", now.temperature.value_or(0), now.target);
    if (now.compensationReference == m_shown.compensationReference)
        return;
    m_referenceNP[0].setValue(now.compensationReference.value_or(0));
    m_referenceNP.setState(now.compensationReference ? IPS_OK : IPS_IDLE);
    m_referenceNP.apply();
}

} // namespace zorindi
