#pragma once

#include <weft/Constants.h>
#include <weft/Export.h>
#include <weft/IWEFTTransport.h>

#include <atomic>
#include <chrono>
#include <mutex>

namespace tavo
{
class TcpSocket;
}

// Messages over one TCP stream, each preceded by its length in two
// little-endian bytes.
class WEFT_EXPORT TCPTransport : public IWEFTTransport
{
public:
    TCPTransport();
    // Adopts a connected socket (ownership passes to the transport).
    explicit TCPTransport(tavo::TcpSocket* socket);
    ~TCPTransport() override;
    TCPTransport(const TCPTransport&) = delete;
    TCPTransport& operator=(const TCPTransport&) = delete;

    // TCP has no window to negotiate: always false.
    bool setWindowSize(uint size) override;
    bool listen(const tavo::HostAddress& address, uint16 port) override;
    IWEFTTransport* accept() override;
    // TCP offers one mode only; these do nothing.
    void allowSendMode(bool realtime, bool reliable) override;
    void allowReceiveMode(bool realtime, bool reliable) override;
    // True exactly for CONN_MODE_RELIABLE, the only mode of a stream.
    bool setSendMode(EConnMode mode) override;
    bool setReceiveMode(EConnMode mode) override;
    // Connects; after a disconnect a fresh socket is used.
    bool connect(const tavo::HostAddress& address, uint16 port) override;
    void disconnect() override;
    // Messages longer than 65,535 bytes cannot be framed and are refused.
    bool sendData(const uint8* data, uint length) override;
    int receiveData(uint8* buffer, uint size) override;
    tavo::HostAddress getPeerAddress() const override;
    uint16 getPeerPort() const override;
    uint16 getLocalPort() const override;

    // How long a send may wait while the peer reads nothing (0: without
    // limit; WEFT_SEND_TIMEOUT_MS at first). When the time passes the
    // connection is closed and the send fails.
    void setSendTimeout(unsigned int timeoutMs);
    // Connections the kernel may hold waiting for accept (TCP_LISTEN_BACKLOG
    // at first); takes effect at the next listen.
    void setListenBacklog(int backlog);
    // Whether a transport listening on :: takes IPv4 clients too (the
    // default); given before listen.
    void setDualStack(bool on);

private:
    // When the message being read began: its bytes must all come within
    // the message time of its first one.
    struct MessageClock
    {
        bool started = false;
        std::chrono::steady_clock::time_point deadline;
    };
    // Reads exactly `size` bytes; the last receive result when the stream
    // ends or fails first, 0 when the message took too long (the connection
    // is closed then).
    int receiveFully(uint8* buffer, uint size, MessageClock& clock);
    void prepareSocket();

    tavo::TcpSocket* m_pSocket;
    std::atomic<bool> m_closed;
    std::atomic<unsigned int> m_sendTimeoutMs;
    std::atomic<int> m_listenBacklog{TCP_LISTEN_BACKLOG};
    // Fixed at construction (TCP_MESSAGE_TIMEOUT_MS in production).
    std::chrono::microseconds m_messageTimeout;
    // Keeps whole messages together when several threads send at once.
    std::mutex m_sendMutex;
};
