#pragma once

#include <tavo/Thread.h>

#include <optional>

// Whether the receiver thread preempts the thread running when a datagram
// wakes it. Waiting for that thread saves a switch per datagram, which is
// right while the receiver keeps up, and in reliable mode always: the window
// holds the peer back and a datagram dropped in the kernel comes again. A
// real-time receiver that falls behind (a whole burst waiting in its socket)
// must preempt, or a peer that never pauses keeps it off the processor until
// the socket's buffer overflows, and what the kernel drops nobody repeats.
// It waits again after many turns that found the socket nearly empty.
//
// Receiver thread only.
class EUDPReceiverPace
{
public:
    // A turn took `taken` datagrams: the rule to apply now, when it changes.
    std::optional<tavo::EWakeup> afterTurn(unsigned int taken, bool realtime);

private:
    // Turns that took at most two datagrams before a preempting receiver
    // waits again: enough that a push does not flip it at every pause.
    static constexpr unsigned int CAUGHT_UP_TURNS = 256;

    bool m_preempts = false;
    unsigned int m_caughtUpTurns = 0;
};
