#pragma once

#include <tavo/Types.h>

#include <chrono>
#include <optional>

// When an acknowledgement of in-order data may wait, given the time. Each ACK
// is a datagram the peer's receiver must wake for, and ACKs are cumulative:
// when data arrives densely (a call and its answer, a stream of updates), an
// ACK held back briefly is covered by the next one, so every second ACK is
// saved. A packet that comes after a pause is acknowledged at once, since no
// other is likely to follow soon enough; a held one goes out at the latest
// after `delay`, well inside the sender's shortest retransmission time.
//
// Receiver thread only.
class EUDPAckDelay
{
public:
    using Clock = std::chrono::steady_clock;
    using TimePoint = Clock::time_point;
    using Duration = std::chrono::microseconds;

    explicit EUDPAckDelay(Duration delay) : m_delay(delay) {}

    // A burst of `packets` in-order data packets ends and `ack` would answer
    // it: the ACK to send now, if any (it covers a held one).
    std::optional<uint> afterInOrder(uint ack, unsigned int packets, TimePoint now);
    // The held ACK, which leaves now: before any other answer, so that
    // answers keep their order, or because its time is up.
    std::optional<uint> release();
    // When the held ACK must leave; unset while none is held.
    std::optional<TimePoint> due() const;

private:
    Duration m_delay;
    std::optional<uint> m_held;
    TimePoint m_heldUntil{};
    std::optional<TimePoint> m_lastArrival;
};
