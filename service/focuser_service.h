// The focuser service: what every program on the library (the INDI driver,
// the Alpaca server, ...) needs under its protocol, built once over the
// public header.
//
// A Service keeps the catalogue of focusers it can reach (USB focusers by
// serial number, Bluetooth focusers by advertised name, each under a stable
// key) and one Focuser object per key. Each Focuser has a worker thread of
// its own that makes every library call for that focuser, in order: the
// caller posts commands and reads the last published Snapshot, so a
// protocol's event loop or request handler never waits on a link. The
// worker polls the focuser, notices a lost link (from the library's
// connection-state callback and from failed calls), reconnects with
// backoff, and runs temperature compensation at rest.
//
// Every function here may be called from any thread and returns at once.
// Completions and change notifications are called on a service thread (a
// worker, or the library's Bluetooth event thread for a link loss): they
// must be quick and must not call back into the library.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zorservice {

// A command's outcome: a ZOR_ERROR_CODE (0 is success) of the library call
// that decided it, or one of the service's own codes below.
using Done = std::function<void(int code)>;

// The service's own outcomes, outside the library's range.
constexpr int kNotConnected = 1000;  // the focuser is not connected (or its link is lost)
constexpr int kNotFound = 1001;      // no focuser of this key is attached or advertises
constexpr int kInUse = 1002;         // another program holds the focuser
constexpr int kBelowPosition = 1003; // a maximum below where the focuser is
constexpr int kOutOfRange = 1004;    // a value outside what the focuser takes

// "ZOR_ERROR_MOVING (5): the focuser is moving", from the library's table
// of result codes, or the service's own text for its codes.
std::string resultText(int code);

// ---------------------------------------------------------------- catalogue

enum class Transport { Usb, Bluetooth };

struct CatalogueEntry {
    std::string key;   // "usb:<serial in hex>" ("usb:id<N>" without a serial), "ble:<name>"
    std::string label; // what a user reads in a list: model, serial or name, alias, link
    Transport transport = Transport::Usb;
};

Transport transportOf(const std::string &key);

// ---------------------------------------------------------------- a focuser

enum class Link {
    Disconnected, // not connected, and not meant to be
    Connecting,   // a connect asked for by the client is under way
    Connected,
    Lost, // the link went; the worker reconnects with backoff
};

// The waits between reconnection attempts: 1, 2, 5, 10, then every 30 s.
std::chrono::seconds reconnectDelay(int attempt);

struct Identity {
    std::string firmware; // "3.8.2"
    std::string model;
    std::string serial; // hex, empty when the firmware has none
    std::string alias;
    Transport transport = Transport::Usb;
};

// Refocusing as the temperature drifts: at rest, once the temperature has
// moved by at least `threshold` since focus was set, the focuser moves by
// `stepsPerDegree` per degree of change. A client's move sets focus anew,
// and compensation waits `settle` after any client move, so the steps of an
// autofocus run are never mixed with compensation moves.
struct CompensationSettings {
    bool enabled = false;
    double stepsPerDegree = 0;
    double threshold = 1.0; // °C, more than 0
    std::chrono::seconds settle{60};
};

// What the focuser was last seen doing; published by its worker as a whole.
struct Snapshot {
    std::uint64_t sequence = 0;                 // counts publications; a change of anything raises it
    std::chrono::system_clock::time_point time; // when it was published (Alpaca's TimeStamp)

    Link link = Link::Disconnected;
    int lastError = 0;                     // the last failure (a code as for Done), 0 after a success
    std::string lastErrorText;             // what failed, in words, with resultText
    int reconnectAttempts = 0;             // while Lost: attempts made so far
    std::chrono::seconds nextReconnect{0}; // while Lost: the wait before the next attempt

    // Read at connect; valid while connected or lost.
    Identity identity;
    int stepRange = 0; // the firmware's largest maximum step (ZORStepRange)

    int position = 0;
    int target = 0;                    // where the last move was sent
    bool moving = false;               // the motor runs (a move, compensation, the hand controller)
    bool handMoving = false;           // the hand controller moves it
    bool compensating = false;         // the move under way is compensation's
    std::optional<double> temperature; // none without a probe reading
    std::optional<int> battery;        // percent; none for a focuser without a battery
    bool charging = false;

    // Settings the focuser holds.
    int maxStep = 0;
    int backlash = 0;
    bool reverse = false;
    std::optional<bool> beep; // none where the firmware has no such setting
    std::optional<bool> led;

    CompensationSettings compensation;
    std::optional<double> compensationReference; // °C where focus was last set
};

class Focuser {
  public:
    virtual ~Focuser() = default;

    virtual const std::string &key() const = 0;
    virtual Snapshot snapshot() const = 0;
    // Called after each publication (any thread of the service's).
    virtual void setListener(std::function<void()> changed) = 0;

    // Opens (USB) or scans for, connects and pairs (Bluetooth). Once
    // connected, a lost link is reconnected until disconnect().
    virtual void connect(Done done = {}) = 0;
    virtual void disconnect(Done done = {}) = 0;

    // A move while one runs is a retarget: the focuser stops, then goes to
    // the new target. The target is clamped to 0 .. maxStep. Done reports
    // the start of the move; the snapshot shows its progress.
    virtual void moveTo(int target, Done done = {}) = 0;
    // Relative to the position when the worker takes the command.
    virtual void moveBy(int steps, Done done = {}) = 0;
    virtual void stop(Done done = {}) = 0;
    virtual void sync(int position, Done done = {}) = 0;

    // 1 .. stepRange, and not below the position (kBelowPosition).
    virtual void setMaxStep(int steps, Done done = {}) = 0;
    virtual void setBacklash(int steps, Done done = {}) = 0; // 0 .. 255
    virtual void setReverse(bool on, Done done = {}) = 0;
    virtual void setBeep(bool on, Done done = {}) = 0;
    virtual void setLed(bool on, Done done = {}) = 0;
    // The name the focuser advertises over Bluetooth: 1 to 11 bytes. A
    // Bluetooth focuser keeps its key (and link) until it is reconnected.
    virtual void setBluetoothName(const std::string &name, Done done = {}) = 0;
    virtual void setCompensation(const CompensationSettings &settings, Done done = {}) = 0;

    // How often the worker reads the focuser's state (default 250 ms).
    virtual void setPollInterval(std::chrono::milliseconds interval) = 0;
};

// ---------------------------------------------------------------- the service

class Service {
  public:
    // `programName` names the holder in the lock that keeps other programs
    // off a USB focuser this one uses ("indi_zor_focuser (process 1234)").
    explicit Service(std::string programName);
    ~Service(); // disconnects every focuser and ends the workers
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    // The focusers found so far: the last USB enumeration and every
    // Bluetooth focuser seen by a scan.
    std::vector<CatalogueEntry> catalogue() const;
    // Enumerates USB focusers again. Done gets 0; focusers that could not be
    // opened are reported through problems().
    void rescanUsb(Done done = {});
    // Scans for Bluetooth focusers for `duration`.
    void scanBluetooth(std::chrono::milliseconds duration, Done done = {});
    // What the last USB rescan could not open, in words for the user.
    std::vector<std::string> problems() const;
    // Called after the catalogue changed (any thread of the service's).
    void setCatalogueListener(std::function<void()> changed);

    // The one Focuser of `key`, made on first use; it lives as long as the
    // service.
    std::shared_ptr<Focuser> focuser(const std::string &key);

    struct State; // the service's inside (service_state.h)

  private:
    std::shared_ptr<State> m_state;
};

} // namespace zorservice
