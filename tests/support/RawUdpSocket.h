#pragma once

// Plain sockets on loopback: a UDP socket for tests that play a peer or a
// stranger byte by byte, and the address helpers it uses, which the
// benchmark's plain-socket baselines share.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

// 127.0.0.1:port.
inline sockaddr_in loopbackAddress(std::uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

// The local port a socket is bound to; 0 when it is not.
inline std::uint16_t boundPort(int fd)
{
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

// Bound to a free port of 127.0.0.1 when made; isBound() tells whether that
// worked (errno then says why not).
class RawUdpSocket
{
public:
    RawUdpSocket() : m_fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        const sockaddr_in local = loopbackAddress(0);
        if (m_fd >= 0 &&
            ::bind(m_fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) == 0)
        {
            m_port = boundPort(m_fd);
        }
    }
    ~RawUdpSocket()
    {
        if (m_fd >= 0)
        {
            ::close(m_fd);
        }
    }
    RawUdpSocket(const RawUdpSocket&) = delete;
    RawUdpSocket& operator=(const RawUdpSocket&) = delete;

    bool isBound() const { return m_port != 0; }
    std::uint16_t port() const { return m_port; }

    // One datagram to 127.0.0.1:port; what sendto returns.
    ssize_t send(std::uint16_t port, const void* data, std::size_t size)
    {
        const sockaddr_in target = loopbackAddress(port);
        return ::sendto(m_fd, data, size, 0, reinterpret_cast<const sockaddr*>(&target),
                        sizeof(target));
    }

    // Any container of bytes: a vector or a string.
    template <class Container>
    ssize_t send(std::uint16_t port, const Container& bytes)
    {
        return send(port, bytes.data(), bytes.size());
    }

    struct Datagram
    {
        std::vector<std::uint8_t> bytes;
        std::uint16_t from = 0;
    };

    // The next datagram within `waitMs` (0: only one already waiting); an
    // empty one when none comes, or when a signal cuts the wait short.
    Datagram receive(int waitMs = 10000)
    {
        pollfd wait{m_fd, POLLIN, 0};
        Datagram datagram{std::vector<std::uint8_t>(2048)};
        sockaddr_in source{};
        socklen_t length = sizeof(source);
        const ssize_t n = ::poll(&wait, 1, waitMs) == 1
                              ? ::recvfrom(m_fd, datagram.bytes.data(), datagram.bytes.size(), 0,
                                           reinterpret_cast<sockaddr*>(&source), &length)
                              : 0;
        datagram.bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
        datagram.from = ntohs(source.sin_port);
        return datagram;
    }

    // The next datagram whose bytes `wanted` accepts, the others dropped.
    template <class Wanted>
    Datagram receiveFirst(Wanted wanted, int waitMs = 10000)
    {
        Datagram datagram = receive(waitMs);
        while (!datagram.bytes.empty() && !wanted(datagram.bytes))
        {
            datagram = receive(waitMs);
        }
        return datagram;
    }

    // Forgets what has come in already.
    void drain()
    {
        receiveFirst([](const std::vector<std::uint8_t>&) { return false; }, 0);
    }

protected:
    const int m_fd;

private:
    std::uint16_t m_port = 0;
};
