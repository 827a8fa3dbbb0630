#include "support/Recorders.h"
#include "support/WeftFixture.h"

#include <weft/WEFTConnection.h>
#include <weft/WEFTListener.h>

#include <tavo/TcpSocket.h>
#include <tavo/Thread.h>

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <thread>

namespace
{

using namespace std::chrono_literals;

const char* transportName(const ::testing::TestParamInfo<ETransport>& info)
{
    return info.param == TRANSPORT_TCP ? "Tcp" : "Eudp";
}

// A listener with a collecting connector on a free loopback port, for either
// transport.
class WEFTEndToEndTest : public WeftFixture, public ::testing::WithParamInterface<ETransport>
{
protected:
    void SetUp() override
    {
        WeftFixture::SetUp();
        m_listener = std::make_unique<WEFTListener>(GetParam());
        ASSERT_TRUE(m_listener->listen("127.0.0.1", 0, &m_connector));
        ASSERT_TRUE(m_listener->waitForListen(10000));
        m_port = m_listener->getLocalPort();
        ASSERT_NE(m_port, 0);
    }

    void TearDown() override
    {
        m_listener->shutdown(-1);
        m_connector.closeAll();
        m_listener.reset();
        WeftFixture::TearDown();
    }

    std::unique_ptr<WEFTConnection> connectClient(IWEFTClient* client)
    {
        auto connection = std::make_unique<WEFTConnection>(GetParam());
        EXPECT_TRUE(connection->connect("127.0.0.1", m_port, client));
        return connection;
    }

    EventLog m_serverEvents;
    CollectingConnector m_connector{m_serverEvents};
    std::unique_ptr<WEFTListener> m_listener;
    uint16 m_port = 0;
};

TEST_P(WEFTEndToEndTest, EveryRequestReachesTheRightCallbackWithItsNameAndValue)
{
    EventLog clientEvents;
    RecordingClient client(clientEvents);
    auto connection = connectClient(&client);
    ASSERT_TRUE(m_connector.waitForConnections(1));
    // connection, connected status
    ASSERT_TRUE(m_serverEvents.waitFor(2));

    ParameterList params;
    params.addString("clip", "intro");
    params.addBoolean("loop", true);
    params.addNumeric("count", -3);
    params.addFloat("gain", 0.5f);
    ASSERT_TRUE(connection->subscribe("level"));
    ASSERT_TRUE(connection->callFunctionId("play", params));
    ASSERT_TRUE(connection->unsubscribe("level"));
    ASSERT_TRUE(m_serverEvents.waitFor(5));
    const std::vector<Event> serverExpected = {
        {"connection", "server0", ""},
        {"status", "server0", "connected"},
        {"subscribe", "level", ""},
        {"call", "play", "clip = intro count = -3 gain = 0.5 loop = ON "},
        {"unsubscribe", "level", ""},
    };
    EXPECT_EQ(m_serverEvents.events(), serverExpected);

    WEFTConnection* server = m_connector.connection(0);
    ASSERT_TRUE(server->trigger("tally", ParameterValue(true)));
    ASSERT_TRUE(server->updateState("level", ParameterValue(1000000.0f)));
    ASSERT_TRUE(server->updateState("name", ParameterValue("studio A")));
    ASSERT_TRUE(server->updateState("count", ParameterValue(-17)));
    ASSERT_TRUE(server->trigger("empty", ParameterValue()));
    ASSERT_TRUE(clientEvents.waitFor(6));
    const std::vector<Event> clientExpected = {
        {"status", "client", "connected"}, {"trigger", "tally", "ON"},
        {"update", "level", "1e+06"},      {"update", "name", "studio A"},
        {"update", "count", "-17"},        {"trigger", "empty", "INV"},
    };
    EXPECT_EQ(clientEvents.events(), clientExpected);
    EXPECT_EQ(clientEvents.events()[2].type, PARAM_TYPE_FLOAT);

    connection->disconnect();
    ASSERT_TRUE(clientEvents.waitFor(7));
    EXPECT_EQ(clientEvents.events().back(), (Event{"status", "client", "disconnected"}));
}

TEST_P(WEFTEndToEndTest, ClosingOneSideReportsDisconnectedOnTheOther)
{
    EventLog clientEvents;
    RecordingClient client(clientEvents);
    auto connection = connectClient(&client);
    ASSERT_TRUE(m_serverEvents.waitFor(2));
    connection->disconnect();
    // Over EUDP the server hears DIS; over TCP the end of the stream.
    ASSERT_TRUE(m_serverEvents.waitFor(3, 20s));
    EXPECT_EQ(m_serverEvents.events().back(), (Event{"status", "server0", "disconnected"}));
}

TEST_P(WEFTEndToEndTest, ClientsConnectingOneAfterAnotherAreHandedOverInAcceptOrder)
{
    EventLog clientEvents;
    RecordingClient client(clientEvents);
    auto first = connectClient(&client);
    ASSERT_TRUE(m_serverEvents.waitFor(2));
    auto second = connectClient(&client);
    ASSERT_TRUE(m_serverEvents.waitFor(4));
    const std::vector<Event> expected = {
        {"connection", "server0", ""},
        {"status", "server0", "connected"},
        {"connection", "server1", ""},
        {"status", "server1", "connected"},
    };
    EXPECT_EQ(m_serverEvents.events(), expected);
    EXPECT_EQ(m_connector.connection(0)->getPeerPort(), first->getLocalPort());
    EXPECT_EQ(m_connector.connection(1)->getPeerPort(), second->getLocalPort());
    first->disconnect();
    second->disconnect();
}

TEST_P(WEFTEndToEndTest, ManyClientThreadsOnTheirOwnConnectionsLoseNothing)
{
    constexpr int clients = 6;
    constexpr int messagesEach = 200;
    EventLog clientEvents;
    RecordingClient client(clientEvents);
    std::vector<std::unique_ptr<WEFTConnection>> connections;
    for (int c = 0; c < clients; ++c)
    {
        connections.push_back(connectClient(&client));
    }
    // Each accepted connection logs its hand-over and its connected status.
    ASSERT_TRUE(m_serverEvents.waitFor(2 * clients));
    // Reliable delivery from the clients to the server on EUDP.
    if (GetParam() == TRANSPORT_EUDP)
    {
        for (auto& connection : connections)
        {
            ASSERT_TRUE(connection->setReceiveMode(CONN_MODE_RELIABLE));
        }
    }
    const int before = m_serverEvents.count();
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; ++c)
    {
        threads.emplace_back([&, c] {
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
    ASSERT_TRUE(m_serverEvents.waitFor(before + clients * messagesEach, 60s))
        << "arrived " << m_serverEvents.count() - before;
    std::map<std::string, int> seen;
    for (const Event& event : m_serverEvents.events())
    {
        if (event.kind == "subscribe")
        {
            ++seen[event.name];
        }
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(clients * messagesEach));
    for (const auto& entry : seen)
    {
        EXPECT_EQ(entry.second, 1) << entry.first;
    }
    for (auto& connection : connections)
    {
        connection->disconnect();
    }
}

TEST_P(WEFTEndToEndTest, ShutdownLogsAndNoLaterConnectionIsHandedOver)
{
    ASSERT_TRUE(m_listener->shutdown(-1));
    EXPECT_EQ(log().levelOf("WEFT: listener is shut down"), 4);
    EventLog clientEvents;
    RecordingClient client(clientEvents);
    WEFTConnection late(GetParam());
    // TCP refuses at once; EUDP waits for an answer that never comes.
    EXPECT_FALSE(late.connect("127.0.0.1", m_port, &client));
    EXPECT_EQ(m_connector.accepted(), 0);
    EXPECT_EQ(clientEvents.count(), 0);
}

TEST_P(WEFTEndToEndTest, ConnectToAPortWhereNothingListensFailsWithoutAStatus)
{
    ASSERT_TRUE(m_listener->shutdown(-1));
    EventLog clientEvents;
    RecordingClient client(clientEvents);
    WEFTConnection connection(GetParam());
    EXPECT_FALSE(connection.connect("127.0.0.1", m_port, &client));
    EXPECT_EQ(clientEvents.count(), 0);
    connection.disconnect();
}

TEST_P(WEFTEndToEndTest, ListenOnAPortInUseStillReturnsTrue)
{
    CollectingConnector other(m_serverEvents);
    WEFTListener second(GetParam());
    EXPECT_TRUE(second.listen("127.0.0.1", m_port, &other));
    EXPECT_FALSE(second.waitForListen(10000));
    EXPECT_EQ(second.getLocalPort(), 0);
}

TEST_P(WEFTEndToEndTest, DestroyingAConnectedConnectionWithoutDisconnectEndsItsThread)
{
    EventLog clientEvents;
    RecordingClient client(clientEvents);
    auto connection = connectClient(&client);
    ASSERT_TRUE(m_serverEvents.waitFor(2));
    connection.reset();
    EXPECT_EQ(clientEvents.events().back(), (Event{"status", "client", "disconnected"}));
}

INSTANTIATE_TEST_SUITE_P(Transports, WEFTEndToEndTest,
                         ::testing::Values(TRANSPORT_TCP, TRANSPORT_EUDP), transportName);

class WEFTListenerTest : public WeftFixture
{
};

TEST_F(WEFTListenerTest, DestroyingAListenerThatNeverListenedDoesNothing)
{
    WEFTListener listener(TRANSPORT_TCP);
    EXPECT_FALSE(listener.shutdown(-1));
    EXPECT_EQ(listener.getLocalPort(), 0);
}

TEST_F(WEFTListenerTest, ShutdownRightAfterListenNeverHangs)
{
    EventLog events;
    for (ETransport transport : {TRANSPORT_TCP, TRANSPORT_EUDP})
    {
        for (int round = 0; round < 20; ++round)
        {
            CollectingConnector connector(events);
            WEFTListener listener(transport);
            listener.listen("127.0.0.1", 0, &connector);
            EXPECT_TRUE(listener.shutdown(-1));
        }
    }
    EXPECT_EQ(events.count(), 0);
}

TEST_F(WEFTListenerTest, AListenerCanListenAgainAfterShutdown)
{
    EventLog events;
    CollectingConnector connector(events);
    WEFTListener listener(TRANSPORT_TCP);
    listener.listen("127.0.0.1", 0, &connector);
    ASSERT_TRUE(listener.waitForListen(10000));
    ASSERT_TRUE(listener.shutdown(-1));
    listener.listen("127.0.0.1", 0, &connector);
    ASSERT_TRUE(listener.waitForListen(10000));
    WEFTConnection connection(TRANSPORT_TCP);
    EventLog clientEvents;
    RecordingClient client(clientEvents);
    EXPECT_TRUE(connection.connect("127.0.0.1", listener.getLocalPort(), &client));
    EXPECT_TRUE(connector.waitForConnections(1));
    connection.disconnect();
    listener.shutdown(-1);
    connector.closeAll();
}

TEST_F(WEFTListenerTest, ARawPeerSendingInvalidMessagesGetsItsLinesAndStaysConnected)
{
    EventLog events;
    CollectingConnector connector(events);
    WEFTListener listener(TRANSPORT_TCP);
    listener.listen("127.0.0.1", 0, &connector);
    ASSERT_TRUE(listener.waitForListen(10000));
    tavo::TcpSocket raw;
    ASSERT_TRUE(raw.connect(tavo::HostAddress("127.0.0.1"), listener.getLocalPort()));
    ASSERT_TRUE(events.waitFor(2));
    const std::vector<uint8> bytes = {
        // wrong version
        0x06, 0x00, 0x02, 0x53, 0x02, 0x00, 'x', 0x00,
        // wrong size
        0x06, 0x00, 0x01, 0x53, 0x05, 0x00, 'x', 0x00,
        // unknown command
        0x06, 0x00, 0x01, 'Q', 0x02, 0x00, 'x', 0x00,
        // truncated value in a function call
        0x07, 0x00, 0x01, 0x46, 0x03, 0x00, 'f', 0x00, 0x01,
        // and a good one
        0x06, 0x00, 0x01, 0x53, 0x02, 0x00, 'g', 0x00};
    ASSERT_EQ(raw.send(bytes.data(), static_cast<int>(bytes.size())),
              static_cast<int>(bytes.size()));
    ASSERT_TRUE(events.waitFor(4));
    const auto received = events.events();
    EXPECT_EQ(received[2], (Event{"call", "f", ""}));
    EXPECT_EQ(received[3], (Event{"subscribe", "g", ""}));
    for (const char* line : {"WEFT: packet validation failed: wrong version",
                             "WEFT: packet validation failed: wrong packet size",
                             "WEFT: failed to parse parameter list"})
    {
        EXPECT_EQ(log().count(line), 1u) << line;
    }
    EXPECT_EQ(log().count("WEFT: discarding invalid packet"), 2u);
    raw.close();
    ASSERT_TRUE(events.waitFor(5));
    EXPECT_EQ(events.events().back(), (Event{"status", "server0", "disconnected"}));
    listener.shutdown(-1);
    connector.closeAll();
}

} // namespace

namespace
{

// A server's mode policy set in onConnection holds even for a client that asks
// at once, before onConnection has run.
class EUDPModePolicyTest : public WeftFixture
{
protected:
    void SetUp() override
    {
        WeftFixture::SetUp();
        m_connector.prepare = [](WEFTConnection& connection, RecordingServer&) {
            // A slow onConnection: the client's request is long there by now.
            tavo::Thread::mssleep(300);
            connection.allowSendMode(true, false);
        };
        m_listener = std::make_unique<WEFTListener>(TRANSPORT_EUDP);
        m_listener->listen("127.0.0.1", 0, &m_connector);
        ASSERT_TRUE(m_listener->waitForListen(10000));
    }

    void TearDown() override
    {
        m_listener->shutdown(-1);
        m_connector.closeAll();
        m_listener.reset();
        WeftFixture::TearDown();
    }

    EventLog m_events;
    CollectingConnector m_connector{m_events};
    std::unique_ptr<WEFTListener> m_listener;
};

TEST_F(EUDPModePolicyTest, AnEarlyRequestForAForbiddenModeIsRefused)
{
    EventLog clientEvents;
    RecordingClient client(clientEvents);
    WEFTConnection connection(TRANSPORT_EUDP);
    ASSERT_TRUE(connection.connect("127.0.0.1", m_listener->getLocalPort(), &client));
    EXPECT_FALSE(connection.setSendMode(CONN_MODE_RELIABLE));
    EXPECT_EQ(log().countContaining("]: unknown mode request (ignoring)"), 1u);
    EXPECT_EQ(log().countContaining("]: failed to set send mode (timeout)"), 1u);
    connection.disconnect();
}

TEST_F(EUDPModePolicyTest, AnEarlyRequestForAnAllowedModeIsAnsweredOnceTheConnectionStarts)
{
    EventLog clientEvents;
    RecordingClient client(clientEvents);
    WEFTConnection connection(TRANSPORT_EUDP);
    ASSERT_TRUE(connection.connect("127.0.0.1", m_listener->getLocalPort(), &client));
    EXPECT_TRUE(connection.setReceiveMode(CONN_MODE_RELIABLE));
    EXPECT_TRUE(connection.setSendMode(CONN_MODE_REALTIME));
    connection.disconnect();
}

} // namespace
