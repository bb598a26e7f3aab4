// One INDI focuser device, an adapter over one focuser of the focuser
// service: a client's changes become commands to the focuser's worker, and
// the snapshots it publishes become properties. Everything here runs on
// libindi's event loop and returns at once; results come back through the
// LoopBridge. The driver process holds several of these, each under its own
// device name.
#pragma once

#include "focuser_service.h"

#include <libindi/indifocuser.h>
#include <libindi/indipropertylight.h>
#include <libindi/indipropertynumber.h>
#include <libindi/indipropertyswitch.h>
#include <libindi/indipropertytext.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace zorindi {

// Shows `on` in an on/off switch pair; both kinds have "on" first.
void showOnOff(INDI::PropertySwitch &property, bool on);
void showOnOff(ISwitch (&pair)[2], bool on);

class ZorFocuser : public INDI::Focuser {
  public:
    // `holder` answers which other device is connected to a focuser, if any.
    ZorFocuser(zorservice::Service &service, const std::string &deviceName,
               std::function<std::string(const std::string &key, const ZorFocuser *asking)> holder);
    ~ZorFocuser() override;

    const char *getDefaultName() override { return "ZOR Focuser"; }
    bool initProperties() override;
    void ISGetProperties(const char *dev) override;
    bool updateProperties() override;
    bool ISNewNumber(const char *dev, const char *name, double values[], char *names[], int n) override;
    bool ISNewSwitch(const char *dev, const char *name, ISState *states, char *names[], int n) override;
    bool ISNewText(const char *dev, const char *name, char *texts[], char *names[], int n) override;

    // Shows the catalogue's focusers again where it changed; a connect that
    // waited for the first list goes on.
    void catalogueChanged();
    std::string choice() const;
    void choose(const std::string &key); // a default choice: not saved
    // Connected or connecting: the focuser is this device's.
    bool holds(const std::string &key) const;

  protected:
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
    // zor_focuser_link.cpp: connecting, and showing what the service publishes.
    void startConnect();
    void connectDone(int code);
    void startDisconnect();
    void showSnapshot();
    void showLinkChange(const zorservice::Snapshot &now);
    void showMotion(const zorservice::Snapshot &now);
    void showLimits(const zorservice::Snapshot &now);
    void showSettings(const zorservice::Snapshot &now);
    void showTemperature(const zorservice::Snapshot &now);
    void showBattery(const zorservice::Snapshot &now);
    void showCompensation(const zorservice::Snapshot &now);

    // zor_focuser_motion.cpp: what a command's outcome shows.
    zorservice::Done onLoop(std::function<void(int code)> shown);
    void moveStarted(INumberVectorProperty &property, int code);
    void reportFailure(INumberVectorProperty &property, int code, const char *doing);
    void reportFailure(ISwitchVectorProperty &property, int code, const char *doing);
    void applyCompensation();
    bool linkUp() const;

    void defineChoiceProperties();
    void scan(bool bluetooth);
    bool applyOnOff(INDI::PropertySwitch &property, ISState *states, char *names[], int n,
                    void (zorservice::Focuser::*setter)(bool, zorservice::Done), const char *doing);
    bool skipsSavedSetting(const char *name);

    zorservice::Service &m_service;
    std::function<std::string(const std::string &, const ZorFocuser *)> m_holder;
    std::shared_ptr<zorservice::Focuser> m_focuser; // set at connect
    std::shared_ptr<std::atomic<bool>> m_refreshPending = std::make_shared<std::atomic<bool>>(false);
    zorservice::Snapshot m_shown; // what the properties show
    bool m_connecting = false;
    bool m_catalogueKnown = false;   // the first USB enumeration is in
    bool m_connectWaits = false;     // a connect waits for it, to choose a focuser
    int m_movesPending = 0;          // moves sent that the worker has not started yet
    bool m_stopping = false;         // aborted: not Busy again until it stands
    bool m_adoptingSettings = false; // the configuration loaded at connect does not override the focuser
    bool m_choiceLoaded = false;     // the saved choice of focuser was read
    bool m_hasTemperature = false;
    std::vector<zorservice::CatalogueEntry> m_listed; // what ZOR_FOCUSERS shows

    INDI::PropertyText m_chosenTP{1};         // ZOR_FOCUSER.KEY: the focuser to connect
    INDI::PropertySwitch m_foundSP{0};        // ZOR_FOCUSERS: the focusers found, one to pick
    INDI::PropertySwitch m_scanSP{2};         // ZOR_SCAN: USB, BLUETOOTH
    INDI::PropertyText m_identityTP{5};       // ZOR_IDENTITY
    INDI::PropertyNumber m_temperatureNP{1};  // FOCUS_TEMPERATURE.TEMPERATURE
    INDI::PropertySwitch m_compensateSP{2};   // TEMP_COMPENSATION: ENABLE, DISABLE
    INDI::PropertyNumber m_compensationNP{3}; // TEMP_COMPENSATION_SETTINGS
    INDI::PropertyNumber m_referenceNP{1};    // TEMP_COMPENSATION_REFERENCE: where focus was set
    INDI::PropertyNumber m_batteryNP{1};      // ZOR_BATTERY.LEVEL
    INDI::PropertyLight m_chargingLP{1};      // ZOR_CHARGING.CHARGING
    INDI::PropertySwitch m_ledSP{2};          // ZOR_LED: ON, OFF
    INDI::PropertySwitch m_beepSP{2};         // ZOR_BEEP: ON, OFF
};

} // namespace zorindi
