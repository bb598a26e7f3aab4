// One INDI focuser device, driving one ZOR focuser through the library's
// public interface. The driver process holds several of these (one per
// focuser), each under its own device name.
#pragma once

#include "temperature_compensation.h"

#include "ZOR_focuser.h"

#include <libindi/indifocuser.h>
#include <libindi/indipropertylight.h>
#include <libindi/indipropertynumber.h>
#include <libindi/indipropertyswitch.h>
#include <libindi/indipropertytext.h>

#include <functional>
#include <optional>
#include <string>

namespace zorindi {

// Shows `on` in an on/off switch pair; both kinds have "on" first.
void showOnOff(INDI::PropertySwitch &property, bool on);
void showOnOff(ISwitch (&pair)[2], bool on);

class ZorFocuser : public INDI::Focuser {
  public:
    // `firstChoice`: the focuser this device picks until the user or the
    // saved configuration picks another. `onListChanged` is told after a
    // scan found focusers, so the driver can offer a device for each.
    ZorFocuser(const std::string &deviceName, const std::string &firstChoice,
               std::function<void()> onListChanged);
    ~ZorFocuser() override;

    const char *getDefaultName() override { return "ZOR Focuser"; }
    bool initProperties() override;
    void ISGetProperties(const char *dev) override;
    bool updateProperties() override;
    bool ISNewNumber(const char *dev, const char *name, double values[], char *names[], int n) override;
    bool ISNewSwitch(const char *dev, const char *name, ISState *states, char *names[], int n) override;
    bool ISNewText(const char *dev, const char *name, char *texts[], char *names[], int n) override;

    // Rebuilds the list of focusers offered (after any device's scan).
    void refreshChoices();
    std::string choice() const;

  protected:
    bool Connect() override;
    bool Disconnect() override;
    void TimerHit() override;
    bool saveConfigItems(FILE *fp) override;
    bool loadConfig(bool silent = false, const char *property = nullptr) override;

    IPState MoveAbsFocuser(uint32_t targetTicks) override;
    IPState MoveRelFocuser(FocusDirection dir, uint32_t ticks) override;
    bool AbortFocuser() override;
    bool SyncFocuser(uint32_t ticks) override;
    bool ReverseFocuser(bool enabled) override;
    bool SetFocuserMaxPosition(uint32_t ticks) override;
    bool SetFocuserBacklash(int32_t steps) override;
    bool SetFocuserBacklashEnabled(bool enabled) override;

  private:
    struct Status {
        int position = 0;
        bool moving = false;
        bool handMoving = false;
        std::optional<double> temperature; // none without a probe reading
    };

    // zor_focuser_link.cpp: reaching the focuser, losing and regaining it.
    bool openChosen();
    void adoptDeviceSettings();
    void readIdentity();
    int readBattery();
    int readStatus(Status &status);
    bool succeeded(int code, const char *doing);
    void markLost(int code, const char *doing);
    void tryReconnect();

    // zor_focuser_state.cpp: what the poll shows, and temperature compensation.
    void showStatus(const Status &status);
    void showTemperature(std::optional<double> celsius);
    void compensateTemperature(const Status &status);
    int move(int target);
    void restartCompensation();
    void showReference();

    bool bluetooth() const;
    void defineChoiceProperties();
    void scan(bool bluetooth);
    bool applyOnOff(INDI::PropertySwitch &property, ISState *states, char *names[], int n,
                    ZOR_ERROR_CODE (*setter)(int, bool), const char *doing);
    bool skipsSavedSetting(const char *name);

    std::function<void()> m_onListChanged;
    int m_id = -1;
    bool m_lost = false;
    bool m_adoptingSettings = false; // the configuration loaded at connect does not override the focuser
    bool m_choiceLoaded = false;     // the saved choice of focuser was read
    int m_pollsSinceBattery = 0;
    int m_pollsSinceReconnect = 0;
    TemperatureCompensation m_compensation;

    INDI::PropertyText m_chosenTP{1};         // ZOR_FOCUSER.KEY: the focuser to connect
    INDI::PropertySwitch m_foundSP{0};        // ZOR_FOCUSERS: the focusers found, one to pick
    INDI::PropertySwitch m_scanSP{2};         // ZOR_SCAN: USB, BLUETOOTH
    INDI::PropertyText m_identityTP{5};       // ZOR_IDENTITY
    INDI::PropertyNumber m_temperatureNP{1};  // FOCUS_TEMPERATURE.TEMPERATURE
    INDI::PropertySwitch m_compensateSP{2};   // TEMP_COMPENSATION: ENABLE, DISABLE
    INDI::PropertyNumber m_compensationNP{2}; // TEMP_COMPENSATION_SETTINGS
    INDI::PropertyNumber m_referenceNP{1};    // TEMP_COMPENSATION_REFERENCE: where focus was set
    INDI::PropertyNumber m_batteryNP{1};      // ZOR_BATTERY.LEVEL
    INDI::PropertyLight m_chargingLP{1};      // ZOR_CHARGING.CHARGING
    INDI::PropertySwitch m_ledSP{2};          // ZOR_LED: ON, OFF
    INDI::PropertySwitch m_beepSP{2};         // ZOR_BEEP: ON, OFF
    bool m_hasBattery = false;
    bool m_hasLed = false;
    bool m_hasBeep = false;
};

} // namespace zorindi
