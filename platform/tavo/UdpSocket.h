#pragma once

#include <tavo/Export.h>
#include <tavo/HostAddress.h>
#include <tavo/SocketDescriptor.h>
#include <tavo/Types.h>

#include <atomic>
#include <chrono>
#include <mutex>

namespace tavo
{

// A UDP socket of either family. It takes the family of the address it is
// first bound to or sends to: the system socket is made then, and until then
// the socket has no port and nothing to receive. The first sendTo on an
// unbound socket binds it to a free local port. sendTo may be called from
// several threads while another thread waits in receiveFrom; close() from
// any thread wakes that receiver.
class TAVO_EXPORT UdpSocket
{
public:
    UdpSocket();
    virtual ~UdpSocket();
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    // Binds to a local address and port (port 0: any free one). On failure
    // errno tells why. An IPv6 socket bound to :: takes IPv4 peers too
    // (they show as plain IPv4 addresses) unless setDualStack(false) came
    // first.
    bool bind(const HostAddress& address, uint16 port);
    // Whether an IPv6 socket takes IPv4 peers too (the default); only before
    // the socket is bound or sends.
    void setDualStack(bool on);
    void close();
    bool isClosed() const;

    // Sends one datagram: the count sent, or negative on failure. An IPv6
    // address cannot be reached from an IPv4 socket.
    int sendTo(const uint8* data, int length, const HostAddress& address, uint16 port);
    // Blocks until a datagram arrives and fills in its source. Returns its
    // size (a longer datagram is cut to `length`), or a value below 1 once
    // the socket is closed or has failed, or at once while it has no port. Empty datagrams carry
    // nothing and are skipped, so 0 never stands for one.
    int receiveFrom(uint8* buffer, int length, HostAddress& address, uint16& port);
    // The same without waiting: NOTHING_PENDING when no datagram is there.
    int tryReceiveFrom(uint8* buffer, int length, HostAddress& address, uint16& port);
    // The same, waiting at most `wait`: NOTHING_PENDING when none came.
    int receiveFrom(uint8* buffer, int length, HostAddress& address, uint16& port,
                    std::chrono::microseconds wait);
    static constexpr int NOTHING_PENDING = -2;

    // The local port; 0 while the socket is unbound.
    uint16 getLocalPort() const;

    // Asks the kernel for a receive buffer of `bytes`; the system may cap
    // it. Before the socket is made, it is asked for when it is.
    bool setReceiveBufferSize(int bytes);

private:
    int receive(uint8* buffer, int length, HostAddress& address, uint16& port, int flags);
    // The socket's family, after making a socket of `family` if there is
    // none yet; 0 when none can be made.
    int open(int family);

    mutable SocketDescriptor m_descriptor;
    // Set once, before the descriptor is there.
    std::atomic<int> m_family{0};
    // Guards the making of the socket and the settings it is made with.
    std::mutex m_openMutex;
    int m_receiveBufferSize = 0;
    bool m_dualStack = true;
};

} // namespace tavo
