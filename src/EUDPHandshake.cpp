// How two EUDP endpoints come to talk and how they part, run on the callers'
// threads: listen and accept on the server, connect on the client,
// disconnect on either side, and the control packets all of them send.

#include <weft/EUDPTransport.h>

#include "EUDPAcceptedPeers.h"
#include "EUDPLiveness.h"
#include "EUDPReceiveWindow.h"
#include "EUDPSendWindow.h"
#include "EUDPTimeouts.h"

#include <tavo/Assert.h>
#include <tavo/UdpSocket.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

bool EUDPTransport::listen(const tavo::HostAddress& address, uint16 port)
{
    TAVO_ASSERT(m_pSocket);
    return m_pSocket->bind(address, port);
}

IWEFTTransport* EUDPTransport::accept()
{
    TAVO_ASSERT(m_pSocket);
    std::lock_guard<std::mutex> acceptGuard(m_acceptMutex);
    if (!m_pAcceptedPeers)
    {
        m_pAcceptedPeers = std::make_shared<EUDPAcceptedPeers>();
    }
    EUDPPacket request;
    tavo::HostAddress source;
    uint16 sourcePort = 0;
    for (;;)
    {
        const int received = m_pSocket->receiveFrom(
            request.getBuffer(), static_cast<int>(EUDP_MAX_PACKET_SIZE), source, sourcePort);
        if (received < 1)
        {
            return nullptr;
        }
        if (!request.validatePacket(static_cast<uint>(received)))
        {
            log(tavo::LOG_LEVEL_WARNING) << "discarding invalid packet" << std::endl;
            continue;
        }
        if (request.getCommand() != EUDP_CON)
        {
            log(tavo::LOG_LEVEL_WARNING)
                << "received a non-CON packet without a connection (ignoring)" << std::endl;
            continue;
        }
        const uint conArg = request.getArg();
        // A client repeats its CON until it hears the ACK: the connection made
        // for the first one answers again, from the port the client will use.
        if (m_pAcceptedPeers->answerAgain(source, sourcePort, conArg,
                                          [conArg](EUDPTransport& accepted)
                                          { accepted.sendPacket(EUDP_ACK, conArg); }))
        {
            continue;
        }
        // Each accepted connection holds threads and a socket until its peer
        // answers or its dead-peer timer fires. At the limit the one silent
        // longest goes, once it has had a moment to hear from its peer: a
        // flood of CONs then costs a bounded number of connections, made at
        // a bounded rate, while a real client, which answers within a round
        // trip, still gets in (repeating its CON when it found no room).
        const unsigned int limit = m_halfOpenLimit;
        if (limit != EUDP_NO_HALF_OPEN_LIMIT && m_pAcceptedPeers->halfOpenCount() >= limit)
        {
            const auto now = std::chrono::steady_clock::now();
            const bool evicted = m_pAcceptedPeers->evictOldestHalfOpen(
                m_pTimeouts->halfOpenGrace, now,
                [](EUDPTransport& oldest) { oldest.disconnect(); });
            if (now >= m_nextHalfOpenLine)
            {
                // At most once a second: a flood must not flood the log too.
                m_nextHalfOpenLine = now + std::chrono::seconds(1);
                log(tavo::LOG_LEVEL_WARNING)
                    << "too many half-open connections ("
                    << (evicted ? "closing the oldest" : "ignoring CON") << ")" << std::endl;
            }
            if (!evicted)
            {
                continue;
            }
        }
        return acceptConnection(source, sourcePort, conArg);
    }
}

EUDPTransport* EUDPTransport::acceptConnection(const tavo::HostAddress& source, uint16 port,
                                               uint conArg)
{
    EUDPTransport* accepted = new EUDPTransport(source, port);
    // The listener's time-outs, not whatever the standard is by now.
    accepted->m_pTimeouts = std::make_unique<EUDPTimeouts>(*m_pTimeouts);
    accepted->m_pSendWindow = std::make_unique<EUDPSendWindow>(
        EUDP_RING_CAPACITY, m_pTimeouts->retransmit, m_pTimeouts->retransmitFloor);
    accepted->m_sendTimeoutMs = m_sendTimeoutMs.load();
    // The peer's first data packet carries the number after its CON's.
    accepted->m_pReceiveWindow->restart(ModuloValue::fromArg(conArg).next());
    accepted->m_modeRequestsHeld = m_holdModeRequests.load();
    accepted->m_strictPeer = m_strictPeer.load();
    // Counted as half-open until its peer is heard from or it closes.
    accepted->m_pAcceptedPeers = m_pAcceptedPeers;
    accepted->m_halfOpen = true;
    m_pAcceptedPeers->add(accepted, source, port, conArg, std::chrono::steady_clock::now(),
                          [](EUDPTransport& old) { old.disconnect(); });
    // Sent from the new transport's own socket: the connection gets its own port.
    accepted->sendPacket(EUDP_ACK, conArg);
    accepted->m_receiver.start();
    accepted->initTimers(m_pTimeouts->acceptedKeepAlive);
    return accepted;
}

void EUDPTransport::renewForConnect()
{
    // Whatever an earlier connection or a failed attempt left running ends
    // first: a receiver still waiting for a late ACK would otherwise run twice
    // and race this connect on m_peerAddress. Closing the socket is what wakes
    // it, so a new socket follows.
    if (m_closed || m_receiver.isRunning() || m_sender.isRunning())
    {
        closeSocket();
        wakeWaiters();
        m_sender.shutdown(-1);
        m_receiver.shutdown(-1);
        stopTimers();
        delete m_pSocket;
        m_pSocket = newEudpSocket();
    }
    // A new connection starts from the state a new transport has: nothing of
    // the old peer's data, modes or window carries over. The sequence numbers
    // go on (the CON announces where) and the allow flags are local policy.
    m_timersInitialised = false;
    m_pLiveness.reset();
    {
        tavo::MutexLock lock(m_sendMutex);
        const ModuloValue next = m_pSendWindow->nextNumber();
        m_pSendWindow->restart(next, next.previous());
        m_sendMode = CONN_MODE_REALTIME;
        // Ended above, if it ran.
        m_senderStarted = false;
    }
    {
        tavo::MutexLock lock(m_receiveMutex);
        m_pReceiveWindow->restart(ModuloValue(0));
    }
    m_receiveMode = CONN_MODE_REALTIME;
    m_windowSize = EUDP_DEFAULT_WINDOW;
    m_closed = false;
}

void EUDPTransport::sendCon(uint first, uint16 port, bool again)
{
    {
        // Timed, so that the answer to a CON sent once measures the round trip.
        tavo::MutexLock lock(m_sendMutex);
        m_pSendWindow->connectionSent(std::chrono::steady_clock::now(), again);
    }
    sendPacket(EUDP_CON, first, port);
}

bool EUDPTransport::connect(const tavo::HostAddress& address, uint16 port)
{
    TAVO_ASSERT(m_pSocket);
    renewForConnect();
    m_peerAddress = address;
    // Port 0 marks the ACK that comes back as the answer to this CON.
    m_peerPort = 0;
    m_semConnected.clear();
    uint first = 0;
    {
        tavo::MutexLock lock(m_sendMutex);
        first = static_cast<uint>(m_pSendWindow->nextNumber().getValue());
    }
    m_conArg = first;
    m_strayAck = false;
    // The first send binds the socket to a local port, which names the log
    // lines from then on; the receiver starts once there is a port to read.
    sendCon(first, port, false);
    m_logPort = getLocalPort();
    if (m_logPort == 0)
    {
        // No socket for the address's family (an IPv6 address on a host
        // without IPv6): there would be nothing to receive the answer on.
        log(tavo::LOG_LEVEL_ERROR)
            << "failed to connect to " << address.getEndpointString(port)
            << " (cannot send there: " << std::error_code(errno, std::generic_category()).message()
            << ")" << std::endl;
        return false;
    }
    while (m_semReceived.take(0) == tavo::TAKE_OK)
    {
    }
    m_receiver.start();

    const bool answered = askPeer(
        m_semConnected, m_pTimeouts->connect, m_pTimeouts->connectRepeat,
        [&] { sendCon(first, port, true); }, [] { return true; });
    if (!answered)
    {
        if (m_closed)
        {
            // Disconnected meanwhile: nothing failed.
            return false;
        }
        // Only answers to another CON came: say so, they explain the wait.
        log(tavo::LOG_LEVEL_ERROR) << "failed to connect to " << address.getEndpointString(port)
                                   << (m_strayAck ? " (wrong ACK)" : " (timeout)") << std::endl;
        return false;
    }
    bool rightAck = false;
    {
        tavo::MutexLock lock(m_sendMutex);
        rightAck = m_pSendWindow->lastAcked().getValue() == static_cast<int>(first);
        if (rightAck)
        {
            // The first data packet carries the CON's number + 1, as the
            // accepting side expects.
            const ModuloValue conNumber = m_pSendWindow->lastAcked();
            m_pSendWindow->restart(conNumber.next(), conNumber);
        }
    }
    if (!rightAck)
    {
        log(tavo::LOG_LEVEL_ERROR) << "failed to connect to " << address.getEndpointString(port)
                                   << " (wrong ACK)" << std::endl;
        return false;
    }
    initTimers(m_pTimeouts->connectingKeepAlive);
    // A sign of life at once: the accepting side counts the connection
    // half-open until it hears from us, and may close the oldest half-open
    // one when CONs flood it.
    sendPacket(EUDP_NOP, 0);
    return true;
}

bool EUDPTransport::askPeer(tavo::BinarySemaphore& answered, std::chrono::microseconds limit,
                            std::chrono::microseconds repeat, const std::function<void()>& request,
                            const std::function<bool()>& isAnswer)
{
    // A lost request or answer costs one repeat, not the whole wait. The
    // first request has been sent by the caller.
    const auto deadline = std::chrono::steady_clock::now() + limit;
    auto nextRequest = std::chrono::steady_clock::now() + repeat;
    for (;;)
    {
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline || m_closed)
        {
            return false;
        }
        if (now >= nextRequest)
        {
            request();
            nextRequest = now + repeat;
        }
        const auto wait = std::chrono::duration_cast<std::chrono::microseconds>(
            std::min(deadline, nextRequest) - now);
        // Closing gives the semaphore too, so that a disconnect ends the wait.
        if (answered.take(toWaitMs(wait)) == tavo::TAKE_OK && !m_closed && isAnswer())
        {
            return true;
        }
    }
}

void EUDPTransport::disconnect()
{
    // What the application handed over and the peer has not acknowledged
    // would otherwise be lost with the DIS: an ending client's last requests.
    drainReliable();
    close();
}

void EUDPTransport::close()
{
    // Set first, so that a second call, even from another thread, does nothing.
    if (m_closed.exchange(true))
    {
        return;
    }
    if (m_peerPort != 0)
    {
        stopTimers();
        int next = 0;
        {
            tavo::MutexLock lock(m_sendMutex);
            next = m_pSendWindow->nextNumber().getValue();
        }
        sendPacket(EUDP_DIS, static_cast<uint>(next));
    }
    closeSocket();
    // The receiver wakes the others as it ends, but a transport that has no
    // receiver (listening, never connected) must wake its callers too.
    wakeWaiters();
}

bool EUDPTransport::sendPacket(EEUDPCommand command, uint arg, uint16 port)
{
    if (port == 0)
    {
        port = m_peerPort;
    }
    if (port == 0)
    {
        log(tavo::LOG_LEVEL_ERROR) << "no remote port (internal error)" << std::endl;
        return false;
    }
    EUDPPacket packet(command);
    packet.setArg(arg);
    return m_pSocket->sendTo(packet.getBuffer(), static_cast<int>(packet.getLength()),
                             m_peerAddress, port) == static_cast<int>(EUDP_HEADER_SIZE);
}
