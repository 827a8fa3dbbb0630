#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// A UDP relay that sits between EUDP clients and one listening EUDP endpoint
// and impairs the traffic: loss, duplication, reordering, delay, silence.
//
// Clients send to getPort() on 127.0.0.1. Like a NAT, each client source
// (address, port) gets a session with its own upstream socket; what comes
// back on that socket goes to the client from getPort(). A datagram whose
// command letters (bytes 1 to 3) are "CON" always goes to the target port;
// any other goes to the port the server side last sent from on that session
// (an accepted transport answers from a new port), or to the target port
// while none is known. Sessions live until the relay stops.
//
// Each datagram is judged on arrival, in this order: silence or blackhole
// drops it; then it is dropped with `dropRate`; then it gets a second copy
// with `duplicateRate`; then its send time is now + delay + a uniform jitter
// in [0, jitter]; then it is held back with `reorderRate` and goes out right
// after the next datagram of its direction (or `reorderHold` after its own
// send time if none comes). A datagram that releases a held one is never
// held itself, so at most one is held per direction and about r/(1+r) of the
// datagrams are held. Silence and blackhole are checked again when a datagram
// leaves, so switching them on also stops what is already queued.
//
// One std::mt19937 per direction, seeded from the constructor's seed, makes
// the decisions: the same seed, settings and traffic give the same results.
//
// All operations are thread-safe; one internal thread does all the socket
// work. stop() and the destructor end it and never wait for queued datagrams.

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

class ImpairmentRelay
{
public:
    // Binds the relay's port on 127.0.0.1 and starts relaying to the
    // endpoint at targetHost:targetPort. Stops the process if a socket cannot
    // be made or the host does not resolve (a broken test setup).
    ImpairmentRelay(uint16_t targetPort, uint32_t seed,
                    const std::string& targetHost = "127.0.0.1");
    ~ImpairmentRelay();
    ImpairmentRelay(const ImpairmentRelay&) = delete;
    ImpairmentRelay& operator=(const ImpairmentRelay&) = delete;

    // The port clients send to.
    uint16_t getPort() const { return m_port; }

    void setImpairment(RelayDirection direction, const Impairment& impairment);
    void setImpairment(const Impairment& both);
    // True drops everything both ways until switched off.
    void setSilent(bool silent);

    RelayCounts getCounts(RelayDirection direction) const;
    std::size_t getSessionCount() const;

    // Ends the relay thread and closes every socket; queued datagrams are
    // discarded. Safe to call more than once and from several threads.
    void stop();

private:
    using Clock = std::chrono::steady_clock;

    struct Session
    {
        int socket = -1;
        uint32_t clientAddress = 0; // host byte order
        uint16_t clientPort = 0;
        uint16_t serverPort = 0; // last source port seen upstream; 0 while unknown
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

    void run();
    void receiveAll(int socket, Session* pSession, std::vector<uint8_t>& buffer);
    Session* findOrCreateSession(uint32_t address, uint16_t port);
    void judge(RelayDirection direction, Session* pSession, std::vector<uint8_t> bytes);
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

    uint32_t m_targetAddress = 0; // host byte order
    uint16_t m_targetPort;
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
    std::map<std::pair<uint32_t, uint16_t>, std::unique_ptr<Session>> m_sessions;
    std::map<std::pair<Clock::time_point, uint64_t>, Datagram> m_queue;
    uint64_t m_queueOrder = 0;
    std::optional<Held> m_held[2];

    std::mutex m_stopMutex;
    std::thread m_thread;
};
