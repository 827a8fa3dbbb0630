#pragma once

#include "RelayEndpoint.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// A UDP relay between EUDP clients and one listening EUDP endpoint, impairing
// the traffic: loss, duplication, reordering, delay, silence. Tests and the
// benchmark put it on loopback; `weft relay` puts it between any two hosts.
//
// Like a NAT, each client (address, port) gets a session with an upstream
// socket of its own, and what comes back on it goes to that client from
// getPort(). A datagram whose command letters (bytes 1 to 3) are "CON" goes
// to the target port; any other to the port the server side last answered
// from on that session (an accepted transport answers from a new port), or
// to the target port while none is known. Sessions live until the relay
// stops, or until they have been idle for `idleTimeout` when one is set.
//
// Each datagram is judged on arrival: silence or blackhole drops it; then
// `dropRate` may drop it; `duplicateRate` may give it a second copy; it is
// due at now + delay + uniform [0, jitter]; `reorderRate` may hold it back
// until right after the next datagram of its direction (or `reorderHold`
// past its due time). A datagram that releases a held one is never held, so
// about r/(1+r) of them are held. Silence and blackhole also stop what is
// already queued.
//
// One std::mt19937 per direction, seeded from `seed`, makes the decisions:
// the same seed, settings and traffic give the same results. Thread-safe;
// one internal thread does all the socket work.

enum class RelayDirection
{
    ClientToServer,
    ServerToClient
};

struct Impairment
{
    double dropRate = 0;                 // 0..1: chance a datagram is discarded
    double duplicateRate = 0;            // 0..1: chance a second copy follows it
    double reorderRate = 0;              // 0..1: chance it is held back behind the next one
    std::chrono::microseconds delay{0};  // added to every datagram
    std::chrono::microseconds jitter{0}; // uniform extra delay in [0, jitter]
    // How long a held datagram waits for a next one before it goes out alone.
    std::chrono::microseconds reorderHold{20000};
    bool blackhole = false; // drops everything in this direction
};

// What the relay did in one direction. Once nothing is queued or held,
// received == forwarded + dropped; extra copies count in `duplicated` only.
struct RelayCounts
{
    uint64_t received = 0;   // datagrams that arrived
    uint64_t forwarded = 0;  // datagrams sent on (first copy)
    uint64_t dropped = 0;    // discarded: drop rate, silence, blackhole, failed send
    uint64_t duplicated = 0; // extra copies sent
    uint64_t reordered = 0;  // datagrams held back behind the next one
    uint64_t delayed = 0;    // datagrams given a non-zero delay
};

// What the relay saw, for whoever watches it (weft relay --print). Sessions
// are numbered from 1 in the order clients first appear.
struct RelayEvent
{
    enum EKind
    {
        SESSION_OPENED,
        SESSION_CLOSED, // idle for the relay's idleTimeout
        DATAGRAM,
    };
    EKind kind = DATAGRAM;
    uint32_t session = 0;
    RelayEndpoint client;
    // DATAGRAM only: the bytes as they arrived and what the relay decided.
    RelayDirection direction = RelayDirection::ClientToServer;
    const uint8_t* data = nullptr;
    std::size_t size = 0;
    bool dropped = false;
    bool duplicated = false;
    bool held = false;
    std::chrono::microseconds delay{0};
};

struct RelayOptions
{
    // Where clients send to; port 0 picks a free one.
    RelayEndpoint listen{0x7F000001, 0};
    RelayEndpoint target{0x7F000001, 0};
    uint32_t seed = 0;
    // In force from the first datagram, both ways; setImpairment changes it.
    Impairment impairment;
    // 0: sessions are kept until the relay stops.
    std::chrono::milliseconds idleTimeout{0};
    // Listening on ::, IPv4 clients are taken too.
    bool dualStack = true;
    // Called on the relay's thread for every session and datagram; it must
    // not call back into the relay.
    std::function<void(const RelayEvent&)> onEvent;
};

class ImpairmentRelay
{
public:
    // On 127.0.0.1, towards 127.0.0.1:targetPort; stops the process if a
    // socket cannot be made (a broken test setup).
    ImpairmentRelay(uint16_t targetPort, uint32_t seed);
    // isOpen() tells whether the listening socket could be made, and
    // getError() why not.
    explicit ImpairmentRelay(RelayOptions options);
    ~ImpairmentRelay();
    ImpairmentRelay(const ImpairmentRelay&) = delete;
    ImpairmentRelay& operator=(const ImpairmentRelay&) = delete;

    bool isOpen() const { return m_socket >= 0; }
    const std::string& getError() const { return m_error; }
    // The port clients send to.
    uint16_t getPort() const { return m_port; }

    void setImpairment(RelayDirection direction, const Impairment& impairment);
    void setImpairment(const Impairment& both);
    // True drops everything both ways until switched off.
    void setSilent(bool silent);

    RelayCounts getCounts(RelayDirection direction) const;
    std::size_t getSessionCount() const;

    // Ends the relay thread and closes every socket, discarding what is
    // queued. Safe to call more than once and from several threads.
    void stop();

private:
    using Clock = std::chrono::steady_clock;

    struct Session
    {
        int socket = -1;
        uint32_t id = 0;
        RelayEndpoint client;
        uint16_t serverPort = 0; // last source port seen upstream; 0 while unknown
        Clock::time_point lastSeen;
    };

    struct Datagram
    {
        RelayDirection direction;
        Session* pSession;
        bool isCon;
        bool duplicate;
        Clock::time_point due;
        std::vector<uint8_t> bytes;
    };

    struct Held
    {
        Datagram datagram;
        Clock::time_point deadline;
    };

    bool open();
    void run();
    void receiveAll(int socket, Session* pSession, std::vector<uint8_t>& buffer);
    Session* findOrCreateSession(const RelayEndpoint& client);
    void forgetIdleSessions(Clock::time_point now);
    void judge(RelayDirection direction, Session* pSession, std::vector<uint8_t> bytes);
    void decide(RelayDirection direction, Session* pSession, std::vector<uint8_t> bytes,
                RelayEvent& event);
    void schedule(Datagram datagram);
    void releaseExpiredHolds(Clock::time_point now);
    void sendDue(Clock::time_point now);
    void send(const Datagram& datagram);
    bool roll(std::mt19937& generator, double rate);
    bool isBlocked(RelayDirection direction) const; // caller holds m_mutex
    std::optional<Clock::time_point> nextWake() const;
    static std::size_t index(RelayDirection direction)
    {
        return direction == RelayDirection::ClientToServer ? 0 : 1;
    }

    const RelayOptions m_options;
    std::string m_error;
    uint16_t m_port = 0;
    int m_socket = -1;
    int m_wakePipe[2] = {-1, -1};
    std::atomic<bool> m_stopping{false};

    // Settings, counts and the session count, shared with callers.
    mutable std::mutex m_mutex;
    Impairment m_impairment[2];
    bool m_silent = false;
    RelayCounts m_counts[2];
    std::size_t m_sessionCount = 0;

    // Touched by the relay thread only.
    std::mt19937 m_generator[2];
    std::map<RelayEndpoint, std::unique_ptr<Session>> m_sessions;
    uint32_t m_lastSessionId = 0;
    Clock::time_point m_nextIdleCheck;
    std::map<std::pair<Clock::time_point, uint64_t>, Datagram> m_queue;
    uint64_t m_queueOrder = 0;
    std::optional<Held> m_held[2];

    std::mutex m_stopMutex;
    std::thread m_thread;
};
