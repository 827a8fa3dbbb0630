#include "RelayEndpoint.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <tuple>

namespace
{

constexpr uint8_t MAPPED_PREFIX[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};

} // namespace

RelayEndpoint::RelayEndpoint(uint32_t ipv4, uint16_t port) : port(port)
{
    std::memcpy(address.data(), MAPPED_PREFIX, sizeof(MAPPED_PREFIX));
    address[12] = static_cast<uint8_t>(ipv4 >> 24);
    address[13] = static_cast<uint8_t>(ipv4 >> 16);
    address[14] = static_cast<uint8_t>(ipv4 >> 8);
    address[15] = static_cast<uint8_t>(ipv4);
}

std::optional<RelayEndpoint> RelayEndpoint::parse(const std::string& text, uint16_t port)
{
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(text.c_str(), nullptr, &hints, &found) != 0 || found == nullptr)
    {
        return std::nullopt;
    }
    sockaddr_storage storage{};
    std::memcpy(&storage, found->ai_addr,
                std::min<std::size_t>(found->ai_addrlen, sizeof(storage)));
    ::freeaddrinfo(found);
    std::optional<RelayEndpoint> endpoint = from(storage);
    if (endpoint)
    {
        endpoint->port = port;
    }
    return endpoint;
}

std::optional<RelayEndpoint> RelayEndpoint::from(const sockaddr_storage& storage)
{
    if (storage.ss_family == AF_INET)
    {
        sockaddr_in v4{};
        std::memcpy(&v4, &storage, sizeof(v4));
        return RelayEndpoint(ntohl(v4.sin_addr.s_addr), ntohs(v4.sin_port));
    }
    if (storage.ss_family != AF_INET6)
    {
        return std::nullopt;
    }
    sockaddr_in6 v6{};
    std::memcpy(&v6, &storage, sizeof(v6));
    RelayEndpoint endpoint;
    std::memcpy(endpoint.address.data(), v6.sin6_addr.s6_addr, endpoint.address.size());
    endpoint.scopeId = endpoint.isIpv6() ? v6.sin6_scope_id : 0;
    endpoint.port = ntohs(v6.sin6_port);
    return endpoint;
}

RelayEndpoint RelayEndpoint::any(int family)
{
    return family == AF_INET6 ? RelayEndpoint() : RelayEndpoint(0u, 0);
}

bool RelayEndpoint::isIpv6() const
{
    return std::memcmp(address.data(), MAPPED_PREFIX, sizeof(MAPPED_PREFIX)) != 0;
}

socklen_t RelayEndpoint::toSocketAddress(int socketFamily, sockaddr_storage& result) const
{
    result = sockaddr_storage{};
    // Copied in, since the system's address structures may not alias.
    if (socketFamily == AF_INET && !isIpv6())
    {
        sockaddr_in v4{};
        v4.sin_family = AF_INET;
        v4.sin_port = htons(port);
        std::memcpy(&v4.sin_addr, address.data() + 12, 4);
        std::memcpy(&result, &v4, sizeof(v4));
        return sizeof(v4);
    }
    if (socketFamily != AF_INET6)
    {
        return 0;
    }
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(port);
    v6.sin6_scope_id = scopeId;
    std::memcpy(v6.sin6_addr.s6_addr, address.data(), address.size());
    std::memcpy(&result, &v6, sizeof(v6));
    return sizeof(v6);
}

std::string RelayEndpoint::text() const
{
    sockaddr_storage storage{};
    const socklen_t length = toSocketAddress(family(), storage);
    char host[NI_MAXHOST] = {};
    if (::getnameinfo(reinterpret_cast<const sockaddr*>(&storage), length, host, sizeof(host),
                      nullptr, 0, NI_NUMERICHOST) != 0)
    {
        host[0] = '\0';
    }
    const std::string name = isIpv6() ? "[" + std::string(host) + "]" : std::string(host);
    return name + ":" + std::to_string(port);
}

bool RelayEndpoint::operator<(const RelayEndpoint& other) const
{
    return std::tie(address, scopeId, port) < std::tie(other.address, other.scopeId, other.port);
}

bool RelayEndpoint::operator==(const RelayEndpoint& other) const
{
    return std::tie(address, scopeId, port) == std::tie(other.address, other.scopeId, other.port);
}

int makeRelaySocket(int type, const RelayEndpoint& local, bool dualStack)
{
    const int family = local.family();
    const int fd = ::socket(family, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
    {
        return -1;
    }
    const int on = 1;
    const int v6Only = dualStack ? 0 : 1;
    sockaddr_storage address{};
    const socklen_t length = local.toSocketAddress(family, address);
    if ((family == AF_INET6 &&
         ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &v6Only, sizeof(v6Only)) != 0) ||
        (type == SOCK_STREAM && ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0) ||
        ::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0)
    {
        const int error = errno;
        ::close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

uint16_t RelayEndpoint::boundPort(int fd)
{
    sockaddr_storage bound{};
    socklen_t length = sizeof(bound);
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length) != 0)
    {
        return 0;
    }
    const std::optional<RelayEndpoint> endpoint = RelayEndpoint::from(bound);
    return endpoint ? endpoint->port : 0;
}
