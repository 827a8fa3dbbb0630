#include "EUDPRoundTrip.h"

#include <algorithm>

namespace
{

// Time-outs that keep the plain time-out before the back-off starts.
constexpr int TIMEOUTS_BEFORE_BACKOFF = 2;

} // namespace

EUDPRoundTrip::EUDPRoundTrip(Duration floor, Duration ceiling) : m_floor(floor), m_ceiling(ceiling)
{
}

void EUDPRoundTrip::sample(Duration roundTrip)
{
    if (!m_smoothed)
    {
        m_smoothed = roundTrip;
        m_variation = roundTrip / 2;
        return;
    }
    // The usual weights: a quarter of the new difference, an eighth of the
    // new sample.
    const Duration difference =
        *m_smoothed > roundTrip ? *m_smoothed - roundTrip : roundTrip - *m_smoothed;
    m_variation = (3 * m_variation + difference) / 4;
    m_smoothed = (7 * *m_smoothed + roundTrip) / 8;
}

EUDPRoundTrip::Duration EUDPRoundTrip::timeout() const
{
    Duration timeout = m_smoothed ? *m_smoothed + 4 * m_variation : m_ceiling;
    timeout = std::clamp(timeout, std::min(m_floor, m_ceiling), m_ceiling);
    for (int doubling = TIMEOUTS_BEFORE_BACKOFF; doubling < m_timeouts && timeout < m_ceiling;
         ++doubling)
    {
        timeout *= 2;
    }
    return std::min(timeout, m_ceiling);
}

void EUDPRoundTrip::timedOut()
{
    ++m_timeouts;
}

void EUDPRoundTrip::progressed()
{
    m_timeouts = 0;
}
