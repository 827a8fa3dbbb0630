#include "EUDPAckDelay.h"

std::optional<uint> EUDPAckDelay::afterInOrder(uint ack, unsigned int packets, TimePoint now)
{
    const bool dense = m_lastArrival && now - *m_lastArrival < m_delay;
    m_lastArrival = now;
    if (packets == 1 && !m_held && dense && m_delay > Duration::zero())
    {
        m_held = ack;
        m_heldUntil = now + m_delay;
        return std::nullopt;
    }
    m_held.reset();
    return ack;
}

std::optional<uint> EUDPAckDelay::release()
{
    const std::optional<uint> held = m_held;
    m_held.reset();
    return held;
}

std::optional<EUDPAckDelay::TimePoint> EUDPAckDelay::due() const
{
    return m_held ? std::optional<TimePoint>(m_heldUntil) : std::nullopt;
}
