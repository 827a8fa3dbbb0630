#include <tavo/HostAddress.h>

#include "../SocketAddress.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <tuple>

namespace tavo
{

namespace
{

// Each family's address 0 and loopback, in network order.
constexpr std::array<uint8, 16> IPV6_ANY{};
constexpr std::array<uint8, 16> IPV6_LOOPBACK{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};

bool isIpv4Mapped(const std::array<uint8, 16>& bytes)
{
    static constexpr uint8 PREFIX[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    return std::memcmp(bytes.data(), PREFIX, sizeof(PREFIX)) == 0;
}

// The first address of `wanted` family in a resolver's answer.
const addrinfo* firstOf(const addrinfo* found, int wanted)
{
    for (; found != nullptr; found = found->ai_next)
    {
        if (found->ai_family == wanted)
        {
            return found;
        }
    }
    return nullptr;
}

} // namespace

HostAddress::HostAddress() : HostAddress(0u) {}

HostAddress::HostAddress(uint32_t address)
    : m_address(address), m_bytes{}, m_scopeId(0), m_ipv6(false), m_valid(true)
{
}

HostAddress::HostAddress(const std::string& text, EAddressFamily family) : HostAddress()
{
    resolve(text, family);
}

HostAddress::HostAddress(const char* text, EAddressFamily family) : HostAddress()
{
    resolve(text != nullptr ? std::string(text) : std::string(), family);
}

HostAddress HostAddress::fromIpv6(const std::array<uint8, 16>& bytes, uint32_t scopeId)
{
    HostAddress address;
    address.setIpv6(bytes, scopeId);
    return address;
}

void HostAddress::setIpv6(const std::array<uint8, 16>& bytes, uint32_t scopeId)
{
    if (isIpv4Mapped(bytes))
    {
        *this = HostAddress(static_cast<uint32_t>(bytes[12]) << 24 |
                            static_cast<uint32_t>(bytes[13]) << 16 |
                            static_cast<uint32_t>(bytes[14]) << 8 | bytes[15]);
        return;
    }
    m_address = 0;
    m_bytes = bytes;
    m_scopeId = scopeId;
    m_ipv6 = true;
}

bool HostAddress::parseNumeric(const std::string& text)
{
    // A bracketed address is how an IPv6 address is written before a port.
    const bool bracketed = text.size() > 2 && text.front() == '[' && text.back() == ']';
    const std::string bare = bracketed ? text.substr(1, text.size() - 2) : text;
    addrinfo hints{};
    hints.ai_family = bracketed ? AF_INET6 : AF_UNSPEC;
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* found = nullptr;
    if (::getaddrinfo(bare.c_str(), nullptr, &hints, &found) != 0 || found == nullptr)
    {
        // Bracketed text is an address or nothing, never a name.
        if (bracketed)
        {
            m_valid = false;
        }
        return bracketed;
    }
    uint16 ignored = 0;
    sockaddr_storage address{};
    std::memcpy(&address, found->ai_addr,
                std::min<std::size_t>(found->ai_addrlen, sizeof(address)));
    ::freeaddrinfo(found);
    fromSocketAddress(address, *this, ignored);
    return true;
}

void HostAddress::resolve(const std::string& text, EAddressFamily family)
{
    if (text.empty())
    {
        if (family == ADDRESS_FAMILY_IPV6)
        {
            setIpv6(IPV6_ANY, 0);
        }
    }
    else if (!parseNumeric(text))
    {
        addrinfo hints{};
        hints.ai_family = family == ADDRESS_FAMILY_IPV4   ? AF_INET
                          : family == ADDRESS_FAMILY_IPV6 ? AF_INET6
                                                          : AF_UNSPEC;
        // One answer per address instead of one per socket type.
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* found = nullptr;
        if (::getaddrinfo(text.c_str(), nullptr, &hints, &found) == 0)
        {
            const addrinfo* chosen = firstOf(found, AF_INET);
            chosen = chosen != nullptr ? chosen : firstOf(found, AF_INET6);
            sockaddr_storage address{};
            if (chosen != nullptr)
            {
                std::memcpy(&address, chosen->ai_addr,
                            std::min<std::size_t>(chosen->ai_addrlen, sizeof(address)));
                uint16 ignored = 0;
                fromSocketAddress(address, *this, ignored);
            }
            else
            {
                m_valid = false;
            }
            ::freeaddrinfo(found);
        }
        else
        {
            m_valid = false;
        }
    }
    const bool wrongFamily =
        (family == ADDRESS_FAMILY_IPV4 && m_ipv6) || (family == ADDRESS_FAMILY_IPV6 && !m_ipv6);
    if (!m_valid || wrongFamily)
    {
        *this = HostAddress();
        m_valid = false;
        m_unresolved = text;
    }
}

std::string HostAddress::getAddressString() const
{
    if (!m_valid)
    {
        return m_unresolved;
    }
    sockaddr_storage address{};
    const socklen_t length = toSocketAddress(*this, 0, m_ipv6 ? AF_INET6 : AF_INET, address);
    char text[NI_MAXHOST] = {};
    // Numeric only: no look-up, and a link-local address keeps its "%eth0".
    if (::getnameinfo(reinterpret_cast<const sockaddr*>(&address), length, text, sizeof(text),
                      nullptr, 0, NI_NUMERICHOST) != 0)
    {
        return std::string();
    }
    return text;
}

std::string HostAddress::getEndpointString(uint16 port) const
{
    const std::string address = getAddressString();
    return (m_ipv6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

bool HostAddress::operator==(const HostAddress& other) const
{
    return m_valid == other.m_valid && m_ipv6 == other.m_ipv6 && m_address == other.m_address &&
           m_bytes == other.m_bytes && m_scopeId == other.m_scopeId &&
           m_unresolved == other.m_unresolved;
}

bool HostAddress::operator<(const HostAddress& other) const
{
    if (m_valid != other.m_valid)
    {
        return m_valid;
    }
    return std::tie(m_ipv6, m_address, m_bytes, m_scopeId, m_unresolved) <
           std::tie(other.m_ipv6, other.m_address, other.m_bytes, other.m_scopeId,
                    other.m_unresolved);
}

HostAddress HostAddress::loopback()
{
    return HostAddress(static_cast<uint32_t>(INADDR_LOOPBACK));
}

HostAddress HostAddress::loopbackIpv6()
{
    return fromIpv6(IPV6_LOOPBACK);
}

} // namespace tavo
