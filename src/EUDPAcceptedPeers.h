#pragma once

#include <tavo/HostAddress.h>
#include <tavo/Types.h>

#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <utility>

class EUDPTransport;

// What a listening EUDP transport knows of the connections it accepted,
// shared with them (they may outlive it): which ones are half-open (nothing
// heard from their peer since the ACK), and which peer each one serves, so
// that a CON sent again by a client whose ACK was late or lost is answered
// by the connection already made for it instead of by a second one.
class EUDPAcceptedPeers
{
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    EUDPAcceptedPeers() = default;
    EUDPAcceptedPeers(const EUDPAcceptedPeers&) = delete;
    EUDPAcceptedPeers& operator=(const EUDPAcceptedPeers&) = delete;

    // A new connection for the peer at `address`:`port` whose CON carried
    // `conArg`; it counts as half-open until it leaves. A connection made
    // for an earlier CON from there that is still half-open is handed to
    // `evict` (under the lock): one source cannot hold more than one.
    void add(EUDPTransport* transport, const tavo::HostAddress& address, uint16 port, uint conArg,
             TimePoint now, const std::function<void(EUDPTransport&)>& evict);
    // Runs `answer` with the connection made for that peer and CON, under
    // the lock that keeps it from being destroyed meanwhile; false when there
    // is none.
    bool answerAgain(const tavo::HostAddress& address, uint16 port, uint conArg,
                     const std::function<void(EUDPTransport&)>& answer);
    // The connection heard from its peer or closed; only the first call counts.
    void leaveHalfOpen(EUDPTransport* transport);
    // Runs `evict` with the connection that has been half-open longest, under
    // the lock, and counts it open no more; false when none is half-open or
    // the oldest is younger than `grace` (it may be a real client whose
    // first datagram is still on its way).
    bool evictOldestHalfOpen(std::chrono::steady_clock::duration grace, TimePoint now,
                             const std::function<void(EUDPTransport&)>& evict);
    // The connection is being destroyed.
    void remove(EUDPTransport* transport);
    unsigned int halfOpenCount() const;

private:
    // An IPv4 client of a dual-stack listener has its plain IPv4 address
    // here, as in the accepted transport's strict-peer check.
    typedef std::pair<tavo::HostAddress, uint16> Key;
    struct Entry
    {
        EUDPTransport* transport;
        uint conArg;
        bool halfOpen;
        // Its place in m_halfOpenOrder while half-open.
        std::list<EUDPTransport*>::iterator order;
        TimePoint since;
    };

    static Key keyOf(const tavo::HostAddress& address, uint16 port);
    // The entry of `transport`, or end(); caller holds m_mutex.
    std::map<Key, Entry>::iterator find(EUDPTransport* transport);
    // Counts the entry open no more; caller holds m_mutex.
    void endHalfOpen(Entry& entry);

    mutable std::mutex m_mutex;
    std::map<Key, Entry> m_entries;
    std::map<EUDPTransport*, Key> m_keys;
    // Half-open connections, oldest first.
    std::list<EUDPTransport*> m_halfOpenOrder;
    unsigned int m_halfOpen = 0;
};
