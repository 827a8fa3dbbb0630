#include <weft/TCPTransport.h>

#include "ByteOrder.h"
#include "EUDPTimeouts.h"
#include "WeftLog.h"

#include <weft/Constants.h>

#include <tavo/Assert.h>
#include <tavo/TcpSocket.h>

#include <algorithm>

TCPTransport::TCPTransport() : TCPTransport(new tavo::TcpSocket()) {}

TCPTransport::TCPTransport(tavo::TcpSocket* socket)
    : m_pSocket(socket), m_closed(false),
      m_sendTimeoutMs(static_cast<unsigned int>(
          std::chrono::duration_cast<std::chrono::milliseconds>(EUDPTimeouts::standard().sendStall)
              .count())),
      m_messageTimeout(EUDPTimeouts::standard().tcpMessage)
{
    if (m_pSocket != nullptr)
    {
        prepareSocket();
    }
}

void TCPTransport::prepareSocket()
{
    m_pSocket->setNoDelay(true);
    m_pSocket->setSendTimeout(m_sendTimeoutMs);
}

void TCPTransport::setListenBacklog(int backlog)
{
    m_listenBacklog = backlog;
}

void TCPTransport::setDualStack(bool on)
{
    m_pSocket->setDualStack(on);
}

void TCPTransport::setSendTimeout(unsigned int timeoutMs)
{
    m_sendTimeoutMs = timeoutMs;
    if (m_pSocket != nullptr)
    {
        m_pSocket->setSendTimeout(timeoutMs);
    }
}

TCPTransport::~TCPTransport()
{
    if (m_pSocket != nullptr)
    {
        if (!m_closed)
        {
            m_pSocket->close();
        }
        delete m_pSocket;
    }
}

bool TCPTransport::setWindowSize(uint)
{
    return false;
}

bool TCPTransport::listen(const tavo::HostAddress& address, uint16 port)
{
    TAVO_ASSERT(m_pSocket);
    if (!m_pSocket->bind(address, port))
    {
        return false;
    }
    return m_pSocket->listen(m_listenBacklog);
}

IWEFTTransport* TCPTransport::accept()
{
    TAVO_ASSERT(m_pSocket);
    tavo::TcpSocket* socket = m_pSocket->accept();
    if (socket == nullptr)
    {
        return nullptr;
    }
    return new TCPTransport(socket);
}

void TCPTransport::allowSendMode(bool, bool) {}

void TCPTransport::allowReceiveMode(bool, bool) {}

bool TCPTransport::setSendMode(EConnMode mode)
{
    return mode == CONN_MODE_RELIABLE;
}

bool TCPTransport::setReceiveMode(EConnMode mode)
{
    return mode == CONN_MODE_RELIABLE;
}

bool TCPTransport::connect(const tavo::HostAddress& address, uint16 port)
{
    TAVO_ASSERT(m_pSocket);
    if (m_closed)
    {
        delete m_pSocket;
        m_pSocket = new tavo::TcpSocket();
        prepareSocket();
        m_closed = false;
    }
    return m_pSocket->connect(address, port);
}

void TCPTransport::disconnect()
{
    TAVO_ASSERT(m_pSocket);
    if (!m_closed.exchange(true))
    {
        m_pSocket->close();
    }
}

bool TCPTransport::sendData(const uint8* data, uint length)
{
    TAVO_ASSERT(m_pSocket);
    // A longer message cannot be framed; cutting it would send a different one.
    if (length > TCP_MAX_MESSAGE_SIZE)
    {
        return false;
    }
    uint8 prefix[TCP_LENGTH_PREFIX_SIZE];
    byteorder::writeLE16(prefix, static_cast<std::uint16_t>(length));
    const int total = static_cast<int>(TCP_LENGTH_PREFIX_SIZE + length);
    // Prefix and body leave in one write, so a message is never split between
    // two system calls and concurrent senders cannot interleave their bytes.
    std::lock_guard<std::mutex> lock(m_sendMutex);
    if (m_pSocket->send(prefix, TCP_LENGTH_PREFIX_SIZE, data, static_cast<int>(length)) == total)
    {
        return true;
    }
    // A peer that stopped reading, or a broken stream: part of the message
    // may be out, so the stream is no longer whole. Closing it ends the
    // receive loop, which reports the connection down.
    disconnect();
    return false;
}

int TCPTransport::receiveFully(uint8* buffer, uint size, MessageClock& clock)
{
    uint received = 0;
    while (received < size)
    {
        // A message that has begun must end in time: a peer that trickles
        // it would otherwise hold this thread for good. The wait for the
        // first byte of the next message has no limit.
        int result = 0;
        if (!clock.started)
        {
            result = m_pSocket->receive(buffer + received, static_cast<int>(size - received));
            clock.started = true;
            clock.deadline = std::chrono::steady_clock::now() + m_messageTimeout;
        }
        else
        {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(
                clock.deadline - std::chrono::steady_clock::now());
            result =
                m_pSocket->receive(buffer + received, static_cast<int>(size - received),
                                   static_cast<unsigned int>(std::max<long long>(left.count(), 0)));
        }
        if (result == tavo::TcpSocket::RECEIVE_TIMED_OUT)
        {
            weftLog(tavo::LOG_LEVEL_WARNING)
                << "WEFT: closing a TCP connection whose message did not arrive whole within "
                << std::chrono::duration_cast<std::chrono::milliseconds>(m_messageTimeout).count()
                << " ms" << std::endl;
            disconnect();
            return 0;
        }
        if (result <= 0)
        {
            return result;
        }
        received += static_cast<uint>(result);
    }
    return static_cast<int>(received);
}

int TCPTransport::receiveData(uint8* buffer, uint size)
{
    TAVO_ASSERT(m_pSocket);
    int pending = 0;
    for (;;)
    {
        if (m_closed)
        {
            return pending;
        }
        // The prefix is read whole even when its two bytes arrive apart.
        MessageClock clock;
        uint8 prefix[TCP_LENGTH_PREFIX_SIZE];
        const int prefixResult = receiveFully(prefix, TCP_LENGTH_PREFIX_SIZE, clock);
        if (prefixResult <= 0)
        {
            return prefixResult;
        }
        const uint length = byteorder::readLE16(prefix);
        if (length > size)
        {
            return -1;
        }
        const int bodyResult = receiveFully(buffer, length, clock);
        if (length > 0 && bodyResult <= 0)
        {
            // The partial message is dropped; the next prefix read reports the
            // state of the stream.
            pending = bodyResult;
            continue;
        }
        if (length == 0)
        {
            // An empty message is never reported: 0 means disconnected.
            pending = 0;
            continue;
        }
        return static_cast<int>(length);
    }
}

tavo::HostAddress TCPTransport::getPeerAddress() const
{
    tavo::HostAddress address;
    uint16 port = 0;
    if (m_pSocket != nullptr)
    {
        m_pSocket->getPeerName(address, port);
    }
    return address;
}

uint16 TCPTransport::getPeerPort() const
{
    tavo::HostAddress address;
    uint16 port = 0;
    if (m_pSocket != nullptr)
    {
        m_pSocket->getPeerName(address, port);
    }
    return port;
}

uint16 TCPTransport::getLocalPort() const
{
    return m_pSocket != nullptr ? m_pSocket->getLocalPort() : 0;
}
