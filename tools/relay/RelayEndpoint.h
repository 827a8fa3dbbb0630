#pragma once

#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>

// An IPv4 or IPv6 address and a port in host byte order, for the relays,
// which use plain sockets only. An IPv4 address is kept in its IPv4-mapped
// IPv6 form (::ffff:a.b.c.d), so that an IPv4 client has one endpoint
// whether a dual-stack socket or an IPv4 one saw it.
struct RelayEndpoint
{
    // ::, port 0.
    RelayEndpoint() = default;
    // IPv4, from a number in host byte order (0x7F000001 is 127.0.0.1).
    RelayEndpoint(uint32_t ipv4, uint16_t port);
    // From numeric text of either family ("127.0.0.1", "::1",
    // "fe80::1%eth0"); none when it is neither.
    static std::optional<RelayEndpoint> parse(const std::string& address, uint16_t port);
    // From a socket address of either family; none for another family.
    static std::optional<RelayEndpoint> from(const sockaddr_storage& address);
    // The address 0 of a family (0.0.0.0 or ::): any local address.
    static RelayEndpoint any(int family);
    // The port a socket is bound to; 0 when unknown.
    static uint16_t boundPort(int fd);

    bool isIpv6() const;
    // AF_INET or AF_INET6: the family of a socket made for this endpoint.
    int family() const { return isIpv6() ? AF_INET6 : AF_INET; }
    // "127.0.0.1:7420", "[::1]:7420".
    std::string text() const;
    // As a socket address for a socket of `family`: its length, or 0 when a
    // socket of that family cannot reach this endpoint.
    socklen_t toSocketAddress(int family, sockaddr_storage& result) const;

    bool operator<(const RelayEndpoint& other) const;
    bool operator==(const RelayEndpoint& other) const;

    std::array<uint8_t, 16> address{};
    uint32_t scopeId = 0; // the interface of a link-local IPv6 address
    uint16_t port = 0;
};

// A non-blocking socket of `type` for `local`'s family, bound to it; an IPv6
// one takes IPv4 peers too with `dualStack`. -1, with errno set, on failure.
int makeRelaySocket(int type, const RelayEndpoint& local, bool dualStack = true);
