#pragma once

#include <tavo/Export.h>
#include <tavo/Types.h>

#include <array>
#include <string>

namespace tavo
{

// Which family a host name may resolve to.
enum EAddressFamily
{
    // IPv4 when the name has an IPv4 address, IPv6 otherwise.
    ADDRESS_FAMILY_ANY,
    ADDRESS_FAMILY_IPV4,
    ADDRESS_FAMILY_IPV6,
};

// An IPv4 or IPv6 host address. The default address is the IPv4 address 0
// (0.0.0.0: "any" when binding). An address built from a name that cannot be
// resolved is invalid: sockets refuse to send to it, connect to it or bind
// to it, and it keeps the name for display.
//
// An IPv4-mapped IPv6 address (::ffff:a.b.c.d, how a dual-stack socket sees
// an IPv4 peer) is held as the IPv4 address it maps, so that one peer has
// one address whichever socket saw it.
class TAVO_EXPORT HostAddress
{
public:
    HostAddress();
    // IPv4, from a number in host byte order (0x7F000001 is 127.0.0.1).
    explicit HostAddress(uint32_t address);
    // From numeric text of either family ("10.1.2.3", "::1", "[::1]",
    // "fe80::1%eth0") or a host name such as localhost. A name with
    // addresses of both families gives the IPv4 one unless `family` says
    // otherwise: a server listens on 127.0.0.1 by default, and an EUDP
    // client cannot tell quickly that nothing answers on the other family.
    // The empty text is the address 0 of the family (0.0.0.0, or :: when
    // IPv6 is asked for). Text of the other family than `family` asks for
    // is invalid.
    explicit HostAddress(const std::string& text, EAddressFamily family = ADDRESS_FAMILY_ANY);
    explicit HostAddress(const char* text, EAddressFamily family = ADDRESS_FAMILY_ANY);
    // IPv6, from its 16 bytes in network order and the interface index of a
    // link-local address (0: none).
    static HostAddress fromIpv6(const std::array<uint8, 16>& bytes, uint32_t scopeId = 0);

    bool isValid() const { return m_valid; }
    bool isIpv6() const { return m_ipv6; }
    // The IPv4 address in host byte order; 0 for IPv6 and invalid addresses.
    uint32_t getAddress() const { return m_ipv6 ? 0 : m_address; }
    // The IPv6 address in network order; zero for IPv4 and invalid addresses.
    const std::array<uint8, 16>& getIpv6Bytes() const { return m_bytes; }
    uint32_t getScopeId() const { return m_scopeId; }
    // Plain text ("127.0.0.1", "::1", "fe80::1%eth0"); for an invalid
    // address, the text it was built from.
    std::string getAddressString() const;
    // With a port after it: "127.0.0.1:7420", "[::1]:7420".
    std::string getEndpointString(uint16 port) const;

    bool operator==(const HostAddress& other) const;
    bool operator!=(const HostAddress& other) const { return !(*this == other); }
    // A total order, for maps keyed by address: IPv4 before IPv6, invalid last.
    bool operator<(const HostAddress& other) const;

    static HostAddress loopback();
    static HostAddress loopbackIpv6();

private:
    void resolve(const std::string& text, EAddressFamily family);
    bool parseNumeric(const std::string& text);
    void setIpv6(const std::array<uint8, 16>& bytes, uint32_t scopeId);

    uint32_t m_address;
    std::array<uint8, 16> m_bytes;
    uint32_t m_scopeId;
    bool m_ipv6;
    bool m_valid;
    std::string m_unresolved;
};

} // namespace tavo
