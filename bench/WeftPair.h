#pragma once

// A weft server and client in this process, joined through the public API
// only, with callbacks that time and count what arrives.

#include "Bench.h"

#include <weft/IWEFTClient.h>
#include <weft/IWEFTConnector.h>
#include <weft/IWEFTServer.h>
#include <weft/WEFTConnection.h>
#include <weft/WEFTListener.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace bench
{

// Times answers to function calls and checks the order of state updates,
// whose string value starts with the message's number in decimal.
class BenchClient : public IWEFTClient
{
public:
    void onTrigger(const std::string& name, const ParameterValue& value) override;
    void onUpdateState(const std::string& name, const ParameterValue& value) override;
    void onStatus(EConnStatus status) override;

    // Waits until `count` triggers have arrived in all; false on time-out.
    bool waitTriggers(int count, Clock::time_point deadline);
    int triggers() const { return m_triggers.load(); }
    Clock::time_point lastTrigger() const;

    // State updates: how many arrived, the time of the newest, and whether
    // any came out of order (a number at or below one already seen).
    void resetUpdates();
    int updates() const { return m_updates.load(); }
    Clock::time_point lastUpdate() const;
    int outOfOrder() const { return m_outOfOrder.load(); }
    // Numbers skipped over: messages a real-time receiver never saw.
    int skipped() const { return m_skipped.load(); }
    int disconnects() const { return m_disconnects.load(); }

private:
    std::atomic<int> m_triggers{0};
    std::atomic<Clock::rep> m_lastTrigger{0};
    // A plain condition variable: the standard semaphores spin and yield
    // before they sleep, which would add switches of the harness's own to
    // what is counted.
    std::mutex m_triggerMutex;
    std::condition_variable m_triggered;
    std::atomic<int> m_updates{0};
    std::atomic<Clock::rep> m_lastUpdate{0};
    std::atomic<int> m_outOfOrder{0};
    std::atomic<int> m_skipped{0};
    // Touched only on the receive thread.
    long m_expected = 0;
    std::atomic<int> m_disconnects{0};
};

// Answers every function call with a trigger on the same connection, and
// counts calls and status reports (one object may serve many connections).
class BenchServer : public IWEFTServer
{
public:
    explicit BenchServer(WEFTConnection* connection = nullptr) : m_pConnection(connection) {}
    void onSubscribe(const std::string&) override {}
    void onUnsubscribe(const std::string&) override {}
    void onCallFunctionId(const std::string& name, const ParameterList& params) override;
    void onStatus(EConnStatus status) override;

    int calls() const { return m_calls.load(); }
    int disconnects() const { return m_disconnects.load(); }

private:
    WEFTConnection* m_pConnection;
    std::atomic<int> m_calls{0};
    std::atomic<int> m_disconnects{0};
};

// Keeps every connection the listener hands over, each with a server of its
// own that answers calls, or with one shared server.
class BenchConnector : public IWEFTConnector
{
public:
    explicit BenchConnector(BenchServer* shared = nullptr) : m_pShared(shared) {}
    ~BenchConnector() override;
    void onConnection(WEFTConnection* connection) override;

    std::size_t count();
    bool waitFor(std::size_t count, Clock::time_point deadline);
    WEFTConnection* connection(std::size_t index);
    BenchServer* server(std::size_t index);
    // Disconnects and deletes every connection, several at a time (each
    // disconnect pauses briefly before it closes).
    void closeAll();

private:
    BenchServer* m_pShared;
    std::mutex m_mutex;
    std::vector<WEFTConnection*> m_connections;
    std::vector<std::unique_ptr<BenchServer>> m_servers;
};

// Disconnects and deletes the connections, several at a time.
void closeConnections(std::vector<WEFTConnection*>& connections);

// Modes of a client and server pair.
enum class EPairMode
{
    TCP,
    EUDP_REALTIME,
    EUDP_RELIABLE,
};

// One listener, one client connection, one accepted server connection.
class WeftPair
{
public:
    explicit WeftPair(EPairMode mode);
    ~WeftPair();

    // Listens on a free loopback port; 0 on failure.
    unsigned short listen();
    // Connects to `port` (the listener's, or a relay's in front of it), sets
    // the modes and, when `window` is above 0, the server's send window.
    bool connect(unsigned short port, unsigned int window, std::string& failure);

    WEFTConnection& client() { return *m_pClientConnection; }
    WEFTConnection& server() { return *m_connector.connection(0); }
    BenchClient& clientCallbacks() { return m_client; }

private:
    EPairMode m_mode;
    BenchClient m_client;
    BenchConnector m_connector;
    std::unique_ptr<WEFTListener> m_pListener;
    std::unique_ptr<WEFTConnection> m_pClientConnection;
    bool m_connected = false;
};

// One latency run: `rounds` timed function calls, each answered by a
// trigger, after `warmup` untimed ones.
RunResult weftPingPong(WeftPair& pair, int rounds, int warmup);
// One throughput run: the server pushes `messages` state updates of
// `messageSize` bytes; reliable runs must deliver all of them in order.
RunResult weftPush(WeftPair& pair, int messages, int messageSize, bool mustDeliverAll);

} // namespace bench
