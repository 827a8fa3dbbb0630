#pragma once

#include <tavo/Export.h>
#include <tavo/HostAddress.h>
#include <tavo/SocketDescriptor.h>
#include <tavo/Types.h>

namespace tavo
{

// A UDP socket. The first sendTo on an unbound socket binds it to a free
// local port. sendTo may be called from several threads while another thread
// waits in receiveFrom; close() from any thread wakes that receiver.
class TAVO_EXPORT UdpSocket
{
public:
    UdpSocket();
    virtual ~UdpSocket();
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    bool bind(const HostAddress& address, uint16 port);
    void close();
    bool isClosed() const;

    // Sends one datagram: the count sent, or negative on failure.
    int sendTo(const uint8* data, int length, const HostAddress& address, uint16 port);
    // Blocks until a datagram arrives and fills in its source. Returns its
    // size (a longer datagram is cut to `length`), or a value below 1 once
    // the socket is closed or has failed. Empty datagrams carry nothing and
    // are skipped, so 0 never stands for one.
    int receiveFrom(uint8* buffer, int length, HostAddress& address, uint16& port);
    // The same without waiting: NOTHING_PENDING when no datagram is there.
    int tryReceiveFrom(uint8* buffer, int length, HostAddress& address, uint16& port);
    static constexpr int NOTHING_PENDING = -2;

    // The local port; 0 while the socket is unbound.
    uint16 getLocalPort() const;

    // Asks the kernel for a receive buffer of `bytes`; the system may cap it.
    bool setReceiveBufferSize(int bytes);

private:
    int receive(uint8* buffer, int length, HostAddress& address, uint16& port, int flags);
    mutable SocketDescriptor m_descriptor;
};

} // namespace tavo
