// Eight clients on eight connections to one listener, with numbered messages
// flowing both ways at once: over TCP, and over EUDP in reliable mode through
// a relay that loses, duplicates and reorders datagrams. Every message must
// arrive exactly once and in order on its own connection. The count per
// connection and direction comes from WEFT_SOAK_MESSAGES (scripts/soak.sh
// runs the long version); the default keeps the test short.

#include "support/ImpairmentRelay.h"
#include "support/ProcessFigures.h"
#include "support/Recorders.h"
#include "support/WeftFixture.h"

#include <weft/WEFTConnection.h>
#include <weft/WEFTListener.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace
{

using namespace std::chrono_literals;

constexpr int CLIENTS = 8;
constexpr int DEFAULT_MESSAGES = 300;

int messagesPerDirection()
{
    const char* text = std::getenv("WEFT_SOAK_MESSAGES");
    const int count = text != nullptr ? std::atoi(text) : 0;
    return count > 0 ? count : DEFAULT_MESSAGES;
}

// What arrived on one connection in one direction: (name, number) in order.
class Arrivals
{
public:
    void add(const std::string& name, int number)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_items.emplace_back(name, number);
        }
        m_count.add();
    }
    bool waitFor(int count, std::chrono::milliseconds timeout) const
    {
        return m_count.waitFor(count, timeout);
    }
    int count() const { return m_count.get(); }

    // Empty when exactly 0..count-1 arrived in order, all under `name`;
    // otherwise the first difference.
    std::string differenceFrom(const std::string& name, int count) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (static_cast<int>(m_items.size()) != count)
        {
            return "got " + std::to_string(m_items.size()) + " messages, want " +
                   std::to_string(count);
        }
        for (int i = 0; i < count; ++i)
        {
            if (m_items[i] != std::make_pair(name, i))
            {
                return "position " + std::to_string(i) + ": got " + m_items[i].first + "/" +
                       std::to_string(m_items[i].second) + ", want " + name + "/" +
                       std::to_string(i);
            }
        }
        return "";
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::pair<std::string, int>> m_items;
    EventCounter m_count;
};

// Counts the ends of connections, on either side.
struct Ends
{
    EventCounter disconnected;
    void onStatus(EConnStatus status)
    {
        if (status == CONN_STATUS_DISCONNECTED)
        {
            disconnected.add();
        }
    }
};

class SoakClient : public IWEFTClient
{
public:
    explicit SoakClient(Ends& ends) : m_ends(ends) {}
    void onTrigger(const std::string&, const ParameterValue&) override {}
    void onUpdateState(const std::string& name, const ParameterValue& value) override
    {
        int number = -1;
        value.getIntValue(number);
        arrivals.add(name, number);
    }
    void onStatus(EConnStatus status) override { m_ends.onStatus(status); }

    Arrivals arrivals;

private:
    Ends& m_ends;
};

class SoakServer : public IWEFTServer
{
public:
    explicit SoakServer(Ends& ends) : m_ends(ends) {}
    void onSubscribe(const std::string&) override {}
    void onUnsubscribe(const std::string&) override {}
    void onCallFunctionId(const std::string& name, const ParameterList& params) override
    {
        ParameterList copy = params;
        int number = -1;
        copy.getParam("seq", number);
        arrivals.add(name, number);
    }
    void onStatus(EConnStatus status) override { m_ends.onStatus(status); }

    Arrivals arrivals;

private:
    Ends& m_ends;
};

class SoakConnector : public IWEFTConnector
{
public:
    explicit SoakConnector(Ends& ends) : m_ends(ends) {}
    ~SoakConnector() override { closeAll(); }

    void onConnection(WEFTConnection* connection) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_servers.push_back(std::make_unique<SoakServer>(m_ends));
        connection->setServer(m_servers.back().get());
        m_connections.emplace_back(connection);
        m_accepted.add();
    }
    bool waitForConnections(int count) const { return m_accepted.waitFor(count, 20s); }
    WEFTConnection& connection(int index)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return *m_connections[index];
    }
    SoakServer& server(int index)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return *m_servers[index];
    }
    void closeAll()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& connection : m_connections)
        {
            connection->disconnect();
        }
        m_connections.clear();
    }

private:
    Ends& m_ends;
    std::mutex m_mutex;
    std::vector<std::unique_ptr<SoakServer>> m_servers;
    std::vector<std::unique_ptr<WEFTConnection>> m_connections;
    EventCounter m_accepted;
};

class SoakTest : public WeftFixture, public ::testing::WithParamInterface<ETransport>
{
};

TEST_P(SoakTest, EightConnectionsDeliverEveryMessageOnceAndInOrderBothWays)
{
    const int count = messagesPerDirection();
    const bool eudp = GetParam() == TRANSPORT_EUDP;
    const long threadsBefore = baselineThreadCount();
    Ends serverEnds;
    Ends clientEnds;
    SoakConnector connector(serverEnds);
    auto listener = std::make_unique<WEFTListener>(GetParam());
    listener->listen("127.0.0.1", 0, &connector);
    ASSERT_TRUE(listener->waitForListen(10000));
    std::unique_ptr<ImpairmentRelay> relay;
    uint16 port = listener->getLocalPort();
    if (eudp)
    {
        relay = std::make_unique<ImpairmentRelay>(port, 20240611);
        port = relay->getPort();
    }

    std::vector<std::unique_ptr<SoakClient>> clients;
    std::vector<std::unique_ptr<WEFTConnection>> connections;
    for (int k = 0; k < CLIENTS; ++k)
    {
        clients.push_back(std::make_unique<SoakClient>(clientEnds));
        connections.push_back(std::make_unique<WEFTConnection>(GetParam()));
        ASSERT_TRUE(connections[k]->connect("127.0.0.1", port, clients[k].get()));
        // One at a time, so that server connection k belongs to client k.
        ASSERT_TRUE(connector.waitForConnections(k + 1));
        if (eudp)
        {
            // Negotiated on a clean path: a lost request would only cost a time-out.
            ASSERT_TRUE(connections[k]->setSendMode(CONN_MODE_RELIABLE));
            ASSERT_TRUE(connections[k]->setReceiveMode(CONN_MODE_RELIABLE));
        }
    }
    if (eudp)
    {
        Impairment impairment;
        impairment.dropRate = 0.05;
        impairment.duplicateRate = 0.025;
        impairment.reorderRate = 0.025;
        impairment.jitter = 200us;
        relay->setImpairment(impairment);
    }

    std::vector<std::thread> senders;
    for (int k = 0; k < CLIENTS; ++k)
    {
        senders.emplace_back(
            [&, k]
            {
                for (int i = 0; i < count; ++i)
                {
                    ParameterList params;
                    params.addNumeric("seq", i);
                    ASSERT_TRUE(connections[k]->callFunctionId("c" + std::to_string(k), params));
                }
            });
        senders.emplace_back(
            [&, k]
            {
                WEFTConnection& server = connector.connection(k);
                for (int i = 0; i < count; ++i)
                {
                    ASSERT_TRUE(server.updateState("s" + std::to_string(k), ParameterValue(i)));
                }
            });
    }
    for (std::thread& sender : senders)
    {
        sender.join();
    }
    // Generous for a sanitizer build on a shared machine.
    const auto patience = 60s + std::chrono::milliseconds(count * 40);
    for (int k = 0; k < CLIENTS; ++k)
    {
        SoakServer& server = connector.server(k);
        EXPECT_TRUE(server.arrivals.waitFor(count, patience)) << "server " << k;
        EXPECT_EQ(server.arrivals.differenceFrom("c" + std::to_string(k), count), "")
            << "server " << k;
        EXPECT_TRUE(clients[k]->arrivals.waitFor(count, patience)) << "client " << k;
        EXPECT_EQ(clients[k]->arrivals.differenceFrom("s" + std::to_string(k), count), "")
            << "client " << k;
    }
    EXPECT_EQ(serverEnds.disconnected.get(), 0);
    EXPECT_EQ(clientEnds.disconnected.get(), 0);
    if (eudp)
    {
        for (RelayDirection direction :
             {RelayDirection::ClientToServer, RelayDirection::ServerToClient})
        {
            const RelayCounts counts = relay->getCounts(direction);
            EXPECT_GT(counts.dropped, 0u);
            EXPECT_GT(counts.duplicated, 0u);
            EXPECT_GT(counts.reordered, 0u);
        }
        EXPECT_EQ(relay->getSessionCount(), static_cast<std::size_t>(CLIENTS));
        // A clean path for the goodbyes.
        relay->setImpairment(Impairment());
    }

    for (auto& connection : connections)
    {
        connection->disconnect();
    }
    EXPECT_TRUE(serverEnds.disconnected.waitFor(CLIENTS, 30s));
    listener.reset();
    connector.closeAll();
    connections.clear();
    relay.reset();
    // Every thread of the connections, transports and listener has ended.
    EXPECT_TRUE(eventually([&] { return threadCount() <= threadsBefore; }, 10s))
        << threadCount() << " threads, " << threadsBefore << " before";
}

INSTANTIATE_TEST_SUITE_P(Transports, SoakTest, ::testing::Values(TRANSPORT_TCP, TRANSPORT_EUDP),
                         [](const ::testing::TestParamInfo<ETransport>& info)
                         { return info.param == TRANSPORT_TCP ? "Tcp" : "Eudp"; });

} // namespace
