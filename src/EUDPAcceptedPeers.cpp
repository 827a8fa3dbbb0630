#include "EUDPAcceptedPeers.h"

EUDPAcceptedPeers::Key EUDPAcceptedPeers::keyOf(const tavo::HostAddress& address, uint16 port)
{
    return Key(address, port);
}

std::map<EUDPAcceptedPeers::Key, EUDPAcceptedPeers::Entry>::iterator
EUDPAcceptedPeers::find(EUDPTransport* transport)
{
    const auto key = m_keys.find(transport);
    return key == m_keys.end() ? m_entries.end() : m_entries.find(key->second);
}

void EUDPAcceptedPeers::add(EUDPTransport* transport, const tavo::HostAddress& address, uint16 port,
                            uint conArg, TimePoint now,
                            const std::function<void(EUDPTransport&)>& evict)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const Key key = keyOf(address, port);
    // A client that connects again from the same port takes the place of its
    // old connection here; an old one that never completed goes, so that
    // CONs from one port cannot pile up connections past the limit.
    const auto old = m_entries.find(key);
    if (old != m_entries.end())
    {
        if (old->second.halfOpen)
        {
            endHalfOpen(old->second);
            evict(*old->second.transport);
        }
        m_keys.erase(old->second.transport);
    }
    m_entries[key] = Entry{transport, conArg, true,
                           m_halfOpenOrder.insert(m_halfOpenOrder.end(), transport), now};
    m_keys[transport] = key;
    ++m_halfOpen;
}

bool EUDPAcceptedPeers::answerAgain(const tavo::HostAddress& address, uint16 port, uint conArg,
                                    const std::function<void(EUDPTransport&)>& answer)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_entries.find(keyOf(address, port));
    if (found == m_entries.end() || found->second.conArg != conArg)
    {
        return false;
    }
    answer(*found->second.transport);
    return true;
}

void EUDPAcceptedPeers::leaveHalfOpen(EUDPTransport* transport)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = find(transport);
    if (found != m_entries.end())
    {
        endHalfOpen(found->second);
    }
}

void EUDPAcceptedPeers::endHalfOpen(Entry& entry)
{
    if (entry.halfOpen)
    {
        entry.halfOpen = false;
        m_halfOpenOrder.erase(entry.order);
        --m_halfOpen;
    }
}

bool EUDPAcceptedPeers::evictOldestHalfOpen(std::chrono::steady_clock::duration grace,
                                            TimePoint now,
                                            const std::function<void(EUDPTransport&)>& evict)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_halfOpenOrder.empty())
    {
        return false;
    }
    EUDPTransport* oldest = m_halfOpenOrder.front();
    Entry& entry = find(oldest)->second;
    if (now < entry.since + grace)
    {
        return false;
    }
    endHalfOpen(entry);
    evict(*oldest);
    return true;
}

void EUDPAcceptedPeers::remove(EUDPTransport* transport)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = find(transport);
    if (found != m_entries.end())
    {
        endHalfOpen(found->second);
        m_entries.erase(found);
    }
    m_keys.erase(transport);
}

unsigned int EUDPAcceptedPeers::halfOpenCount() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_halfOpen;
}
