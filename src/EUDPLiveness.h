#pragma once

#include <atomic>
#include <chrono>
#include <optional>

// Keep-alive and dead-peer decisions, given the time: after a period of
// silence from the peer a keep-alive goes out, and again after every further
// period while the silence lasts, so that one lost keep-alive or answer does
// not end a live connection; once the peer has been silent for the dead-peer
// time since the first unanswered keep-alive, the connection is dead.
//
// heard() may run on one thread (the receiver, for every datagram) while
// tick() runs on another (the timer): hearing is one atomic store.
class EUDPLiveness
{
public:
    using Clock = std::chrono::steady_clock;
    using TimePoint = Clock::time_point;
    using Duration = std::chrono::microseconds;

    EUDPLiveness(Duration keepAlivePeriod, Duration deadPeerTimeout, TimePoint now);

    // A sign of life from the peer.
    void heard(TimePoint now);

    struct Tick
    {
        bool sendKeepAlive;
        bool dead;
        // When to tick next; meaningless once dead.
        TimePoint next;
    };
    // What is due at `now`; call again at `next` (earlier calls are harmless).
    Tick tick(TimePoint now);

private:
    Duration m_keepAlivePeriod;
    Duration m_deadPeerTimeout;
    std::atomic<Clock::rep> m_lastHeard;
    // The current silence's first keep-alive and latest keep-alive; unset
    // while the peer is being heard.
    std::optional<TimePoint> m_firstProbe;
    TimePoint m_lastProbe;
};
