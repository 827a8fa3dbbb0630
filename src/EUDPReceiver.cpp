// The receiver thread: the only reader of a connection's socket. Every valid
// datagram is a sign of life and goes to the handler of its command; every
// answer (ACK, NAK, NOP, MAK, WAK) is sent from here.

#include <weft/EUDPTransport.h>

#include "EUDPAckDelay.h"
#include "EUDPModes.h"
#include "EUDPReceiveWindow.h"
#include "EUDPReceiverPace.h"
#include "EUDPSendWindow.h"
#include "EUDPTimeouts.h"

#include <weft/IWEFTNegotiationObserver.h>

#include <tavo/UdpSocket.h>

#include <algorithm>

EUDPTransport::EUDPReceiver::EUDPReceiver() : tavo::Thread("eudp-receiver"), m_pOwner(nullptr)
{
    // Woken for each datagram, this thread would otherwise preempt the
    // thread running, which is likely a moment from sleeping: the one that
    // sent the datagram, or the reader just woken. Waiting for it costs
    // microseconds and saves a switch. At worst, on a host with every core
    // busy, it waits out the running thread's time slice: a few
    // milliseconds, which the time before a repeat allows for; a real-time
    // receiver that falls behind preempts again (EUDPReceiverPace).
    setWakeup(tavo::WAKEUP_WAITS);
}

EUDPTransport::EUDPReceiver::~EUDPReceiver() {}

void EUDPTransport::EUDPReceiver::run()
{
    if (m_pOwner != nullptr)
    {
        m_pOwner->receiverThread();
    }
}

void EUDPTransport::receiverThread()
{
    // Every datagram lands in this one packet: nothing is allocated per datagram.
    EUDPPacket packet;
    tavo::HostAddress source;
    uint16 sourcePort = 0;
    while (!m_closed)
    {
        waitForRoom();
        int received = 0;
        if (const auto heldUntil = m_pAckDelay->due())
        {
            // An acknowledgement waits for the next packet to cover it, but
            // no longer than its time.
            received = m_pSocket->receiveFrom(
                packet.getBuffer(), static_cast<int>(EUDP_MAX_PACKET_SIZE), source, sourcePort,
                std::chrono::duration_cast<std::chrono::microseconds>(
                    *heldUntil - std::chrono::steady_clock::now()));
            if (received == tavo::UdpSocket::NOTHING_PENDING)
            {
                sendBurstAck();
                continue;
            }
        }
        else
        {
            received = m_pSocket->receiveFrom(
                packet.getBuffer(), static_cast<int>(EUDP_MAX_PACKET_SIZE), source, sourcePort);
        }
        // What else has arrived meanwhile is handled in the same turn and
        // answered once: one cumulative ACK for the burst, one wake-up of the
        // reader for all it stored.
        unsigned int taken = 0;
        while (received >= 1)
        {
            handleDatagram(packet, static_cast<uint>(received), source, sourcePort);
            if (m_closed || ++taken >= EUDP_RECEIVE_BURST ||
                (m_receiveRingFull && !m_receiveDraining))
            {
                break;
            }
            received = m_pSocket->tryReceiveFrom(
                packet.getBuffer(), static_cast<int>(EUDP_MAX_PACKET_SIZE), source, sourcePort);
        }
        endBurst();
        if (const auto wakeup =
                m_pReceiverPace->afterTurn(taken, m_receiveMode != CONN_MODE_RELIABLE))
        {
            tavo::applyWakeup(*wakeup);
        }
        if (received < 1 && received != tavo::UdpSocket::NOTHING_PENDING)
        {
            break;
        }
    }
    m_closed = true;
    stopTimers();
    leaveHalfOpen();
    // Nothing more is sent; stored payloads wait for receiveData, which gives
    // their memory back after the last one.
    {
        tavo::MutexLock lock(m_sendMutex);
        m_pSendWindow->discard();
    }
    {
        tavo::MutexLock lock(m_receiveMutex);
        m_pReceiveWindow->releaseIfEmpty();
    }
    wakeWaiters();
}

void EUDPTransport::waitForRoom()
{
    // Only this thread fills the ring: while its last store left room there
    // is room still, and the lock is not needed to know it.
    if (!m_receiveRingFull && !m_receiveDraining)
    {
        return;
    }
    {
        tavo::MutexLock lock(m_receiveMutex);
        const uint room = m_pReceiveWindow->room();
        if (m_receiveDraining && room >= EUDP_RECEIVE_BURST)
        {
            m_receiveDraining = false;
        }
        if (room > 0 || m_receiveDraining)
        {
            return;
        }
        m_roomWanted = true;
        // A give that came after the last wait had ended.
        m_semReceiveRoom.clear();
    }
    // The reader is behind: what arrives now would be read only to be
    // dropped, while the socket's buffer can hold it until there is room.
    // Answers wait too, so the wait is short.
    sendBurstAck();
    m_semReceiveRoom.take(toWaitMs(m_pTimeouts->receiveRoomWait));
    tavo::MutexLock lock(m_receiveMutex);
    m_roomWanted = false;
    // A reader that did not make room for a burst in that time is not
    // waited for again until it has: meanwhile every datagram is read at
    // once and data that finds the ring full is dropped, so that the
    // socket's buffer does not fill and acknowledgements and answers are
    // not held up behind data.
    m_receiveDraining = m_pReceiveWindow->room() < EUDP_RECEIVE_BURST;
}

void EUDPTransport::handleDatagram(EUDPPacket& packet, uint length, const tavo::HostAddress& source,
                                   uint16 sourcePort)
{
    if (isSecondAnswer(packet, length, source, sourcePort))
    {
        // A second connection answered a repeat of our CON (a server that
        // makes one per CON): it is told to go, so it does not linger. It
        // comes from a port other than the peer's, so strict peers would
        // drop it.
        sendBurstAck();
        sendPacket(EUDP_DIS, 0, sourcePort);
        return;
    }
    if (m_strictPeer && isStranger(source, sourcePort))
    {
        log(tavo::LOG_LEVEL_DEBUG)
            << "ignoring a datagram from " << source.getEndpointString(sourcePort)
            << " (not the peer)" << std::endl;
        return;
    }
    if (!packet.validatePacket(length))
    {
        log(tavo::LOG_LEVEL_WARNING) << "dropping invalid packet" << std::endl;
        return;
    }
    leaveHalfOpen();
    resetTimers();
    const uint arg = packet.getArg();
    switch (packet.getCommand())
    {
    case EUDP_NOP:
        break;
    case EUDP_ACK:
        handleAck(arg, sourcePort);
        break;
    case EUDP_NAK:
        processNak(ModuloValue::fromArg(arg).getValue());
        break;
    case EUDP_DIS:
        handleDisconnect();
        break;
    case EUDP_CMD:
        handleData(packet);
        break;
    case EUDP_MOD:
        handleModeRequest(arg);
        break;
    case EUDP_MAK:
        m_modeAnswer = arg;
        m_semModeAck.give();
        break;
    case EUDP_WIN:
        handleWindowRequest(arg);
        break;
    case EUDP_WAK:
        m_windowAnswer = arg;
        m_semWindowAck.give();
        break;
    case EUDP_CON:
    case EUDP_UNKNOWN:
        log(tavo::LOG_LEVEL_WARNING) << "unknown/unexpected command (ignoring)" << std::endl;
        break;
    }
}

bool EUDPTransport::isSecondAnswer(EUDPPacket& packet, uint length, const tavo::HostAddress& source,
                                   uint16 sourcePort) const
{
    const uint16 peerPort = m_peerPort;
    return m_conArg != NO_CON && peerPort != 0 && sourcePort != peerPort &&
           source == m_peerAddress && packet.validatePacket(length) &&
           packet.getCommand() == EUDP_ACK && packet.getArg() == m_conArg;
}

void EUDPTransport::sendBurstAck()
{
    // Acknowledges every packet up to it: a sender counts ACKs as
    // cumulative, so the ones before it (a held one too) add nothing.
    const std::optional<uint> held = m_pAckDelay->release();
    const std::optional<uint> ack = m_burstAck ? m_burstAck : held;
    m_burstAck.reset();
    if (ack)
    {
        sendPacket(EUDP_ACK, *ack);
    }
}

void EUDPTransport::answer(EEUDPCommand command, uint arg)
{
    // Answers leave in the order of what they answer.
    sendBurstAck();
    sendPacket(command, arg);
}

void EUDPTransport::endBurst()
{
    if (m_burstAck && m_burstStoredInOrder > 0 && !m_burstNak)
    {
        // Data in order and nothing else to answer: the ACK may wait for the
        // next packet to cover it.
        m_burstAck = m_pAckDelay->afterInOrder(*m_burstAck, m_burstStoredInOrder,
                                               std::chrono::steady_clock::now());
    }
    m_burstStoredInOrder = 0;
    m_burstNak.reset();
    // The reader is woken before the ACK leaves: the data is stored either
    // way, and the send is then off the path from datagram to application.
    if (m_burstStored > 0)
    {
        m_semReceived.give(m_burstStored);
        m_burstStored = 0;
    }
    if (m_burstAck)
    {
        sendBurstAck();
    }
}

void EUDPTransport::handleAck(uint arg, uint16 sourcePort)
{
    const ModuloValue seq = ModuloValue::fromArg(arg);
    if (m_peerPort == 0)
    {
        if (arg != m_conArg)
        {
            // Not the answer to our CON: an answer to an earlier CON from a
            // socket that had this port before. The right one may yet come.
            m_strayAck = true;
            return;
        }
        // The answer to our CON, from the accepted transport's new port.
        {
            tavo::MutexLock lock(m_sendMutex);
            m_pSendWindow->acknowledgeConnection(seq, std::chrono::steady_clock::now());
        }
        m_peerPort = sourcePort;
        m_semConnected.give();
        return;
    }
    processAck(seq.getValue());
}

void EUDPTransport::processAck(int seq)
{
    bool giveSpace = false;
    bool wakeSender = false;
    {
        tavo::MutexLock lock(m_sendMutex);
        const auto now = std::chrono::steady_clock::now();
        const EUDPSendWindow::AckResult result = m_pSendWindow->onAck(ModuloValue(seq), now);
        if (!result.accepted)
        {
            return;
        }
        // The window moved: what it lets out goes from this thread, at once.
        flushSendable(now);
        giveSpace = wakesWriter(result.freed > 0);
        wakeSender = senderWakesTooLate();
    }
    giveWakeups(wakeSender, giveSpace);
}

void EUDPTransport::processNak(int seq)
{
    EUDPSendWindow::ENakResult result = EUDPSendWindow::NAK_IMPOSSIBLE;
    bool giveSpace = false;
    bool wakeSender = false;
    {
        tavo::MutexLock lock(m_sendMutex);
        const auto now = std::chrono::steady_clock::now();
        const uint queuedBefore = m_pSendWindow->queued();
        result = m_pSendWindow->onNak(ModuloValue(seq), now);
        if (result == EUDPSendWindow::NAK_RESEND || result == EUDPSendWindow::NAK_FILL ||
            result == EUDPSendWindow::NAK_REPEATED)
        {
            // A NAK also acknowledges what came before the gap: the window
            // may have moved.
            flushSendable(now);
        }
        giveSpace = wakesWriter(m_pSendWindow->queued() < queuedBefore);
        wakeSender = senderWakesTooLate();
    }
    giveWakeups(wakeSender, giveSpace);
    switch (result)
    {
    case EUDPSendWindow::NAK_FILL:
        log(tavo::LOG_LEVEL_DEBUG) << "peer waits for packets sent before reliable sending "
                                      "began: sending empty ones in their place"
                                   << std::endl;
        break;
    case EUDPSendWindow::NAK_RESEND:
        break;
    case EUDPSendWindow::NAK_ACKED:
        log(tavo::LOG_LEVEL_WARNING)
            << "Received a NAK for a packet that had already been ACKed (ignoring)" << std::endl;
        break;
    case EUDPSendWindow::NAK_REPEATED:
    case EUDPSendWindow::NAK_FILLING:
    case EUDPSendWindow::NAK_IMPOSSIBLE:
        break;
    }
}

void EUDPTransport::handleDisconnect()
{
    // What came before the DIS is answered while the socket is still open.
    endBurst();
    sendBurstAck();
    m_closed = true;
    stopTimers();
    m_pSocket->close();
}

void EUDPTransport::handleData(const EUDPPacket& packet)
{
    // Read once, so that the answers agree with each other.
    const EConnMode mode = m_receiveMode;
    tavo::MutexLock lock(m_receiveMutex);
    const EUDPReceiveWindow::Verdict verdict = m_pReceiveWindow->receive(packet, mode);
    m_receiveRingFull = m_pReceiveWindow->room() == 0;
    switch (verdict.arrival)
    {
    case EUDPReceiveWindow::ARRIVAL_DUPLICATE:
        log(tavo::LOG_LEVEL_DEBUG) << "received a duplicate packet - ACK and ignore" << std::endl;
        break;
    case EUDPReceiveWindow::ARRIVAL_FULL:
        log(tavo::LOG_LEVEL_DEBUG) << "receive buffer is full (dropping packet)" << std::endl;
        break;
    case EUDPReceiveWindow::ARRIVAL_GAP:
    case EUDPReceiveWindow::ARRIVAL_IN_ORDER:
    case EUDPReceiveWindow::ARRIVAL_AHEAD:
        break;
    }
    switch (verdict.answer)
    {
    case EUDP_UNKNOWN:
        break;
    case EUDP_ACK:
        if (verdict.arrival != EUDPReceiveWindow::ARRIVAL_DUPLICATE)
        {
            // In order: answered at the end of the burst, for all of it.
            m_burstAck = verdict.answerArg;
            m_burstStoredInOrder += verdict.stored;
            break;
        }
        answer(verdict.answer, verdict.answerArg);
        if (mode == CONN_MODE_RELIABLE)
        {
            // A copy means the sender went back, most likely for a lost
            // acknowledgement: the burst ends with one for everything taken,
            // so that it does not go on repeating packet after packet.
            m_burstAck =
                static_cast<uint>(m_pReceiveWindow->expected().previousInRange().getValue());
        }
        break;
    case EUDP_NAK:
        // Every packet after a gap asks for the same number: once a burst.
        if (!m_burstNak || *m_burstNak != verdict.answerArg)
        {
            log(tavo::LOG_LEVEL_WARNING) << verdict.distance << " packets lost" << std::endl;
            m_burstNak = verdict.answerArg;
            answer(verdict.answer, verdict.answerArg);
        }
        break;
    default:
        answer(verdict.answer, verdict.answerArg);
        break;
    }
    m_burstStored += verdict.stored;
}

void EUDPTransport::handleModeRequest(uint arg)
{
    // The answer, if any, follows the acknowledgements of what came before.
    sendBurstAck();
    std::lock_guard<std::mutex> hold(m_modeHoldMutex);
    if (m_modeRequestsHeld)
    {
        // Answered once the application has set its policy; only the newest
        // request matters, an older one has been given up.
        m_heldModeRequest = arg;
        m_hasHeldModeRequest = true;
        return;
    }
    answerModeRequest(arg);
}

void EUDPTransport::answerModeRequest(uint arg)
{
    const ModePolicy policy{m_allowSendRealtime, m_allowSendReliable, m_allowReceiveRealtime,
                            m_allowReceiveReliable};
    const ModeAnswer answer = ::answerModeRequest(arg, policy, m_sendMode, m_receiveMode);
    if (answer.sendAccepted)
    {
        // Stays in force even when the receive half is refused.
        changeSendMode(answer.send);
    }
    if (answer.accepted)
    {
        m_receiveMode = answer.receive;
        sendPacket(EUDP_MAK, answer.answerArg);
    }
    else
    {
        log(tavo::LOG_LEVEL_WARNING) << "unknown mode request (ignoring)" << std::endl;
    }
    IWEFTNegotiationObserver* observer = m_pNegotiationObserver;
    if (observer != nullptr && isNewRequest(EUDP_MOD, arg))
    {
        observer->onModeRequest(modeLetterAt(arg, 0), modeLetterAt(arg, 2), answer.accepted,
                                m_sendMode, m_receiveMode);
    }
}

bool EUDPTransport::isNewRequest(EEUDPCommand command, uint arg)
{
    // A requester repeats until answered, within its negotiation time.
    const auto now = std::chrono::steady_clock::now();
    const bool repeat = command == m_lastReported && arg == m_lastReportedArg &&
                        now < m_lastReportedAt + m_pTimeouts->negotiation;
    m_lastReported = command;
    m_lastReportedArg = arg;
    m_lastReportedAt = now;
    return !repeat;
}

void EUDPTransport::handleWindowRequest(uint arg)
{
    // 0 is taken as it comes (the peer may hold this side's data back); a
    // window beyond what the send ring holds is the whole ring, which a
    // window of 2^31 or more must not turn into a negative one that holds
    // everything back. The answer carries the request as it came.
    m_windowSize = static_cast<int>(std::min<uint>(arg, EUDP_RING_CAPACITY - 1));
    {
        // A larger window lets out what waited.
        tavo::MutexLock lock(m_sendMutex);
        flushSendable(std::chrono::steady_clock::now());
    }
    answer(EUDP_WAK, arg);
    IWEFTNegotiationObserver* observer = m_pNegotiationObserver;
    if (observer == nullptr)
    {
        return;
    }
    bool isNew = false;
    {
        // The report state is shared with mode requests answered on release.
        std::lock_guard<std::mutex> hold(m_modeHoldMutex);
        isNew = isNewRequest(EUDP_WIN, arg);
    }
    if (isNew)
    {
        observer->onWindowRequest(arg);
    }
}
