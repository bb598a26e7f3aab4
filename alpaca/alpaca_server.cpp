#include "alpaca_server.h"

#include <functional>
#include <map>
#include <mutex>
#include <unistd.h>

namespace zoralpaca {
namespace {

constexpr std::size_t kMaxBody = 64 * 1024;
constexpr int kInterfaceVersion = 4;

Answer notImplementedCommand(const Parameters &p, const char *member)
{
    p.text("Command");
    p.boolean("Raw");
    return Answer::error(kNotImplemented,
                         std::string(member) + " is not implemented: the focuser takes no raw commands");
}

std::vector<std::string> split(const std::string &path)
{
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (start <= path.size()) {
        const std::size_t slash = path.find('/', start);
        parts.push_back(path.substr(start, slash == std::string::npos ? std::string::npos : slash - start));
        if (slash == std::string::npos)
            break;
        start = slash + 1;
    }
    return parts;
}

std::string hostName()
{
    char name[256] = {};
    return gethostname(name, sizeof name - 1) == 0 ? name : "";
}

void badRequest(httplib::Response &response, const std::string &reason)
{
    response.status = 400;
    response.set_content(reason + "\n", "text/plain; charset=utf-8");
}

} // namespace

// Every member of the focuser interface, version 4, by its path name.
std::map<std::string, AlpacaServer::Member> AlpacaServer::memberTable(const std::string &version)
{
    std::map<std::string, Member> m;
    m["connected"] = {
        [](AlpacaFocuser &f, const Parameters &) { return f.connected(); },
        [](AlpacaFocuser &f, const Parameters &p) { return f.setConnected(p.boolean("Connected")); }};
    m["connect"] = {nullptr, [](AlpacaFocuser &f, const Parameters &) { return f.connect(); }};
    m["disconnect"] = {nullptr, [](AlpacaFocuser &f, const Parameters &) { return f.disconnect(); }};
    m["connecting"] = {[](AlpacaFocuser &f, const Parameters &) { return f.connecting(); }, nullptr};
    m["devicestate"] = {[](AlpacaFocuser &f, const Parameters &) { return f.deviceState(); }, nullptr};
    m["description"] = {[](AlpacaFocuser &f, const Parameters &) { return f.description(); }, nullptr};
    m["driverinfo"] = {[version](AlpacaFocuser &, const Parameters &) {
                           return Answer::of("zor_alpaca, the Alpaca server of the ZOR focuser SDK " +
                                             version);
                       },
                       nullptr};
    m["driverversion"] = {[version](AlpacaFocuser &, const Parameters &) { return Answer::of(version); },
                          nullptr};
    m["interfaceversion"] = {
        [](AlpacaFocuser &, const Parameters &) { return Answer::of(kInterfaceVersion); }, nullptr};
    m["name"] = {[](AlpacaFocuser &f, const Parameters &) { return Answer::of(f.name()); }, nullptr};
    m["supportedactions"] = {
        [](AlpacaFocuser &, const Parameters &) { return Answer::of(nlohmann::json::array()); }, nullptr};
    m["action"] = {nullptr, [](AlpacaFocuser &, const Parameters &p) {
                       const std::string action = p.text("Action");
                       p.text("Parameters");
                       return Answer::error(kActionNotImplemented,
                                            "Action \"" + action.substr(0, 40) + "\" is not implemented");
                   }};
    m["commandblind"] = {nullptr, [](AlpacaFocuser &, const Parameters &p) {
                             return notImplementedCommand(p, "CommandBlind");
                         }};
    m["commandbool"] = {nullptr, [](AlpacaFocuser &, const Parameters &p) {
                            return notImplementedCommand(p, "CommandBool");
                        }};
    m["commandstring"] = {nullptr, [](AlpacaFocuser &, const Parameters &p) {
                              return notImplementedCommand(p, "CommandString");
                          }};
    m["absolute"] = {[](AlpacaFocuser &f, const Parameters &) { return f.absolute(); }, nullptr};
    m["ismoving"] = {[](AlpacaFocuser &f, const Parameters &) { return f.isMoving(); }, nullptr};
    m["maxincrement"] = {[](AlpacaFocuser &f, const Parameters &) { return f.maxIncrement(); }, nullptr};
    m["maxstep"] = {[](AlpacaFocuser &f, const Parameters &) { return f.maxStep(); }, nullptr};
    m["position"] = {[](AlpacaFocuser &f, const Parameters &) { return f.position(); }, nullptr};
    m["stepsize"] = {[](AlpacaFocuser &f, const Parameters &) { return f.stepSize(); }, nullptr};
    m["tempcomp"] = {
        [](AlpacaFocuser &f, const Parameters &) { return f.tempComp(); },
        [](AlpacaFocuser &f, const Parameters &p) { return f.setTempComp(p.boolean("TempComp")); }};
    m["tempcompavailable"] = {[](AlpacaFocuser &f, const Parameters &) { return f.tempCompAvailable(); },
                              nullptr};
    m["temperature"] = {[](AlpacaFocuser &f, const Parameters &) { return f.temperature(); }, nullptr};
    m["halt"] = {nullptr, [](AlpacaFocuser &f, const Parameters &) { return f.halt(); }};
    m["move"] = {nullptr,
                 [](AlpacaFocuser &f, const Parameters &p) { return f.move(p.integer("Position")); }};
    return m;
}

void Devices::add(std::shared_ptr<AlpacaFocuser> device)
{
    std::unique_lock<std::shared_mutex> lock(m_mutex);
    m_devices.push_back(std::move(device));
}

std::shared_ptr<AlpacaFocuser> Devices::at(std::size_t number) const
{
    std::shared_lock<std::shared_mutex> lock(m_mutex);
    return number < m_devices.size() ? m_devices[number] : nullptr;
}

std::vector<std::shared_ptr<AlpacaFocuser>> Devices::all() const
{
    std::shared_lock<std::shared_mutex> lock(m_mutex);
    return m_devices;
}

AlpacaServer::AlpacaServer(Devices &devices, ServerConfig &config, ServerInfo info,
                           std::function<bool(const std::string &)> addBluetooth)
    : m_devices(devices), m_config(config), m_info(std::move(info)), m_addBluetooth(std::move(addBluetooth)),
      m_members(memberTable(m_info.version))
{
}

void AlpacaServer::install(httplib::Server &http)
{
    http.set_payload_max_length(kMaxBody);
    const auto api = [this](const httplib::Request &q, httplib::Response &r) { deviceApi(q, r); };
    http.Get(R"(/api/.*)", api);
    http.Put(R"(/api/.*)", api);
    http.Post(R"(/api/.*)", api);
    http.Delete(R"(/api/.*)", api);
    http.Get("/management/apiversions",
             [this](const httplib::Request &q, httplib::Response &r) { management(q, r, "apiversions"); });
    http.Get("/management/v1/description",
             [this](const httplib::Request &q, httplib::Response &r) { management(q, r, "description"); });
    http.Get("/management/v1/configureddevices", [this](const httplib::Request &q, httplib::Response &r) {
        management(q, r, "configureddevices");
    });
    http.Get("/setup", [this](const httplib::Request &q, httplib::Response &r) { serverSetupPage(q, r); });
    http.Post("/setup", [this](const httplib::Request &q, httplib::Response &r) { saveServerSetup(q, r); });
    http.Get(R"(/setup/v1/focuser/(\d{1,9})/setup)",
             [this](const httplib::Request &q, httplib::Response &r) { focuserSetupPage(q, r); });
    http.Post(R"(/setup/v1/focuser/(\d{1,9})/setup)",
              [this](const httplib::Request &q, httplib::Response &r) { saveFocuserSetup(q, r); });
    // Whatever else went wrong (no such path, a request too large or not
    // HTTP) is answered in plain words.
    http.set_error_handler([](const httplib::Request &, httplib::Response &r) {
        if (!r.body.empty())
            return;
        if (r.status == 413)
            r.status = 400;
        r.set_content(r.status == 404   ? "No such page or API path\n"
                      : r.status == 400 ? "Bad request (malformed, or its body is larger than 64 KiB)\n"
                                        : "Request refused\n",
                      "text/plain; charset=utf-8");
    });
    http.set_exception_handler([](const httplib::Request &, httplib::Response &r, std::exception_ptr) {
        r.status = 500;
        r.set_content("Internal error\n", "text/plain; charset=utf-8");
    });
}

// /api/v1/focuser/{n}/{member}: lower-case names only, as the standard has it.
void AlpacaServer::deviceApi(const httplib::Request &request, httplib::Response &response)
{
    if (request.method != "GET" && request.method != "PUT")
        return badRequest(response, "The device API takes GET and PUT only");
    const std::vector<std::string> parts = split(request.path);
    if (parts.size() != 6 || parts[1] != "api" || parts[2] != "v1")
        return badRequest(response, "Not a path of the Alpaca device API v1: " + request.path.substr(0, 100));
    if (parts[3] != "focuser")
        return badRequest(response,
                          "This server serves focusers only (device type \"focuser\", lower case), not \"" +
                              parts[3].substr(0, 40) + "\"");
    const auto number = parseUint32(parts[4]);
    if (!number || (parts[4].size() > 1 && parts[4][0] == '0'))
        return badRequest(response, "Device number \"" + parts[4].substr(0, 20) + "\" is not a number");
    const auto device = m_devices.at(*number);
    if (!device)
        return badRequest(response, "There is no focuser number " + parts[4]);
    const auto found = m_members.find(parts[5]);
    if (found == m_members.end())
        return badRequest(response, "Focusers have no member \"" + parts[5].substr(0, 40) + "\"");
    const auto &handler = request.method == "GET" ? found->second.get : found->second.put;
    if (!handler)
        return badRequest(response,
                          parts[5] + " is " + (request.method == "GET" ? "set with PUT" : "read with GET"));
    try {
        const Parameters parameters(request);
        const Answer answer = handler(*device, parameters);
        response.set_content(envelope(answer, parameters.clientTransactionId(), m_transactions.next()),
                             "application/json");
    } catch (const BadRequest &bad) {
        badRequest(response, bad.what());
    }
}

void AlpacaServer::management(const httplib::Request &request, httplib::Response &response,
                              const std::string &what)
{
    const Parameters parameters(request);
    Answer answer;
    if (what == "apiversions") {
        answer = Answer::of(nlohmann::json::array({1}));
    } else if (what == "description") {
        answer = Answer::of({{"ServerName", "zor_alpaca"},
                             {"Manufacturer", "ZOR"},
                             {"ManufacturerVersion", m_info.version},
                             {"Location", hostName()}});
    } else {
        nlohmann::json list = nlohmann::json::array();
        const auto devices = m_devices.all();
        for (std::size_t n = 0; n < devices.size(); ++n)
            list.push_back({{"DeviceName", devices[n]->name()},
                            {"DeviceType", "Focuser"},
                            {"DeviceNumber", n},
                            {"UniqueID", devices[n]->uniqueId()}});
        answer = Answer::of(std::move(list));
    }
    response.set_content(envelope(answer, parameters.clientTransactionId(), m_transactions.next()),
                         "application/json");
}

} // namespace zoralpaca
