// The host's hardware addresses, from which a platform takes the address it
// sends at pairing.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct HostInterface {
    std::string name;
    std::vector<unsigned char> hardwareAddress;
    bool loopback = false;
};

// The link-layer entries of the host's interfaces (getifaddrs).
std::vector<HostInterface> hostInterfaces();
// Six bytes as "%02x:%02x:%02x:%02x:%02x:%02x"; nothing for another length.
std::optional<std::string> formatHardwareAddress(const std::vector<unsigned char> &bytes);
// The address of the first interface with this name.
std::optional<std::string> interfaceAddress(const std::vector<HostInterface> &interfaces,
                                            const std::string &name);
// The address of the first interface that is not the loopback.
std::optional<std::string> firstNonLoopbackAddress(const std::vector<HostInterface> &interfaces);
