// Faults around working connections: disconnect racing with traffic, a
// listener that goes away while its connections live on, and connections
// destroyed in every state. (A network that falls silent and comes back:
// ReliabilityTest; a peer process killed mid-stream: tool/test_weft_tool.py,
// SignalTest.)

#include "support/ListenerFixture.h"

#include <weft/WEFTConnection.h>
#include <weft/WEFTListener.h>

#include <tavo/Timer.h>

#include <gtest/gtest.h>

#include <filesystem>
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
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return std::distance(begin(tasks), end(tasks));
}

class FaultTest : public ListenerFixture, public ::testing::WithParamInterface<ETransport>
{
};

TEST_P(FaultTest, DisconnectRacingWithSendsAndTheReceiveLoopAlwaysReturns)
{
    listen(GetParam());
    for (int round = 0; round < 24; ++round)
    {
        SCOPED_TRACE("round " + std::to_string(round));
        const std::string who = "server" + std::to_string(round);
        EventLog clientEvents;
        Recorder client(clientEvents);
        auto connection = connectClient(&client);
        // The listener has finished handing it over.
        ASSERT_TRUE(m_serverEvents.waitFor(Event{"status", who, "connected"}));
        WEFTConnection* const server = m_connector.connection(round);
        if (GetParam() == TRANSPORT_EUDP && round % 2 == 1)
        {
            // Reliable sending can block on a full ring: disconnect must wake it.
            ASSERT_TRUE(connection->setSendMode(CONN_MODE_RELIABLE));
            ASSERT_TRUE(connection->setReceiveMode(CONN_MODE_RELIABLE));
        }

        // Two senders on the client, one on the server.
        EventCounter sent, finished;
        std::vector<std::thread> threads;
        for (int s = 0; s < 3; ++s)
        {
            threads.emplace_back(
                [&, s]
                {
                    while (s < 2 ? connection->subscribe("x")
                                 : server->updateState("y", ParameterValue(1)))
                    {
                        sent.add();
                    }
                    finished.add();
                });
        }
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

TEST_P(FaultTest, ListenersAndTheirConnectionsShutDownOrGoInEveryStateAndLeaveNoThread)
{
    // The platform's timer thread starts on first use and stays: started
    // here, it does not count against the listeners and connections.
    tavo::Timer().isRunning();
    const long threadsBefore = threadCount();
    // Shut down before it listens, or right after: never a hang.
    EXPECT_FALSE(WEFTListener(GetParam()).shutdown(-1));
    for (int round = 0; round < 20; ++round)
    {
        WEFTListener listener(GetParam());
        listener.listen("127.0.0.1", 0, &m_connector);
        EXPECT_TRUE(listener.shutdown(-1));
    }
    // A listener listens again after a shutdown.
    listen(GetParam());
    ASSERT_TRUE(m_listener->shutdown(-1));
    listen(GetParam());
    EXPECT_TRUE(m_serverEvents.events().empty());
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
        // Its listener shuts down and goes; it lives on until its peer ends
        // it, then is destroyed without a disconnect.
        auto orphaned = connectClient(&client);
        ASSERT_TRUE(m_serverEvents.waitFor(8));
        ASSERT_TRUE(m_listener->shutdown(-1));
        EXPECT_EQ(log().levelOf("WEFT: listener is shut down"), 4);
        m_listener.reset();
        ASSERT_TRUE(orphaned->subscribe("after"));
        ASSERT_TRUE(m_serverEvents.waitFor(Event{"subscribe", "after", ""}, 20s));
        m_connector.connection(2)->disconnect();
        ASSERT_TRUE(clientEvents.waitFor(6, 20s));
    }
    // Nothing listens any more, and nothing is handed over: TCP is refused at
    // once, EUDP waits.
    EXPECT_FALSE(WEFTConnection(GetParam()).connect("127.0.0.1", m_port, &client));
    EXPECT_EQ(m_connector.accepted(), 3);
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

INSTANTIATE_TEST_SUITE_P(Transports, FaultTest, ::testing::Values(TRANSPORT_TCP, TRANSPORT_EUDP),
                         [](const ::testing::TestParamInfo<ETransport>& info)
                         { return info.param == TRANSPORT_TCP ? "Tcp" : "Eudp"; });

} // namespace
