#include <weft/EUDPTransport.h>

#include <tavo/Assert.h>
#include <tavo/LogManager.h>
#include <tavo/UdpSocket.h>

#include <cstdint>
#include <cstring>

namespace
{

// The mode asked for by one byte of a mode request, if this side allows it;
// "D" keeps `current`. False for a refused or unknown letter.
bool pickMode(uint8 letter, bool realtimeAllowed, bool reliableAllowed, EConnMode current,
              EConnMode& chosen)
{
    switch (letter)
    {
    case CONN_MODE_REALTIME:
        chosen = CONN_MODE_REALTIME;
        return realtimeAllowed;
    case CONN_MODE_RELIABLE:
        chosen = CONN_MODE_RELIABLE;
        return reliableAllowed;
    case CONN_MODE_DONT_CARE:
        chosen = current;
        return true;
    default:
        return false;
    }
}

// Four mode letters as an argument, byte 0 first on the wire.
uint modeBytes(uint8 b0, uint8 b1, uint8 b2, uint8 b3)
{
    return static_cast<uint>(b0) | (static_cast<uint>(b1) << 8) | (static_cast<uint>(b2) << 16) |
           (static_cast<uint>(b3) << 24);
}

// Byte `index` of a mode argument as a mode: the letter is a signed character.
EConnMode modeByte(uint arg, unsigned int index)
{
    return static_cast<EConnMode>(static_cast<signed char>((arg >> (8 * index)) & 0xFFu));
}

uint8 modeLetter(EConnMode mode)
{
    return static_cast<uint8>(static_cast<int>(mode) & 0xFF);
}

// Empties a binary semaphore that may hold an answer meant for an earlier
// request, so that the next wait sees only a new one.
void drain(tavo::BinarySemaphore& semaphore)
{
    while (semaphore.take(0) == tavo::TAKE_OK)
    {
    }
}

// A datagram socket with room for a burst: the default buffer overflows
// once a large window's worth of datagrams arrives at once, and every
// datagram lost there costs a reliable sender a go-back.
tavo::UdpSocket* newSocket()
{
    auto* socket = new tavo::UdpSocket();
    socket->setReceiveBufferSize(EUDP_SOCKET_RECEIVE_BUFFER);
    return socket;
}

} // namespace

// ---- threads ----

EUDPTransport::EUDPSender::EUDPSender() : tavo::Thread("eudp-sender"), m_pOwner(nullptr) {}

EUDPTransport::EUDPSender::~EUDPSender() {}

void EUDPTransport::EUDPSender::run()
{
    if (m_pOwner != nullptr)
    {
        m_pOwner->senderThread();
    }
}

EUDPTransport::EUDPReceiver::EUDPReceiver() : tavo::Thread("eudp-receiver"), m_pOwner(nullptr) {}

EUDPTransport::EUDPReceiver::~EUDPReceiver() {}

void EUDPTransport::EUDPReceiver::run()
{
    if (m_pOwner != nullptr)
    {
        m_pOwner->receiverThread();
    }
}

// ---- construction and destruction ----

EUDPTransport::EUDPTransport() : EUDPTransport(tavo::HostAddress(), 0) {}

EUDPTransport::EUDPTransport(const tavo::HostAddress& peer, uint16 port)
    : m_pSocket(nullptr), m_peerAddress(peer), m_peerPort(port), m_logPort(port),
      m_nextSendSeq(0, EUDP_SEQ_RANGE), m_lastSentSeq(-1, EUDP_SEQ_RANGE),
      m_lastAckedSeq(-1, EUDP_SEQ_RANGE), m_expectedSeq(0, EUDP_SEQ_RANGE), m_inFlight(0),
      m_windowAnswer(0), m_modeAnswer(0), m_semReceived(0), m_allowSendRealtime(true),
      m_allowSendReliable(true), m_allowReceiveRealtime(true), m_allowReceiveReliable(true),
      m_sendMode(CONN_MODE_REALTIME), m_receiveMode(CONN_MODE_REALTIME),
      m_windowSize(EUDP_DEFAULT_WINDOW), m_closed(false), m_receiveBuffer(EUDP_RING_CAPACITY),
      m_sendBuffer(EUDP_RING_CAPACITY),
      // Defined before initTimers runs; the timers stay unarmed until then anyway.
      m_keepAlivePeriod(EUDP_CONNECTING_KEEPALIVE_US), m_timersInitialised(false),
      m_pLog(tavo::LogManager::getInstance()->getLogOutput("WEFT")), m_pSendAliveCallback(nullptr),
      m_pAliveCallback(nullptr)
{
    m_pSocket = newSocket();
    m_sender.m_pOwner = this;
    m_receiver.m_pOwner = this;
}

EUDPTransport::~EUDPTransport()
{
    m_sendAliveTimer.stop();
    m_aliveTimer.stop();
    // Closing the socket ends the receiver (and a blocked accept); no DIS.
    closeSocket();
    wakeWaiters();
    m_sender.shutdown(-1);
    m_receiver.shutdown(-1);
    leaveHalfOpen();
    // An accept blocked on another thread has left once it lets go of this.
    {
        std::lock_guard<std::mutex> acceptGuard(m_acceptMutex);
    }
    // The receiver may have re-armed the idle timer just before it ended, and
    // the idle timer's callback arms the dead-peer timer: stopped in this
    // order, with no thread left to arm them, neither fires again, so their
    // callbacks can be freed.
    m_sendAliveTimer.stop();
    m_aliveTimer.stop();
    if (m_pSendAliveCallback != nullptr)
    {
        m_sendAliveTimer.removeCallback(m_pSendAliveCallback);
        delete m_pSendAliveCallback;
        m_pSendAliveCallback = nullptr;
    }
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

std::ostream& EUDPTransport::log(int level)
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
    // The sender sees m_closed and ends, at once even from its wait for an
    // acknowledgement; a sendData waiting for room and a receiveData waiting
    // for a packet wake and report the end.
    m_semSendWork.give();
    m_semAck.give();
    m_semSendSpace.give();
    m_semReceived.give();
}

void EUDPTransport::stopTimers()
{
    if (m_sendAliveTimer.isRunning())
    {
        m_sendAliveTimer.stop();
    }
    if (m_aliveTimer.isRunning())
    {
        m_aliveTimer.stop();
    }
}

// ---- getters ----

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

// ---- keep-alive and dead-peer timers ----

void EUDPTransport::initTimers(uint keepAlivePeriod)
{
    if (m_timersInitialised)
    {
        return;
    }
    m_keepAlivePeriod = keepAlivePeriod;
    m_pSendAliveCallback =
        new tavo::Callback<EUDPTransport>(this, &EUDPTransport::onSendAliveTimer);
    m_pAliveCallback = new tavo::Callback<EUDPTransport>(this, &EUDPTransport::onAliveTimer);
    m_sendAliveTimer.addCallback(m_pSendAliveCallback);
    m_aliveTimer.addCallback(m_pAliveCallback);
    // Set last, so that the receiver's resetTimers finds the period in place.
    m_timersInitialised = true;
    resetTimers();
}

void EUDPTransport::resetTimers()
{
    // An answer heard before the connection is set up arms nothing, and a
    // closed transport keeps its timers stopped.
    if (!m_timersInitialised || m_closed)
    {
        return;
    }
    stopTimers();
    m_sendAliveTimer.start(static_cast<int>(m_keepAlivePeriod), true);
}

void EUDPTransport::onSendAliveTimer()
{
    m_aliveTimer.start(static_cast<int>(EUDP_DEAD_PEER_TIMEOUT), true);
    // This runs on the process's only timer thread, which must never block:
    // the keep-alive is queued only if there is room. A full ring means data
    // in flight, which shows the peer we are alive anyway.
    queueData(nullptr, 0, false);
}

void EUDPTransport::onAliveTimer()
{
    if (m_sendAliveTimer.isRunning())
    {
        m_sendAliveTimer.stop();
    }
    closeSocket();
    wakeWaiters();
}

// ---- connection establishment ----

bool EUDPTransport::listen(const tavo::HostAddress& address, uint16 port)
{
    TAVO_ASSERT(m_pSocket);
    return m_pSocket->bind(address, port);
}

IWEFTTransport* EUDPTransport::accept()
{
    TAVO_ASSERT(m_pSocket);
    std::lock_guard<std::mutex> acceptGuard(m_acceptMutex);
    if (!m_pHalfOpenCount)
    {
        m_pHalfOpenCount = std::make_shared<std::atomic<unsigned int>>(0u);
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
        // Each accepted connection holds two threads and two packet rings
        // until its peer answers or its dead-peer timer fires.
        const unsigned int limit = m_halfOpenLimit;
        if (limit != EUDP_NO_HALF_OPEN_LIMIT && *m_pHalfOpenCount >= limit)
        {
            log(tavo::LOG_LEVEL_WARNING)
                << "too many half-open connections (ignoring CON)" << std::endl;
            continue;
        }
        break;
    }

    const uint first = request.getArg();
    EUDPTransport* accepted = new EUDPTransport(source, sourcePort);
    // Signed arithmetic on the 32-bit number, widened so that no argument overflows.
    const std::int64_t expected =
        (static_cast<std::int64_t>(static_cast<std::int32_t>(first)) + 1) % EUDP_SEQ_RANGE;
    accepted->m_expectedSeq = ModuloValue(static_cast<int>(expected), EUDP_SEQ_RANGE);
    // Sent from the new transport's own socket: the connection gets its own port.
    accepted->m_modeRequestsHeld = m_holdModeRequests.load();
    accepted->m_strictPeer = m_strictPeer.load();
    // Counted as half-open until its peer is heard from or it closes.
    accepted->m_pHalfOpenCount = m_pHalfOpenCount;
    ++*m_pHalfOpenCount;
    accepted->m_halfOpen = true;
    accepted->sendPacket(EUDP_ACK, first);
    accepted->m_receiver.start();
    accepted->m_sender.start();
    accepted->initTimers(EUDP_ACCEPTED_KEEPALIVE_US);
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
        m_sendAliveTimer.stop();
        m_aliveTimer.stop();
        delete m_pSocket;
        m_pSocket = newSocket();
    }
    // A new connection starts from the state a new transport has: nothing of
    // the old peer's data, modes or window carries over. The sequence numbers
    // go on (the CON announces where) and the allow flags are local policy.
    {
        tavo::MutexLock lock(m_sendMutex);
        while (!m_sendBuffer.isEmpty())
        {
            m_sendBuffer.pop();
        }
        m_lastSentSeq = ModuloValue(-1, EUDP_SEQ_RANGE);
        m_lastAckedSeq = ModuloValue(-1, EUDP_SEQ_RANGE);
        m_inFlight = 0;
        m_sendMode = CONN_MODE_REALTIME;
    }
    {
        tavo::MutexLock lock(m_receiveMutex);
        while (!m_receiveBuffer.isEmpty())
        {
            m_receiveBuffer.pop();
        }
    }
    m_receiveMode = CONN_MODE_REALTIME;
    m_windowSize = EUDP_DEFAULT_WINDOW;
    m_closed = false;
}

bool EUDPTransport::connect(const tavo::HostAddress& address, uint16 port)
{
    TAVO_ASSERT(m_pSocket);
    renewForConnect();
    m_peerAddress = address;
    // Port 0 marks the ACK that comes back as the answer to this CON.
    m_peerPort = 0;
    m_expectedSeq = ModuloValue(0, EUDP_SEQ_RANGE);
    drain(m_semConnected);

    int first = 0;
    {
        tavo::MutexLock lock(m_sendMutex);
        first = m_nextSendSeq.getValue();
    }
    // The first send binds the socket to a local port.
    sendPacket(EUDP_CON, static_cast<uint>(first), port);
    m_logPort = getLocalPort();
    while (m_semReceived.take(0) == tavo::TAKE_OK)
    {
    }
    m_receiver.start();

    if (m_semConnected.take(EUDP_CONNECT_TIMEOUT_MS) != tavo::TAKE_OK)
    {
        log(tavo::LOG_LEVEL_ERROR) << "failed to connect to " << address.getAddressString() << ":"
                                   << port << " (timeout)" << std::endl;
        return false;
    }
    bool answered = false;
    {
        tavo::MutexLock lock(m_sendMutex);
        answered = m_lastAckedSeq.getValue() == m_nextSendSeq.getValue();
        if (answered)
        {
            // The first data packet carries the CON's number + 1, as the
            // accepting side expects.
            m_nextSendSeq.increment();
        }
    }
    if (!answered)
    {
        log(tavo::LOG_LEVEL_ERROR) << "failed to connect to " << address.getAddressString() << ":"
                                   << port << " (wrong ACK)" << std::endl;
        return false;
    }
    m_sender.start();
    initTimers(EUDP_CONNECTING_KEEPALIVE_US);
    return true;
}

void EUDPTransport::disconnect()
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
            next = m_nextSendSeq.getValue();
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

// ---- mode and window negotiation ----

void EUDPTransport::allowSendMode(bool realtime, bool reliable)
{
    if (!realtime && !reliable)
    {
        log(tavo::LOG_LEVEL_ERROR) << "allowing neither realtime nor reliable mode" << std::endl;
        return;
    }
    m_allowSendRealtime = realtime;
    m_allowSendReliable = reliable;
}

void EUDPTransport::allowReceiveMode(bool realtime, bool reliable)
{
    if (!realtime && !reliable)
    {
        log(tavo::LOG_LEVEL_ERROR) << "allowing neither realtime nor reliable mode" << std::endl;
        return;
    }
    m_allowReceiveRealtime = realtime;
    m_allowReceiveReliable = reliable;
}

bool EUDPTransport::setSendMode(EConnMode mode)
{
    return requestMode(mode, true);
}

bool EUDPTransport::setReceiveMode(EConnMode mode)
{
    return requestMode(mode, false);
}

bool EUDPTransport::requestMode(EConnMode mode, bool sendDirection)
{
    const char* direction = sendDirection ? "send" : "receive";
    const uint8 letter = modeLetter(mode);
    const uint8 keep = modeLetter(CONN_MODE_DONT_CARE);
    drain(m_semModeAck);
    sendPacket(EUDP_MOD, sendDirection ? modeBytes(letter, keep, keep, keep)
                                       : modeBytes(keep, keep, letter, keep));
    if (m_semModeAck.take(EUDP_NEGOTIATION_TIMEOUT_MS) != tavo::TAKE_OK)
    {
        log(tavo::LOG_LEVEL_ERROR)
            << "failed to set " << direction << " mode (timeout)" << std::endl;
        return false;
    }
    const uint answer = m_modeAnswer;
    const EConnMode peerSend = modeByte(answer, 1);
    const EConnMode peerReceive = modeByte(answer, 3);
    if (mode != CONN_MODE_DONT_CARE && mode != (sendDirection ? peerSend : peerReceive))
    {
        log(tavo::LOG_LEVEL_WARNING)
            << "failed to set " << direction << " mode (peer refused)" << std::endl;
        return false;
    }
    // Mirror the peer: what it sends we receive, and the other way round.
    m_receiveMode = peerSend;
    changeSendMode(peerReceive);
    return true;
}

void EUDPTransport::changeSendMode(EConnMode mode)
{
    tavo::MutexLock lock(m_sendMutex);
    const EConnMode previous = m_sendMode.exchange(mode);
    if (mode == CONN_MODE_RELIABLE && previous != CONN_MODE_RELIABLE)
    {
        // Real-time sending moves neither counter, so after a long real-time
        // phase no queued packet would be "after" them and the reliable sender
        // would stall. Both go to the number just before the oldest queued
        // packet: nothing of the new reliable phase is sent or acknowledged yet.
        const int oldest = m_sendBuffer.isEmpty()
                               ? m_nextSendSeq.getValue()
                               : ModuloValue::fromArg(m_sendBuffer.front().getArg()).getValue();
        const ModuloValue before((oldest - 1) % EUDP_SEQ_RANGE, EUDP_SEQ_RANGE);
        m_lastSentSeq = before;
        m_lastAckedSeq = before;
        m_inFlight = 0;
    }
}

bool EUDPTransport::setWindowSize(uint size)
{
    drain(m_semWindowAck);
    sendPacket(EUDP_WIN, size);
    if (m_semWindowAck.take(EUDP_NEGOTIATION_TIMEOUT_MS) != tavo::TAKE_OK)
    {
        log(tavo::LOG_LEVEL_ERROR) << "failed to set window size (timeout)" << std::endl;
        return false;
    }
    const uint answer = m_windowAnswer;
    if (answer == size)
    {
        return true;
    }
    log(tavo::LOG_LEVEL_ERROR) << "failed to set window size (tried " << size << ", got " << answer
                               << ")" << std::endl;
    return false;
}

// ---- sending path ----

bool EUDPTransport::sendData(const uint8* data, uint length)
{
    return queueData(data, length, true);
}

bool EUDPTransport::queueData(const uint8* data, uint length, bool waitForRoom)
{
    bool waited = false;
    m_sendMutex.take();
    for (;;)
    {
        if (m_closed)
        {
            log(tavo::LOG_LEVEL_DEBUG) << "trying to send, but connection closed" << std::endl;
            m_sendMutex.give();
            // One wake-up at closing must reach every caller waiting for room.
            m_semSendSpace.give();
            return false;
        }
        if (!m_sendBuffer.isFull())
        {
            break;
        }
        if (!waitForRoom)
        {
            m_sendMutex.give();
            return false;
        }
        m_sendMutex.give();
        m_semSendSpace.take();
        waited = true;
        m_sendMutex.take();
    }

    EUDPPacket packet(EUDP_CMD);
    packet.setArg(static_cast<uint>(m_nextSendSeq.getValue()));
    m_nextSendSeq.increment();
    packet.setData(data, length);
    m_sendBuffer.push(packet);
    const bool roomLeft = !m_sendBuffer.isFull();
    m_semSendWork.give();
    m_sendMutex.give();
    // The wake-up this call consumed may stand for several freed slots: pass
    // it on to the next caller waiting for room.
    if (waited && roomLeft)
    {
        m_semSendSpace.give();
    }
    return true;
}

void EUDPTransport::senderThread()
{
    while (!m_closed)
    {
        bool empty = true;
        bool windowFull = false;
        {
            tavo::MutexLock lock(m_sendMutex);
            empty = m_sendBuffer.isEmpty();
            windowFull = m_inFlight == m_windowSize;
        }
        if (empty)
        {
            m_semSendWork.take();
            continue;
        }
        if (windowFull && m_semAck.take(EUDP_RETRANSMIT_TIMEOUT_MS) == tavo::TAKE_TIMEOUT &&
            !m_closed)
        {
            goBack();
        }
        if (m_sendMode == CONN_MODE_RELIABLE)
        {
            reliableStep();
        }
        else
        {
            realtimeStep();
        }
    }
}

void EUDPTransport::realtimeStep()
{
    tavo::MutexLock lock(m_sendMutex);
    if (m_sendBuffer.isEmpty())
    {
        return;
    }
    // One wake-up for the whole drain: the semaphore holds only one anyway,
    // and a waiting sendData re-checks under this lock.
    m_semSendSpace.give();
    const uint16 port = m_peerPort;
    while (!m_sendBuffer.isEmpty())
    {
        // The slot is read after the pop, still under the lock, so no writer
        // can reuse it yet.
        const EUDPPacket& packet = m_sendBuffer.front();
        m_sendBuffer.pop();
        m_pSocket->sendTo(packet.getBuffer(), static_cast<int>(packet.getLength()), m_peerAddress,
                          port);
    }
}

void EUDPTransport::reliableStep()
{
    bool sent = false;
    {
        tavo::MutexLock lock(m_sendMutex);
        if (!m_sendBuffer.isEmpty() && m_windowSize > m_inFlight)
        {
            const uint index = firstUnsentIndex();
            if (index < m_sendBuffer.size())
            {
                const EUDPPacket& packet = m_sendBuffer.at(index);
                m_pSocket->sendTo(packet.getBuffer(), static_cast<int>(packet.getLength()),
                                  m_peerAddress, m_peerPort);
                ++m_inFlight;
                m_lastSentSeq = ModuloValue::fromArg(packet.getArg());
                sent = true;
            }
        }
    }
    // Nothing may go out: wait for an acknowledgement, and go back when none
    // comes in time.
    if (!sent && m_semAck.take(EUDP_RETRANSMIT_TIMEOUT_MS) == tavo::TAKE_TIMEOUT && !m_closed)
    {
        goBack();
    }
}

uint EUDPTransport::firstUnsentIndex()
{
    // The numbers in the ring rise from the oldest packet, normally one by one,
    // so the first one after m_lastSentSeq lies as many places on as it is
    // numbers ahead of the oldest: found at once instead of by a scan of up to
    // a window's worth of slots for every packet sent. The packet found there
    // proves it; should a gap in the numbers (a connection request takes a
    // number too) make it wrong, the scan from the oldest decides.
    const uint queued = m_sendBuffer.size();
    const ModuloValue oldest(static_cast<int>(m_sendBuffer.front().getArg()), EUDP_SEQ_RANGE);
    const int ahead = oldest.distance(m_lastSentSeq);
    const uint guess = ahead > 0 ? 0u : static_cast<uint>(1 - ahead);
    const uint probe = guess < queued ? guess : queued - 1;
    const int expected = (oldest.getValue() + static_cast<int>(probe)) % EUDP_SEQ_RANGE;
    if (static_cast<int>(m_sendBuffer.at(probe).getArg()) == expected)
    {
        return guess < queued ? guess : queued;
    }
    for (uint i = 0; i < queued; ++i)
    {
        const uint arg = m_sendBuffer.at(i).getArg();
        if (ModuloValue(static_cast<int>(arg), EUDP_SEQ_RANGE).isAfter(m_lastSentSeq))
        {
            return i;
        }
    }
    return queued;
}

void EUDPTransport::goBack()
{
    tavo::MutexLock lock(m_sendMutex);
    m_lastSentSeq = m_lastAckedSeq;
    m_inFlight = 0;
}

void EUDPTransport::processAck(int seq)
{
    const ModuloValue acked(seq, EUDP_SEQ_RANGE);
    {
        // Compared under the lock: a mode change on another thread moves
        // m_lastAckedSeq too.
        tavo::MutexLock lock(m_sendMutex);
        if (!acked.isAfter(m_lastAckedSeq))
        {
            return;
        }
        m_lastAckedSeq = acked;
        bool freed = false;
        while (!m_sendBuffer.isEmpty() &&
               !ModuloValue::fromArg(m_sendBuffer.front().getArg()).isAfter(m_lastAckedSeq))
        {
            m_sendBuffer.pop();
            --m_inFlight;
            freed = true;
        }
        if (freed)
        {
            m_semSendSpace.give();
        }
    }
    m_semAck.give();
}

void EUDPTransport::processNak(int seq)
{
    const ModuloValue wanted(seq, EUDP_SEQ_RANGE);
    bool honoured = false;
    {
        tavo::MutexLock lock(m_sendMutex);
        honoured = wanted.isAfter(m_lastAckedSeq);
        if (honoured)
        {
            // The next pass starts again at `seq` itself; a NAK for 0 gives -1.
            m_lastSentSeq = ModuloValue((seq - 1) % EUDP_SEQ_RANGE, EUDP_SEQ_RANGE);
            m_inFlight = 0;
        }
    }
    if (honoured)
    {
        m_semAck.give();
        return;
    }
    log(tavo::LOG_LEVEL_WARNING)
        << "Received a NAK for a packet that had already been ACKed (ignoring)" << std::endl;
}

// ---- receiver ----

void EUDPTransport::receiverThread()
{
    // Every datagram lands in this one packet: nothing is allocated per datagram.
    EUDPPacket packet;
    tavo::HostAddress source;
    uint16 sourcePort = 0;
    while (!m_closed)
    {
        const int received = m_pSocket->receiveFrom(
            packet.getBuffer(), static_cast<int>(EUDP_MAX_PACKET_SIZE), source, sourcePort);
        if (received < 1)
        {
            break;
        }
        if (m_strictPeer && isStranger(source, sourcePort))
        {
            log(tavo::LOG_LEVEL_DEBUG) << "ignoring a datagram from " << source.getAddressString()
                                       << ":" << sourcePort << " (not the peer)" << std::endl;
            continue;
        }
        if (!packet.validatePacket(static_cast<uint>(received)))
        {
            log(tavo::LOG_LEVEL_WARNING) << "dropping invalid packet" << std::endl;
            continue;
        }
        if (m_halfOpen)
        {
            leaveHalfOpen();
        }
        resetTimers();
        const uint arg = packet.getArg();
        const int seq = ModuloValue::fromArg(arg).getValue();
        switch (packet.getCommand())
        {
        case EUDP_NOP:
            break;
        case EUDP_ACK:
            if (m_peerPort == 0)
            {
                // The answer to our CON, from the accepted transport's new port.
                {
                    tavo::MutexLock lock(m_sendMutex);
                    m_lastAckedSeq = ModuloValue(seq, EUDP_SEQ_RANGE);
                }
                m_peerPort = sourcePort;
                m_semConnected.give();
            }
            else
            {
                processAck(seq);
            }
            break;
        case EUDP_NAK:
            processNak(seq);
            break;
        case EUDP_DIS:
            m_closed = true;
            stopTimers();
            m_pSocket->close();
            break;
        case EUDP_CMD:
            handleData(packet);
            break;
        case EUDP_MOD:
        {
            std::lock_guard<std::mutex> hold(m_modeHoldMutex);
            if (m_modeRequestsHeld)
            {
                // Answered once the application has set its policy; only the
                // newest request matters, an older one has been given up.
                m_heldModeRequest = arg;
                m_hasHeldModeRequest = true;
                break;
            }
            handleModeRequest(arg);
            break;
        }
        case EUDP_MAK:
            m_modeAnswer = arg;
            m_semModeAck.give();
            break;
        case EUDP_WIN:
            m_windowSize = static_cast<int>(arg);
            sendPacket(EUDP_WAK, arg);
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
    m_closed = true;
    stopTimers();
    leaveHalfOpen();
    wakeWaiters();
}

void EUDPTransport::handleData(const EUDPPacket& packet)
{
    const uint arg = packet.getArg();
    const ModuloValue seq = ModuloValue::fromArg(arg);
    const int distance = seq.distance(m_expectedSeq);
    if (distance < 0)
    {
        log(tavo::LOG_LEVEL_DEBUG) << "received a duplicate packet - ACK and ignore" << std::endl;
        sendPacket(EUDP_ACK, arg);
        return;
    }
    // Read once, so that the answers below agree with each other.
    const EConnMode mode = m_receiveMode;
    tavo::MutexLock lock(m_receiveMutex);
    if (m_receiveBuffer.isFull())
    {
        log(tavo::LOG_LEVEL_DEBUG) << "receive buffer is full (dropping packet)" << std::endl;
        return;
    }
    if (mode == CONN_MODE_RELIABLE)
    {
        if (distance > 0)
        {
            log(tavo::LOG_LEVEL_WARNING) << distance << " packets lost" << std::endl;
            sendPacket(EUDP_NAK, static_cast<uint>(m_expectedSeq.getValue()));
            return;
        }
        sendPacket(EUDP_ACK, static_cast<uint>(seq.getValue()));
    }
    m_expectedSeq = ModuloValue((seq.getValue() + 1) % EUDP_SEQ_RANGE, EUDP_SEQ_RANGE);
    if (packet.getLength() != EUDP_HEADER_SIZE)
    {
        if (m_receiveBuffer.push(packet))
        {
            m_semReceived.give();
        }
        else
        {
            log(tavo::LOG_LEVEL_ERROR) << "push failed (internal error)" << std::endl;
        }
    }
    else if (mode == CONN_MODE_REALTIME)
    {
        // A keep-alive: in reliable mode its ACK has answered it already.
        sendPacket(EUDP_NOP, 0);
    }
}

void EUDPTransport::setStrictPeer(bool strict)
{
    m_strictPeer = strict;
}

void EUDPTransport::setHalfOpenLimit(unsigned int limit)
{
    m_halfOpenLimit = limit;
}

bool EUDPTransport::isStranger(const tavo::HostAddress& source, uint16 port) const
{
    if (source != m_peerAddress)
    {
        return true;
    }
    // While connecting, the peer's port is not known yet: the answer comes
    // from the accepted transport's new one.
    const uint16 peerPort = m_peerPort;
    return peerPort != 0 && port != peerPort;
}

void EUDPTransport::leaveHalfOpen()
{
    if (m_halfOpen.exchange(false) && m_pHalfOpenCount)
    {
        --*m_pHalfOpenCount;
    }
}

void EUDPTransport::holdModeRequests(bool hold)
{
    m_holdModeRequests = hold;
}

void EUDPTransport::releaseModeRequests()
{
    std::lock_guard<std::mutex> hold(m_modeHoldMutex);
    m_modeRequestsHeld = false;
    if (m_hasHeldModeRequest)
    {
        m_hasHeldModeRequest = false;
        handleModeRequest(m_heldModeRequest);
    }
}

void EUDPTransport::handleModeRequest(uint arg)
{
    // Byte 0 of the argument is the first on the wire: the low byte.
    const uint8 askedSend = static_cast<uint8>(arg & 0xFFu);
    const uint8 askedReceive = static_cast<uint8>((arg >> 16) & 0xFFu);
    EConnMode send = CONN_MODE_REALTIME;
    if (!pickMode(askedSend, m_allowSendRealtime, m_allowSendReliable, m_sendMode, send))
    {
        log(tavo::LOG_LEVEL_WARNING) << "unknown mode request (ignoring)" << std::endl;
        return;
    }
    changeSendMode(send);
    EConnMode receive = CONN_MODE_REALTIME;
    // A send mode set above stays in force when this half is refused.
    if (!pickMode(askedReceive, m_allowReceiveRealtime, m_allowReceiveReliable, m_receiveMode,
                  receive))
    {
        log(tavo::LOG_LEVEL_WARNING) << "unknown mode request (ignoring)" << std::endl;
        return;
    }
    m_receiveMode = receive;
    sendPacket(EUDP_MAK, modeBytes(askedSend, modeLetter(m_sendMode), askedReceive,
                                   modeLetter(m_receiveMode)));
}

// ---- receiving path ----

int EUDPTransport::receiveData(uint8* buffer, uint size)
{
    for (;;)
    {
        m_semReceived.take();
        tavo::MutexLock lock(m_receiveMutex);
        if (m_receiveBuffer.isEmpty())
        {
            if (m_closed)
            {
                // The count goes back, so every later call reports the end at
                // once too.
                m_semReceived.give();
                return 0;
            }
            // A count left by the closing of an earlier connection: wait on.
            continue;
        }
        const EUDPPacket& packet = m_receiveBuffer.front();
        const uint length = packet.getPayloadLength();
        if (size < length)
        {
            log(tavo::LOG_LEVEL_ERROR) << "receive failed, provided buffer too small" << std::endl;
            // The packet stays first; its count goes back so that a retry with
            // a larger buffer gets it at once.
            m_semReceived.give();
            return -1;
        }
        std::memcpy(buffer, packet.getPayload(), length);
        m_receiveBuffer.pop();
        return static_cast<int>(length);
    }
}
