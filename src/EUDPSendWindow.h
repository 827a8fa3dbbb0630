#pragma once

#include "EUDPRoundTrip.h"

#include <weft/EUDPPacket.h>
#include <weft/ModuloValue.h>
#include <weft/RingBuffer.h>

#include <chrono>
#include <optional>

// The sending half of the protocol, without sockets, threads or clocks: the
// queue of numbered data packets, the reliable window with its
// acknowledgements and go-back, and the numbers a peer still waits for that
// left before reliable sending began. The transport calls it under its send
// lock, passes the time in, and puts on the wire what it hands out.
//
// Numbers in the queue are consecutive: every number taken is queued, so the
// packet with number n lies n - oldest places from the front.
class EUDPSendWindow
{
public:
    using TimePoint = std::chrono::steady_clock::time_point;
    using Duration = std::chrono::microseconds;

    // `retransmitTimeout` is the longest wait for an acknowledgement, and the
    // wait before the first round trip is measured; the measured round trip
    // makes it shorter, never below `retransmitFloor`.
    EUDPSendWindow(uint capacity, Duration retransmitTimeout,
                   Duration retransmitFloor = std::chrono::milliseconds(10));
    EUDPSendWindow(const EUDPSendWindow&) = delete;
    EUDPSendWindow& operator=(const EUDPSendWindow&) = delete;

    // ---- the queue ----
    bool isFull() const { return m_sendBuffer.isFull(); }
    bool isEmpty() const { return m_sendBuffer.isEmpty(); }
    uint queued() const { return m_sendBuffer.size(); }
    // Whether a writer waiting for room is worth waking: there is room for a
    // burst of writes, or room and nothing queued waits for the window, so
    // the link would idle without new packets.
    bool roomForWriter() const;
    // Queues one data packet under the next number; the queue must not be
    // full. A payload too long for a packet leaves it empty (and logs).
    void queue(const uint8* data, uint length);
    // The number the next queued packet gets.
    ModuloValue nextNumber() const { return m_nextSendSeq; }
    // Connection set-up: the next number, and the number the peer has
    // acknowledged (the connection ACK). Queue and counters start afresh.
    void restart(ModuloValue next, ModuloValue acknowledged);

    // The CON went out, for the first time or `again`.
    void connectionSent(TimePoint now, bool again);
    // The connection ACK: the peer has the CON's number. Answering a CON
    // sent once, it is the first measure of the round trip.
    void acknowledgeConnection(ModuloValue conNumber, TimePoint now);
    void setRetransmitTimeout(Duration timeout) { m_roundTrip.setCeiling(timeout); }
    const EUDPRoundTrip& roundTrip() const { return m_roundTrip; }

    // The connection ended: whatever is queued is dropped and the queue's
    // memory given back.
    void discard();

    // ---- real-time sending ----
    // Removes the oldest packet and returns it; its slot stays untouched
    // until the next queue(). Null when nothing is queued.
    const EUDPPacket* takeOldest();

    // ---- reliable sending ----
    // Reliable sending takes over: both counters go to the number before the
    // oldest queued packet, whatever real-time sending left in them.
    void startReliable();
    // What goes on the wire next: owed fillers first, then the first queued
    // packet not yet sent in this pass while the window has room. Null when
    // nothing may go now.
    const EUDPPacket* nextReliable(int window, TimePoint now);
    // When to go back if nothing is heard: the oldest unacknowledged
    // packet's transmission plus the time-out; set while anything is queued.
    std::optional<TimePoint> retransmitDue() const;
    // When the newest packet goes again as a probe: nothing could be sent
    // and nothing was acknowledged for a round trip after it left; during a
    // recovery, the missing packet, a round trip after its repeat. Once per
    // acknowledgement that frees a packet.
    std::optional<TimePoint> probeDue() const;
    void probe(TimePoint now);
    // The time-out passed: the oldest unacknowledged packet goes again, alone;
    // what follows goes again once its acknowledgement shows the peer lacks
    // it (at once, to a peer not known to keep what follows a gap).
    void goBack(TimePoint now);

    // ---- acknowledgements (from the receiver thread) ----
    struct AckResult
    {
        bool accepted; // moved the acknowledged number on
        uint freed;    // queue slots given back
    };
    // Acknowledges every queued packet up to and including `seq`.
    AckResult onAck(ModuloValue seq, TimePoint now);

    enum ENakResult
    {
        NAK_RESEND,    // `seq` goes again, alone or as the start of a go-back
        NAK_REPEATED,  // `seq` went again less than a time-out ago: ignored
        NAK_FILL,      // the peer waits for numbers no longer held: fillers owed
        NAK_FILLING,   // a fill for that number is on its way already
        NAK_ACKED,     // `seq` was acknowledged already: ignored
        NAK_IMPOSSIBLE // a number never sent: ignored
    };
    // The peer expects `seq` next and has seen something later: it has
    // everything before `seq`.
    ENakResult onNak(ModuloValue seq, TimePoint now);

    ModuloValue lastSent() const { return m_lastSentSeq; }
    ModuloValue lastAcked() const { return m_lastAckedSeq; }
    int inFlight() const { return m_inFlight; }

private:
    // When a queued packet last went out, and how often it did.
    struct Sent
    {
        TimePoint at{};
        unsigned int times = 0;
    };

    // Drops the oldest packet and its times.
    void popOldest();
    // Frees everything up to `seq`; a round trip is measured only when
    // `measure` and nothing freed went more than once.
    AckResult acknowledge(ModuloValue seq, TimePoint now, bool measure);
    // `seq` is missing at the peer: it goes again on its own, ahead of new
    // packets, which keep going while the window has room.
    void resend(ModuloValue seq, TimePoint now);
    // What an acknowledgement during a recovery says about the packet after it.
    void afterRecoveryAck(ModuloValue seq, TimePoint now);
    // Everything after the last acknowledged packet goes again (no back-off).
    void rewind(TimePoint now);
    // True for a number this side has queued: before m_nextSendSeq, within
    // half the number space.
    bool wasQueued(ModuloValue seq) const;
    uint firstUnsentIndex() const;
    // The queued packet at `index` goes out once more (a repeat or a probe):
    // its time and count are kept for the round trip and the time-out.
    const EUDPPacket& sendAgain(uint index, TimePoint now);
    // Where the newest packet sent lies in the queue; unset if it left it.
    std::optional<uint> newestSentIndex() const;

    RingBuffer<EUDPPacket> m_sendBuffer;
    // In step with m_sendBuffer.
    RingBuffer<Sent> m_sentTimes;
    ModuloValue m_nextSendSeq;
    ModuloValue m_lastSentSeq;
    ModuloValue m_lastAckedSeq;
    // Packets sent in this pass and not yet acknowledged; a go-back sets it
    // to 0 while acknowledgements of the earlier pass may still arrive, so it
    // can fall below 0.
    int m_inFlight;
    // The first number of the current reliable phase: numbers before it went
    // out real-time, and once acknowledged or gone they are no longer held.
    ModuloValue m_reliableFrom;
    // Fillers owed: empty data packets, from m_fillNext on, that bring a peer
    // past numbers lost while sending was real-time. The peer stores nothing
    // for them and acknowledges each.
    ModuloValue m_fillNext;
    uint m_fillLeft;
    // The latest fill, so that the NAKs of packets already on their way do
    // not start it again.
    std::optional<TimePoint> m_filledAt;
    EUDPPacket m_filler;
    EUDPRoundTrip m_roundTrip;
    // After a time-out: how many packets may go before the next
    // acknowledgement (UNLIMITED otherwise).
    static constexpr int UNLIMITED = -1;
    int m_recoveryBudget = UNLIMITED;
    // A recovery: the packet the peer is missing, when it went again, whether
    // that is still to do, and the last number sent before the loss was
    // reported. It ends with an acknowledgement of that number, or a go-back.
    std::optional<ModuloValue> m_missing;
    TimePoint m_resentAt{};
    bool m_resendPending = false;
    ModuloValue m_recoveryPoint;
    // The peer has shown that it keeps what follows a gap (an acknowledgement
    // after a repeat went past it): after a NAK it is sent only what it
    // lacks, never a window of copies.
    bool m_peerKeeps = false;
    // The recovery began with a time-out, not a NAK.
    bool m_afterTimeout = false;
    // A probe went since the latest acknowledgement that freed a packet, and
    // whether it is still to go.
    bool m_probed = false;
    bool m_probePending = false;
    // The latest transmission, acknowledgement or go-back.
    TimePoint m_lastActivity;
    // The latest acknowledgement that freed a packet.
    TimePoint m_lastProgress{};
    // The CON's transmissions: the first one's time, and how many.
    Sent m_connection;
};
