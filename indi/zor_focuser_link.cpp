// Reaching the focuser: connecting, reading what it is and how it is set,
// polling it, and losing and regaining it without a restart of the server.
#include "zor_focuser.h"

#include "focuser_catalog.h"

#include <libindi/indilogger.h>

namespace zorindi {
namespace {

constexpr int kPollsPerBatteryRead = 60;  // every 30 s at the default period
constexpr int kPollsPerReconnectTry = 2;  // about once a second

// Codes after which the handle is no use: the device went away (4), a
// transfer failed (7), or the Bluetooth link is gone.
bool linkIsGone(int code)
{
    switch (code) {
    case ZOR_ERROR_REMOVED:
    case ZOR_ERROR_GENERAL_ERROR:
    case ZOR_ERROR_CLOSED:
    case ZOR_ERROR_BLE_SEND:
    case ZOR_ERROR_BLE_NOT_CONNECTED:
    case ZOR_ERROR_BLE_TIMEOUT:
        return true;
    default:
        return false;
    }
}

std::string firmwareText(int id)
{
    unsigned char major = 0, minor = 0, build = 0;
    if (ZORGetFirmwareVersion(id, &major, &minor, &build) != ZOR_SUCCESS)
        return "";
    return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(build);
}

} // namespace

bool ZorFocuser::Connect()
{
    if (!openChosen())
        return false;
    m_lost = false;
    readIdentity();
    adoptDeviceSettings();
    m_adoptingSettings = true;
    SetTimer(getCurrentPollingPeriod());
    return true;
}

bool ZorFocuser::Disconnect()
{
    FocuserCatalog::instance().close(choice());
    m_id = -1;
    m_lost = false;
    restartCompensation();
    LOG_INFO("Disconnected from the focuser.");
    return true;
}

bool ZorFocuser::openChosen()
{
    const std::string problem = FocuserCatalog::instance().open(choice(), getDeviceName(), m_id);
    if (!problem.empty()) {
        LOGF_ERROR("Cannot connect: %s.", problem.c_str());
        return false;
    }
    LOGF_INFO("Connected to %s.", choice().c_str());
    return true;
}

// What the focuser holds is what the device shows at connect.
void ZorFocuser::adoptDeviceSettings()
{
    int range = 0, maxStep = 0, backlash = 0, position = 0;
    bool reverse = false;
    if (ZORStepRange(m_id, &range) == ZOR_SUCCESS && range > 0)
        FocusMaxPosN[0].max = range;
    if (ZORGetMaxStep(m_id, &maxStep) == ZOR_SUCCESS && maxStep > 0) {
        FocusMaxPosN[0].value = maxStep;
        FocusAbsPosN[0].max = FocusRelPosN[0].max = FocusSyncN[0].max = maxStep;
    }
    if (ZORGetPosition(m_id, &position) == ZOR_SUCCESS)
        FocusAbsPosN[0].value = position;
    if (ZORGetReverse(m_id, &reverse) == ZOR_SUCCESS)
        showOnOff(FocusReverseS, reverse);
    if (ZORGetBacklash(m_id, &backlash) == ZOR_SUCCESS) {
        showOnOff(FocusBacklashS, backlash > 0);
        if (backlash > 0)
            FocusBacklashN[0].value = backlash;
    }
    FocusAbsPosNP.s = FocusRelPosNP.s = FocusMaxPosNP.s = IPS_OK;
    if (isConnected()) { // regained after a loss: tell the clients
        IUUpdateMinMax(&FocusAbsPosNP);
        IDSetNumber(&FocusAbsPosNP, nullptr);
        IDSetNumber(&FocusRelPosNP, nullptr);
        IDSetNumber(&FocusMaxPosNP, nullptr);
        IDSetSwitch(&FocusReverseSP, nullptr);
        IDSetSwitch(&FocusBacklashSP, nullptr);
        IDSetNumber(&FocusBacklashNP, nullptr);
    }
    LOGF_INFO("The focuser's settings: maximum %d, %s, backlash %d steps.", maxStep,
              reverse ? "reversed" : "not reversed", backlash);
}

void ZorFocuser::readIdentity()
{
    ZOR_TYPE type{};
    ZOR_SN serial{};
    ZOR_INFO info{};
    ZORGetType(m_id, &type);
    const bool hasSerial = ZORGetSerialNumber(m_id, &serial) == ZOR_SUCCESS;
    ZORGetProperty(m_id, &info);
    const std::string name = textOf(info.Name, sizeof info.Name);
    const auto open = name.find('(');
    m_identityTP[0].setText(firmwareText(m_id));
    m_identityTP[1].setText(textOf(type.Type, sizeof type.Type));
    m_identityTP[2].setText(hasSerial ? serialText(serial) : "");
    m_identityTP[3].setText(open == std::string::npos ? "" : name.substr(open + 1, name.size() - open - 2));
    m_identityTP[4].setText(bluetooth() ? "Bluetooth" : "USB");
    m_identityTP.setState(IPS_OK);

    bool on = false;
    m_hasLed = ZORGetLedState(m_id, &on) == ZOR_SUCCESS;
    showOnOff(m_ledSP, on);
    m_hasBeep = ZORGetBeep(m_id, &on) == ZOR_SUCCESS;
    showOnOff(m_beepSP, on);
    m_hasBattery = readBattery() == ZOR_SUCCESS;
}

int ZorFocuser::readBattery()
{
    m_pollsSinceBattery = 0;
    ZOR_BATTERY_INFO battery{};
    const int code = ZORGetBatteryInfo(m_id, &battery);
    m_batteryNP.setState(code == ZOR_SUCCESS ? IPS_OK : IPS_ALERT);
    if (code == ZOR_SUCCESS) {
        m_batteryNP[0].setValue(battery.battery_percentage);
        m_chargingLP[0].setState(battery.battery_charge_curr > 0 ? IPS_OK : IPS_IDLE);
    }
    if (isConnected()) {
        m_batteryNP.apply();
        m_chargingLP.apply();
    }
    return code;
}

// Over Bluetooth one exchange answers all of it; over USB each call reads
// the focuser's status record.
int ZorFocuser::readStatus(Status &status)
{
    if (bluetooth()) {
        ZOR_ALL_INFO all{};
        const int code = ZORBLEgetAllInfo(m_id, &all);
        status = {all.Position, all.IsMoving != 0, all.HandControlMoving != 0, all.Temperature};
        return code;
    }
    int code = ZORGetPosition(m_id, &status.position);
    if (code == ZOR_SUCCESS)
        code = ZORIsMoving(m_id, &status.moving, &status.handMoving);
    // The focuser answered just now: a failed temperature read means no
    // probe (or no reading from it), not a lost focuser.
    float celsius = 0;
    if (code == ZOR_SUCCESS && ZORGetTemp(m_id, &celsius) == ZOR_SUCCESS)
        status.temperature = celsius;
    return code;
}

bool ZorFocuser::succeeded(int code, const char *doing)
{
    if (code == ZOR_SUCCESS)
        return true;
    if (linkIsGone(code))
        markLost(code, doing);
    else
        LOGF_WARN("Failed %s: %s.", doing, resultText(code).c_str());
    return false;
}

void ZorFocuser::markLost(int code, const char *doing)
{
    if (m_lost)
        return;
    m_lost = true;
    m_pollsSinceReconnect = 0;
    LOGF_ERROR("Lost the focuser while %s: %s. Reconnecting when it is back.", doing, resultText(code).c_str());
    for (INumberVectorProperty *p : {&FocusAbsPosNP, &FocusRelPosNP}) {
        p->s = IPS_ALERT;
        IDSetNumber(p, nullptr);
    }
    m_temperatureNP.setState(IPS_ALERT);
    m_temperatureNP.apply();
}

void ZorFocuser::tryReconnect()
{
    if (++m_pollsSinceReconnect < kPollsPerReconnectTry)
        return;
    m_pollsSinceReconnect = 0;
    if (!FocuserCatalog::instance().open(choice(), getDeviceName(), m_id).empty())
        return;
    m_lost = false;
    LOGF_INFO("Reconnected to %s.", choice().c_str());
    adoptDeviceSettings();
    m_temperatureNP.setState(IPS_OK);
    m_temperatureNP.apply();
}

void ZorFocuser::TimerHit()
{
    if (!isConnected())
        return;
    m_adoptingSettings = false; // the connect, and its configuration, are over
    if (m_lost) {
        tryReconnect();
    } else {
        Status status;
        if (succeeded(readStatus(status), "reading its state")) {
            showStatus(status);
            compensateTemperature(status);
        }
        if (m_hasBattery && !m_lost && ++m_pollsSinceBattery >= kPollsPerBatteryRead)
            readBattery();
    }
    SetTimer(getCurrentPollingPeriod());
}

} // namespace zorindi
