#include "discovery.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zoralpaca {
namespace {

constexpr char kQuery[] = "alpacadiscovery1";
constexpr char kGroup[] = "ff12::a1:9aca";

int openSocket(int family, const sockaddr *address, socklen_t length, std::string &problem)
{
    const int fd = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        problem = std::strerror(errno);
        return -1;
    }
    const int yes = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (family == AF_INET6)
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &yes, sizeof yes);
    if (bind(fd, address, length) != 0) {
        problem = std::strerror(errno);
        close(fd);
        return -1;
    }
    return fd;
}

// Joins the discovery group on every interface that has multicast.
void joinGroup(int fd)
{
    ipv6_mreq request{};
    inet_pton(AF_INET6, kGroup, &request.ipv6mr_multiaddr);
    if (struct if_nameindex *interfaces = if_nameindex()) {
        for (struct if_nameindex *i = interfaces; i->if_index != 0; ++i) {
            request.ipv6mr_interface = i->if_index;
            setsockopt(fd, IPPROTO_IPV6, IPV6_JOIN_GROUP, &request, sizeof request);
        }
        if_freenameindex(interfaces);
    }
}

} // namespace

bool Discovery::start(const std::string &bindAddress, int discoveryPort, int alpacaPort, std::string &problem)
{
    m_reply = "{\"AlpacaPort\":" + std::to_string(alpacaPort) + "}";
    const bool everywhere = bindAddress.empty() || bindAddress == "0.0.0.0" || bindAddress == "::";
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(static_cast<uint16_t>(discoveryPort));
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(static_cast<uint16_t>(discoveryPort));
    const bool isV4 = everywhere || inet_pton(AF_INET, bindAddress.c_str(), &v4.sin_addr) == 1;
    const bool isV6 = everywhere || inet_pton(AF_INET6, bindAddress.c_str(), &v6.sin6_addr) == 1;
    if (everywhere) {
        v4.sin_addr.s_addr = htonl(INADDR_ANY);
        v6.sin6_addr = in6addr_any;
    }
    if (isV4) {
        const int fd = openSocket(AF_INET, reinterpret_cast<sockaddr *>(&v4), sizeof v4, problem);
        if (fd >= 0)
            m_sockets.push_back(fd);
    }
    if (isV6) {
        const int fd = openSocket(AF_INET6, reinterpret_cast<sockaddr *>(&v6), sizeof v6, problem);
        if (fd >= 0) {
            joinGroup(fd);
            m_sockets.push_back(fd);
        }
    }
    if (!isV4 && !isV6)
        problem = "\"" + bindAddress + "\" is not an IPv4 or IPv6 address";
    if (m_sockets.empty() || pipe2(m_wake, O_CLOEXEC) != 0) {
        stop();
        return false;
    }
    m_thread = std::thread([this] { run(); });
    return true;
}

void Discovery::run()
{
    std::vector<pollfd> watched{{m_wake[0], POLLIN, 0}};
    for (int fd : m_sockets)
        watched.push_back({fd, POLLIN, 0});
    for (;;) {
        if (poll(watched.data(), watched.size(), -1) < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        if (watched[0].revents)
            return;
        for (std::size_t i = 1; i < watched.size(); ++i) {
            if (!(watched[i].revents & POLLIN))
                continue;
            char query[64];
            sockaddr_storage sender{};
            socklen_t length = sizeof sender;
            const ssize_t got = recvfrom(watched[i].fd, query, sizeof query, 0,
                                         reinterpret_cast<sockaddr *>(&sender), &length);
            if (got >= static_cast<ssize_t>(sizeof kQuery - 1) &&
                std::memcmp(query, kQuery, sizeof kQuery - 1) == 0)
                sendto(watched[i].fd, m_reply.data(), m_reply.size(), 0,
                       reinterpret_cast<sockaddr *>(&sender), length);
        }
    }
}

void Discovery::stop()
{
    if (m_thread.joinable()) {
        const char byte = 0;
        while (write(m_wake[1], &byte, 1) < 0 && errno == EINTR) {
        }
        m_thread.join();
    }
    for (int fd : m_sockets)
        close(fd);
    m_sockets.clear();
    for (int &fd : m_wake)
        if (fd >= 0) {
            close(fd);
            fd = -1;
        }
}

} // namespace zoralpaca
