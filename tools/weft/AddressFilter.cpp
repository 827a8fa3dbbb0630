#include "AddressFilter.h"

#include <arpa/inet.h>

#include <algorithm>
#include <sstream>

namespace weftcli
{

bool AddressFilter::toBytes(const std::string& text, bool& v6, std::array<std::uint8_t, 16>& bytes)
{
    bytes.fill(0);
    v6 = text.find(':') != std::string::npos;
    return ::inet_pton(v6 ? AF_INET6 : AF_INET, text.c_str(), bytes.data()) == 1;
}

bool AddressFilter::parse(const std::string& list, std::string& error)
{
    std::stringstream entries(list);
    std::string entry;
    while (std::getline(entries, entry, ','))
    {
        const std::size_t slash = entry.find('/');
        Network network{};
        if (!toBytes(entry.substr(0, slash), network.v6, network.bytes))
        {
            error = "'" + entry + "' is not an address or network (such as 10.0.0.0/8 or fd00::/8)";
            return false;
        }
        const int bits = network.v6 ? 128 : 32;
        network.prefix = bits;
        if (slash != std::string::npos)
        {
            const std::string prefix = entry.substr(slash + 1);
            if (prefix.empty() || prefix.size() > 3 ||
                prefix.find_first_not_of("0123456789") != std::string::npos ||
                std::stoi(prefix) > bits)
            {
                error = "'" + entry + "' has no prefix length from 0 to " + std::to_string(bits);
                return false;
            }
            network.prefix = std::stoi(prefix);
        }
        m_networks.push_back(network);
    }
    return true;
}

bool AddressFilter::allows(const std::string& address) const
{
    if (m_networks.empty())
    {
        return true;
    }
    bool v6 = false;
    std::array<std::uint8_t, 16> bytes{};
    if (!toBytes(address, v6, bytes))
    {
        return false;
    }
    // An IPv4 client of a dual-stack listener shows as ::ffff:a.b.c.d.
    static const std::uint8_t mapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    if (v6 && std::equal(mapped, mapped + 12, bytes.begin()))
    {
        v6 = false;
        std::copy(bytes.begin() + 12, bytes.end(), bytes.begin());
        std::fill(bytes.begin() + 4, bytes.end(), 0);
    }
    for (const Network& network : m_networks)
    {
        if (network.v6 != v6)
        {
            continue;
        }
        const int whole = network.prefix / 8;
        const int rest = network.prefix % 8;
        bool inside = true;
        for (int i = 0; i < whole && inside; ++i)
        {
            inside = bytes[i] == network.bytes[i];
        }
        if (inside && rest > 0)
        {
            const std::uint8_t mask = static_cast<std::uint8_t>(0xFF << (8 - rest));
            inside = (bytes[whole] & mask) == (network.bytes[whole] & mask);
        }
        if (inside)
        {
            return true;
        }
    }
    return false;
}

} // namespace weftcli
