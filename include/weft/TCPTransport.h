#pragma once

#include <weft/Export.h>
#include <weft/IWEFTTransport.h>

#include <atomic>
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

private:
    // Reads exactly `size` bytes; the last receive result when the stream
    // ends or fails first.
    int receiveFully(uint8* buffer, uint size);

    tavo::TcpSocket* m_pSocket;
    std::atomic<bool> m_closed;
    // Keeps whole messages together when several threads send at once.
    std::mutex m_sendMutex;
};
