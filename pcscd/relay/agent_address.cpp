#include "relay/agent_address.h"

#include <winsock2.h>

#include <charconv>
#include <cstdint>
#include <ws2tcpip.h>

namespace tez::relay {
namespace {

bool isPort(const std::string& text) {
    std::uint16_t port = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, port);
    return error == std::errc() && rest == end && port != 0;
}

}  // namespace

std::string AgentAddress::text() const {
    const bool isIpv6 = host.find(':') != std::string::npos;
    return (isIpv6 ? "[" + host + "]" : host) + ":" + port;
}

std::optional<AgentAddress> parseAgentAddress(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        return std::nullopt;
    }
    AgentAddress address{text.substr(0, colon), text.substr(colon + 1)};
    if (address.host.size() > 2 && address.host.front() == '[' && address.host.back() == ']') {
        address.host = address.host.substr(1, address.host.size() - 2);
    } else if (address.host.find_first_of(":[]") != std::string::npos) {
        return std::nullopt;
    }
    if (address.host.empty() || !isPort(address.port)) {
        return std::nullopt;
    }
    return address;
}

bool isLoopback(const std::string& host) {
    if (host == "localhost") {
        return true;
    }
    in_addr ipv4 = {};
    if (inet_pton(AF_INET, host.c_str(), &ipv4) == 1) {
        constexpr unsigned kLoopbackNetwork = 127;
        return ipv4.S_un.S_un_b.s_b1 == kLoopbackNetwork;
    }
    in6_addr ipv6 = {};
    return inet_pton(AF_INET6, host.c_str(), &ipv6) == 1 && IN6_IS_ADDR_LOOPBACK(&ipv6) != 0;
}

}  // namespace tez::relay
