// Faults around working connections: a peer process killed mid-stream, a
// network that falls silent and comes back, a listener that goes away while
// its connections live on, disconnect racing with traffic, and connections
// destroyed in every state.

#include "ImpairmentRelay.h"
#include "support/ProcessFigures.h"
#include "support/Recorders.h"
#include "support/WeftFixture.h"

#include <weft/WEFTConnection.h>
#include <weft/WEFTListener.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

extern char** environ;

namespace
{

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::string transportName(ETransport transport)
{
    return transport == TRANSPORT_TCP ? "Tcp" : "Eudp";
}

// The FaultPeer program in a process of its own, killed at the latest when
// this object goes.
class PeerProcess
{
public:
    explicit PeerProcess(const std::vector<std::string>& arguments)
    {
        int out[2];
        EXPECT_EQ(::pipe2(out, O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        std::vector<std::string> words = {WEFT_FAULT_PEER};
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (std::string& word : words)
        {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        EXPECT_EQ(::posix_spawn(&m_pid, WEFT_FAULT_PEER, &actions, nullptr, argv.data(), environ),
                  0);
        ::posix_spawn_file_actions_destroy(&actions);
        ::close(out[1]);
        m_out = out[0];
    }

    ~PeerProcess()
    {
        kill();
        ::close(m_out);
    }

    // The next line the peer prints; empty when none comes in time.
    std::string readLine(std::chrono::milliseconds timeout)
    {
        std::string line;
        char c = 0;
        pollfd wait{m_out, POLLIN, 0};
        while (::poll(&wait, 1, static_cast<int>(timeout.count())) == 1 &&
               ::read(m_out, &c, 1) == 1 && c != '\n')
        {
            line += c;
        }
        return line;
    }

    void kill()
    {
        if (m_pid > 0)
        {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
            m_pid = -1;
        }
    }

private:
    pid_t m_pid = -1;
    int m_out = -1;
};

int countOf(const EventLog& log, const Event& wanted)
{
    const std::vector<Event> events = log.events();
    return static_cast<int>(std::count(events.begin(), events.end(), wanted));
}

// The names of the events of one kind, in order.
std::vector<std::string> namesOf(const EventLog& log, const std::string& kind)
{
    std::vector<std::string> names;
    for (const Event& event : log.events())
    {
        if (event.kind == kind)
        {
            names.push_back(event.name);
        }
    }
    return names;
}

std::vector<std::string> numbered(const std::string& prefix, int count)
{
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i)
    {
        names.push_back(prefix + std::to_string(i));
    }
    return names;
}

// Counts its connection's reports and ignores every message: the race rounds
// send as fast as they can and keep nothing.
class CountingPeer : public IWEFTClient, public IWEFTServer
{
public:
    void onTrigger(const std::string&, const ParameterValue&) override {}
    void onUpdateState(const std::string&, const ParameterValue&) override {}
    void onSubscribe(const std::string&) override {}
    void onUnsubscribe(const std::string&) override {}
    void onCallFunctionId(const std::string&, const ParameterList&) override {}
    void onStatus(EConnStatus status) override
    {
        (status == CONN_STATUS_CONNECTED ? up : down).add();
    }

    EventCounter up;
    EventCounter down;
};

class CountingConnector : public IWEFTConnector
{
public:
    ~CountingConnector() override
    {
        for (auto& connection : m_connections)
        {
            connection->disconnect();
        }
    }
    void onConnection(WEFTConnection* connection) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_peers.push_back(std::make_unique<CountingPeer>());
        connection->setServer(m_peers.back().get());
        m_connections.emplace_back(connection);
        m_accepted.add();
    }
    // Accepted connection `index` and its server object; nulls when it does
    // not come.
    std::pair<WEFTConnection*, CountingPeer*> waitFor(int index)
    {
        if (!m_accepted.waitFor(index + 1, 10s))
        {
            return {nullptr, nullptr};
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        return {m_connections[index].get(), m_peers[index].get()};
    }

private:
    std::mutex m_mutex;
    // Declared first, so that they outlive their connections.
    std::vector<std::unique_ptr<CountingPeer>> m_peers;
    std::vector<std::unique_ptr<WEFTConnection>> m_connections;
    EventCounter m_accepted;
};

// A listener on a free loopback port with a collecting connector.
class FaultTest : public WeftFixture
{
protected:
    void startListener(ETransport transport)
    {
        m_listener = std::make_unique<WEFTListener>(transport);
        m_listener->listen("127.0.0.1", 0, &m_connector);
        ASSERT_TRUE(m_listener->waitForListen(10000));
        m_port = m_listener->getLocalPort();
    }

    void TearDown() override
    {
        m_listener.reset();
        m_connector.closeAll();
        WeftFixture::TearDown();
    }

    EventLog m_serverEvents;
    CollectingConnector m_connector{m_serverEvents};
    std::unique_ptr<WEFTListener> m_listener;
    uint16 m_port = 0;
};

// ---- a peer killed mid-stream ----

struct KillCase
{
    ETransport transport;
    bool peerIsServer;
};

void PrintTo(const KillCase& kase, std::ostream* out)
{
    *out << transportName(kase.transport) << (kase.peerIsServer ? " server" : " client")
         << " killed";
}

class PeerKilledMidStream : public FaultTest, public ::testing::WithParamInterface<KillCase>
{
};

TEST_P(PeerKilledMidStream, TheSurvivorReportsDisconnectedWhenItsTransportNoticesTheEnd)
{
    const KillCase& kase = GetParam();
    const std::string kind = kase.transport == TRANSPORT_TCP ? "tcp" : "eudp";
    EventLog clientEvents;
    RecordingClient client(clientEvents);
    WEFTConnection connection(kase.transport);
    std::unique_ptr<PeerProcess> peer;
    EventLog* survivor = nullptr;
    if (kase.peerIsServer)
    {
        peer = std::make_unique<PeerProcess>(std::vector<std::string>{"server", kind});
        const std::string line = peer->readLine(30s);
        ASSERT_EQ(line.rfind("port ", 0), 0u) << line;
        ASSERT_TRUE(connection.connect("127.0.0.1", static_cast<uint16>(std::stoi(line.substr(5))),
                                       &client));
        survivor = &clientEvents;
    }
    else
    {
        startListener(kase.transport);
        peer = std::make_unique<PeerProcess>(
            std::vector<std::string>{"client", kind, std::to_string(m_port)});
        ASSERT_EQ(peer->readLine(30s), "connected");
        survivor = &m_serverEvents;
    }
    // Mid-stream: the connected report and then twenty messages.
    ASSERT_TRUE(survivor->waitFor(22, 30s));
    peer->kill();
    const auto killed = Clock::now();
    const Event down = kase.peerIsServer ? Event{"status", "client", "disconnected"}
                                         : Event{"status", "server0", "disconnected"};
    ASSERT_TRUE(eventually([&] { return countOf(*survivor, down) == 1; }, 30s));
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - killed);
    // TCP hears the end of the stream at once. EUDP hears nothing: the
    // survivor sends a keep-alive after its idle period (the connecting
    // side's is longer) and gives up the dead-peer time later.
    std::chrono::microseconds expected(0);
    if (kase.transport == TRANSPORT_EUDP)
    {
        expected = timeouts().deadPeer + (kase.peerIsServer ? timeouts().connectingKeepAlive
                                                            : timeouts().acceptedKeepAlive);
    }
    EXPECT_NEAR(static_cast<double>(took.count()),
                static_cast<double>(
                    std::chrono::duration_cast<std::chrono::milliseconds>(expected).count()),
                500.0)
        << "disconnected after " << took.count() << " ms";
    std::printf("[ measured ] disconnected %lld ms after the kill\n",
                static_cast<long long>(took.count()));
    connection.disconnect();
}

INSTANTIATE_TEST_SUITE_P(Peers, PeerKilledMidStream,
                         ::testing::Values(KillCase{TRANSPORT_TCP, true},
                                           KillCase{TRANSPORT_TCP, false},
                                           KillCase{TRANSPORT_EUDP, true},
                                           KillCase{TRANSPORT_EUDP, false}),
                         [](const ::testing::TestParamInfo<KillCase>& info)
                         {
                             return transportName(info.param.transport) +
                                    (info.param.peerIsServer ? "ServerKilled" : "ClientKilled");
                         });

// ---- a silent network ----

TEST_F(FaultTest, ReliableConnectionsLoseNothingWhenTheNetworkIsSilentForAWhile)
{
    startListener(TRANSPORT_EUDP);
    ImpairmentRelay relay(m_port, 5);
    EventLog clientEvents;
    RecordingClient client(clientEvents);
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
    EXPECT_EQ(namesOf(m_serverEvents, "subscribe"), numbered("c", total));
    EXPECT_EQ(namesOf(clientEvents, "update"), numbered("s", total));
    EXPECT_EQ(countOf(clientEvents, Event{"status", "client", "disconnected"}), 0);
    EXPECT_EQ(countOf(m_serverEvents, Event{"status", "server0", "disconnected"}), 0);
    // Repeats went into the silence: a go-back each retransmission time.
    EXPECT_GT(silenced.dropped, 10u);
    connection.disconnect();
}

// ---- per transport ----

class FaultPerTransport : public FaultTest, public ::testing::WithParamInterface<ETransport>
{
};

TEST_P(FaultPerTransport, ConnectionsOutliveTheirListenerAndAreClosedByTheirOwner)
{
    startListener(GetParam());
    EventLog clientEvents;
    RecordingClient first(clientEvents, "first");
    RecordingClient second(clientEvents, "second");
    WEFTConnection one(GetParam());
    WEFTConnection two(GetParam());
    ASSERT_TRUE(one.connect("127.0.0.1", m_port, &first));
    ASSERT_TRUE(m_serverEvents.waitFor(2));
    ASSERT_TRUE(two.connect("127.0.0.1", m_port, &second));
    ASSERT_TRUE(m_serverEvents.waitFor(4));
    m_listener.reset();
    EXPECT_EQ(log().count("WEFT: listener is shut down"), 1u);

    ASSERT_TRUE(one.subscribe("after"));
    ASSERT_TRUE(m_connector.connection(1)->updateState("level", ParameterValue(7)));
    ASSERT_TRUE(m_serverEvents.waitFor(5));
    ASSERT_TRUE(clientEvents.waitFor(3));
    EXPECT_EQ(m_serverEvents.events().back(), (Event{"subscribe", "after", ""}));
    EXPECT_EQ(clientEvents.events().back(), (Event{"update", "level", "7"}));

    // The owners end them, from either side.
    one.disconnect();
    m_connector.connection(1)->disconnect();
    ASSERT_TRUE(m_serverEvents.waitFor(7, 20s));
    ASSERT_TRUE(clientEvents.waitFor(5, 20s));
    EXPECT_EQ(countOf(m_serverEvents, Event{"status", "server0", "disconnected"}), 1);
    EXPECT_EQ(countOf(m_serverEvents, Event{"status", "server1", "disconnected"}), 1);
    EXPECT_EQ(countOf(clientEvents, Event{"status", "first", "disconnected"}), 1);
    EXPECT_EQ(countOf(clientEvents, Event{"status", "second", "disconnected"}), 1);
    two.disconnect();
}

TEST_P(FaultPerTransport, DisconnectRacingWithSendsAndTheReceiveLoopAlwaysReturns)
{
    const bool eudp = GetParam() == TRANSPORT_EUDP;
    CountingConnector connector;
    WEFTListener listener(GetParam());
    listener.listen("127.0.0.1", 0, &connector);
    ASSERT_TRUE(listener.waitForListen(10000));
    constexpr int rounds = 24;
    for (int round = 0; round < rounds; ++round)
    {
        SCOPED_TRACE("round " + std::to_string(round));
        CountingPeer client;
        auto connection = std::make_unique<WEFTConnection>(GetParam());
        ASSERT_TRUE(connection->connect("127.0.0.1", listener.getLocalPort(), &client));
        const auto [server, serverPeer] = connector.waitFor(round);
        ASSERT_NE(server, nullptr);
        // The listener has finished handing it over.
        ASSERT_TRUE(serverPeer->up.waitFor(1, 10s));
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
        ASSERT_TRUE(serverPeer->down.waitFor(1, 10s));
        EXPECT_EQ(serverPeer->down.get(), 1);
        EXPECT_EQ(client.down.get(), 1);
        EXPECT_EQ(client.up.get(), 1);
    }
    listener.shutdown(-1);
}

TEST_P(FaultPerTransport, ConnectionsCanBeDestroyedInEveryState)
{
    const long threadsBefore = baselineThreadCount();
    startListener(GetParam());
    EventLog clientEvents;
    RecordingClient client(clientEvents);
    {
        WEFTConnection neverConnected(GetParam());
    }
    {
        // Destroyed while connected: the destructor disconnects it.
        WEFTConnection connected(GetParam());
        ASSERT_TRUE(connected.connect("127.0.0.1", m_port, &client));
        ASSERT_TRUE(m_serverEvents.waitFor(2));
    }
    ASSERT_TRUE(m_serverEvents.waitFor(3, 20s));
    EXPECT_EQ(m_serverEvents.events().back(), (Event{"status", "server0", "disconnected"}));
    {
        // Destroyed after its peer went away, without a disconnect.
        WEFTConnection orphaned(GetParam());
        ASSERT_TRUE(orphaned.connect("127.0.0.1", m_port, &client));
        ASSERT_TRUE(m_serverEvents.waitFor(5));
        m_connector.connection(1)->disconnect();
        ASSERT_TRUE(clientEvents.waitFor(4, 20s));
    }
    {
        WEFTConnection disconnected(GetParam());
        ASSERT_TRUE(disconnected.connect("127.0.0.1", m_port, &client));
        disconnected.disconnect();
    }
    m_listener.reset();
    {
        // Nothing listens any more: TCP is refused at once, EUDP waits 5 s.
        WEFTConnection failed(GetParam());
        EXPECT_FALSE(failed.connect("127.0.0.1", m_port, &client));
    }
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
                         { return transportName(info.param); });

} // namespace
