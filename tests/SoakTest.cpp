// Eight clients on eight connections to one listener, with numbered messages
// flowing both ways at once: over TCP, and over EUDP in reliable mode through
// a relay that loses, duplicates and reorders datagrams. Every message must
// arrive exactly once and in order on its own connection. The count per
// connection and direction comes from WEFT_SOAK_MESSAGES (scripts/soak.sh
// runs the long version); the default keeps the test short.

#include "ImpairmentRelay.h"
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

// One end of one connection: the numbered messages that arrived on it, as
// (name, number) in order, and its DISCONNECTED report, counted into `ends`.
class Side : public IWEFTClient, public IWEFTServer
{
public:
    explicit Side(EventCounter& ends) : m_ends(ends) {}

    void onTrigger(const std::string&, const ParameterValue&) override {}
    void onUpdateState(const std::string& name, const ParameterValue& value) override
    {
        int number = -1;
        value.getIntValue(number);
        add(name, number);
    }
    void onSubscribe(const std::string&) override {}
    void onUnsubscribe(const std::string&) override {}
    void onCallFunctionId(const std::string& name, const ParameterList& params) override
    {
        ParameterList copy = params;
        int number = -1;
        copy.getParam("seq", number);
        add(name, number);
    }
    void onStatus(EConnStatus status) override
    {
        if (status == CONN_STATUS_DISCONNECTED)
        {
            m_ends.add();
        }
    }

    bool waitFor(int count, std::chrono::milliseconds timeout) const
    {
        return m_count.waitFor(count, timeout);
    }

    // Empty when exactly 0..count-1 arrived in order, all under `name`;
    // otherwise the first difference.
    std::string differenceFrom(const std::string& name, int count) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (int i = 0; i < count && i < static_cast<int>(m_items.size()); ++i)
        {
            if (m_items[i] != std::make_pair(name, i))
            {
                return "position " + std::to_string(i) + ": got " + m_items[i].first + "/" +
                       std::to_string(m_items[i].second) + ", want " + name + "/" +
                       std::to_string(i);
            }
        }
        return static_cast<int>(m_items.size()) == count
                   ? ""
                   : "got " + std::to_string(m_items.size()) + " messages, want " +
                         std::to_string(count);
    }

private:
    void add(const std::string& name, int number)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_items.emplace_back(name, number);
        }
        m_count.add();
    }

    EventCounter& m_ends;
    mutable std::mutex m_mutex;
    std::vector<std::pair<std::string, int>> m_items;
    EventCounter m_count;
};

// Keeps every accepted connection with a Side of its own.
class SoakConnector : public IWEFTConnector
{
public:
    explicit SoakConnector(EventCounter& ends) : m_ends(ends) {}

    void onConnection(WEFTConnection* connection) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sides.push_back(std::make_unique<Side>(m_ends));
        connection->setServer(m_sides.back().get());
        m_connections.emplace_back(connection);
        m_accepted.add();
    }
    // Accepted connection `index` and its side, once it is there.
    std::pair<WEFTConnection*, Side*> waitFor(int index)
    {
        if (!m_accepted.waitFor(index + 1, 20s))
        {
            return {nullptr, nullptr};
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        return {m_connections[index].get(), m_sides[index].get()};
    }
    // Each connection's destructor disconnects it.
    void closeAll()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_connections.clear();
    }

private:
    EventCounter& m_ends;
    std::mutex m_mutex;
    // Declared first, so that they outlive their connections.
    std::vector<std::unique_ptr<Side>> m_sides;
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
    EventCounter serverEnds;
    EventCounter clientEnds;
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

    // Client k's side and connection, and server connection k's.
    std::vector<std::unique_ptr<Side>> clients;
    std::vector<std::unique_ptr<WEFTConnection>> connections;
    std::vector<std::pair<WEFTConnection*, Side*>> servers;
    for (int k = 0; k < CLIENTS; ++k)
    {
        clients.push_back(std::make_unique<Side>(clientEnds));
        connections.push_back(std::make_unique<WEFTConnection>(GetParam()));
        ASSERT_TRUE(connections[k]->connect("127.0.0.1", port, clients[k].get()));
        // One at a time, so that server connection k belongs to client k.
        servers.push_back(connector.waitFor(k));
        ASSERT_NE(servers[k].first, nullptr);
        if (eudp)
        {
            // Negotiated on a clean path: a lost request would only cost a time-out.
            ASSERT_TRUE(connections[k]->setSendMode(CONN_MODE_RELIABLE));
            ASSERT_TRUE(connections[k]->setReceiveMode(CONN_MODE_RELIABLE));
        }
    }
    if (eudp)
    {
        relay->setImpairment(Impairment{
            .dropRate = 0.05, .duplicateRate = 0.025, .reorderRate = 0.025, .jitter = 200us});
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
                for (int i = 0; i < count; ++i)
                {
                    ASSERT_TRUE(
                        servers[k].first->updateState("s" + std::to_string(k), ParameterValue(i)));
                }
            });
    }
    for (std::thread& sender : senders)
    {
        sender.join();
    }
    // Generous for a sanitizer build on a shared machine.
    const auto patience = 60s + std::chrono::milliseconds(count * 40);
    // Server k has client k's calls "c<k>", client k server k's updates "s<k>".
    for (int k = 0; k < CLIENTS; ++k)
    {
        for (const auto& [side, name] :
             {std::pair{servers[k].second, "c"}, std::pair{clients[k].get(), "s"}})
        {
            EXPECT_TRUE(side->waitFor(count, patience)) << name << k;
            EXPECT_EQ(side->differenceFrom(name + std::to_string(k), count), "") << name << k;
        }
    }
    EXPECT_EQ(serverEnds.get(), 0);
    EXPECT_EQ(clientEnds.get(), 0);
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

    connections.clear();
    EXPECT_TRUE(serverEnds.waitFor(CLIENTS, 30s));
    listener.reset();
    connector.closeAll();
    relay.reset();
    // Every thread of the connections, transports and listener has ended.
    EXPECT_TRUE(eventually([&] { return threadCount() <= threadsBefore; }, 10s))
        << threadCount() << " threads, " << threadsBefore << " before";
}

INSTANTIATE_TEST_SUITE_P(Transports, SoakTest, ::testing::Values(TRANSPORT_TCP, TRANSPORT_EUDP),
                         [](const ::testing::TestParamInfo<ETransport>& info)
                         { return info.param == TRANSPORT_TCP ? "Tcp" : "Eudp"; });

} // namespace
