#include "WeftPair.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace bench
{

namespace
{

Clock::rep ticks(Clock::time_point t)
{
    return t.time_since_epoch().count();
}

Clock::time_point fromTicks(Clock::rep r)
{
    return Clock::time_point(Clock::duration(r));
}

// Generous limits: only a broken run comes near them.
constexpr auto CONNECT_LIMIT = std::chrono::seconds(10);
constexpr auto ROUND_LIMIT = std::chrono::seconds(10);
// A push whose data stop arriving for this long is over: real-time mode
// loses what is missing, and reliable mode would have repeated it within
// its 500 ms retransmission time.
constexpr auto IDLE_LIMIT = std::chrono::milliseconds(2000);
// Real-time pushes end sooner: nothing is repeated there.
constexpr auto REALTIME_IDLE_LIMIT = std::chrono::milliseconds(300);

} // namespace

// ---- client ----

void BenchClient::onTrigger(const std::string&, const ParameterValue&)
{
    m_lastTrigger = ticks(Clock::now());
    {
        std::lock_guard<std::mutex> lock(m_triggerMutex);
        m_triggers.fetch_add(1);
    }
    m_triggered.notify_one();
}

void BenchClient::onUpdateState(const std::string&, const ParameterValue& value)
{
    const Clock::time_point now = Clock::now();
    const std::string text = value.getAsString();
    const long number = std::strtol(text.c_str(), nullptr, 10);
    if (number < m_expected)
    {
        m_outOfOrder.fetch_add(1);
    }
    else
    {
        m_skipped.fetch_add(static_cast<int>(number - m_expected));
        m_expected = number + 1;
    }
    m_lastUpdate = ticks(now);
    m_updates.fetch_add(1);
}

void BenchClient::onStatus(EConnStatus status)
{
    if (status == CONN_STATUS_DISCONNECTED)
    {
        m_disconnects.fetch_add(1);
    }
}

bool BenchClient::waitTriggers(int count, Clock::time_point deadline)
{
    std::unique_lock<std::mutex> lock(m_triggerMutex);
    return m_triggered.wait_until(lock, deadline, [&] { return m_triggers.load() >= count; });
}

Clock::time_point BenchClient::lastTrigger() const
{
    return fromTicks(m_lastTrigger.load());
}

void BenchClient::resetUpdates()
{
    m_updates = 0;
    m_outOfOrder = 0;
    m_skipped = 0;
    m_expected = 0;
}

Clock::time_point BenchClient::lastUpdate() const
{
    return fromTicks(m_lastUpdate.load());
}

// ---- server ----

void BenchServer::onCallFunctionId(const std::string&, const ParameterList& params)
{
    m_calls.fetch_add(1);
    if (m_pConnection != nullptr)
    {
        // The call's number goes back, as an answer would carry a result.
        std::string name;
        std::string number;
        params.getParam(0u, name, number);
        m_pConnection->trigger("pong", ParameterValue(std::atoi(number.c_str())));
    }
}

void BenchServer::onStatus(EConnStatus status)
{
    if (status == CONN_STATUS_DISCONNECTED)
    {
        m_disconnects.fetch_add(1);
    }
}

// ---- connector ----

BenchConnector::~BenchConnector()
{
    closeAll();
}

void BenchConnector::onConnection(WEFTConnection* connection)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_pShared != nullptr)
    {
        connection->setServer(m_pShared);
    }
    else
    {
        m_servers.push_back(std::make_unique<BenchServer>(connection));
        connection->setServer(m_servers.back().get());
    }
    m_connections.push_back(connection);
}

std::size_t BenchConnector::count()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_connections.size();
}

bool BenchConnector::waitFor(std::size_t target, Clock::time_point deadline)
{
    return waitUntil([&] { return count() >= target; }, deadline);
}

WEFTConnection* BenchConnector::connection(std::size_t index)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return index < m_connections.size() ? m_connections[index] : nullptr;
}

BenchServer* BenchConnector::server(std::size_t index)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return index < m_servers.size() ? m_servers[index].get() : nullptr;
}

void BenchConnector::closeAll()
{
    std::vector<WEFTConnection*> connections;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        connections.swap(m_connections);
    }
    closeConnections(connections);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_servers.clear();
}

void closeConnections(std::vector<WEFTConnection*>& connections)
{
    // Each disconnect pauses before it closes; many at once keep a large
    // set from taking seconds.
    const std::size_t workers = std::min<std::size_t>(32, connections.size());
    std::atomic<std::size_t> next{0};
    std::vector<std::thread> threads;
    for (std::size_t w = 0; w < workers; ++w)
    {
        threads.emplace_back(
            [&]
            {
                for (std::size_t i = next++; i < connections.size(); i = next++)
                {
                    connections[i]->disconnect();
                    delete connections[i];
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    connections.clear();
}

// ---- pair ----

WeftPair::WeftPair(EPairMode mode) : m_mode(mode) {}

WeftPair::~WeftPair()
{
    if (m_pClientConnection && m_connected)
    {
        m_pClientConnection->disconnect();
    }
    m_pClientConnection.reset();
    m_connector.closeAll();
    if (m_pListener)
    {
        m_pListener->shutdown(-1);
    }
    m_pListener.reset();
}

unsigned short WeftPair::listen()
{
    const ETransport transport = m_mode == EPairMode::TCP ? TRANSPORT_TCP : TRANSPORT_EUDP;
    m_pListener = std::make_unique<WEFTListener>(transport);
    m_pListener->listen("127.0.0.1", 0, &m_connector);
    if (!m_pListener->waitForListen(5000))
    {
        return 0;
    }
    return m_pListener->getLocalPort();
}

bool WeftPair::connect(unsigned short port, unsigned int window, std::string& failure)
{
    const ETransport transport = m_mode == EPairMode::TCP ? TRANSPORT_TCP : TRANSPORT_EUDP;
    m_pClientConnection = std::make_unique<WEFTConnection>(transport);
    if (!m_pClientConnection->connect("127.0.0.1", port, &m_client))
    {
        failure = "connect failed";
        return false;
    }
    m_connected = true;
    if (!m_connector.waitFor(1, Clock::now() + CONNECT_LIMIT))
    {
        failure = "the server never saw the connection";
        return false;
    }
    if (m_mode == EPairMode::EUDP_RELIABLE)
    {
        if (!m_pClientConnection->setSendMode(CONN_MODE_RELIABLE) ||
            !m_pClientConnection->setReceiveMode(CONN_MODE_RELIABLE))
        {
            failure = "reliable mode refused";
            return false;
        }
    }
    if (window > 0 && !m_pClientConnection->setWindowSize(window))
    {
        failure = "window size refused";
        return false;
    }
    return true;
}

// ---- runs ----

RunResult weftPingPong(WeftPair& pair, int rounds, int warmup)
{
    BenchClient& client = pair.clientCallbacks();
    ParameterList params;
    const int start = client.triggers();
    const auto roundTrip = [&](int i, Clock::time_point& answered)
    {
        params.addNumeric("i", i);
        if (!pair.client().callFunctionId("ping", params))
        {
            return std::string("call refused");
        }
        if (!client.waitTriggers(start + i + 1, Clock::now() + ROUND_LIMIT))
        {
            return std::string("no answer within 10 s");
        }
        answered = client.lastTrigger();
        return std::string();
    };
    return timeRoundTrips(rounds, warmup, roundTrip);
}

RunResult weftPush(WeftPair& pair, int messages, int messageSize, bool mustDeliverAll)
{
    RunResult result;
    BenchClient& client = pair.clientCallbacks();
    client.resetUpdates();
    // A state update of N bytes: header 4, name "s" and its NUL 2, string
    // tag 1, text N - 8, NUL 1.
    std::string text(static_cast<std::size_t>(messageSize - 8), 'x');
    char digits[16];
    const double cpuBefore = processCpuUs();
    const double switchesBefore = contextSwitches();
    const double allocationsBefore = allocations();
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < messages; ++i)
    {
        const int n = std::snprintf(digits, sizeof(digits), "%08d", i);
        text.replace(0, static_cast<std::size_t>(n), digits, static_cast<std::size_t>(n));
        if (!pair.server().updateState("s", ParameterValue(text)))
        {
            result.ok = false;
            result.failure = "state update refused";
            break;
        }
    }
    // Done when all arrived, or when nothing more arrives.
    const auto idleLimit = mustDeliverAll ? IDLE_LIMIT : REALTIME_IDLE_LIMIT;
    int seen = -1;
    Clock::time_point lastProgress = Clock::now();
    while (client.updates() < messages)
    {
        const int now = client.updates();
        if (now != seen)
        {
            seen = now;
            lastProgress = Clock::now();
        }
        else if (Clock::now() - lastProgress > idleLimit)
        {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    const double cpuUs = processCpuUs() - cpuBefore;
    const double switches = contextSwitches() - switchesBefore;
    const int received = client.updates();
    const double seconds = elapsedUs(start, client.lastUpdate()) / 1e6;
    result.figures = pushFigures(messages, received, messageSize, seconds, cpuUs, switches);
    // Both ends are in this process: the count covers a message's way out and
    // its way in, the application's own value included.
    result.figures["allocs_per_msg"] =
        received > 0 ? (allocations() - allocationsBefore) / received : 0;
    if (client.outOfOrder() > 0)
    {
        result.ok = false;
        result.failure = std::to_string(client.outOfOrder()) + " messages out of order";
    }
    else if (mustDeliverAll && received != messages)
    {
        result.ok = false;
        result.failure = "delivered " + std::to_string(received) + " of " +
                         std::to_string(messages) + " messages";
    }
    return result;
}

} // namespace bench
