// get and set: one table of the settings a focuser keeps.
#include "commands.h"
#include "device.h"
#include "json.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>

namespace zorctl {
namespace {

enum class Kind { Number, Switch, Text, Celsius };

struct Value {
    int number = 0;
    bool on = false;
    std::string text;
    double celsius = 0;
};

struct Setting {
    const char *name;
    Kind kind;
    int min, max; // numbers: the range; text: the longest length
    std::function<Value(Focuser &)> get;
    std::function<void(Focuser &, const Value &)> set; // empty: read-only
};

// Firmware from 3.3.6 on carries the maximum step where the speed word was,
// so the speed neither reaches it nor comes back.
constexpr int kLastFirmwareWithSpeed = 335;

void requireSpeedWord(Focuser &f)
{
    const FirmwareVersion fw = f.firmware();
    if (fw.number() > kLastFirmwareWithSpeed)
        throw UserError("focuser " + std::to_string(f.id()) + " (firmware " + fw.text() +
                        ") has no speed setting; only firmware before 3.3.6 has one");
}

// Models without Bluetooth have no name to set; they would not answer.
void setBleName(Focuser &f, const std::string &name)
{
    if (!f.supports(ZOR_CONTROL_BLE))
        throw Failure("setting the Bluetooth name", ZOR_ERROR_NOT_SUPPORTED);
    std::string copy = name; // the call takes a writable C string
    check(ZORSetBLEName(f.id(), copy.data()), "setting the Bluetooth name");
}

template <typename T> T read(ZOR_ERROR_CODE (*call)(int, T *), Focuser &f, const char *what)
{
    T v{};
    check(call(f.id(), &v), std::string("reading ") + what);
    return v;
}

Value number(int n)
{
    Value v;
    v.number = n;
    return v;
}

Value onOff(bool b)
{
    Value v;
    v.on = b;
    return v;
}

Value text(std::string s)
{
    Value v;
    v.text = std::move(s);
    return v;
}

const std::vector<Setting> &settings()
{
    static const std::vector<Setting> table = {
        {"backlash", Kind::Number, 0, 255,
         [](Focuser &f) { return number(read(ZORGetBacklash, f, "the backlash")); },
         [](Focuser &f, const Value &v) { check(ZORSetBacklash(f.id(), v.number), "setting the backlash"); }},
        {"max-step", Kind::Number, 0, 600000,
         [](Focuser &f) { return number(read(ZORGetMaxStep, f, "the maximum step")); },
         [](Focuser &f, const Value &v) {
             const int range = read(ZORStepRange, f, "the step range");
             if (v.number > range)
                 throw UserError("max-step " + std::to_string(v.number) +
                                 " is beyond this focuser's range 0 to " + std::to_string(range));
             check(ZORSetMaxStep(f.id(), v.number), "setting the maximum step");
         }},
        {"speed", Kind::Number, 0, 65535,
         [](Focuser &f) {
             requireSpeedWord(f);
             return number(read(ZORGetSpeed, f, "the speed"));
         },
         [](Focuser &f, const Value &v) {
             requireSpeedWord(f);
             check(ZORSetSpeed(f.id(), v.number), "setting the speed");
         }},
        {"beep", Kind::Switch, 0, 0,
         [](Focuser &f) { return onOff(read(ZORGetBeep, f, "the beep setting")); },
         [](Focuser &f, const Value &v) { check(ZORSetBeep(f.id(), v.on), "setting the beep"); }},
        {"reverse", Kind::Switch, 0, 0,
         [](Focuser &f) { return onOff(read(ZORGetReverse, f, "the direction")); },
         [](Focuser &f, const Value &v) { check(ZORSetReverse(f.id(), v.on), "setting the direction"); }},
        {"max-force", Kind::Number, 0, 15,
         [](Focuser &f) { return number(read(ZORGetMaxForce, f, "the maximum force")); },
         [](Focuser &f, const Value &v) {
             check(ZORSetMaxForce(f.id(), v.number), "setting the maximum force");
         }},
        {"led", Kind::Switch, 0, 0,
         [](Focuser &f) { return onOff(read(ZORGetLedState, f, "the LED state")); },
         [](Focuser &f, const Value &v) { check(ZORSetLedState(f.id(), v.on), "setting the LED"); }},
        {"ble-name", Kind::Text, 0, 11,
         [](Focuser &f) {
             char name[64] = {};
             check(ZORGetBLEName(f.id(), name), "reading the Bluetooth name");
             return text(std::string(name, strnlen(name, sizeof name)));
         },
         [](Focuser &f, const Value &v) { setBleName(f, v.text); }},
        {"alias", Kind::Text, 0, 8, [](Focuser &f) { return text(f.alias()); },
         [](Focuser &f, const Value &v) {
             ZOR_ID alias{};
             std::memcpy(alias.id, v.text.data(), v.text.size());
             check(ZORSetID(f.id(), alias), "setting the alias");
         }},
        {"temperature", Kind::Celsius, 0, 0,
         [](Focuser &f) {
             Value v;
             v.celsius = read(ZORGetTemp, f, "the temperature");
             return v;
         },
         nullptr},
    };
    return table;
}

const Setting &findSetting(const std::string &name)
{
    for (const Setting &s : settings())
        if (name == s.name)
            return s;
    throw UsageError("unknown setting " + name); // CLI parsing lets only known names through
}

std::vector<std::string> names(bool writableOnly)
{
    std::vector<std::string> out;
    for (const Setting &s : settings())
        if (!writableOnly || s.set)
            out.push_back(s.name);
    return out;
}

Value parseValue(const Setting &s, const std::string &in)
{
    Value v;
    switch (s.kind) {
    case Kind::Number: {
        const std::optional<int> n = parseWholeNumber(in);
        if (!n || *n < s.min || *n > s.max)
            throw UsageError(std::string(s.name) + " takes a whole number from " + std::to_string(s.min) +
                             " to " + std::to_string(s.max) + ", not " + in);
        v.number = *n;
        break;
    }
    case Kind::Switch:
        if (in == "on" || in == "1" || in == "true" || in == "yes")
            v.on = true;
        else if (in == "off" || in == "0" || in == "false" || in == "no")
            v.on = false;
        else
            throw UsageError(std::string(s.name) + " takes on or off");
        break;
    case Kind::Celsius:
        throw UsageError(std::string(s.name) + " cannot be set");
    case Kind::Text:
        if (in.size() > static_cast<std::size_t>(s.max))
            throw UsageError(std::string(s.name) + " holds at most " + std::to_string(s.max) + " characters");
        for (const char c : in)
            if (c < 0x20 || c > 0x7E)
                throw UsageError(std::string(s.name) + " takes printable ASCII characters only");
        v.text = in;
        break;
    }
    return v;
}

std::string show(const Setting &s, const Value &v)
{
    switch (s.kind) {
    case Kind::Number:
        return std::to_string(v.number);
    case Kind::Switch:
        return v.on ? "on" : "off";
    case Kind::Celsius: {
        char buf[16];
        std::snprintf(buf, sizeof buf, "%.1f", v.celsius);
        return buf;
    }
    case Kind::Text:
        break;
    }
    return v.text;
}

Json toJson(const Setting &s, const Value &v)
{
    switch (s.kind) {
    case Kind::Number:
        return Json(v.number);
    case Kind::Switch:
        return Json(v.on);
    case Kind::Celsius:
        return Json(std::round(v.celsius * 10) / 10);
    case Kind::Text:
        break;
    }
    return Json(v.text);
}

struct SettingArgs {
    int id = 0;
    std::string name;
    std::string value;
    bool json = false;
};

int runGet(const SettingArgs &a)
{
    const Setting &s = findSetting(a.name);
    Focuser f(a.id);
    const Value v = s.get(f);
    if (a.json)
        std::printf(
            "%s\n",
            Json::object().set("id", a.id).set("setting", a.name).set("value", toJson(s, v)).dump().c_str());
    else
        std::printf("%s\n", show(s, v).c_str());
    return 0;
}

int runSet(const SettingArgs &a)
{
    const Setting &s = findSetting(a.name);
    const Value v = parseValue(s, a.value);
    Focuser f(a.id);
    s.set(f, v);
    std::printf("%s set to %s\n", s.name, show(s, v).c_str());
    return 0;
}

} // namespace

void addSettings(CLI::App &app, Commands &commands)
{
    auto get = std::make_shared<SettingArgs>();
    CLI::App *getCmd = app.add_subcommand("get", "Read a setting (or the temperature) of a focuser");
    addIdArgument(*getCmd, get->id);
    getCmd->add_option("NAME", get->name, "The setting")->required()->check(CLI::IsMember(names(false)));
    addJsonFlag(*getCmd, get->json);
    commands.push_back({getCmd, [get] { return runGet(*get); }, &get->id});

    auto set = std::make_shared<SettingArgs>();
    CLI::App *setCmd = app.add_subcommand("set", "Change a setting of a focuser");
    addIdArgument(*setCmd, set->id);
    setCmd->add_option("NAME", set->name, "The setting")->required()->check(CLI::IsMember(names(true)));
    setCmd
        ->add_option("VALUE", set->value,
                     "backlash 0-255, max-step 0-step range, speed 0-65535, max-force 0-15, beep/reverse/led "
                     "on|off, ble-name up to 11 characters, alias up to 8")
        ->required();
    commands.push_back({setCmd, [set] { return runSet(*set); }, &set->id});
}

} // namespace zorctl
