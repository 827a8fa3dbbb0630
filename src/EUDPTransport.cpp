// The EUDP transport object: construction, destruction, getters, options and
// the closing helpers every thread uses. The work of each thread lives in a
// file of its own: EUDPHandshake.cpp and EUDPRequests.cpp (callers),
// EUDPSender.cpp, EUDPReceiver.cpp, EUDPTimers.cpp (timer thread); the
// protocol decisions in EUDPSendWindow, EUDPReceiveWindow, EUDPModes and
// EUDPLiveness.

#include <weft/EUDPTransport.h>

#include "EUDPAcceptedPeers.h"
#include "EUDPAckDelay.h"
#include "EUDPLiveness.h"
#include "EUDPReceiveWindow.h"
#include "EUDPReceiverPace.h"
#include "EUDPSendWindow.h"
#include "EUDPTimeouts.h"
#include "WeftLog.h"

#include <tavo/UdpSocket.h>

EUDPTransport::EUDPTransport() : EUDPTransport(tavo::HostAddress(), 0) {}

EUDPTransport::EUDPTransport(const tavo::HostAddress& peer, uint16 port)
    : m_pSocket(nullptr), m_peerAddress(peer), m_peerPort(port), m_logPort(port),
      m_pTimeouts(std::make_unique<EUDPTimeouts>(EUDPTimeouts::standard())),
      m_pSendWindow(std::make_unique<EUDPSendWindow>(EUDP_RING_CAPACITY, m_pTimeouts->retransmit,
                                                     m_pTimeouts->retransmitFloor)),
      m_pReceiveWindow(std::make_unique<EUDPReceiveWindow>(EUDP_RING_CAPACITY)),
      m_pAckDelay(std::make_unique<EUDPAckDelay>(m_pTimeouts->ackDelay)),
      m_pReceiverPace(std::make_unique<EUDPReceiverPace>()), m_windowAnswer(0), m_modeAnswer(0),
      m_semReceived(0), m_allowSendRealtime(true), m_allowSendReliable(true),
      m_allowReceiveRealtime(true), m_allowReceiveReliable(true), m_sendMode(CONN_MODE_REALTIME),
      m_receiveMode(CONN_MODE_REALTIME), m_windowSize(EUDP_DEFAULT_WINDOW), m_closed(false),
      m_timersInitialised(false), m_pLog(weftLogOutput()), m_pAliveCallback(nullptr),
      m_conArg(NO_CON)
{
    m_sendTimeoutMs = static_cast<unsigned int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(m_pTimeouts->sendStall).count());
    m_pSocket = newEudpSocket();
    m_sender.m_pOwner = this;
    m_receiver.m_pOwner = this;
}

EUDPTransport::~EUDPTransport()
{
    // Closing the socket ends the receiver (and a blocked accept); no DIS.
    closeSocket();
    stopTimers();
    wakeWaiters();
    m_sender.shutdown(-1);
    m_receiver.shutdown(-1);
    leaveHalfOpen();
    if (m_pAcceptedPeers)
    {
        // From here on the listener no longer answers through this transport.
        m_pAcceptedPeers->remove(this);
    }
    // An accept blocked on another thread has left once it lets go of this.
    {
        std::lock_guard<std::mutex> acceptGuard(m_acceptMutex);
    }
    // The timer callback re-arms the timer only while the transport is open:
    // stopped again now that it is closed, it never fires again.
    stopTimers();
    if (m_pAliveCallback != nullptr)
    {
        m_aliveTimer.removeCallback(m_pAliveCallback);
        delete m_pAliveCallback;
        m_pAliveCallback = nullptr;
    }
    delete m_pSocket;
    m_pSocket = nullptr;
    m_pLog = nullptr;
}

tavo::UdpSocket* EUDPTransport::newEudpSocket()
{
    // Room for a burst: the default buffer overflows once a large window's
    // worth of datagrams arrives at once, and every datagram lost there costs
    // a reliable sender a go-back.
    auto* socket = new tavo::UdpSocket();
    socket->setReceiveBufferSize(EUDP_SOCKET_RECEIVE_BUFFER);
    return socket;
}

std::ostream& EUDPTransport::log(tavo::ELogLevel level)
{
    return m_pLog->level(level) << "WEFT/EUDP[" << m_logPort.load() << "]: ";
}

void EUDPTransport::closeSocket()
{
    m_closed = true;
    m_pSocket->close();
}

void EUDPTransport::wakeWaiters()
{
    // The sender sees m_closed and ends; a sendData waiting for room, a
    // receiveData waiting for a packet and a request waiting for its answer
    // wake and report the end.
    m_semSendWork.give();
    m_semSendSpace.give();
    m_semReceived.give();
    m_semReceiveRoom.give();
    m_semConnected.give();
    m_semModeAck.give();
    m_semWindowAck.give();
}

void EUDPTransport::leaveHalfOpen()
{
    if (m_halfOpen.exchange(false) && m_pAcceptedPeers)
    {
        m_pAcceptedPeers->leaveHalfOpen(this);
    }
}

tavo::HostAddress EUDPTransport::getPeerAddress() const
{
    return m_peerAddress;
}

uint16 EUDPTransport::getPeerPort() const
{
    return m_peerPort;
}

uint16 EUDPTransport::getLocalPort() const
{
    return m_pSocket != nullptr ? m_pSocket->getLocalPort() : 0;
}

void EUDPTransport::setStrictPeer(bool strict)
{
    m_strictPeer = strict;
}

void EUDPTransport::setHalfOpenLimit(unsigned int limit)
{
    m_halfOpenLimit = limit;
}

void EUDPTransport::setDualStack(bool on)
{
    m_pSocket->setDualStack(on);
}

void EUDPTransport::setSendTimeout(unsigned int timeoutMs)
{
    m_sendTimeoutMs = timeoutMs;
}

void EUDPTransport::setNegotiationObserver(IWEFTNegotiationObserver* observer)
{
    m_pNegotiationObserver = observer;
}

void EUDPTransport::holdModeRequests(bool hold)
{
    m_holdModeRequests = hold;
}

bool EUDPTransport::isStranger(const tavo::HostAddress& source, uint16 port) const
{
    // An IPv4 peer seen through a dual-stack socket is held as its plain
    // IPv4 address on both sides, so one peer compares equal to itself
    // whichever socket saw it.
    if (source != m_peerAddress)
    {
        return true;
    }
    // While connecting, the peer's port is not known yet: the answer comes
    // from the accepted transport's new one.
    const uint16 peerPort = m_peerPort;
    return peerPort != 0 && port != peerPort;
}
