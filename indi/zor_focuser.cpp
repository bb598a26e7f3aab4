// Properties of a focuser device and what a client's changes to them do.
#include "zor_focuser.h"

#include "focuser_catalog.h"

#include "ZOR_focuser.h"

#include <libindi/indilogger.h>

#include <cstring>

namespace zorindi {
namespace {

const char *const kTemperatureGroup = "Temperature";
constexpr int kBluetoothScanMs = 3000;
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

ZorFocuser::ZorFocuser(const std::string &deviceName, const std::string &firstChoice,
                       std::function<void()> onListChanged)
    : m_onListChanged(std::move(onListChanged))
{
    setDeviceName(deviceName.c_str());
    setVersion(1, 0);
    setSupportedConnections(CONNECTION_NONE);
    FI::SetCapability(FOCUSER_CAN_ABS_MOVE | FOCUSER_CAN_REL_MOVE | FOCUSER_CAN_ABORT | FOCUSER_CAN_SYNC |
                      FOCUSER_CAN_REVERSE | FOCUSER_HAS_BACKLASH);
    m_chosenTP[0].fill("KEY", "Focuser", firstChoice.c_str());
}

ZorFocuser::~ZorFocuser()
{
    if (m_id >= 0)
        FocuserCatalog::instance().close(choice());
}

std::string ZorFocuser::choice() const { return m_chosenTP[0].getText() ? m_chosenTP[0].getText() : ""; }

bool ZorFocuser::bluetooth() const { return m_id >= ZOR_BLE_ID_BASE; }

bool ZorFocuser::initProperties()
{
    INDI::Focuser::initProperties();
    const char *dev = getDeviceName();

    m_chosenTP.fill(dev, "ZOR_FOCUSER", "Focuser", CONNECTION_TAB, IP_RW, 60, IPS_IDLE);
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
    m_compensationNP.fill(dev, "TEMP_COMPENSATION_SETTINGS", "Settings", kTemperatureGroup, IP_RW, 60,
                          IPS_IDLE);

    m_referenceNP[0].fill("REFERENCE", "Focus set at (°C)", "%.2f", -100, 250, 0, 0);
    m_referenceNP.fill(dev, "TEMP_COMPENSATION_REFERENCE", "Reference", kTemperatureGroup, IP_RO, 0, IPS_IDLE);

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

void ZorFocuser::ISGetProperties(const char *dev)
{
    INDI::Focuser::ISGetProperties(dev);
    defineProperty(m_chosenTP);
    defineChoiceProperties();
    defineProperty(m_scanSP);
    if (!m_choiceLoaded) {
        m_choiceLoaded = true;
        loadConfig(true, m_chosenTP.getName());
    }
}

void ZorFocuser::defineChoiceProperties()
{
    deleteProperty(m_foundSP.getName());
    const auto &found = FocuserCatalog::instance().found();
    m_foundSP.resize(found.size());
    for (std::size_t i = 0; i < found.size(); ++i)
        m_foundSP[i].fill(elementName(found[i].key), found[i].label,
                          found[i].key == choice() ? ISS_ON : ISS_OFF);
    m_foundSP.fill(getDeviceName(), "ZOR_FOCUSERS", "Found", CONNECTION_TAB, IP_RW, ISR_ATMOST1, 60, IPS_IDLE);
    if (!found.empty())
        defineProperty(m_foundSP);
}

void ZorFocuser::refreshChoices()
{
    if (isInitializationComplete())
        defineChoiceProperties();
}

bool ZorFocuser::updateProperties()
{
    INDI::Focuser::updateProperties();
    // (property, shown for this focuser)
    const std::pair<INDI::Property, bool> own[] = {
        {m_temperatureNP, true}, {m_compensateSP, true}, {m_compensationNP, true},
        {m_referenceNP, true},   {m_identityTP, true},    {m_batteryNP, m_hasBattery}, {m_chargingLP, m_hasBattery},
        {m_ledSP, m_hasLed},     {m_beepSP, m_hasBeep}};
    for (auto [property, shown] : own) {
        if (isConnected() && shown)
            defineProperty(property);
        else if (!isConnected())
            deleteProperty(property.getName());
    }
    // The saved configuration (compensation, presets, ...) applies from the
    // connect on, but for the settings the focuser itself holds.
    if (isConnected() && m_adoptingSettings)
        loadConfig(true);
    return true;
}

bool ZorFocuser::ISNewText(const char *dev, const char *name, char *texts[], char *names[], int n)
{
    if (dev && !strcmp(dev, getDeviceName()) && m_chosenTP.isNameMatch(name)) {
        const bool unchanged = n == 1 && texts[0] && choice() == texts[0];
        if (isConnected() && !unchanged) {
            m_chosenTP.setState(IPS_ALERT);
            m_chosenTP.apply("Disconnect before choosing another focuser.");
            return true;
        }
        m_chosenTP.update(texts, names, n);
        m_chosenTP.setState(IPS_OK);
        m_chosenTP.apply();
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
    if (m_foundSP.isNameMatch(name)) {
        const char *picked = IUFindOnSwitchName(states, names, n);
        const auto &found = FocuserCatalog::instance().found();
        for (const FoundFocuser &f : found)
            if (picked && elementName(f.key) == picked) {
                char *text[] = {const_cast<char *>(f.key.c_str())};
                char *key[] = {const_cast<char *>("KEY")};
                return ISNewText(dev, m_chosenTP.getName(), text, key, 1);
            }
        return true;
    }
    if (m_scanSP.isNameMatch(name)) {
        const char *picked = IUFindOnSwitchName(states, names, n);
        if (picked)
            scan(!strcmp(picked, "BLUETOOTH"));
        return true;
    }
    if (m_compensateSP.isNameMatch(name)) {
        m_compensateSP.update(states, names, n);
        m_compensateSP.setState(IPS_OK);
        m_compensateSP.apply();
        restartCompensation();
        return true;
    }
    if (m_ledSP.isNameMatch(name))
        return applyOnOff(m_ledSP, states, names, n, ZORSetLedState, "switching the LED");
    if (m_beepSP.isNameMatch(name))
        return applyOnOff(m_beepSP, states, names, n, ZORSetBeep, "switching the beep");
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
        return true;
    }
    if (skipsSavedSetting(name))
        return true;
    return INDI::Focuser::ISNewNumber(dev, name, values, names, n);
}

// At connect the focuser's own maximum, reverse and backlash are the truth:
// the configuration loaded right then does not overwrite them. One a client
// loads later goes through the setters.
bool ZorFocuser::skipsSavedSetting(const char *name)
{
    static const char *const kDeviceSettings[] = {"FOCUS_MAX", "FOCUS_REVERSE_MOTION", "FOCUS_BACKLASH_TOGGLE",
                                                  "FOCUS_BACKLASH_STEPS"};
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
                            ZOR_ERROR_CODE (*setter)(int, bool), const char *doing)
{
    const bool wasOn = property.findOnSwitchIndex() == 0;
    property.update(states, names, n);
    const bool on = property.findOnSwitchIndex() == 0;
    if (!succeeded(setter(m_id, on), doing)) {
        showOnOff(property, wasOn);
        property.setState(IPS_ALERT);
    } else {
        property.setState(IPS_OK);
    }
    property.apply();
    return true;
}

void ZorFocuser::scan(bool overBluetooth)
{
    FocuserCatalog &catalog = FocuserCatalog::instance();
    m_scanSP.setState(IPS_BUSY);
    m_scanSP.apply();
    int code = ZOR_SUCCESS;
    if (overBluetooth)
        code = catalog.scanBluetooth(kBluetoothScanMs);
    else
        for (const std::string &problem : catalog.rescanUsb())
            LOGF_WARN("%s.", problem.c_str());
    m_scanSP.reset();
    m_scanSP.setState(code == ZOR_SUCCESS ? IPS_OK : IPS_ALERT);
    if (code != ZOR_SUCCESS)
        m_scanSP.apply("Scanning failed: %s", resultText(code).c_str());
    else
        m_scanSP.apply("%zu focuser(s) found.", catalog.found().size());
    m_onListChanged();
}

} // namespace zorindi
