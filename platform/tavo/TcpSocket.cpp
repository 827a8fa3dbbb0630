#include <tavo/TcpSocket.h>

#include "../SocketAddress.h"

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <thread>

namespace tavo
{

namespace
{

// How long accept backs off when the process is out of descriptors or memory,
// so that a listener survives the shortage instead of ending.
constexpr auto ACCEPT_RESOURCE_BACKOFF = std::chrono::milliseconds(10);

bool isTransientAcceptError(int error)
{
    switch (error)
    {
    case EINTR:
    case ECONNABORTED:
    case EPROTO:
    case ENETDOWN:
    case ENOPROTOOPT:
    case EHOSTDOWN:
    case ENONET:
    case EHOSTUNREACH:
    case EOPNOTSUPP:
    case ENETUNREACH:
        return true;
    default:
        return false;
    }
}

bool isResourceShortage(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

} // namespace

uint16 localPortOf(int fd)
{
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    HostAddress ignored;
    uint16 port = 0;
    if (fd < 0 || ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        !fromSocketAddress(address, ignored, port))
    {
        return 0;
    }
    return port;
}

TcpSocket::TcpSocket() = default;

TcpSocket::TcpSocket(int fd) : m_descriptor(fd)
{
    int family = 0;
    socklen_t length = sizeof(family);
    if (fd >= 0 && ::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &family, &length) == 0)
    {
        m_family = family;
    }
}

TcpSocket::~TcpSocket() = default;

bool TcpSocket::applySettings(int fd) const
{
    // Only what was asked for: a socket of another kind (tests hand in
    // socket pairs) has no TCP options to set.
    const int noDelay = m_noDelay ? 1 : 0;
    return !m_noDelay || ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof(noDelay)) == 0;
}

int TcpSocket::open(int family)
{
    std::lock_guard<std::mutex> lock(m_openMutex);
    if (m_family != 0 || m_descriptor.isClosed())
    {
        return m_family;
    }
    const int fd = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
    {
        return 0;
    }
    applySettings(fd);
    return adoptSocket(fd, family, m_dualStack, m_family, m_descriptor);
}

bool TcpSocket::setNoDelay(bool on)
{
    std::lock_guard<std::mutex> lock(m_openMutex);
    m_noDelay = on;
    SocketUse use(m_descriptor);
    const int value = on ? 1 : 0;
    if (!use.valid())
    {
        return !m_descriptor.isClosed();
    }
    return ::setsockopt(use.fd(), IPPROTO_TCP, TCP_NODELAY, &value, sizeof(value)) == 0;
}

bool TcpSocket::setSendTimeout(unsigned int timeoutMs)
{
    // Read by send for each call: no socket option, so it holds whether or
    // not the socket is made yet.
    m_sendTimeoutMs = timeoutMs;
    return true;
}

void TcpSocket::setDualStack(bool on)
{
    std::lock_guard<std::mutex> lock(m_openMutex);
    m_dualStack = on;
}

bool TcpSocket::connect(const HostAddress& address, uint16 port)
{
    if (!address.isValid())
    {
        errno = EINVAL;
        return false;
    }
    const int family = open(familyOf(address));
    SocketUse use(m_descriptor);
    sockaddr_storage target{};
    const socklen_t length = toSocketAddress(address, port, family, target);
    if (!readyFor(use, m_descriptor, length))
    {
        return false;
    }
    int result;
    do
    {
        result = ::connect(use.fd(), reinterpret_cast<const sockaddr*>(&target), length);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

bool TcpSocket::bind(const HostAddress& address, uint16 port)
{
    if (!address.isValid())
    {
        errno = EINVAL;
        return false;
    }
    const int family = open(familyOf(address));
    SocketUse use(m_descriptor);
    sockaddr_storage local{};
    const socklen_t length = toSocketAddress(address, port, family, local);
    if (!readyFor(use, m_descriptor, length))
    {
        return false;
    }
    const int reuse = 1;
    ::setsockopt(use.fd(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
    return ::bind(use.fd(), reinterpret_cast<const sockaddr*>(&local), length) == 0;
}

bool TcpSocket::listen(int backlog)
{
    SocketUse use(m_descriptor);
    return use.valid() && ::listen(use.fd(), backlog) == 0;
}

TcpSocket* TcpSocket::accept()
{
    for (;;)
    {
        int accepted;
        int error;
        {
            SocketUse use(m_descriptor);
            if (!use.valid())
            {
                return nullptr;
            }
            accepted = ::accept4(use.fd(), nullptr, nullptr, SOCK_CLOEXEC);
            error = errno;
        }
        if (accepted >= 0)
        {
            if (m_descriptor.isClosed())
            {
                ::close(accepted);
                return nullptr;
            }
            return new TcpSocket(accepted);
        }
        if (m_descriptor.isClosed())
        {
            return nullptr;
        }
        if (isResourceShortage(error))
        {
            std::this_thread::sleep_for(ACCEPT_RESOURCE_BACKOFF);
            continue;
        }
        if (!isTransientAcceptError(error))
        {
            return nullptr;
        }
    }
}

void TcpSocket::close()
{
    m_descriptor.close();
}

bool TcpSocket::isClosed() const
{
    return m_descriptor.isClosed();
}

int TcpSocket::send(const uint8* data, int length)
{
    return send(data, length, nullptr, 0);
}

int TcpSocket::send(const uint8* first, int firstLength, const uint8* second, int secondLength)
{
    if (firstLength < 0 || secondLength < 0)
    {
        return -1;
    }
    SocketUse use(m_descriptor);
    if (!use.valid())
    {
        return -1;
    }
    iovec parts[2];
    parts[0].iov_base = const_cast<uint8*>(first);
    parts[0].iov_len = static_cast<std::size_t>(firstLength);
    parts[1].iov_base = const_cast<uint8*>(second);
    parts[1].iov_len = static_cast<std::size_t>(secondLength);
    iovec* pending = parts;
    int pendingCount = secondLength > 0 ? 2 : 1;
    const int total = firstLength + secondLength;
    // The limit is for the whole call, not for each write: a peer that takes
    // a few bytes now and then must not stretch it.
    const unsigned int timeoutMs = m_sendTimeoutMs;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int sent = 0;
    while (sent < total)
    {
        msghdr message{};
        message.msg_iov = pending;
        message.msg_iovlen = static_cast<std::size_t>(pendingCount);
        const ssize_t result =
            ::sendmsg(use.fd(), &message, MSG_NOSIGNAL | (timeoutMs > 0 ? MSG_DONTWAIT : 0));
        if (result < 0)
        {
            if (errno == EINTR)
            {
                continue;
            }
            if (timeoutMs > 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            {
                const auto left = std::chrono::ceil<std::chrono::milliseconds>(
                    deadline - std::chrono::steady_clock::now());
                pollfd wait{use.fd(), POLLOUT, 0};
                if (left.count() > 0 && ::poll(&wait, 1, static_cast<int>(left.count())) >= 0)
                {
                    continue;
                }
                if (left.count() > 0 && errno == EINTR)
                {
                    continue;
                }
            }
            return -1;
        }
        sent += static_cast<int>(result);
        std::size_t advance = static_cast<std::size_t>(result);
        while (pendingCount > 0 && advance >= pending->iov_len)
        {
            advance -= pending->iov_len;
            ++pending;
            --pendingCount;
        }
        if (pendingCount > 0)
        {
            pending->iov_base = static_cast<uint8*>(pending->iov_base) + advance;
            pending->iov_len -= advance;
        }
    }
    return sent;
}

int TcpSocket::receive(uint8* buffer, int length)
{
    if (length <= 0)
    {
        return -1;
    }
    SocketUse use(m_descriptor);
    if (!use.valid())
    {
        return -1;
    }
    ssize_t result;
    do
    {
        result = ::recv(use.fd(), buffer, static_cast<std::size_t>(length), 0);
    } while (result < 0 && errno == EINTR);
    if (result <= 0 && m_descriptor.isClosed())
    {
        return -1;
    }
    return static_cast<int>(result);
}

int TcpSocket::receive(uint8* buffer, int length, unsigned int timeoutMs)
{
    {
        SocketUse use(m_descriptor);
        if (!use.valid())
        {
            return -1;
        }
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        for (;;)
        {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd wait{use.fd(), POLLIN, 0};
            const int ready =
                ::poll(&wait, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
            if (ready > 0)
            {
                break;
            }
            if (ready == 0)
            {
                return RECEIVE_TIMED_OUT;
            }
            if (errno != EINTR)
            {
                return -1;
            }
        }
    }
    // Data, an end of stream or a close is there: this does not block.
    return receive(buffer, length);
}

bool TcpSocket::getPeerName(HostAddress& address, uint16& port) const
{
    SocketUse use(m_descriptor);
    sockaddr_storage peer{};
    socklen_t length = sizeof(peer);
    if (!use.valid() || ::getpeername(use.fd(), reinterpret_cast<sockaddr*>(&peer), &length) != 0)
    {
        return false;
    }
    return fromSocketAddress(peer, address, port);
}

uint16 TcpSocket::getLocalPort() const
{
    SocketUse use(m_descriptor);
    return use.valid() ? localPortOf(use.fd()) : 0;
}

} // namespace tavo
