#include "support/ListenerFixture.h"

#include <weft/WEFTConnection.h>
#include <weft/WEFTListener.h>

#include <tavo/Thread.h>

#include <gtest/gtest.h>

#include <memory>
#include <thread>

namespace
{

using namespace std::chrono_literals;

class WEFTListenerTest : public ListenerFixture
{
};

class WEFTEndToEndTest : public WEFTListenerTest, public ::testing::WithParamInterface<ETransport>
{
protected:
    void SetUp() override
    {
        WEFTListenerTest::SetUp();
        listen(GetParam());
    }
};

// Every request and value type end to end is the Python binding's and the
// tool's (tests/python, tests/tool); here the listener's hand-over and the
// connections' threads.
TEST_P(WEFTEndToEndTest, ManyClientsAreHandedOverInAcceptOrderAndTheirThreadsLoseNothing)
{
    constexpr int clients = 6;
    constexpr int messagesEach = 200;
    EventLog clientEvents;
    Recorder client(clientEvents);
    std::vector<std::unique_ptr<WEFTConnection>> connections;
    std::vector<Event> handedOver;
    for (int c = 0; c < clients; ++c)
    {
        connections.push_back(connectClient(&client));
        const std::string who = "server" + std::to_string(c);
        handedOver.push_back({"connection", who, ""});
        handedOver.push_back({"status", who, "connected"});
    }
    ASSERT_TRUE(m_serverEvents.waitFor(2 * clients));
    EXPECT_EQ(m_serverEvents.events(), handedOver);
    for (int c = 0; c < clients; ++c)
    {
        EXPECT_EQ(m_connector.connection(c)->getPeerPort(), connections[c]->getLocalPort()) << c;
    }
    // Reliable delivery from the clients to the server on EUDP.
    if (GetParam() == TRANSPORT_EUDP)
    {
        for (auto& connection : connections)
        {
            ASSERT_TRUE(connection->setReceiveMode(CONN_MODE_RELIABLE));
        }
    }
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; ++c)
    {
        threads.emplace_back(
            [&, c]
            {
                for (int i = 0; i < messagesEach; ++i)
                {
                    EXPECT_TRUE(connections[c]->subscribe("c" + std::to_string(c) + "." +
                                                          std::to_string(i)));
                }
            });
    }
    for (auto& thread : threads)
    {
        thread.join();
    }
    ASSERT_TRUE(m_serverEvents.waitFor(2 * clients + clients * messagesEach, 60s))
        << "arrived " << m_serverEvents.events().size() - 2 * clients;
    // Every name exactly once.
    for (int c = 0; c < clients; ++c)
    {
        for (int i = 0; i < messagesEach; ++i)
        {
            const std::string name = "c" + std::to_string(c) + "." + std::to_string(i);
            ASSERT_EQ(m_serverEvents.countOf({"subscribe", name, ""}), 1) << name;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Transports, WEFTEndToEndTest,
                         ::testing::Values(TRANSPORT_TCP, TRANSPORT_EUDP),
                         [](const ::testing::TestParamInfo<ETransport>& info)
                         { return info.param == TRANSPORT_TCP ? "Tcp" : "Eudp"; });

TEST_F(WEFTListenerTest, ShutdownBeforeOrRightAfterListenNeverHangsAndAListenerListensAgain)
{
    WEFTListener never(TRANSPORT_TCP);
    EXPECT_FALSE(never.shutdown(-1));
    for (ETransport transport : {TRANSPORT_TCP, TRANSPORT_EUDP})
    {
        for (int round = 0; round < 20; ++round)
        {
            WEFTListener listener(transport);
            listener.listen("127.0.0.1", 0, &m_connector);
            EXPECT_TRUE(listener.shutdown(-1));
        }
    }
    EXPECT_TRUE(m_serverEvents.events().empty());
    listen(TRANSPORT_TCP);
    ASSERT_TRUE(m_listener->shutdown(-1));
    listen(TRANSPORT_TCP);
    EventLog clientEvents;
    Recorder client(clientEvents);
    auto connection = connectClient(&client);
    EXPECT_TRUE(m_connector.waitForConnections(1));
}

// The policy a server sets in onConnection holds even for a client that asks
// before onConnection has run.
TEST_F(WEFTListenerTest, EarlyEudpModeRequestsAreJudgedByThePolicySetInOnConnection)
{
    m_connector.prepare = [](WEFTConnection& connection)
    {
        // A slow onConnection: the client's request is long there by now.
        tavo::Thread::mssleep(300);
        connection.allowSendMode(true, false);
    };
    listen(TRANSPORT_EUDP);
    EventLog clientEvents;
    Recorder client(clientEvents);
    auto allowed = connectClient(&client);
    EXPECT_TRUE(allowed->setReceiveMode(CONN_MODE_RELIABLE));
    EXPECT_TRUE(allowed->setSendMode(CONN_MODE_REALTIME));
    auto forbidden = connectClient(&client);
    EXPECT_FALSE(forbidden->setSendMode(CONN_MODE_RELIABLE));
}

} // namespace
