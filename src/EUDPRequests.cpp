// What the application's threads ask of a connected EUDP transport: data to
// send and to receive, modes and window to negotiate with the peer, and the
// modes the peer may ask for.

#include <weft/EUDPTransport.h>

#include "EUDPModes.h"
#include "EUDPReceiveWindow.h"
#include "EUDPSendWindow.h"
#include "EUDPTimeouts.h"

#include <algorithm>
#include <chrono>
#include <cstring>

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
    const uint request = modeRequestArg(mode, sendDirection);
    // An answer to an earlier request, or to an earlier copy of this one,
    // echoes other letters and is passed over.
    EModeReply reply = MODE_NOT_OURS;
    uint answer = 0;
    m_semModeAck.clear();
    sendPacket(EUDP_MOD, request);
    const bool answered = askPeer(
        m_semModeAck, m_pTimeouts->negotiation, m_pTimeouts->negotiationRepeat,
        [&] { sendPacket(EUDP_MOD, request); },
        [&]
        {
            answer = m_modeAnswer;
            reply = readModeAnswer(answer, request, mode, sendDirection);
            return reply != MODE_NOT_OURS;
        });
    if (!answered)
    {
        log(tavo::LOG_LEVEL_ERROR)
            << "failed to set " << direction << " mode (timeout)" << std::endl;
        return false;
    }
    if (reply == MODE_REFUSED)
    {
        log(tavo::LOG_LEVEL_WARNING)
            << "failed to set " << direction << " mode (peer refused)" << std::endl;
        return false;
    }
    // Mirror the peer: what it sends we receive, and the other way round.
    m_receiveMode = modeLetterAt(answer, 1);
    changeSendMode(modeLetterAt(answer, 3));
    return true;
}

void EUDPTransport::changeSendMode(EConnMode mode)
{
    bool wakeSender = false;
    bool giveSpace = false;
    {
        tavo::MutexLock lock(m_sendMutex);
        const EConnMode previous = m_sendMode.exchange(mode);
        if (mode == CONN_MODE_RELIABLE && previous != CONN_MODE_RELIABLE)
        {
            m_pSendWindow->startReliable();
            startSender();
        }
        const bool freed = flushSendable(std::chrono::steady_clock::now());
        afterQueued(freed, wakeSender, giveSpace);
    }
    giveWakeups(wakeSender, giveSpace);
}

bool EUDPTransport::setWindowSize(uint size)
{
    // A WAK for another size answers an earlier request: waited past, but
    // reported if nothing better comes.
    bool otherSize = false;
    m_semWindowAck.clear();
    sendPacket(EUDP_WIN, size);
    const bool answered = askPeer(
        m_semWindowAck, m_pTimeouts->negotiation, m_pTimeouts->negotiationRepeat,
        [&] { sendPacket(EUDP_WIN, size); },
        [&]
        {
            otherSize = m_windowAnswer != size;
            return !otherSize;
        });
    if (answered)
    {
        return true;
    }
    if (otherSize)
    {
        log(tavo::LOG_LEVEL_ERROR) << "failed to set window size (tried " << size << ", got "
                                   << m_windowAnswer.load() << ")" << std::endl;
        return false;
    }
    log(tavo::LOG_LEVEL_ERROR) << "failed to set window size (timeout)" << std::endl;
    return false;
}

bool EUDPTransport::sendData(const uint8* data, uint length)
{
    return queueData(data, length, true);
}

bool EUDPTransport::queueData(const uint8* data, uint length, bool waitForRoom)
{
    bool waited = false;
    const unsigned int limitMs = m_sendTimeoutMs;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
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
        if (!m_pSendWindow->isFull())
        {
            break;
        }
        if (!waitForRoom)
        {
            m_sendMutex.give();
            return false;
        }
        ++m_spaceWaiters;
        m_sendMutex.give();
        bool room = true;
        if (limitMs == 0)
        {
            m_semSendSpace.take();
        }
        else if (m_semSendSpace.take(toWaitMs(std::chrono::duration_cast<std::chrono::microseconds>(
                     deadline - std::chrono::steady_clock::now()))) == tavo::TAKE_OK)
        {
            // A slot was freed: the peer is taking data, the wait starts over.
            deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
        }
        else
        {
            room = false;
        }
        m_sendMutex.take();
        --m_spaceWaiters;
        if (!room && m_pSendWindow->isFull() && !m_closed)
        {
            m_sendMutex.give();
            // Nothing taken for the whole time: a peer that stopped reading
            // must not hold this caller, and whoever waits behind it, for good.
            log(tavo::LOG_LEVEL_ERROR) << "no room to send for " << limitMs
                                       << " ms: the peer takes nothing (closing)" << std::endl;
            close();
            return false;
        }
        waited = true;
    }
    m_pSendWindow->queue(data, length);
    // Sent from this thread when it may go now: no hand-over to the sender.
    const bool freed = flushSendable(std::chrono::steady_clock::now());
    bool wakeSender = false;
    bool giveSpace = false;
    afterQueued(freed, wakeSender, giveSpace);
    // The wake-up this call consumed may stand for several freed slots: pass
    // it on to the next caller waiting for room.
    giveSpace = giveSpace || (waited && !m_pSendWindow->isFull() && m_spaceWaiters > 0);
    m_sendMutex.give();
    giveWakeups(wakeSender, giveSpace);
    return true;
}

int EUDPTransport::receiveData(uint8* buffer, uint size)
{
    for (;;)
    {
        m_semReceived.take();
        tavo::MutexLock lock(m_receiveMutex);
        if (m_pReceiveWindow->isEmpty())
        {
            if (m_closed)
            {
                // The count goes back, so every later call reports the end at
                // once too.
                m_semReceived.give();
                m_pReceiveWindow->releaseIfEmpty();
                return 0;
            }
            // A count left by the closing of an earlier connection: wait on.
            continue;
        }
        const EUDPPacket& packet = m_pReceiveWindow->oldest();
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
        m_pReceiveWindow->dropOldest();
        if (m_roomWanted && m_pReceiveWindow->room() >= EUDP_RECEIVE_BURST)
        {
            // Once for a burst's room, not for every payload taken.
            m_roomWanted = false;
            m_semReceiveRoom.give();
        }
        return static_cast<int>(length);
    }
}

void EUDPTransport::releaseModeRequests()
{
    std::lock_guard<std::mutex> hold(m_modeHoldMutex);
    m_modeRequestsHeld = false;
    if (m_hasHeldModeRequest)
    {
        m_hasHeldModeRequest = false;
        answerModeRequest(m_heldModeRequest);
    }
}

void EUDPTransport::drainReliable()
{
    // The connecting side only: an ending client's last requests must
    // arrive; a server that closes is ending its own work.
    if (m_peerPort == 0 || m_conArg == NO_CON)
    {
        return;
    }
    // Bounded even when sends may wait without limit: closing must end. A
    // peer that acknowledges nothing for two retransmission ceilings is gone
    // or not listening, and is not waited for any longer.
    using Clock = std::chrono::steady_clock;
    const unsigned int limitMs =
        m_sendTimeoutMs != 0 ? m_sendTimeoutMs.load() : WEFT_SEND_TIMEOUT_MS;
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(limitMs);
    Clock::time_point quiet = Clock::now() + 2 * m_pTimeouts->retransmit;
    for (;;)
    {
        m_sendMutex.take();
        // A caller blocked on a full ring is being given up on: nothing to wait for.
        if (m_closed || m_sendMode != CONN_MODE_RELIABLE || m_pSendWindow->isEmpty() ||
            m_spaceWaiters > 0)
        {
            m_sendMutex.give();
            if (m_closed)
            {
                // The wake-up at closing goes on to any sender waiting for room.
                m_semSendSpace.give();
            }
            return;
        }
        // Progress is what the peer acknowledged, seen after the wait: a
        // wake-up comes only once a burst's room is free.
        const uint queuedBefore = m_pSendWindow->queued();
        ++m_spaceWaiters;
        m_sendMutex.give();
        bool progressed = false;
        for (;;)
        {
            const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
                std::min(end, quiet) - Clock::now());
            if (left.count() <= 0)
            {
                break;
            }
            m_semSendSpace.take(toWaitMs(left));
            tavo::MutexLock lock(m_sendMutex);
            // A wake-up left over from an earlier wait is no progress.
            progressed = m_closed || m_pSendWindow->queued() < queuedBefore;
            if (progressed)
            {
                break;
            }
        }
        m_sendMutex.take();
        --m_spaceWaiters;
        m_sendMutex.give();
        if (!progressed)
        {
            log(tavo::LOG_LEVEL_WARNING)
                << "closing with data the peer has not acknowledged" << std::endl;
            return;
        }
        quiet = Clock::now() + 2 * m_pTimeouts->retransmit;
    }
}
