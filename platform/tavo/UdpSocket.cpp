#include <tavo/UdpSocket.h>

#include "../SocketAddress.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace tavo
{

namespace
{

// Errors after which the socket is still usable: a signal, an ICMP report of
// an earlier datagram, or a short lack of kernel memory.
bool isTransientReceiveError(int error)
{
    return error == EINTR || error == ECONNREFUSED || error == ENOMEM || error == ENOBUFS;
}

} // namespace

UdpSocket::UdpSocket() = default;

UdpSocket::~UdpSocket() = default;

int UdpSocket::open(int family)
{
    std::lock_guard<std::mutex> lock(m_openMutex);
    if (m_family != 0 || m_descriptor.isClosed())
    {
        return m_family;
    }
    const int fd = ::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
    {
        return 0;
    }
    if (m_receiveBufferSize > 0)
    {
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &m_receiveBufferSize, sizeof(m_receiveBufferSize));
    }
    return adoptSocket(fd, family, m_dualStack, m_family, m_descriptor);
}

bool UdpSocket::bind(const HostAddress& address, uint16 port)
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
    return ::bind(use.fd(), reinterpret_cast<const sockaddr*>(&local), length) == 0;
}

void UdpSocket::setDualStack(bool on)
{
    std::lock_guard<std::mutex> lock(m_openMutex);
    m_dualStack = on;
}

void UdpSocket::close()
{
    m_descriptor.close();
}

bool UdpSocket::isClosed() const
{
    return m_descriptor.isClosed();
}

int UdpSocket::sendTo(const uint8* data, int length, const HostAddress& address, uint16 port)
{
    if (length < 0 || !address.isValid())
    {
        return -1;
    }
    int family = m_family;
    if (family == 0)
    {
        family = open(familyOf(address));
    }
    SocketUse use(m_descriptor);
    sockaddr_storage target{};
    const socklen_t targetLength = toSocketAddress(address, port, family, target);
    if (!readyFor(use, m_descriptor, targetLength))
    {
        return -1;
    }
    ssize_t result;
    do
    {
        result = ::sendto(use.fd(), data, static_cast<std::size_t>(length), MSG_NOSIGNAL,
                          reinterpret_cast<const sockaddr*>(&target), targetLength);
    } while (result < 0 && errno == EINTR);
    return static_cast<int>(result);
}

int UdpSocket::receiveFrom(uint8* buffer, int length, HostAddress& address, uint16& port)
{
    return receive(buffer, length, address, port, 0);
}

int UdpSocket::tryReceiveFrom(uint8* buffer, int length, HostAddress& address, uint16& port)
{
    return receive(buffer, length, address, port, MSG_DONTWAIT);
}

int UdpSocket::receiveFrom(uint8* buffer, int length, HostAddress& address, uint16& port,
                           std::chrono::microseconds wait)
{
    SocketUse use(m_descriptor);
    if (!use.valid())
    {
        return -1;
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(wait);
    const timespec limit{
        static_cast<time_t>(std::max<std::chrono::seconds::rep>(seconds.count(), 0)),
        static_cast<long>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(wait - seconds).count())};
    pollfd readable{use.fd(), POLLIN, 0};
    // close() shuts the socket down, which ends the wait as readable.
    const int ready =
        wait > std::chrono::microseconds::zero() ? ::ppoll(&readable, 1, &limit, nullptr) : 1;
    if (m_descriptor.isClosed())
    {
        return -1;
    }
    if (ready < 0 && errno != EINTR)
    {
        return -1;
    }
    return ready > 0 ? receive(buffer, length, address, port, MSG_DONTWAIT) : NOTHING_PENDING;
}

int UdpSocket::receive(uint8* buffer, int length, HostAddress& address, uint16& port, int flags)
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
    for (;;)
    {
        sockaddr_storage source{};
        socklen_t sourceLength = sizeof(source);
        const ssize_t result = ::recvfrom(use.fd(), buffer, static_cast<std::size_t>(length), flags,
                                          reinterpret_cast<sockaddr*>(&source), &sourceLength);
        if (m_descriptor.isClosed())
        {
            return -1;
        }
        if (result > 0)
        {
            fromSocketAddress(source, address, port);
            return static_cast<int>(result);
        }
        if (result < 0 && (flags & MSG_DONTWAIT) != 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        {
            return NOTHING_PENDING;
        }
        if (result < 0 && !isTransientReceiveError(errno))
        {
            return -1;
        }
    }
}

uint16 UdpSocket::getLocalPort() const
{
    SocketUse use(m_descriptor);
    return use.valid() ? localPortOf(use.fd()) : 0;
}

bool UdpSocket::setReceiveBufferSize(int bytes)
{
    std::lock_guard<std::mutex> lock(m_openMutex);
    m_receiveBufferSize = bytes;
    SocketUse use(m_descriptor);
    if (!use.valid())
    {
        return !m_descriptor.isClosed();
    }
    return ::setsockopt(use.fd(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes)) == 0;
}

} // namespace tavo
