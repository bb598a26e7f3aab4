// The HTTP side of zor_alpaca: the device API (/api/v1/focuser/N/...), the
// management API (/management/...) and the setup pages (/setup...), over
// the focusers it serves. Every handler answers from snapshots and posts
// commands; nothing is read from disk.
#pragma once

#include "alpaca_focuser.h"
#include "alpaca_protocol.h"
#include "server_config.h"

#include <httplib.h>

#include <functional>
#include <map>
#include <memory>
#include <shared_mutex>
#include <vector>

namespace zoralpaca {

// The focusers served, by device number. Bluetooth focusers named on the
// setup page are added at the end while the server runs.
class Devices {
  public:
    void add(std::shared_ptr<AlpacaFocuser> device);
    std::shared_ptr<AlpacaFocuser> at(std::size_t number) const; // null when out of range
    std::vector<std::shared_ptr<AlpacaFocuser>> all() const;

  private:
    mutable std::shared_mutex m_mutex;
    std::vector<std::shared_ptr<AlpacaFocuser>> m_devices;
};

struct ServerInfo {
    int port = 11111;
    std::string version; // the SDK's
};

class AlpacaServer {
  public:
    // `addBluetooth` serves another Bluetooth focuser by name (from the
    // setup page); it returns false when that name is already served.
    AlpacaServer(Devices &devices, ServerConfig &config, ServerInfo info,
                 std::function<bool(const std::string &)> addBluetooth);

    // Registers every route and the error and size limits on `http`.
    void install(httplib::Server &http);

  private:
    // A member's GET and PUT (either may be absent); they throw BadRequest.
    struct Member {
        std::function<Answer(AlpacaFocuser &, const Parameters &)> get, put;
    };
    static std::map<std::string, Member> memberTable(const std::string &version);

    void deviceApi(const httplib::Request &request, httplib::Response &response);
    void management(const httplib::Request &request, httplib::Response &response, const std::string &what);
    void serverSetupPage(const httplib::Request &request, httplib::Response &response);
    void saveServerSetup(const httplib::Request &request, httplib::Response &response);
    void focuserSetupPage(const httplib::Request &request, httplib::Response &response);
    void saveFocuserSetup(const httplib::Request &request, httplib::Response &response);

    Devices &m_devices;
    ServerConfig &m_config;
    const ServerInfo m_info;
    std::function<bool(const std::string &)> m_addBluetooth;
    const std::map<std::string, Member> m_members;
    Transactions m_transactions;
};

} // namespace zoralpaca
