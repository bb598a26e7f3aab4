// list: the focusers found; info: everything one focuser says about itself.
#include "ble.h"
#include "commands.h"
#include "device.h"
#include "json.h"
#include "result_codes.h"

#include <CLI/CLI.hpp>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <memory>

namespace zorctl {
namespace {

Json errorJson(int code)
{
    const ResultText text = describeResult(code);
    return Json::object().set("code", code).set("name", text.name).set("message", text.meaning);
}

std::string orDash(const std::string &s) { return s.empty() ? "-" : s; }

// ------------------------------------------------------------------ list

struct ListEntry {
    int id = -1;
    std::string name;
    int maxStep = 0;
    std::string firmware;
    std::string model;
    int error = ZOR_SUCCESS; // the focuser could not be opened
};

ListEntry describeListed(int id)
{
    ListEntry e;
    e.id = id;
    try {
        Focuser f(id);
        ZOR_INFO info{};
        check(ZORGetProperty(id, &info), "reading the name");
        e.name = std::string(info.Name, strnlen(info.Name, sizeof info.Name));
        e.maxStep = info.MaxStep;
        e.firmware = f.firmware().text();
        e.model = f.model();
    } catch (const Failure &failure) {
        e.error = failure.code();
    }
    return e;
}

int runList(bool json)
{
    const int count = ZORGetNum();
    std::vector<ListEntry> entries;
    for (int index = 0; index < count; ++index) {
        int id = -1;
        if (ZORGetID(index, &id) == ZOR_SUCCESS)
            entries.push_back(describeListed(id));
    }
    bool failed = false;
    Json list = Json::array();
    if (!json && !entries.empty())
        std::printf("%-3s %-16s %-9s %-9s %s\n", "ID", "NAME", "MAX STEP", "FIRMWARE", "MODEL");
    for (const ListEntry &e : entries) {
        failed |= e.error != ZOR_SUCCESS;
        if (json) {
            Json item = Json::object().set("id", e.id);
            if (e.error != ZOR_SUCCESS)
                item.set("error", errorJson(e.error));
            else
                item.set("name", e.name)
                    .set("max_step", e.maxStep)
                    .set("firmware", e.firmware)
                    .set("model", e.model);
            list.push(item);
        } else if (e.error != ZOR_SUCCESS) {
            std::printf("%-3d cannot be read: %s\n", e.id, formatResult(e.error).c_str());
        } else {
            std::printf("%-3d %-16s %-9d %-9s %s\n", e.id, e.name.c_str(), e.maxStep, e.firmware.c_str(),
                        orDash(e.model).c_str());
        }
    }
    if (json)
        std::printf("%s\n", list.dump().c_str());
    else if (entries.empty())
        std::printf("No focuser found.\n");
    return failed ? kFailedExit : 0;
}

// ------------------------------------------------------------------ info

// Sections that a focuser may lack: "not supported" is an answer there, not
// a failure; any other failure is reported in place and makes the exit
// status non-zero.
class InfoReport {
  public:
    explicit InfoReport(bool json) : m_json(json) {}

    void line(const char *key, const std::string &text, Json value)
    {
        if (m_json)
            m_doc.set(key, std::move(value));
        else
            std::printf("%-14s %s\n", (label(key) + ":").c_str(), text.c_str());
    }

    template <typename Read> void optional(const char *key, Read &&read)
    {
        try {
            read();
        } catch (const Failure &f) {
            if (f.code() == ZOR_ERROR_NOT_SUPPORTED) {
                line(key, "not supported", Json());
            } else {
                m_failed = true;
                line(key, formatResult(f.code()), Json::object().set("error", errorJson(f.code())));
            }
        }
    }

    void capabilities(const std::vector<Capability> &caps)
    {
        Json list = Json::array();
        if (!m_json)
            std::printf("Capabilities:\n");
        for (const Capability &c : caps) {
            list.push(Json::object()
                          .set("type", c.type)
                          .set("name", c.name)
                          .set("description", c.description)
                          .set("supported", c.supported)
                          .set("writable", c.writable));
            if (!m_json)
                std::printf("  %-18s %-13s %s\n", c.name.c_str(),
                            c.supported ? (c.writable ? "yes, writable" : "yes") : "no",
                            c.description.c_str());
        }
        if (m_json)
            m_doc.set("capabilities", list);
    }

    int finish()
    {
        if (m_json)
            std::printf("%s\n", m_doc.dump().c_str());
        return m_failed ? kFailedExit : 0;
    }

  private:
    // "step_range" reads "Step range"; the ID keeps its capitals.
    static std::string label(const char *key)
    {
        std::string s = key;
        if (s == "id")
            return "ID";
        for (char &c : s)
            if (c == '_')
                c = ' ';
        s[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(s[0])));
        return s;
    }

    bool m_json;
    bool m_failed = false;
    Json m_doc = Json::object();
};

std::string hex(const unsigned char *bytes, std::size_t n)
{
    std::string s;
    char buf[4];
    for (std::size_t i = 0; i < n; ++i) {
        std::snprintf(buf, sizeof buf, "%02x", bytes[i]);
        s += buf;
    }
    return s;
}

void reportBattery(InfoReport &report, int id)
{
    report.optional("battery", [&] {
        ZOR_BATTERY_INFO b{};
        check(ZORGetBatteryInfo(id, &b), "reading the battery");
        char text[160];
        std::snprintf(
            text, sizeof text,
            "%d %% charged, %d C, health %d (raw: voltage %d, charge current %d, discharge current %d, "
            "charge voltage %d)",
            b.battery_percentage, b.battery_temp, b.battery_health, b.battery_vol, b.battery_charge_curr,
            b.battery_discharge_curr, b.battery_charge_vol);
        report.line("battery", text,
                    Json::object()
                        .set("percentage", b.battery_percentage)
                        .set("temperature", b.battery_temp)
                        .set("health", b.battery_health)
                        .set("voltage", b.battery_vol)
                        .set("charge_current", b.battery_charge_curr)
                        .set("discharge_current", b.battery_discharge_curr)
                        .set("charge_voltage", b.battery_charge_vol));
    });
}

const char *onOff(int flag) { return flag ? "on" : "off"; }

// The one-exchange status record that only Bluetooth offers.
void reportAllStatus(InfoReport &report, int id)
{
    report.optional("all_status", [&] {
        ZOR_ALL_INFO a{};
        check(ZORBLEgetAllInfo(id, &a), "reading the all-status record");
        char text[200];
        std::snprintf(text, sizeof text,
                      "at %d%s, max step %d, backlash %d, %.1f C, beep %s, reverse %s, LED %s, hand controller "
                      "%s, battery %d %%",
                      a.Position, a.IsMoving ? " (moving)" : "", a.MaxStep, a.Backlash,
                      static_cast<double>(a.Temperature), onOff(a.Beep), onOff(a.Reverse), onOff(a.LedState),
                      a.HandController ? "connected" : "none", a.Battery.battery_percentage);
        report.line("all_status", text,
                    Json::object()
                        .set("position", a.Position)
                        .set("moving", a.IsMoving != 0)
                        .set("max_step", a.MaxStep)
                        .set("backlash", a.Backlash)
                        .set("temperature", static_cast<double>(a.Temperature))
                        .set("beep", a.Beep != 0)
                        .set("reverse", a.Reverse != 0)
                        .set("led", a.LedState != 0)
                        .set("hand_controller", a.HandController != 0)
                        .set("hand_control_moving", a.HandControlMoving != 0)
                        .set("status_bytes", hex(a.StatusBytes, sizeof a.StatusBytes))
                        .set("battery_percentage", a.Battery.battery_percentage));
    });
}

int runInfo(int id, bool json)
{
    Focuser f(id);
    InfoReport report(json);
    ZOR_INFO info{};
    check(ZORGetProperty(id, &info), "reading the name");
    const std::string name(info.Name, strnlen(info.Name, sizeof info.Name));
    const std::string model = f.model();
    const std::string firmware = f.firmware().text();
    report.line("id", std::to_string(id), id);
    report.line("name", name, name);
    report.line("model", orDash(model), model);
    report.line("firmware", firmware, firmware);
    report.optional("serial", [&] {
        ZOR_SN sn{};
        check(ZORGetSerialNumber(id, &sn), "reading the serial number");
        report.line("serial", hex(sn.id, sizeof sn.id), hex(sn.id, sizeof sn.id));
    });
    const std::string alias = aliasFromName(info.Name);
    report.line("alias", orDash(alias), alias);
    report.line("step_range", std::to_string(info.MaxStep), info.MaxStep);

    const std::vector<Capability> caps = f.capabilities();
    report.capabilities(caps);
    auto supported = [&](ZOR_CONTROL_TYPE type) {
        for (const Capability &c : caps)
            if (c.type == type && c.supported)
                return true;
        return false;
    };
    report.optional("error_codes", [&] {
        if (!supported(ZOR_CONTROL_ERR_CODE))
            throw Failure("reading the error codes", ZOR_ERROR_NOT_SUPPORTED);
        ZOR_ERROR_MSG msg{};
        check(ZORGetErrorCode(id, &msg), "reading the error codes");
        const std::string motor(msg.MotorErrorCode, strnlen(msg.MotorErrorCode, 3));
        const std::string battery(msg.BatteryErrorCode, strnlen(msg.BatteryErrorCode, 3));
        report.line("error_codes", "motor " + orDash(motor) + ", battery " + orDash(battery),
                    Json::object().set("motor", motor).set("battery", battery));
    });
    // Power-off reason and battery belong to the battery-powered model.
    if (supported(ZOR_CONTROL_BATTERY)) {
        report.optional("power_off", [&] {
            int reason = 0;
            check(ZORGetReason(id, &reason), "reading the power-off reason");
            report.line("power_off", reason ? "shipping mode (" + std::to_string(reason) + ")" : "normal",
                        Json::object().set("reason", reason).set("shipping_mode", reason != 0));
        });
        reportBattery(report, id);
    } else {
        report.line("power_off", "not supported", Json());
        report.line("battery", "not supported", Json());
    }
    if (isBluetoothId(id))
        reportAllStatus(report, id);
    return report.finish();
}

} // namespace

void addListAndInfo(CLI::App &app, Commands &commands)
{
    auto json = std::make_shared<bool>(false);
    CLI::App *list =
        app.add_subcommand("list", "List the focusers found: ID, name, maximum step, firmware, model");
    addJsonFlag(*list, *json);
    commands.push_back({list, [json] { return runList(*json); }});

    struct InfoArgs {
        int id = 0;
        bool json = false;
    };
    auto args = std::make_shared<InfoArgs>();
    CLI::App *info = app.add_subcommand(
        "info",
        "Show identity, firmware, capabilities, error codes, power-off reason and battery of a focuser (over "
        "Bluetooth also its all-status record)");
    addIdArgument(*info, args->id);
    addJsonFlag(*info, args->json);
    commands.push_back({info, [args] { return runInfo(args->id, args->json); }, &args->id});
}

} // namespace zorctl
