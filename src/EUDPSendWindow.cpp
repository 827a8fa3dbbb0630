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
    m_missing.reset();
    m_resendPending = false;
    m_peerKeeps = false;
    m_probed = false;
    m_probePending = false;
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

void EUDPSendWindow::connectionSent(TimePoint now, bool again)
{
    if (!again)
    {
        m_connection = Sent{now, 0};
    }
    ++m_connection.times;
}

void EUDPSendWindow::acknowledgeConnection(ModuloValue conNumber, TimePoint now)
{
    if (m_connection.times == 1 && now >= m_connection.at)
    {
        m_roundTrip.sample(std::chrono::duration_cast<Duration>(now - m_connection.at));
    }
    m_connection = Sent();
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
    m_missing.reset();
    m_resendPending = false;
    m_probed = false;
    m_probePending = false;
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
    if (m_sendBuffer.isEmpty() || window <= 0)
    {
        return nullptr;
    }
    if (m_resendPending)
    {
        // Already counted in flight: it goes whatever the window holds.
        m_resendPending = false;
        const int index = m_missing->distance(ModuloValue::fromArg(m_sendBuffer.front().getArg()));
        if (index >= 0 && index < static_cast<int>(m_sendBuffer.size()))
        {
            m_resentAt = now;
            return &sendAgain(static_cast<uint>(index), now);
        }
    }
    if (m_probePending)
    {
        // In flight already, like a repeat.
        m_probePending = false;
        if (const std::optional<uint> index = newestSentIndex())
        {
            return &sendAgain(*index, now);
        }
    }
    if (window <= m_inFlight || m_recoveryBudget == 0)
    {
        return nullptr;
    }
    const uint index = firstUnsentIndex();
    if (index >= m_sendBuffer.size())
    {
        return nullptr;
    }
    if (m_missing && static_cast<int>(index) - m_missing->distance(ModuloValue::fromArg(
                                                   m_sendBuffer.front().getArg())) >=
                         static_cast<int>(EUDP_REORDER_SLOTS))
    {
        // While a gap is being filled, a receiver keeps at most this many
        // packets after it: more would only be dropped and sent again.
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

const EUDPPacket& EUDPSendWindow::sendAgain(uint index, TimePoint now)
{
    Sent& sent = m_sentTimes.at(index);
    sent.at = now;
    ++sent.times;
    m_lastActivity = now;
    return m_sendBuffer.at(index);
}

bool EUDPSendWindow::roomForWriter() const
{
    if (m_sendBuffer.isFull())
    {
        return false;
    }
    // A ring holds one element less than its capacity.
    const uint room = m_sendBuffer.capacity() - 1 - m_sendBuffer.size();
    return room >= EUDP_SEND_WAKE_ROOM || m_sendBuffer.isEmpty() ||
           firstUnsentIndex() >= m_sendBuffer.size();
}

uint EUDPSendWindow::firstUnsentIndex() const
{
    const ModuloValue oldest = ModuloValue::fromArg(m_sendBuffer.at(0).getArg());
    const int ahead = m_lastSentSeq.distance(oldest);
    return ahead < 0 ? 0u : static_cast<uint>(ahead) + 1;
}

std::optional<uint> EUDPSendWindow::newestSentIndex() const
{
    if (m_sendBuffer.isEmpty())
    {
        return std::nullopt;
    }
    const int index = m_lastSentSeq.distance(ModuloValue::fromArg(m_sendBuffer.front().getArg()));
    if (index < 0 || index >= static_cast<int>(m_sendBuffer.size()) ||
        m_sentTimes.at(static_cast<uint>(index)).times == 0)
    {
        return std::nullopt;
    }
    return static_cast<uint>(index);
}

std::optional<EUDPSendWindow::TimePoint> EUDPSendWindow::probeDue() const
{
    const std::optional<Duration> interval = m_roundTrip.probeInterval();
    if (!interval || m_probed || m_recoveryBudget != UNLIMITED || m_fillLeft > 0)
    {
        return std::nullopt;
    }
    if (m_missing)
    {
        // The repeat of a missing packet may be lost too, and with the window
        // full no later packet brings the NAK that would say so.
        return m_resendPending ? std::nullopt : std::optional<TimePoint>(m_resentAt + *interval);
    }
    const std::optional<uint> newest = newestSentIndex();
    if (!newest)
    {
        return std::nullopt;
    }
    return std::max(m_sentTimes.at(*newest).at, m_lastProgress) + *interval;
}

void EUDPSendWindow::probe(TimePoint now)
{
    m_probed = true;
    if (m_missing)
    {
        m_resendPending = true;
    }
    else
    {
        m_probePending = true;
    }
    m_lastActivity = now;
}

std::optional<EUDPSendWindow::TimePoint> EUDPSendWindow::retransmitDue() const
{
    if (m_sendBuffer.isEmpty() && m_fillLeft == 0)
    {
        return std::nullopt;
    }
    // Measured from the packet waited for longest, so that a loss is
    // repeated in time even while newer packets keep going out, but never
    // from before the latest acknowledgement that freed one: while they keep
    // coming the peer is working through a burst, and the tail of a large
    // window would otherwise be repeated before the peer had read it. From
    // the latest activity while nothing has gone out (a window of 0).
    const bool oldestSent = !m_sendBuffer.isEmpty() && m_sentTimes.front().times > 0;
    return (oldestSent ? std::max(m_sentTimes.front().at, m_lastProgress) : m_lastActivity) +
           m_roundTrip.timeout();
}

void EUDPSendWindow::goBack(TimePoint now)
{
    m_roundTrip.timedOut();
    if (m_peerKeeps && !m_sendBuffer.isEmpty() && m_sentTimes.front().times > 0)
    {
        // The oldest alone: its acknowledgement says how much of what
        // followed arrived. If only it did, the rest goes again in one pass
        // (one packet a round trip was too slow through heavy loss).
        if (!m_missing)
        {
            m_recoveryPoint = m_lastSentSeq;
        }
        resend(ModuloValue::fromArg(m_sendBuffer.front().getArg()), now);
        m_afterTimeout = true;
        return;
    }
    rewind(now);
    // The oldest first, alone, as after a NAK.
    m_recoveryBudget = 1;
}

void EUDPSendWindow::rewind(TimePoint now)
{
    m_probePending = false;
    m_lastSentSeq = m_lastAckedSeq;
    m_inFlight = 0;
    m_recoveryBudget = UNLIMITED;
    m_missing.reset();
    m_resendPending = false;
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
    // An acknowledgement that waited for a repeated packet measures the
    // recovery, not the path.
    const bool recovering = m_missing.has_value();
    if (recovering && seq.isAfter(*m_missing))
    {
        // Past the repeat: the peer kept the packet after it, if that one
        // last went out before the repeat (a later copy may simply have
        // arrived in order).
        const int next =
            m_missing->next().distance(ModuloValue::fromArg(m_sendBuffer.front().getArg()));
        if (next >= 0 && next < static_cast<int>(m_sentTimes.size()) &&
            m_sentTimes.at(static_cast<uint>(next)).at < m_resentAt)
        {
            m_peerKeeps = true;
        }
    }
    const AckResult result = acknowledge(seq, now, !recovering);
    if (recovering)
    {
        afterRecoveryAck(seq, now);
    }
    return result;
}

EUDPSendWindow::AckResult EUDPSendWindow::acknowledge(ModuloValue seq, TimePoint now, bool measure)
{
    m_lastAckedSeq = seq;
    uint freed = 0;
    bool repeated = false;
    while (!m_sendBuffer.isEmpty() &&
           !ModuloValue::fromArg(m_sendBuffer.front().getArg()).isAfter(m_lastAckedSeq))
    {
        const Sent& sent = m_sentTimes.front();
        repeated = repeated || sent.times > 1;
        // Only the acknowledged packet itself, and only if it and those
        // before it went out once, measures the round trip: an earlier one's
        // time includes waiting, and a repeated one's answer may be either copy's.
        if (measure && !repeated &&
            m_sendBuffer.front().getArg() == static_cast<uint>(seq.getValue()) && sent.times == 1 &&
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
    if (freed > 0)
    {
        m_lastProgress = now;
        m_probed = false;
        m_probePending = false;
    }
    return AckResult{true, freed};
}

void EUDPSendWindow::resend(ModuloValue seq, TimePoint now)
{
    m_afterTimeout = false;
    m_missing = seq;
    m_resendPending = true;
    m_resentAt = now;
    m_lastActivity = now;
}

void EUDPSendWindow::afterRecoveryAck(ModuloValue seq, TimePoint now)
{
    const ModuloValue missing = *m_missing;
    if (!m_recoveryPoint.isAfter(seq))
    {
        // Everything sent before the loss was reported has arrived.
        m_missing.reset();
        m_resendPending = false;
        return;
    }
    if (seq.isAfter(missing))
    {
        // The peer kept what followed the gap, up to another one: the packet
        // after `seq` left before the loss was reported, so it is lost too.
        resend(seq.next(), now);
        return;
    }
    if (seq.distance(missing) == 0 && m_peerKeeps && !m_afterTimeout)
    {
        // The next packet is lost too (or this acknowledges a copy that
        // arrived twice, and the acknowledgement of the rest follows).
        resend(seq.next(), now);
        return;
    }
    if (seq.distance(missing) == 0)
    {
        // Only the repeated packet was taken: this peer keeps nothing after a
        // gap (or the next packet was lost too). Everything after it goes
        // again, in order, as the window allows.
        m_missing.reset();
        m_resendPending = false;
        m_lastSentSeq = seq;
        m_inFlight = 0;
        m_lastActivity = now;
    }
}

EUDPSendWindow::ENakResult EUDPSendWindow::onNak(ModuloValue seq, TimePoint now)
{
    if (seq.isAfter(m_lastAckedSeq))
    {
        if (!wasQueued(seq))
        {
            return NAK_IMPOSSIBLE;
        }
        // The peer has everything before `seq`, whatever became of its
        // acknowledgements; the time of a NAK measures no round trip.
        const ModuloValue before = seq.previousInRange();
        if (before.isAfter(m_lastAckedSeq))
        {
            acknowledge(before, now, false);
        }
        // Every packet after the gap brings a NAK: one repeat per round
        // trip, while the first is on its way.
        if (m_missing && m_missing->distance(seq) == 0 &&
            now < m_resentAt + m_roundTrip.repeatInterval())
        {
            return NAK_REPEATED;
        }
        if (seq.isAfter(m_lastSentSeq))
        {
            // Not sent yet in this pass (after a go-back): it is next anyway.
            m_missing.reset();
            m_resendPending = false;
            return NAK_RESEND;
        }
        // Only the missing packet goes again; new ones keep going while the
        // window has room. A receiver that kept what followed the gap then
        // acknowledges all of it at once; one that did not shows it by
        // acknowledging the repeated packet alone, and gets a go-back.
        if (!m_missing)
        {
            m_recoveryPoint = m_lastSentSeq;
        }
        resend(seq, now);
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
