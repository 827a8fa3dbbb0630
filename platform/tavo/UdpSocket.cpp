#include <tavo/UdpSocket.h>

#include "../SocketAddress.h"

#include <sys/socket.h>

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

UdpSocket::UdpSocket() : m_descriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}

UdpSocket::~UdpSocket() = default;

bool UdpSocket::bind(const HostAddress& address, uint16 port)
{
    SocketUse use(m_descriptor);
    if (!use.valid() || !address.isValid())
    {
        return false;
    }
    const sockaddr_in local = toSocketAddress(address, port);
    return ::bind(use.fd(), reinterpret_cast<const sockaddr*>(&local), sizeof(local)) == 0;
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
    SocketUse use(m_descriptor);
    if (!use.valid())
    {
        return -1;
    }
    const sockaddr_in target = toSocketAddress(address, port);
    ssize_t result;
    do
    {
        result = ::sendto(use.fd(), data, static_cast<std::size_t>(length), MSG_NOSIGNAL,
                          reinterpret_cast<const sockaddr*>(&target), sizeof(target));
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
        sockaddr_in source{};
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
    SocketUse use(m_descriptor);
    return use.valid() && ::setsockopt(use.fd(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes)) == 0;
}

} // namespace tavo
