// Faults around working connections: a network that falls silent and comes
// back, disconnect racing with traffic, a listener that goes away while its
// connections live on, and connections destroyed in every state. (A peer
// process killed mid-stream: tool/test_weft_tool.py, SignalTest.)

#include "ImpairmentRelay.h"
#include "support/ListenerFixture.h"

#include <weft/WEFTConnection.h>
#include <weft/WEFTListener.h>

#include <tavo/Timer.h>

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;

// Threads of this process, as the kernel counts them.
long threadCount()
{
    std::ifstream status("/proc/self/status");
    std::string field;
    long count = -1;
    while (status >> field && field != "Threads:")
    {
    }
    status >> count;
    return count;
}

// The names, in order, that the senders below use.
std::vector<std::string> numbered(const std::string& prefix, int count)
{
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i)
    {
        names.push_back(prefix + std::to_string(i));
    }
    return names;
}

class FaultTest : public ListenerFixture
{
};

// ---- a silent network ----

TEST_F(FaultTest, ReliableConnectionsLoseNothingWhenTheNetworkIsSilentForAWhile)
{
    listen(TRANSPORT_EUDP);
    ImpairmentRelay relay(m_port, 5);
    EventLog clientEvents;
    Recorder client(clientEvents);
    WEFTConnection connection(TRANSPORT_EUDP);
    ASSERT_TRUE(connection.connect("127.0.0.1", relay.getPort(), &client));
    ASSERT_TRUE(m_serverEvents.waitFor(2));
    ASSERT_TRUE(connection.setSendMode(CONN_MODE_RELIABLE));
    ASSERT_TRUE(connection.setReceiveMode(CONN_MODE_RELIABLE));
    WEFTConnection* server = m_connector.connection(0);

    constexpr int before = 100;
    constexpr int total = 300;
    auto send = [&](int from, int to)
    {
        for (int i = from; i < to; ++i)
        {
            ASSERT_TRUE(connection.subscribe("c" + std::to_string(i)));
            ASSERT_TRUE(server->updateState("s" + std::to_string(i), ParameterValue(i)));
        }
    };
    send(0, before);
    ASSERT_TRUE(m_serverEvents.waitFor(2 + before, 30s));
    ASSERT_TRUE(clientEvents.waitFor(1 + before, 30s));
    // The rest is queued into the silence; both sides keep it and repeat it.
    relay.setSilent(true);
    send(before, total);
    // Time itself is the subject here: half the time after which a peer
    // counts as dead.
    std::this_thread::sleep_for(timeouts().deadPeer / 2);
    const RelayCounts silenced = relay.getCounts(RelayDirection::ClientToServer);
    relay.setSilent(false);

    EXPECT_TRUE(m_serverEvents.waitFor(2 + total, 60s));
    EXPECT_TRUE(clientEvents.waitFor(1 + total, 60s));
    EXPECT_EQ(m_serverEvents.namesOf("subscribe"), numbered("c", total));
    EXPECT_EQ(clientEvents.namesOf("update"), numbered("s", total));
    EXPECT_EQ(clientEvents.countOf(Event{"status", "client", "disconnected"}), 0);
    EXPECT_EQ(m_serverEvents.countOf(Event{"status", "server0", "disconnected"}), 0);
    // Repeats went into the silence: a go-back each retransmission time.
    EXPECT_GT(silenced.dropped, 10u);
    connection.disconnect();
}

// ---- per transport ----

class FaultPerTransport : public FaultTest, public ::testing::WithParamInterface<ETransport>
{
};

TEST_P(FaultPerTransport, DisconnectRacingWithSendsAndTheReceiveLoopAlwaysReturns)
{
    const bool eudp = GetParam() == TRANSPORT_EUDP;
    listen(GetParam());
    constexpr int rounds = 24;
    for (int round = 0; round < rounds; ++round)
    {
        SCOPED_TRACE("round " + std::to_string(round));
        const std::string who = "server" + std::to_string(round);
        EventLog clientEvents;
        Recorder client(clientEvents);
        auto connection = connectClient(&client);
        // The listener has finished handing it over.
        ASSERT_TRUE(m_serverEvents.waitFor(Event{"status", who, "connected"}));
        WEFTConnection* const server = m_connector.connection(round);
        if (eudp && round % 2 == 1)
        {
            // Reliable sending can block on a full ring: disconnect must wake it.
            ASSERT_TRUE(connection->setSendMode(CONN_MODE_RELIABLE));
            ASSERT_TRUE(connection->setReceiveMode(CONN_MODE_RELIABLE));
        }

        EventCounter sent;
        EventCounter finished;
        std::vector<std::thread> threads;
        for (int s = 0; s < 2; ++s)
        {
            threads.emplace_back(
                [&]
                {
                    while (connection->subscribe("x"))
                    {
                        sent.add();
                    }
                    finished.add();
                });
        }
        threads.emplace_back(
            [&]
            {
                while (server->updateState("y", ParameterValue(1)))
                {
                }
                finished.add();
            });
        // The moment varies from round to round: at once or after some traffic.
        ASSERT_TRUE(sent.waitFor((round % 4) * 40, 30s));
        threads.emplace_back(
            [&]
            {
                server->disconnect();
                finished.add();
            });
        connection->disconnect();
        ASSERT_TRUE(finished.waitFor(4, 30s)) << "a call did not return";
        for (std::thread& thread : threads)
        {
            thread.join();
        }
        // Each side reports its end exactly once.
        ASSERT_TRUE(m_serverEvents.waitFor(Event{"status", who, "disconnected"}));
        EXPECT_EQ(clientEvents.countOf({"status", "client", "connected"}), 1);
        EXPECT_EQ(clientEvents.countOf({"status", "client", "disconnected"}), 1);
    }
}

TEST_P(FaultPerTransport, ConnectionsOutliveTheirListenerAndCanBeDestroyedInEveryState)
{
    // The platform's timer thread starts on first use and stays: started
    // here, it does not count against the connections.
    tavo::Timer().isRunning();
    const long threadsBefore = threadCount();
    listen(GetParam());
    EventLog clientEvents;
    Recorder client(clientEvents);
    {
        // Destroyed while connected: the destructor disconnects it.
        auto connected = connectClient(&client);
        ASSERT_TRUE(m_serverEvents.waitFor(2));
    }
    ASSERT_TRUE(m_serverEvents.waitFor(3, 20s));
    EXPECT_EQ(m_serverEvents.events().back(), (Event{"status", "server0", "disconnected"}));
    {
        auto disconnected = connectClient(&client);
        ASSERT_TRUE(m_serverEvents.waitFor(5));
        disconnected->disconnect();
    }
    {
        // Its listener goes; it lives on until its peer ends it, then is
        // destroyed without a disconnect.
        auto orphaned = connectClient(&client);
        ASSERT_TRUE(m_serverEvents.waitFor(8));
        m_listener.reset();
        ASSERT_TRUE(orphaned->subscribe("after"));
        ASSERT_TRUE(m_serverEvents.waitFor(Event{"subscribe", "after", ""}, 20s));
        m_connector.connection(2)->disconnect();
        ASSERT_TRUE(clientEvents.waitFor(6, 20s));
    }
    // Nothing listens any more: TCP is refused at once, EUDP waits.
    EXPECT_FALSE(WEFTConnection(GetParam()).connect("127.0.0.1", m_port, &client));
    const std::vector<Event> expected = {
        {"status", "client", "connected"}, {"status", "client", "disconnected"},
        {"status", "client", "connected"}, {"status", "client", "disconnected"},
        {"status", "client", "connected"}, {"status", "client", "disconnected"}};
    EXPECT_EQ(clientEvents.events(), expected);
    // Server side: every accepted connection is destroyed too, in whatever state.
    m_connector.closeAll();
    EXPECT_TRUE(eventually([&] { return threadCount() <= threadsBefore; }, 10s))
        << threadCount() << " threads, " << threadsBefore << " before";
}

INSTANTIATE_TEST_SUITE_P(Transports, FaultPerTransport,
                         ::testing::Values(TRANSPORT_TCP, TRANSPORT_EUDP),
                         [](const ::testing::TestParamInfo<ETransport>& info)
                         { return info.param == TRANSPORT_TCP ? "Tcp" : "Eudp"; });

} // namespace
