#pragma once

#include <algorithm>
#include <chrono>
#include <optional>

// How long a reliable sender waits for an acknowledgement before it goes
// back and repeats: the measured round trip plus four times its variation,
// within a floor and a ceiling. The ceiling is also the time-out before the
// first measurement. Only packets sent once are measured (a repeated packet's
// acknowledgement may answer either copy). Two time-outs in a row keep the
// time-out as it is, so that a lost tail is repeated soon; further ones
// double it up to the ceiling, so that a vanished peer is not flooded.
class EUDPRoundTrip
{
public:
    using Duration = std::chrono::microseconds;

    EUDPRoundTrip(Duration floor, Duration ceiling);

    // A round trip measured on a packet sent once.
    void sample(Duration roundTrip);
    // The time-out in force now.
    Duration timeout() const;
    // The sender went back after a time-out.
    void timedOut();
    // An acknowledgement moved things on: the back-off ends.
    void progressed();
    // The smoothed round trip; unset before the first sample.
    std::optional<Duration> smoothed() const { return m_smoothed; }
    void setCeiling(Duration ceiling) { m_ceiling = ceiling; }
    // How long a repeated packet is given before it may be repeated again
    // on the peer's request: the time-out once the round trip is known, the
    // floor before (the ceiling would leave a lost repeat unanswered for
    // that long, while the peer keeps asking).
    Duration repeatInterval() const
    {
        return m_smoothed ? timeout() : std::min(m_floor, m_ceiling);
    }

    // How long after the newest packet, with nothing acknowledged since, it
    // goes again as a probe; unset before the round trip is known. Its
    // answer tells a lost acknowledgement or a lost last packet apart from a
    // slow peer, at the cost of one datagram, long before the time-out: so
    // the measured round trip, with half the time-out's floor (more than
    // the longest an acknowledgement is held back for the next packet).
    std::optional<Duration> probeInterval() const
    {
        if (!m_smoothed)
        {
            return std::nullopt;
        }
        return std::clamp(*m_smoothed + 4 * m_variation, std::min(m_floor, m_ceiling) / 2,
                          m_ceiling);
    }

private:
    Duration m_floor;
    Duration m_ceiling;
    std::optional<Duration> m_smoothed;
    Duration m_variation{0};
    // Time-outs since the last progress.
    int m_timeouts = 0;
};
