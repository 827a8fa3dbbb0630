#pragma once

#include <tavo/Export.h>
#include <tavo/HostAddress.h>
#include <tavo/SocketDescriptor.h>
#include <tavo/Types.h>

#include <atomic>
#include <mutex>

namespace tavo
{

// A blocking TCP stream socket of either family: it takes the family of the
// address it is first bound or connected to, and the system socket is made
// then. close() may be called from any thread and makes calls blocked on the
// socket in other threads return with failure.
class TAVO_EXPORT TcpSocket
{
public:
    // A new, unconnected stream socket.
    TcpSocket();
    // Adopts a connected descriptor (as returned by accept).
    explicit TcpSocket(int fd);
    virtual ~TcpSocket();
    TcpSocket(const TcpSocket&) = delete;
    TcpSocket& operator=(const TcpSocket&) = delete;

    // With true, small writes leave at once instead of being coalesced.
    // Like the settings below, given before the socket is made, it is
    // applied when it is.
    bool setNoDelay(bool on);
    // How long one send call may take while it waits for room in the
    // kernel's buffer (0: without limit): a peer that stops reading then
    // makes send fail instead of blocking its caller for good.
    bool setSendTimeout(unsigned int timeoutMs);
    // Whether an IPv6 listener takes IPv4 clients too (the default); only
    // before bind.
    void setDualStack(bool on);

    // On failure of connect, bind or listen, errno tells why.
    bool connect(const HostAddress& address, uint16 port);
    // Binds to a local address and port (port 0: any free port). The address
    // may be reused at once after an earlier listener on it has closed. A
    // listener on :: takes IPv4 clients too, which show as plain IPv4
    // addresses, unless setDualStack(false) came first.
    bool bind(const HostAddress& address, uint16 port);
    bool listen(int backlog);
    // Blocks until a connection arrives; the new socket belongs to the caller.
    // Null once the socket is closed or fails for good.
    TcpSocket* accept();

    void close();
    bool isClosed() const;

    // Sends all bytes: the count sent on success, negative on failure.
    int send(const uint8* data, int length);
    // Sends two buffers as one write (all bytes of both, in order).
    int send(const uint8* first, int firstLength, const uint8* second, int secondLength);
    // Blocks until data is there: the count placed in the buffer (1 to
    // `length`), 0 when the peer has closed the stream, negative on error or
    // after close().
    int receive(uint8* buffer, int length);
    // The same, waiting at most `timeoutMs` for data: RECEIVE_TIMED_OUT when
    // none came.
    int receive(uint8* buffer, int length, unsigned int timeoutMs);
    static constexpr int RECEIVE_TIMED_OUT = -2;

    // The peer's address and port; left as they were when unknown.
    bool getPeerName(HostAddress& address, uint16& port) const;
    uint16 getLocalPort() const;

private:
    // The socket's family, after making a socket of `family` if there is
    // none yet; 0 when none can be made.
    int open(int family);
    // Applies the settings given so far; caller holds m_openMutex.
    bool applySettings(int fd) const;

    mutable SocketDescriptor m_descriptor;
    // Set once, before the descriptor is there.
    std::atomic<int> m_family{0};
    // Guards the making of the socket and the settings it is made with.
    std::mutex m_openMutex;
    bool m_noDelay = false;
    bool m_dualStack = true;
    std::atomic<unsigned int> m_sendTimeoutMs{0};
};

} // namespace tavo
