#pragma once

// Conversions between HostAddress/port and the system's socket addresses,
// and what TCP and UDP sockets share in setting one up.
// Internal to the platform layer.

#include <tavo/HostAddress.h>
#include <tavo/SocketDescriptor.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

namespace tavo
{

// The socket family an address needs.
inline int familyOf(const HostAddress& address)
{
    return address.isIpv6() ? AF_INET6 : AF_INET;
}

// `address`:`port` as a socket address for a socket of `family` (AF_INET or
// AF_INET6); an IPv4 address for an IPv6 socket takes its mapped form
// (::ffff:a.b.c.d). The length to pass with it, or 0 when a socket of that
// family cannot reach the address. Copied in and out, since the system's
// address structures may not alias one another.
inline socklen_t toSocketAddress(const HostAddress& address, uint16 port, int family,
                                 sockaddr_storage& result)
{
    result = sockaddr_storage{};
    if (family == AF_INET && !address.isIpv6())
    {
        sockaddr_in v4{};
        v4.sin_family = AF_INET;
        v4.sin_port = htons(port);
        v4.sin_addr.s_addr = htonl(address.getAddress());
        std::memcpy(&result, &v4, sizeof(v4));
        return sizeof(v4);
    }
    if (family != AF_INET6)
    {
        return 0;
    }
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(port);
    if (address.isIpv6())
    {
        std::memcpy(v6.sin6_addr.s6_addr, address.getIpv6Bytes().data(), 16);
        v6.sin6_scope_id = address.getScopeId();
    }
    else
    {
        const uint32_t v4 = address.getAddress();
        uint8* bytes = v6.sin6_addr.s6_addr;
        bytes[10] = 0xFF;
        bytes[11] = 0xFF;
        bytes[12] = static_cast<uint8>(v4 >> 24);
        bytes[13] = static_cast<uint8>(v4 >> 16);
        bytes[14] = static_cast<uint8>(v4 >> 8);
        bytes[15] = static_cast<uint8>(v4);
    }
    std::memcpy(&result, &v6, sizeof(v6));
    return sizeof(v6);
}

// The address and port of a socket address of either family; false, leaving
// both as they were, for another family.
inline bool fromSocketAddress(const sockaddr_storage& source, HostAddress& address, uint16& port)
{
    if (source.ss_family == AF_INET)
    {
        sockaddr_in v4{};
        std::memcpy(&v4, &source, sizeof(v4));
        address = HostAddress(static_cast<uint32_t>(ntohl(v4.sin_addr.s_addr)));
        port = ntohs(v4.sin_port);
        return true;
    }
    if (source.ss_family == AF_INET6)
    {
        sockaddr_in6 v6{};
        std::memcpy(&v6, &source, sizeof(v6));
        std::array<uint8, 16> bytes{};
        std::memcpy(bytes.data(), v6.sin6_addr.s6_addr, bytes.size());
        address = HostAddress::fromIpv6(bytes, v6.sin6_scope_id);
        port = ntohs(v6.sin6_port);
        return true;
    }
    return false;
}

// Whether a call on the socket held by `use` may go to an address made by
// toSocketAddress with `length`. When not, errno says why: EBADF once the
// socket is closed, EAFNOSUPPORT when its family cannot reach the address,
// or what making the socket failed with.
inline bool readyFor(const SocketUse& use, const SocketDescriptor& descriptor, socklen_t length)
{
    if (!use.valid())
    {
        if (descriptor.isClosed())
        {
            errno = EBADF;
        }
        return false;
    }
    if (length == 0)
    {
        errno = EAFNOSUPPORT;
        return false;
    }
    return true;
}

// Hands a socket just made to `descriptor`: IPv6 ones take IPv4 peers too
// when `dualStack`, and `familyOut` is set before the descriptor is, so that
// every call that gets the descriptor knows its family. A socket closed
// meanwhile closes the new descriptor. Returns `family`.
inline int adoptSocket(int fd, int family, bool dualStack, std::atomic<int>& familyOut,
                       SocketDescriptor& descriptor)
{
    if (family == AF_INET6)
    {
        const int v6Only = dualStack ? 0 : 1;
        ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &v6Only, sizeof(v6Only));
    }
    familyOut = family;
    if (!descriptor.open(fd))
    {
        ::close(fd);
    }
    return family;
}

// The local port a socket is bound to; 0 when unbound or unknown.
uint16 localPortOf(int fd);

} // namespace tavo
