#pragma once

// Conversions between HostAddress/port and the system's socket addresses.
// Internal to the platform layer.

#include <tavo/HostAddress.h>

#include <netinet/in.h>

namespace tavo
{

inline sockaddr_in toSocketAddress(const HostAddress& address, uint16 port)
{
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr.s_addr = htonl(address.getAddress());
    return result;
}

inline void fromSocketAddress(const sockaddr_in& source, HostAddress& address, uint16& port)
{
    address = HostAddress(static_cast<uint32_t>(ntohl(source.sin_addr.s_addr)));
    port = ntohs(source.sin_port);
}

// The local port a socket is bound to; 0 when unbound or unknown.
uint16 localPortOf(int fd);

} // namespace tavo
