// Alpaca discovery: a client sends "alpacadiscovery1" to the discovery port
// (an IPv4 broadcast, or the IPv6 link-local multicast group ff12::a1:9aca)
// and every server answers the sender with {"AlpacaPort": N}.
#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace zoralpaca {

class Discovery {
  public:
    // Listens on `discoveryPort` of `bindAddress` ("" or "0.0.0.0" for every
    // IPv4 and IPv6 interface; an IPv4 or IPv6 address for that one only).
    // Returns false with the reason in `problem` when no socket could be opened.
    bool start(const std::string &bindAddress, int discoveryPort, int alpacaPort, std::string &problem);
    void stop();
    ~Discovery() { stop(); }

  private:
    void run();

    std::vector<int> m_sockets;
    int m_wake[2] = {-1, -1};
    std::string m_reply;
    std::thread m_thread;
};

} // namespace zoralpaca
