#include "EUDPSendWindow.h"

#include <tavo/Assert.h>

#include <algorithm>

EUDPSendWindow::EUDPSendWindow(uint capacity, Duration retransmitTimeout, Duration retransmitFloor)
    : m_sendBuffer(capacity), m_sentTimes(capacity), m_nextSendSeq(0), m_lastSentSeq(-1),
      m_lastAckedSeq(-1), m_inFlight(0), m_reliableFrom(0), m_fillNext(0), m_fillLeft(0),
      m_filler(EUDP_CMD), m_roundTrip(retransmitFloor, retransmitTimeout)
{
}

void EUDPSendWindow::popOldest()
{
    m_sendBuffer.pop();
    m_sentTimes.pop();
}

void EUDPSendWindow::queue(const uint8* data, uint length)
{
    TAVO_ASSERT(!m_sendBuffer.isFull());
    EUDPPacket packet(EUDP_CMD);
    packet.setArg(static_cast<uint>(m_nextSendSeq.getValue()));
    m_nextSendSeq.increment();
    packet.setData(data, length);
    m_sendBuffer.push(packet);
    m_sentTimes.push(Sent());
}

void EUDPSendWindow::restart(ModuloValue next, ModuloValue acknowledged)
{
    while (!m_sendBuffer.isEmpty())
    {
        popOldest();
    }
    m_nextSendSeq = next;
    m_lastAckedSeq = acknowledged;
    m_lastSentSeq = acknowledged;
    m_reliableFrom = next;
    m_inFlight = 0;
    m_recoveryBudget = UNLIMITED;
    m_fillLeft = 0;
    m_filledAt.reset();
}

void EUDPSendWindow::discard()
{
    while (!m_sendBuffer.isEmpty())
    {
        popOldest();
    }
    m_sendBuffer.release();
    m_sentTimes.release();
    m_fillLeft = 0;
}

void EUDPSendWindow::acknowledgeConnection(ModuloValue conNumber)
{
    m_lastAckedSeq = conNumber;
    m_lastSentSeq = conNumber;
}

const EUDPPacket* EUDPSendWindow::takeOldest()
{
    if (m_sendBuffer.isEmpty())
    {
        return nullptr;
    }
    const EUDPPacket* oldest = &m_sendBuffer.front();
    popOldest();
    return oldest;
}

void EUDPSendWindow::startReliable()
{
    m_reliableFrom = m_sendBuffer.isEmpty() ? m_nextSendSeq
                                            : ModuloValue::fromArg(m_sendBuffer.front().getArg());
    m_lastSentSeq = m_reliableFrom.previous();
    m_lastAckedSeq = m_lastSentSeq;
    m_inFlight = 0;
    m_recoveryBudget = UNLIMITED;
    m_fillLeft = 0;
    m_filledAt.reset();
}

const EUDPPacket* EUDPSendWindow::nextReliable(int window, TimePoint now)
{
    if (m_fillLeft > 0)
    {
        // Fillers are not counted in the window: the peer acknowledges numbers
        // this side no longer tracks, so no acknowledgement would free them.
        m_filler.setArg(static_cast<uint>(m_fillNext.getValue()));
        m_fillNext.increment();
        --m_fillLeft;
        m_lastActivity = now;
        return &m_filler;
    }
    if (m_sendBuffer.isEmpty() || window <= m_inFlight || m_recoveryBudget == 0)
    {
        return nullptr;
    }
    const uint index = firstUnsentIndex();
    if (index >= m_sendBuffer.size())
    {
        return nullptr;
    }
    if (m_recoveryBudget > 0)
    {
        --m_recoveryBudget;
    }
    const EUDPPacket& packet = m_sendBuffer.at(index);
    Sent& sent = m_sentTimes.at(index);
    sent.at = now;
    ++sent.times;
    ++m_inFlight;
    m_lastSentSeq = ModuloValue::fromArg(packet.getArg());
    m_lastActivity = now;
    return &packet;
}

uint EUDPSendWindow::firstUnsentIndex() const
{
    const ModuloValue oldest = ModuloValue::fromArg(m_sendBuffer.at(0).getArg());
    const int ahead = m_lastSentSeq.distance(oldest);
    return ahead < 0 ? 0u : static_cast<uint>(ahead) + 1;
}

std::optional<EUDPSendWindow::TimePoint> EUDPSendWindow::retransmitDue() const
{
    if (m_sendBuffer.isEmpty() && m_fillLeft == 0)
    {
        return std::nullopt;
    }
    // Measured from the packet waited for longest, so that a loss is
    // repeated in time even while newer packets keep going out; from the
    // latest activity while nothing has gone out (a window of 0).
    const bool oldestSent = !m_sendBuffer.isEmpty() && m_sentTimes.front().times > 0;
    return (oldestSent ? m_sentTimes.front().at : m_lastActivity) + m_roundTrip.timeout();
}

void EUDPSendWindow::goBack(TimePoint now)
{
    m_roundTrip.timedOut();
    rewind(now);
    // The oldest first, alone, as after a NAK.
    m_recoveryBudget = 1;
}

void EUDPSendWindow::rewind(TimePoint now)
{
    m_lastSentSeq = m_lastAckedSeq;
    m_inFlight = 0;
    m_recoveryBudget = UNLIMITED;
    m_lastActivity = now;
}

bool EUDPSendWindow::wasQueued(ModuloValue seq) const
{
    // A negative number comes from an argument of 2^31 or more: no sender
    // numbers a packet so.
    return seq.getValue() >= 0 && seq.distance(m_nextSendSeq) < 0;
}

EUDPSendWindow::AckResult EUDPSendWindow::onAck(ModuloValue seq, TimePoint now)
{
    if (!seq.isAfter(m_lastAckedSeq) || !wasQueued(seq))
    {
        return AckResult{false, 0};
    }
    m_lastAckedSeq = seq;
    uint freed = 0;
    while (!m_sendBuffer.isEmpty() &&
           !ModuloValue::fromArg(m_sendBuffer.front().getArg()).isAfter(m_lastAckedSeq))
    {
        const Sent& sent = m_sentTimes.front();
        // Only the acknowledged packet itself, and only if it went out once,
        // measures the round trip: an earlier one's time includes waiting.
        if (m_sendBuffer.front().getArg() == static_cast<uint>(seq.getValue()) && sent.times == 1 &&
            now >= sent.at)
        {
            m_roundTrip.sample(std::chrono::duration_cast<Duration>(now - sent.at));
        }
        popOldest();
        --m_inFlight;
        ++freed;
    }
    m_roundTrip.progressed();
    m_recoveryBudget = UNLIMITED;
    m_lastActivity = now;
    return AckResult{true, freed};
}

EUDPSendWindow::ENakResult EUDPSendWindow::onNak(ModuloValue seq, TimePoint now)
{
    if (seq.isAfter(m_lastAckedSeq))
    {
        if (!wasQueued(seq))
        {
            return NAK_IMPOSSIBLE;
        }
        // The next pass starts again at `seq` itself, with that one packet
        // only until an acknowledgement comes: a receiver that kept what
        // followed the gap then acknowledges all of it at once, and one that
        // did not asks for the rest with its ACK. Repeating the whole window
        // at once would mostly send copies.
        m_lastSentSeq = seq.previous();
        m_inFlight = 0;
        m_recoveryBudget = 1;
        m_lastActivity = now;
        return NAK_RESEND;
    }
    // The peer still waits for a number that was acknowledged or sent
    // real-time. Only the latter is really missing: a reliable receiver has
    // everything up to what it acknowledged.
    const int owed = m_reliableFrom.distance(seq);
    if (seq.getValue() < 0 || owed <= 0)
    {
        return NAK_ACKED;
    }
    // One fill a round of waiting, of one burst: a NAK must not make this
    // side send more than a window's worth, whoever sent it, and the NAKs of
    // packets already on their way ask for nothing new.
    if (m_filledAt && now < *m_filledAt + m_roundTrip.timeout())
    {
        return NAK_FILLING;
    }
    m_fillNext = seq;
    m_fillLeft = std::min(static_cast<uint>(owed), EUDP_FILL_BURST);
    m_filledAt = now;
    // The packets after the gap were dropped by the peer: they follow the
    // fillers at once.
    rewind(now);
    return NAK_FILL;
}
