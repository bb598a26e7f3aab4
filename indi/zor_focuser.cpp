// Properties of a focuser device and what a client's changes to them do.
#include "zor_focuser.h"

#include "loop_bridge.h"

#include <libindi/indilogger.h>

#include <chrono>
#include <cstring>

namespace zorindi {
namespace {

using zorservice::Transport;

const char *const kTemperatureGroup = "Temperature";
constexpr auto kBluetoothScan = std::chrono::milliseconds(3000);
constexpr double kMaxBacklash = 255;

void fillOnOff(INDI::PropertySwitch &property, const char *device, const char *name, const char *label)
{
    property[0].fill("ON", "On", ISS_OFF);
    property[1].fill("OFF", "Off", ISS_ON);
    property.fill(device, name, label, OPTIONS_TAB, IP_RW, ISR_1OFMANY, 60, IPS_IDLE);
}

// A list of the focusers found turns each key into an element name that
// INDI's command-line tools can write: they split on '.'.
std::string elementName(const std::string &key)
{
    std::string name = key;
    for (char &c : name)
        if (c == '.')
            c = '_';
    return name;
}

bool sameList(const std::vector<zorservice::CatalogueEntry> &a,
              const std::vector<zorservice::CatalogueEntry> &b)
{
    if (a.size() != b.size())
        return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (a[i].key != b[i].key || a[i].label != b[i].label)
            return false;
    return true;
}

} // namespace

void showOnOff(INDI::PropertySwitch &property, bool on)
{
    property.reset();
    property[on ? 0 : 1].setState(ISS_ON);
}

void showOnOff(ISwitch (&pair)[2], bool on)
{
    pair[0].s = on ? ISS_ON : ISS_OFF;
    pair[1].s = on ? ISS_OFF : ISS_ON;
}

ZorFocuser::ZorFocuser(zorservice::Service &service, const std::string &deviceName,
                       std::function<std::string(const std::string &, const ZorFocuser *)> holder)
    : m_service(service), m_holder(std::move(holder))
{
    setDeviceName(deviceName.c_str());
    setVersion(ZOR_VERSION_MAJOR, ZOR_VERSION_MINOR);
    setSupportedConnections(CONNECTION_NONE);
    FI::SetCapability(FOCUSER_CAN_ABS_MOVE | FOCUSER_CAN_REL_MOVE | FOCUSER_CAN_ABORT | FOCUSER_CAN_SYNC |
                      FOCUSER_CAN_REVERSE | FOCUSER_HAS_BACKLASH);
    m_chosenTP[0].fill("KEY", "Focuser", "");
}

ZorFocuser::~ZorFocuser()
{
    if (m_focuser) {
        m_focuser->setListener({});
        m_focuser->disconnect();
    }
}

std::string ZorFocuser::choice() const { return m_chosenTP[0].getText() ? m_chosenTP[0].getText() : ""; }

void ZorFocuser::choose(const std::string &key)
{
    m_chosenTP[0].setText(key);
    if (isInitializationComplete()) {
        m_chosenTP.apply();
        defineChoiceProperties();
    }
}

bool ZorFocuser::holds(const std::string &key) const
{
    return (isConnected() || m_connecting) && choice() == key;
}

bool ZorFocuser::initProperties()
{
    INDI::Focuser::initProperties();
    const char *dev = getDeviceName();
    if (auto info = getText("DRIVER_INFO"); info.isValid()) // the project's version, not just major.minor
        if (auto version = info.findWidgetByName("DRIVER_VERSION"))
            version->setText(ZOR_VERSION);

    m_chosenTP.fill(dev, "ZOR_FOCUSER", "Focuser", CONNECTION_TAB, IP_RW, 60, IPS_IDLE);
    m_foundSP.fill(dev, "ZOR_FOCUSERS", "Found", CONNECTION_TAB, IP_RW, ISR_ATMOST1, 60, IPS_IDLE);
    m_scanSP[0].fill("USB", "Rescan USB", ISS_OFF);
    m_scanSP[1].fill("BLUETOOTH", "Scan Bluetooth", ISS_OFF);
    m_scanSP.fill(dev, "ZOR_SCAN", "Find focusers", CONNECTION_TAB, IP_RW, ISR_ATMOST1, 60, IPS_IDLE);

    m_identityTP[0].fill("FIRMWARE", "Firmware", "");
    m_identityTP[1].fill("MODEL", "Model", "");
    m_identityTP[2].fill("SERIAL", "Serial number", "");
    m_identityTP[3].fill("ALIAS", "Alias", "");
    m_identityTP[4].fill("LINK", "Link", "");
    m_identityTP.fill(dev, "ZOR_IDENTITY", "Focuser", INFO_TAB, IP_RO, 60, IPS_IDLE);

    m_temperatureNP[0].fill("TEMPERATURE", "Celsius", "%6.2f", -100, 250, 0, 0);
    m_temperatureNP.fill(dev, "FOCUS_TEMPERATURE", "Temperature", MAIN_CONTROL_TAB, IP_RO, 0, IPS_IDLE);

    m_compensateSP[0].fill("ENABLE", "Enable", ISS_OFF);
    m_compensateSP[1].fill("DISABLE", "Disable", ISS_ON);
    m_compensateSP.fill(dev, "TEMP_COMPENSATION", "Compensation", kTemperatureGroup, IP_RW, ISR_1OFMANY, 60,
                        IPS_IDLE);
    m_compensationNP[0].fill("STEPS_PER_DEGREE", "Steps per °C", "%.1f", -10000, 10000, 1, 0);
    m_compensationNP[1].fill("THRESHOLD", "Threshold (°C)", "%.2f", 0.01, 20, 0.1, 1);
    m_compensationNP[2].fill("SETTLE", "Wait after a client's move (s)", "%.0f", 0, 3600, 10, 60);
    m_compensationNP.fill(dev, "TEMP_COMPENSATION_SETTINGS", "Settings", kTemperatureGroup, IP_RW, 60,
                          IPS_IDLE);

    m_referenceNP[0].fill("REFERENCE", "Focus set at (°C)", "%.2f", -100, 250, 0, 0);
    m_referenceNP.fill(dev, "TEMP_COMPENSATION_REFERENCE", "Reference", kTemperatureGroup, IP_RO, 0,
                       IPS_IDLE);

    m_batteryNP[0].fill("LEVEL", "Level (%)", "%.0f", 0, 100, 0, 0);
    m_batteryNP.fill(dev, "ZOR_BATTERY", "Battery", MAIN_CONTROL_TAB, IP_RO, 0, IPS_IDLE);
    m_chargingLP[0].fill("CHARGING", "Charging", IPS_IDLE);
    m_chargingLP.fill(dev, "ZOR_CHARGING", "Charger", MAIN_CONTROL_TAB, IPS_IDLE);

    fillOnOff(m_ledSP, dev, "ZOR_LED", "LED");
    fillOnOff(m_beepSP, dev, "ZOR_BEEP", "Beep");

    FocusBacklashN[0].min = 0;
    FocusBacklashN[0].max = kMaxBacklash;
    FocusBacklashN[0].step = 1;
    setDefaultPollingPeriod(500);
    addDebugControl();
    addPollPeriodControl();
    return true;
}

// Every client asks; each gets the properties as they are. The saved choice
// of focuser is read once, before the driver hands out default choices.
void ZorFocuser::ISGetProperties(const char *dev)
{
    INDI::Focuser::ISGetProperties(dev);
    defineProperty(m_chosenTP);
    if (!m_choiceLoaded) {
        m_choiceLoaded = true;
        loadConfig(true, m_chosenTP.getName());
        m_listed = m_service.catalogue();
        defineChoiceProperties();
    } else if (!m_listed.empty()) {
        defineProperty(m_foundSP);
    }
    defineProperty(m_scanSP);
}

void ZorFocuser::defineChoiceProperties()
{
    deleteProperty(m_foundSP.getName());
    m_foundSP.resize(m_listed.size());
    for (std::size_t i = 0; i < m_listed.size(); ++i)
        m_foundSP[i].fill(elementName(m_listed[i].key), m_listed[i].label,
                          m_listed[i].key == choice() ? ISS_ON : ISS_OFF);
    m_foundSP.fill(getDeviceName(), "ZOR_FOCUSERS", "Found", CONNECTION_TAB, IP_RW, ISR_ATMOST1, 60,
                   IPS_IDLE);
    if (!m_listed.empty())
        defineProperty(m_foundSP);
}

void ZorFocuser::catalogueChanged()
{
    m_catalogueKnown = true;
    const auto listed = m_service.catalogue();
    if (m_choiceLoaded && !sameList(listed, m_listed)) {
        m_listed = listed;
        defineChoiceProperties();
    }
    if (m_connectWaits) {
        m_connectWaits = false;
        startConnect();
    }
}

bool ZorFocuser::updateProperties()
{
    INDI::Focuser::updateProperties();
    const zorservice::Snapshot &now = m_shown;
    // (property, shown for this focuser)
    const std::pair<INDI::Property, bool> own[] = {{m_temperatureNP, m_hasTemperature},
                                                   {m_compensateSP, true},
                                                   {m_compensationNP, true},
                                                   {m_referenceNP, true},
                                                   {m_identityTP, true},
                                                   {m_batteryNP, now.battery.has_value()},
                                                   {m_chargingLP, now.battery.has_value()},
                                                   {m_ledSP, now.led.has_value()},
                                                   {m_beepSP, now.beep.has_value()}};
    for (auto [property, shown] : own) {
        if (isConnected() && shown)
            defineProperty(property);
        else if (!isConnected())
            deleteProperty(property.getName());
    }
    // The saved configuration (compensation, presets, ...) applies from the
    // connect on, but for the settings the focuser itself holds.
    if (isConnected() && m_adoptingSettings) {
        loadConfig(true);
        applyCompensation();
    }
    return true;
}

bool ZorFocuser::ISNewText(const char *dev, const char *name, char *texts[], char *names[], int n)
{
    if (dev && !strcmp(dev, getDeviceName()) && m_chosenTP.isNameMatch(name)) {
        const bool unchanged = n == 1 && texts[0] && choice() == texts[0];
        if ((isConnected() || m_connecting) && !unchanged) {
            m_chosenTP.setState(IPS_ALERT);
            m_chosenTP.apply("Disconnect before choosing another focuser.");
            return true;
        }
        m_chosenTP.update(texts, names, n);
        m_chosenTP.setState(IPS_OK);
        m_chosenTP.apply();
        if (isInitializationComplete())
            defineChoiceProperties();
        if (!isConfigLoading())
            saveConfig(true, m_chosenTP.getName()); // the same focuser next time
        return true;
    }
    return INDI::Focuser::ISNewText(dev, name, texts, names, n);
}

bool ZorFocuser::ISNewSwitch(const char *dev, const char *name, ISState *states, char *names[], int n)
{
    if (!dev || strcmp(dev, getDeviceName()) != 0)
        return false;
    if (!strcmp(name, "CONNECTION")) {
        const char *picked = IUFindOnSwitchName(states, names, n);
        if (picked && !strcmp(picked, "CONNECT"))
            startConnect();
        else if (picked && !strcmp(picked, "DISCONNECT"))
            startDisconnect();
        return true;
    }
    if (m_foundSP.isNameMatch(name)) {
        const char *picked = IUFindOnSwitchName(states, names, n);
        for (const auto &f : m_listed)
            if (picked && elementName(f.key) == picked) {
                char *text[] = {const_cast<char *>(f.key.c_str())};
                char *key[] = {const_cast<char *>("KEY")};
                return ISNewText(dev, m_chosenTP.getName(), text, key, 1);
            }
        return true;
    }
    if (m_scanSP.isNameMatch(name)) {
        const char *picked = IUFindOnSwitchName(states, names, n);
        if (picked && m_scanSP.getState() != IPS_BUSY)
            scan(!strcmp(picked, "BLUETOOTH"));
        return true;
    }
    if (m_compensateSP.isNameMatch(name)) {
        m_compensateSP.update(states, names, n);
        m_compensateSP.setState(IPS_OK);
        m_compensateSP.apply();
        applyCompensation();
        return true;
    }
    if (m_ledSP.isNameMatch(name))
        return applyOnOff(m_ledSP, states, names, n, &zorservice::Focuser::setLed, "switching the LED");
    if (m_beepSP.isNameMatch(name))
        return applyOnOff(m_beepSP, states, names, n, &zorservice::Focuser::setBeep, "switching the beep");
    if (skipsSavedSetting(name))
        return true;
    return INDI::Focuser::ISNewSwitch(dev, name, states, names, n);
}

bool ZorFocuser::ISNewNumber(const char *dev, const char *name, double values[], char *names[], int n)
{
    if (!dev || strcmp(dev, getDeviceName()) != 0)
        return false;
    if (m_compensationNP.isNameMatch(name)) {
        m_compensationNP.update(values, names, n);
        m_compensationNP.setState(IPS_OK);
        m_compensationNP.apply();
        applyCompensation();
        return true;
    }
    if (skipsSavedSetting(name))
        return true;
    const bool handled = INDI::Focuser::ISNewNumber(dev, name, values, names, n);
    if (!strcmp(name, "POLLING_PERIOD") && m_focuser)
        m_focuser->setPollInterval(std::chrono::milliseconds(getCurrentPollingPeriod()));
    return handled;
}

// At connect the focuser's own maximum, reverse and backlash are the truth:
// the configuration loaded right then does not overwrite them. One a client
// loads later goes through the setters.
bool ZorFocuser::skipsSavedSetting(const char *name)
{
    static const char *const kDeviceSettings[] = {"FOCUS_MAX", "FOCUS_REVERSE_MOTION",
                                                  "FOCUS_BACKLASH_TOGGLE", "FOCUS_BACKLASH_STEPS"};
    if (!m_adoptingSettings || !isConfigLoading())
        return false;
    for (const char *setting : kDeviceSettings)
        if (!strcmp(name, setting))
            return true;
    return false;
}

bool ZorFocuser::loadConfig(bool silent, const char *property)
{
    const bool loaded = INDI::Focuser::loadConfig(silent, property);
    if (property == nullptr)
        m_adoptingSettings = false;
    return loaded;
}

bool ZorFocuser::saveConfigItems(FILE *fp)
{
    INDI::Focuser::saveConfigItems(fp);
    m_chosenTP.save(fp);
    m_compensateSP.save(fp);
    m_compensationNP.save(fp);
    return true;
}

bool ZorFocuser::applyOnOff(INDI::PropertySwitch &property, ISState *states, char *names[], int n,
                            void (zorservice::Focuser::*setter)(bool, zorservice::Done), const char *doing)
{
    if (!linkUp()) {
        property.setState(IPS_ALERT);
        property.apply("The focuser is not connected.");
        return true;
    }
    const bool wasOn = property.findOnSwitchIndex() == 0;
    property.update(states, names, n);
    const bool on = property.findOnSwitchIndex() == 0;
    property.setState(IPS_BUSY);
    property.apply();
    ((*m_focuser).*setter)(on, onLoop([this, &property, wasOn, doing](int code) {
                               if (code != 0) {
                                   showOnOff(property, wasOn);
                                   LOGF_ERROR("Failed %s: %s.", doing, zorservice::resultText(code).c_str());
                               }
                               property.setState(code == 0 ? IPS_OK : IPS_ALERT);
                               property.apply();
                           }));
    return true;
}

void ZorFocuser::scan(bool overBluetooth)
{
    m_scanSP.setState(IPS_BUSY);
    m_scanSP.apply(overBluetooth ? "Scanning for Bluetooth focusers..." : "Looking for USB focusers...");
    auto shown = [this, overBluetooth](int code) {
        if (!overBluetooth)
            for (const std::string &problem : m_service.problems())
                LOGF_WARN("%s.", problem.c_str());
        m_scanSP.reset();
        m_scanSP.setState(code == 0 ? IPS_OK : IPS_ALERT);
        if (code != 0)
            m_scanSP.apply("Scanning failed: %s", zorservice::resultText(code).c_str());
        else
            m_scanSP.apply("%zu focuser(s) found.", m_service.catalogue().size());
    };
    if (overBluetooth)
        m_service.scanBluetooth(kBluetoothScan, onLoop(shown));
    else
        m_service.rescanUsb(onLoop(shown));
}

} // namespace zorindi
