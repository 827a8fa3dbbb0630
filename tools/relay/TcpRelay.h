#pragma once

#include "ImpairmentRelay.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// A TCP relay: each connection accepted on the listening port is joined to
// a new connection to the target, and the bytes are copied both ways. The
// only impairment is a delay: TCP repairs loss, duplication and reordering
// itself, so a stream has nothing else to show. An end of stream is passed
// on in order, after the bytes before it; a reset or a failed connect to the
// target closes both sides.
//
// One internal thread does all the socket work.

struct TcpRelayEvent
{
    enum EKind
    {
        OPENED, // a client connected; the target connect is under way
        DATA,   // bytes read from one side, before their delay
        CLOSED, // both sides are done; `reason` is empty after two clean ends
    };
    EKind kind = DATA;
    uint32_t connection = 0; // numbered from 1
    RelayEndpoint client;
    RelayDirection direction = RelayDirection::ClientToServer;
    const uint8_t* data = nullptr;
    std::size_t size = 0;
    std::string reason;
};

struct TcpRelayOptions
{
    // Where clients connect to; port 0 picks a free one.
    RelayEndpoint listen{0x7F000001, 0};
    RelayEndpoint target{0x7F000001, 0};
    std::chrono::microseconds delay{0};
    // Listening on ::, IPv4 clients are taken too.
    bool dualStack = true;
    // Called on the relay's thread; it must not call back into the relay.
    std::function<void(const TcpRelayEvent&)> onEvent;
};

class TcpRelay
{
public:
    // isOpen() tells whether the listening socket could be made, getError()
    // why not.
    explicit TcpRelay(TcpRelayOptions options);
    ~TcpRelay();
    TcpRelay(const TcpRelay&) = delete;
    TcpRelay& operator=(const TcpRelay&) = delete;

    bool isOpen() const { return m_socket >= 0; }
    const std::string& getError() const { return m_error; }
    uint16_t getPort() const { return m_port; }
    // Bytes copied each way so far.
    uint64_t getBytes(RelayDirection direction) const;

    // Closes every connection and ends the thread; safe to call twice.
    void stop();

private:
    using Clock = std::chrono::steady_clock;

    struct Chunk
    {
        Clock::time_point due;
        std::vector<uint8_t> bytes; // empty: the end of the stream
        std::size_t written = 0;
    };

    // One direction of a connection: what was read and is not written yet.
    struct Flow
    {
        std::deque<Chunk> chunks;
        std::size_t queued = 0;  // bytes in `chunks`
        bool readEnded = false;  // the source sent its end
        bool writeEnded = false; // the end was passed on
        bool blocked = false;    // the destination's buffer was full
    };

    struct Connection
    {
        uint32_t id = 0;
        RelayEndpoint client;
        int clientFd = -1;
        int serverFd = -1;
        bool connecting = true;
        Flow flows[2]; // indexed like RelayDirection
    };

    bool open();
    void run();
    void acceptAll();
    // False when the connection is over and must go.
    bool service(Connection& connection, short clientEvents, short serverEvents,
                 Clock::time_point now, std::string& reason);
    bool readInto(Connection& connection, RelayDirection direction, std::string& reason);
    bool flush(Connection& connection, RelayDirection direction, Clock::time_point now,
               std::string& reason);
    void close(Connection& connection, const std::string& reason);
    void emit(const TcpRelayEvent& event);

    const TcpRelayOptions m_options;
    std::string m_error;
    uint16_t m_port = 0;
    int m_socket = -1;
    int m_wakePipe[2] = {-1, -1};
    bool m_stopping = false;

    mutable std::mutex m_mutex; // guards m_bytes and m_stopping
    uint64_t m_bytes[2] = {0, 0};

    // Touched by the relay thread only.
    std::map<uint32_t, std::unique_ptr<Connection>> m_connections;
    uint32_t m_lastId = 0;

    std::mutex m_stopMutex;
    std::thread m_thread;
};
