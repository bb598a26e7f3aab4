#include "ble_transport/host_address.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>

#ifdef __APPLE__
#include <net/if_dl.h>
#else
#include <netpacket/packet.h>
#endif

std::vector<HostInterface> hostInterfaces()
{
    std::vector<HostInterface> found;
    struct ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        return found;
    for (const struct ifaddrs *entry = list; entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || !entry->ifa_name)
            continue;
        HostInterface host{entry->ifa_name, {}, (entry->ifa_flags & IFF_LOOPBACK) != 0};
#ifdef __APPLE__
        if (entry->ifa_addr->sa_family != AF_LINK)
            continue;
        const auto *link = reinterpret_cast<const struct sockaddr_dl *>(entry->ifa_addr);
        const auto *bytes = reinterpret_cast<const unsigned char *>(LLADDR(link));
        host.hardwareAddress.assign(bytes, bytes + link->sdl_alen);
#else
        if (entry->ifa_addr->sa_family != AF_PACKET)
            continue;
        const auto *link = reinterpret_cast<const struct sockaddr_ll *>(entry->ifa_addr);
        const size_t length = std::min<size_t>(link->sll_halen, sizeof link->sll_addr);
        host.hardwareAddress.assign(link->sll_addr, link->sll_addr + length);
#endif
        found.push_back(std::move(host));
    }
    freeifaddrs(list);
    return found;
}

std::optional<std::string> formatHardwareAddress(const std::vector<unsigned char> &bytes)
{
    if (bytes.size() != 6)
        return std::nullopt;
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1], bytes[2], bytes[3],
                  bytes[4], bytes[5]);
    return std::string(text);
}

std::optional<std::string> interfaceAddress(const std::vector<HostInterface> &interfaces,
                                            const std::string &name)
{
    for (const HostInterface &host : interfaces) {
        if (host.name == name)
            return formatHardwareAddress(host.hardwareAddress);
    }
    return std::nullopt;
}

std::optional<std::string> firstNonLoopbackAddress(const std::vector<HostInterface> &interfaces)
{
    for (const HostInterface &host : interfaces) {
        const bool allZero = std::all_of(host.hardwareAddress.begin(), host.hardwareAddress.end(),
                                         [](unsigned char byte) { return byte == 0; });
        if (host.loopback || allZero)
            continue;
        if (std::optional<std::string> text = formatHardwareAddress(host.hardwareAddress))
            return text;
    }
    return std::nullopt;
}
