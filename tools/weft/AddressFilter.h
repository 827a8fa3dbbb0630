#pragma once

// Which peers a server takes: networks in CIDR form, IPv4 or IPv6
// ("192.168.1.0/24", "10.0.0.5", "::1/128", "fd00::/8").

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace weftcli
{

class AddressFilter
{
public:
    // Parses a comma-separated list; false, with `error` set, when an entry
    // is not an address or network.
    bool parse(const std::string& list, std::string& error);
    // True when no network was given, or `address` (text form) lies in one.
    bool allows(const std::string& address) const;
    bool empty() const { return m_networks.empty(); }

private:
    struct Network
    {
        bool v6;
        std::array<std::uint8_t, 16> bytes;
        int prefix;
    };
    // An address of either family as 16 bytes (IPv4 in the first four).
    static bool toBytes(const std::string& text, bool& v6, std::array<std::uint8_t, 16>& bytes);

    std::vector<Network> m_networks;
};

} // namespace weftcli
