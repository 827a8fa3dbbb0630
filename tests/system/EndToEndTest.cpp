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

constexpr int CLIENTS = 6;

using WEFTListenerTest = ListenerFixture;

class WEFTEndToEndTest : public WEFTListenerTest, public ::testing::WithParamInterface<ETransport>
{
protected:
    void SetUp() override
    {
        WEFTListenerTest::SetUp();
        m_listener = std::make_unique<WEFTListener>(GetParam());
        m_listener->setMaxConnections(CLIENTS);
        listen(GetParam());
    }
};

// Every request and value type end to end is the Python binding's and the
// tool's (tests/python, tests/tool); here the listener's hand-over, its limit
// and the connections' threads.
TEST_P(WEFTEndToEndTest, ClientsUpToTheLimitAreHandedOverInOrderAndLoseNothingAndOneMoreIsClosed)
{
    constexpr int messagesEach = 200;
    const auto nameOf = [](int c, int i)
    { return "c" + std::to_string(c) + "." + std::to_string(i); };
    EventLog clientEvents;
    Recorder client(clientEvents);
    std::vector<std::unique_ptr<WEFTConnection>> connections;
    std::vector<Event> handedOver;
    for (int c = 0; c < CLIENTS; ++c)
    {
        connections.push_back(connectClient(&client));
        const std::string who = "server" + std::to_string(c);
        handedOver.push_back({"connection", who, ""});
        handedOver.push_back({"status", who, "connected"});
    }
    ASSERT_TRUE(m_serverEvents.waitFor(2 * CLIENTS));
    EXPECT_EQ(m_serverEvents.events(), handedOver);
    for (int c = 0; c < CLIENTS; ++c)
    {
        EXPECT_EQ(m_connector.connection(c)->getPeerPort(), connections[c]->getLocalPort()) << c;
    }
    // One more is closed by the server at once, and never handed over.
    // (EUDP: the refusal may come before the connect has returned.)
    Recorder refused(clientEvents, "refused");
    WEFTConnection extra(GetParam());
    if (extra.connect("127.0.0.1", m_port, &refused))
    {
        EXPECT_TRUE(clientEvents.waitFor(Event{"status", "refused", "disconnected"}, 5s));
    }
    EXPECT_EQ(m_connector.accepted(), CLIENTS);
    // Reliable delivery from the clients to the server on EUDP.
    if (GetParam() == TRANSPORT_EUDP)
    {
        for (auto& connection : connections)
        {
            ASSERT_TRUE(connection->setReceiveMode(CONN_MODE_RELIABLE));
        }
    }
    std::vector<std::thread> threads;
    for (int c = 0; c < CLIENTS; ++c)
    {
        threads.emplace_back(
            [&, c]
            {
                for (int i = 0; i < messagesEach; ++i)
                {
                    EXPECT_TRUE(connections[c]->subscribe(nameOf(c, i)));
                }
            });
    }
    for (auto& thread : threads)
    {
        thread.join();
    }
    ASSERT_TRUE(m_serverEvents.waitFor(2 * CLIENTS + CLIENTS * messagesEach, 60s))
        << "arrived " << m_serverEvents.events().size() - 2 * CLIENTS;
    // Every name exactly once.
    for (int c = 0; c < CLIENTS; ++c)
    {
        for (int i = 0; i < messagesEach; ++i)
        {
            ASSERT_EQ(m_serverEvents.countOf({"subscribe", nameOf(c, i), ""}), 1) << nameOf(c, i);
        }
    }
    // A place is free once the server has seen one go.
    connections[0]->disconnect();
    ASSERT_TRUE(m_serverEvents.waitFor(Event{"status", "server0", "disconnected"}));
    auto late = connectClient(&client);
    EXPECT_TRUE(m_connector.waitForConnections(CLIENTS + 1));
}

INSTANTIATE_TEST_SUITE_P(Transports, WEFTEndToEndTest,
                         ::testing::Values(TRANSPORT_TCP, TRANSPORT_EUDP),
                         [](const ::testing::TestParamInfo<ETransport>& info)
                         { return info.param == TRANSPORT_TCP ? "Tcp" : "Eudp"; });

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
