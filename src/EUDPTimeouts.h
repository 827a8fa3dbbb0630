#pragma once

#include <weft/Constants.h>

#include <chrono>

// Every time-out of the EUDP transport, in one place: the values a transport
// runs with are taken from here when it is made, so a test can shorten all of
// them at once (or pass chosen times to the protocol core directly) instead
// of waiting out seconds.
struct EUDPTimeouts
{
    using Duration = std::chrono::microseconds;

    // How long connect waits for the answer to its CON.
    Duration connect{std::chrono::seconds(5)};
    // How often connect sends its CON again while it waits: a lost CON or ACK
    // then costs a quarter second, not the whole connect.
    Duration connectRepeat{std::chrono::milliseconds(250)};
    // How long a mode or window request waits for the peer's answer.
    Duration negotiation{std::chrono::seconds(10)};
    // How often such a request is sent again while it waits.
    Duration negotiationRepeat{std::chrono::milliseconds(500)};
    // Silence from the peer after which a reliable sender goes back and
    // repeats, at the longest and before the round trip is measured.
    Duration retransmit{std::chrono::milliseconds(500)};
    // The shortest such silence, however short the round trip: below it the
    // ordinary jitter of a busy host would be taken for loss. A thread that
    // waits for a core can miss a few milliseconds; at 2 ms a large window's
    // burst on a busy two-core host was repeated again and again while the
    // peer was still reading it, and 10 ms made every real loss cost more.
    Duration retransmitFloor{std::chrono::milliseconds(5)};
    // How long the acknowledgement of a data packet may wait for the next
    // packet to cover it too; well below retransmitFloor.
    Duration ackDelay{std::chrono::milliseconds(1)};
    // How long the receiver, finding the receive ring full, leaves datagrams
    // in the socket's buffer for the reader to catch up. Answers wait as
    // long, so it stays well below retransmitFloor.
    Duration receiveRoomWait{std::chrono::milliseconds(2)};
    // Idle time before a keep-alive: an accepted transport speaks first, so
    // that the connecting side hears from it early. While the peer stays
    // silent, a keep-alive goes out again after each such period.
    Duration acceptedKeepAlive{std::chrono::milliseconds(500)};
    Duration connectingKeepAlive{std::chrono::seconds(1)};
    // Silence after the first unanswered keep-alive after which the peer is dead.
    Duration deadPeer{std::chrono::seconds(10)};
    // How long a half-open connection is safe from being closed to make room
    // for a new one: long enough for a real client's first datagram to be
    // read on a busy host, short enough that a flood turns over its places
    // without waiting for their dead-peer timers.
    Duration halfOpenGrace{std::chrono::milliseconds(20)};
    // How long a sender may wait for room while the peer acknowledges
    // nothing before the connection is closed (a transport's own setting
    // starts from it).
    Duration sendStall{std::chrono::milliseconds(WEFT_SEND_TIMEOUT_MS)};
    // TCP: a message that has begun must arrive whole within this time.
    Duration tcpMessage{std::chrono::milliseconds(TCP_MESSAGE_TIMEOUT_MS)};

    // Every value divided by `divisor` (tests: the same protocol, faster).
    EUDPTimeouts shortenedBy(int divisor) const;

    // What new transports take; the values above unless a test set others.
    static EUDPTimeouts standard();
    static void setStandard(const EUDPTimeouts& timeouts);
};

// Sets the standard time-outs for the lifetime of a scope (tests), and puts
// back the ones before.
class ScopedEUDPTimeouts
{
public:
    explicit ScopedEUDPTimeouts(const EUDPTimeouts& timeouts) : m_before(EUDPTimeouts::standard())
    {
        EUDPTimeouts::setStandard(timeouts);
    }
    ~ScopedEUDPTimeouts() { EUDPTimeouts::setStandard(m_before); }
    ScopedEUDPTimeouts(const ScopedEUDPTimeouts&) = delete;
    ScopedEUDPTimeouts& operator=(const ScopedEUDPTimeouts&) = delete;

private:
    EUDPTimeouts m_before;
};

// Milliseconds for a semaphore wait, never 0 for a positive duration.
unsigned int toWaitMs(EUDPTimeouts::Duration duration);
