// Putting data packets on the wire. Whoever changes what may go sends it at
// once, under the send lock: the caller of sendData when the window has room
// (or, real-time, always), the receiver thread when an acknowledgement opens
// the window, the timer thread's keep-alive. The sender thread only keeps the
// time: it goes back and repeats when acknowledgements stop coming, and
// sleeps without a deadline while nothing waits for one.

#include <weft/EUDPTransport.h>

#include "EUDPSendWindow.h"
#include "EUDPTimeouts.h"

#include <tavo/UdpSocket.h>

EUDPTransport::EUDPSender::EUDPSender() : tavo::Thread("eudp-sender"), m_pOwner(nullptr) {}

EUDPTransport::EUDPSender::~EUDPSender() {}

void EUDPTransport::EUDPSender::run()
{
    if (m_pOwner != nullptr)
    {
        m_pOwner->senderThread();
    }
}

void EUDPTransport::startSender()
{
    // Only reliable sending needs a clock of its own: real-time packets go
    // out with the call that makes them. Caller holds m_sendMutex, so two
    // mode changes cannot both start it.
    if (!m_senderStarted && !m_closed)
    {
        m_senderStarted = m_sender.start();
    }
}

void EUDPTransport::senderThread()
{
    std::optional<std::chrono::steady_clock::time_point> wakeAt;
    while (!m_closed)
    {
        sendPass(wakeAt);
        // Woken early by new data that needs the clock, a change of mode, or
        // the end; each is looked at again in the next pass.
        if (!wakeAt)
        {
            m_semSendWork.take();
            continue;
        }
        const auto now = std::chrono::steady_clock::now();
        if (*wakeAt > now)
        {
            m_semSendWork.take(
                toWaitMs(std::chrono::duration_cast<std::chrono::microseconds>(*wakeAt - now)));
        }
    }
}

void EUDPTransport::sendPass(std::optional<std::chrono::steady_clock::time_point>& wakeAt)
{
    tavo::MutexLock lock(m_sendMutex);
    const auto now = std::chrono::steady_clock::now();
    wakeAt.reset();
    if (m_sendMode == CONN_MODE_RELIABLE)
    {
        const auto due = m_pSendWindow->retransmitDue();
        const auto probeDue = m_pSendWindow->probeDue();
        if (due && now >= *due)
        {
            // Nothing heard for a while: everything unacknowledged goes again.
            m_pSendWindow->goBack(now);
        }
        else if (probeDue && now >= *probeDue)
        {
            m_pSendWindow->probe(now);
        }
    }
    flushSendable(now);
    if (m_sendMode == CONN_MODE_RELIABLE)
    {
        wakeAt = nextSenderDeadline();
        // Nothing waits for an acknowledgement, but packets went out since
        // the last pass: more are likely, so keep ticking once a time-out
        // rather than sleep without a deadline and be woken by the next one
        // (a wake-up for every exchange of a call and its answer). One quiet
        // period ends the ticking.
        const int queuedNumber = m_pSendWindow->nextNumber().getValue();
        if (!wakeAt && queuedNumber != m_senderSeenNumber)
        {
            wakeAt = now + m_pSendWindow->roundTrip().timeout();
        }
        m_senderSeenNumber = queuedNumber;
    }
    // Without a deadline the thread sleeps until a sender of new data needs
    // the clock again and wakes it.
    m_senderIdle = !wakeAt;
    if (wakeAt)
    {
        m_senderDeadline = *wakeAt;
    }
}

bool EUDPTransport::flushSendable(std::chrono::steady_clock::time_point now)
{
    bool freed = false;
    if (m_sendMode != CONN_MODE_RELIABLE)
    {
        // The slot is read after its pop, still under the lock, so no writer
        // can reuse it yet.
        while (const EUDPPacket* packet = m_pSendWindow->takeOldest())
        {
            sendDatagram(*packet);
            freed = true;
        }
    }
    else
    {
        while (const EUDPPacket* packet = m_pSendWindow->nextReliable(m_windowSize, now))
        {
            sendDatagram(*packet);
        }
    }
    return freed;
}

void EUDPTransport::afterQueued(bool freed, bool& wakeSender, bool& giveSpace)
{
    // Caller holds m_sendMutex. A reliable packet now waits for its
    // acknowledgement: a sleeping sender thread must start keeping time.
    wakeSender = senderWakesTooLate();
    giveSpace = wakesWriter(freed);
}

bool EUDPTransport::wakesWriter(bool freed) const
{
    return freed && m_spaceWaiters > 0 && m_pSendWindow->roomForWriter();
}

bool EUDPTransport::senderWakesTooLate()
{
    if (m_sendMode != CONN_MODE_RELIABLE || !m_senderStarted)
    {
        return false;
    }
    const auto due = nextSenderDeadline();
    if (!due)
    {
        return false;
    }
    // A deadline that moved earlier by less than the floor is kept: the
    // wake-up would cost more than the lateness.
    if (!m_senderIdle && *due + m_pTimeouts->retransmitFloor >= m_senderDeadline)
    {
        return false;
    }
    m_senderIdle = false;
    m_senderDeadline = *due;
    return true;
}

std::optional<std::chrono::steady_clock::time_point> EUDPTransport::nextSenderDeadline() const
{
    const auto due = m_pSendWindow->retransmitDue();
    const auto probeDue = m_pSendWindow->probeDue();
    if (due && probeDue)
    {
        return std::min(*due, *probeDue);
    }
    return due ? due : probeDue;
}

void EUDPTransport::giveWakeups(bool wakeSender, bool giveSpace)
{
    if (wakeSender)
    {
        m_semSendWork.give();
    }
    if (giveSpace)
    {
        m_semSendSpace.give();
    }
}

void EUDPTransport::sendDatagram(const EUDPPacket& packet)
{
    m_pSocket->sendTo(packet.getBuffer(), static_cast<int>(packet.getLength()), m_peerAddress,
                      m_peerPort);
}
