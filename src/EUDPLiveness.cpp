#include "EUDPLiveness.h"

#include <algorithm>

EUDPLiveness::EUDPLiveness(Duration keepAlivePeriod, Duration deadPeerTimeout, TimePoint now)
    : m_keepAlivePeriod(keepAlivePeriod), m_deadPeerTimeout(deadPeerTimeout),
      m_lastHeard(now.time_since_epoch().count())
{
}

void EUDPLiveness::heard(TimePoint now)
{
    // Relaxed: only the time matters, and a late view of it costs at most one
    // keep-alive more.
    m_lastHeard.store(now.time_since_epoch().count(), std::memory_order_relaxed);
}

EUDPLiveness::Tick EUDPLiveness::tick(TimePoint now)
{
    const TimePoint lastHeard{Clock::duration(m_lastHeard.load(std::memory_order_relaxed))};
    if (m_firstProbe && lastHeard >= *m_firstProbe)
    {
        // Answered: the silence is over.
        m_firstProbe.reset();
    }
    Tick tick{false, false, lastHeard + m_keepAlivePeriod};
    if (now < tick.next)
    {
        return tick;
    }
    if (!m_firstProbe)
    {
        m_firstProbe = now;
        m_lastProbe = now;
        tick.sendKeepAlive = true;
    }
    else if (now >= m_lastProbe + m_keepAlivePeriod)
    {
        m_lastProbe = now;
        tick.sendKeepAlive = true;
    }
    const TimePoint deadline = *m_firstProbe + m_deadPeerTimeout;
    tick.dead = now >= deadline;
    tick.next = std::min(m_lastProbe + m_keepAlivePeriod, deadline);
    return tick;
}
