// Strangers and hostile peers against a server: what each one achieves, what
// it costs the server, and that a well-behaved client is served before and
// after. The EUDP protections (a half-open limit, strict peers) are off by
// default; the cases show both settings.

#include "ImpairmentRelay.h"
#include "support/EUDPTransportTestPeer.h"
#include "support/EudpWire.h"
#include "support/ProcessFigures.h"
#include "support/RawUdpSocket.h"
#include "support/ReapingConnector.h"
#include "support/Recorders.h"
#include "support/WeftFixture.h"

#include <weft/Constants.h>
#include <weft/EUDPTransport.h>
#include <weft/WEFTConnection.h>
#include <weft/WEFTListener.h>

#include <tavo/TcpSocket.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
typedef std::vector<uint8> Bytes;
using eudpwire::packet;

Bytes randomBytes(std::mt19937& random, std::size_t size)
{
    Bytes bytes(size);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8>(random()); });
    return bytes;
}

// A plain UDP socket on loopback: the stranger.
class RawUdp : public RawUdpSocket
{
public:
    // The source port of the next datagram that starts with `prefix`; 0 when
    // none comes within 10 s.
    uint16 sourceOfNext(const Bytes& prefix)
    {
        Bytes buffer(2000);
        pollfd wait{m_fd, POLLIN, 0};
        while (::poll(&wait, 1, 10000) == 1)
        {
            sockaddr_in source{};
            socklen_t length = sizeof(source);
            const ssize_t n = ::recvfrom(m_fd, buffer.data(), buffer.size(), 0,
                                         reinterpret_cast<sockaddr*>(&source), &length);
            if (n >= static_cast<ssize_t>(prefix.size()) &&
                std::equal(prefix.begin(), prefix.end(), buffer.begin()))
            {
                return ntohs(source.sin_port);
            }
        }
        return 0;
    }
};

int countOf(const EventLog& log, const Event& wanted)
{
    const std::vector<Event> events = log.events();
    return static_cast<int>(std::count(events.begin(), events.end(), wanted));
}

// Waits until `log` holds `wanted` exactly `times` times.
bool seen(const EventLog& log, const Event& wanted, std::chrono::milliseconds timeout,
          int times = 1)
{
    return eventually([&] { return countOf(log, wanted) == times; }, timeout);
}

// A server whose connector deletes ended connections, and one well-behaved
// client of it.
class HostilePeerTest : public WeftFixture
{
protected:
    void SetUp() override
    {
        WeftFixture::SetUp();
        m_connector = std::make_unique<ReapingConnector>(m_serverEvents);
    }

    void TearDown() override
    {
        m_good.reset();
        m_listener.reset();
        m_connector.reset();
        WeftFixture::TearDown();
    }

    void startServer(ETransport transport, bool strict = false,
                     unsigned int halfOpenLimit = EUDP_NO_HALF_OPEN_LIMIT)
    {
        m_listener = std::make_unique<WEFTListener>(transport);
        m_listener->setStrictPeer(strict);
        m_listener->setHalfOpenLimit(halfOpenLimit);
        m_listener->listen("127.0.0.1", 0, m_connector.get());
        ASSERT_TRUE(m_listener->waitForListen(10000));
        m_port = m_listener->getLocalPort();
    }

    // Connects the good client to `port` (the listener's when 0).
    void connectGood(ETransport transport, bool strict = false, uint16 port = 0)
    {
        m_good = std::make_unique<WEFTConnection>(transport);
        m_good->setStrictPeer(strict);
        const int before = m_connector->accepted();
        ASSERT_TRUE(m_good->connect("127.0.0.1", port != 0 ? port : m_port, &m_client));
        ASSERT_TRUE(m_connector->waitForConnections(before + 1, 10s));
        m_goodIndex = before;
    }

    // The good client asks and the server answers; both arrive.
    void exchange(const std::string& tag)
    {
        ASSERT_TRUE(m_good->subscribe(tag));
        ASSERT_TRUE(seen(m_serverEvents, Event{"subscribe", tag, ""}, 20s))
            << tag << " did not reach the server";
        bool sent = false;
        ASSERT_TRUE(
            m_connector->withConnection(m_goodIndex, [&](WEFTConnection& server)
                                        { sent = server.updateState(tag, ParameterValue(1)); }));
        ASSERT_TRUE(sent);
        ASSERT_TRUE(seen(m_clientEvents, Event{"update", tag, "1"}, 20s))
            << tag << " did not reach the client";
    }

    // The good client's connection on the server side: its own port and its
    // peer's (the client's, or the relay's).
    uint16 serverPort(bool peer)
    {
        uint16 port = 0;
        m_connector->withConnection(m_goodIndex,
                                    [&](WEFTConnection& server) {
                                        port = peer ? server.getPeerPort() : server.getLocalPort();
                                    });
        return port;
    }

    static std::string eudpLine(uint16 port, const std::string& text)
    {
        return "WEFT/EUDP[" + std::to_string(port) + "]: " + text;
    }

    EventLog m_serverEvents;
    std::unique_ptr<ReapingConnector> m_connector;
    std::unique_ptr<WEFTListener> m_listener;
    uint16 m_port = 0;
    EventLog m_clientEvents;
    RecordingClient m_client{m_clientEvents};
    std::unique_ptr<WEFTConnection> m_good;
    int m_goodIndex = 0;
};

// ---- a flood of connection requests ----

TEST_F(HostilePeerTest, AConFloodCostsThreadsAndMemoryUntilEachDeadPeerTimerFires)
{
    constexpr int flood = 40;
    startServer(TRANSPORT_EUDP);
    connectGood(TRANSPORT_EUDP);
    ASSERT_NO_FATAL_FAILURE(exchange("before"));
    const long threadsBefore = threadCount();
    const long residentBefore = residentKb();

    // From a port of their own each: the same CON again from one port is
    // answered by the connection made for it already.
    std::vector<std::unique_ptr<RawUdp>> strangers;
    for (int i = 0; i < flood; ++i)
    {
        strangers.push_back(std::make_unique<RawUdp>());
        strangers.back()->send(m_port, packet("CON", 0));
    }
    // Each is reported up once its receive thread runs.
    for (int i = 1; i <= flood; ++i)
    {
        ASSERT_TRUE(
            seen(m_serverEvents, Event{"status", "server" + std::to_string(i), "connected"}, 60s));
    }
    // Every one is handed over: nothing tells a stranger from a client.
    const long threads = threadCount() - threadsBefore;
    const long resident = residentKb() - residentBefore;
    std::printf("[ measured ] %d half-open connections: %ld threads, %ld KiB resident\n", flood,
                threads, resident);
    // Its two transport threads and the connection's receive thread.
    EXPECT_EQ(threads, 3 * flood);
    // Two rings of 1000 packets of about 1.5 KB each, touched at construction.
    EXPECT_GT(resident, flood * 2500L);
    ASSERT_NO_FATAL_FAILURE(exchange("during"));

    // The strangers never answer: each accepted transport sends keep-alives
    // after its idle period and closes the dead-peer time later; the
    // connector then deletes it.
    ASSERT_TRUE(m_connector->waitForReaped(flood, 60s));
    const auto lifetime = timeouts().acceptedKeepAlive + timeouts().deadPeer;
    for (const Clock::duration lived : m_connector->lifetimes())
    {
        EXPECT_GE(lived, lifetime);
        EXPECT_LT(lived, lifetime + 2s);
    }
    EXPECT_TRUE(eventually([&] { return threadCount() <= threadsBefore; }, 10s))
        << threadCount() << " threads, " << threadsBefore << " before";
    std::printf("[ measured ] after they closed: %ld KiB resident above the start\n",
                residentKb() - residentBefore);
    ASSERT_NO_FATAL_FAILURE(exchange("after"));
}

TEST_F(HostilePeerTest, AHalfOpenLimitIgnoresFurtherConsUntilOneCompletesOrCloses)
{
    startServer(TRANSPORT_EUDP, false, 2);
    connectGood(TRANSPORT_EUDP);
    // The good client's connection completes with its first message.
    ASSERT_NO_FATAL_FAILURE(exchange("before"));
    const std::string ignored = eudpLine(0, "too many half-open connections (ignoring CON)");
    const Bytes ack = packet("ACK", 0);
    RawUdp first;
    RawUdp second;
    RawUdp third;
    first.send(m_port, packet("CON", 0));
    const uint16 firstAccepted = first.sourceOfNext(ack);
    second.send(m_port, packet("CON", 0));
    ASSERT_NE(second.sourceOfNext(ack), 0);
    third.send(m_port, packet("CON", 0));
    ASSERT_TRUE(log().waitFor(ignored, 10s));
    EXPECT_EQ(log().levelOf(ignored), 3);
    EXPECT_EQ(m_connector->accepted(), 3);
    ASSERT_NO_FATAL_FAILURE(exchange("at the limit"));

    // One answers its ACK: its connection is complete and frees a place.
    ASSERT_NE(firstAccepted, 0);
    first.send(firstAccepted, packet("NOP", 0));
    ASSERT_TRUE(eventually(
        [&]
        {
            third.send(m_port, packet("CON", 0));
            return m_connector->accepted() == 4;
        },
        10s));
    // The limit is reached again, until the silent ones close.
    RawUdp fourth;
    fourth.send(m_port, packet("CON", 0));
    ASSERT_TRUE(log().waitFor(ignored, 10s, log().count(ignored) + 1));
    ASSERT_TRUE(m_connector->waitForReaped(1, 20s));
    fourth.send(m_port, packet("CON", 0));
    EXPECT_TRUE(m_connector->waitForConnections(5, 10s));
    ASSERT_NO_FATAL_FAILURE(exchange("after"));
}

// ---- datagrams from another port ----

class SpoofedDatagrams : public HostilePeerTest, public ::testing::WithParamInterface<bool>
{
protected:
    bool strict() const { return GetParam(); }

    // The good client through a relay, so that a test can blackhole one way.
    void connectThroughRelay()
    {
        startServer(TRANSPORT_EUDP, strict());
        m_relay = std::make_unique<ImpairmentRelay>(m_port, 11);
        ASSERT_NO_FATAL_FAILURE(connectGood(TRANSPORT_EUDP, strict(), m_relay->getPort()));
        ASSERT_NO_FATAL_FAILURE(exchange("before"));
    }

    void TearDown() override
    {
        HostilePeerTest::TearDown();
        m_relay.reset();
    }

    // The line a strict transport logged under `port` writes for a datagram
    // of the stranger.
    static std::string notThePeer(uint16 port, const RawUdp& stranger)
    {
        return eudpLine(port, "ignoring a datagram from 127.0.0.1:" +
                                  std::to_string(stranger.port()) + " (not the peer)");
    }

    // The same at the good client (under its own port) or at the server's
    // transport (under its peer's, which is the relay's).
    std::string strangerLine(const RawUdp& stranger, bool atServer)
    {
        return notThePeer(atServer ? serverPort(true) : m_good->getLocalPort(), stranger);
    }

    std::unique_ptr<ImpairmentRelay> m_relay;
};

TEST_P(SpoofedDatagrams, AnyoneMayCloseAConnectionWithDisUnlessItsPeerIsStrict)
{
    ASSERT_NO_FATAL_FAILURE(connectThroughRelay());
    RawUdp stranger;
    // Both ends: the server's transport at its own port, the client at its port.
    stranger.send(serverPort(false), packet("DIS", 0));
    stranger.send(m_good->getLocalPort(), packet("DIS", 0));
    if (!strict())
    {
        EXPECT_TRUE(m_connector->waitForReaped(1, 10s));
        EXPECT_TRUE(seen(m_clientEvents, Event{"status", "client", "disconnected"}, 10s));
        EXPECT_FALSE(m_good->subscribe("after"));
        return;
    }
    for (const bool atServer : {true, false})
    {
        ASSERT_TRUE(log().waitFor(strangerLine(stranger, atServer), 10s));
        EXPECT_EQ(log().levelOf(strangerLine(stranger, atServer)), 5);
    }
    ASSERT_NO_FATAL_FAILURE(exchange("after"));
    EXPECT_EQ(m_connector->reaped(), 0);
}

TEST_P(SpoofedDatagrams, ADataPacketFromAnotherPortIsDeliveredAndHidesThePeersUnlessStrict)
{
    ASSERT_NO_FATAL_FAILURE(connectThroughRelay());
    // A subscribe to "intruder", numbered far ahead of the client: in
    // real-time mode any number ahead is taken.
    const Bytes message = {1, 'S', 9, 0, 'i', 'n', 't', 'r', 'u', 'd', 'e', 'r', 0};
    RawUdp stranger;
    const uint16 peer = serverPort(true);
    stranger.send(serverPort(false), packet("CMD", 20000, message));
    if (!strict())
    {
        ASSERT_TRUE(seen(m_serverEvents, Event{"subscribe", "intruder", ""}, 10s));
        // The client's next numbers are behind: taken for duplicates, dropped.
        ASSERT_TRUE(m_good->subscribe("after"));
        EXPECT_TRUE(
            log().waitFor(eudpLine(peer, "received a duplicate packet - ACK and ignore"), 10s));
        EXPECT_EQ(countOf(m_serverEvents, Event{"subscribe", "after", ""}), 0);
        return;
    }
    ASSERT_TRUE(log().waitFor(strangerLine(stranger, true), 10s));
    ASSERT_NO_FATAL_FAILURE(exchange("after"));
    EXPECT_EQ(countOf(m_serverEvents, Event{"subscribe", "intruder", ""}), 0);
}

// Two transports through a relay, so that the test can see what the sender
// still holds.
TEST_P(SpoofedDatagrams, AStrangersAckForANumberNeverSentLosesNoQueuedReliableData)
{
    EUDPTransport listening;
    listening.setStrictPeer(strict());
    ASSERT_TRUE(listening.listen(tavo::HostAddress("127.0.0.1"), 0));
    m_relay = std::make_unique<ImpairmentRelay>(listening.getLocalPort(), 13);
    EUDPTransport client;
    client.setStrictPeer(strict());
    std::unique_ptr<IWEFTTransport> server;
    std::thread acceptor([&] { server.reset(listening.accept()); });
    const bool connected = client.connect(tavo::HostAddress("127.0.0.1"), m_relay->getPort());
    acceptor.join();
    ASSERT_TRUE(connected);
    ASSERT_TRUE(client.setReceiveMode(CONN_MODE_RELIABLE));

    // The server does not hear the client for a while: the messages wait in
    // the client's send ring for their acknowledgement.
    m_relay->setImpairment(RelayDirection::ClientToServer, Impairment{.blackhole = true});
    constexpr int queued = 20;
    for (uint8 i = 0; i < queued; ++i)
    {
        ASSERT_TRUE(client.sendData(&i, 1));
    }
    // A full window has gone into the hole; the rest waits its turn.
    ASSERT_TRUE(eventually(
        [&] { return m_relay->getCounts(RelayDirection::ClientToServer).dropped >= 10; }, 10s));
    // A number far ahead would acknowledge everything sent so far, but no
    // packet carries it yet: it is ignored, from a stranger or not.
    RawUdp stranger;
    stranger.send(client.getLocalPort(), packet("ACK", 20000));
    // The receiver handles datagrams in order: once it has dealt with this
    // one, it has dealt with the acknowledgement.
    stranger.send(client.getLocalPort(), Bytes{0});
    const std::string after = strict() ? notThePeer(client.getLocalPort(), stranger)
                                       : eudpLine(client.getLocalPort(), "dropping invalid packet");
    ASSERT_TRUE(log().waitFor(after, 10s, strict() ? 2 : 1));
    EXPECT_GE(EUDPTransportTestPeer::queued(client), static_cast<uint>(queued));
    EXPECT_NE(EUDPTransportTestPeer::lastAcked(client), 20000);
    m_relay->setImpairment(RelayDirection::ClientToServer, Impairment());
    for (uint8 i = 0; i < queued; ++i)
    {
        uint8 buffer[EUDP_MAX_PAYLOAD];
        ASSERT_EQ(server->receiveData(buffer, sizeof(buffer)), 1);
        ASSERT_EQ(buffer[0], i);
    }
    client.disconnect();
}

INSTANTIATE_TEST_SUITE_P(Peers, SpoofedDatagrams, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info)
                         { return info.param ? "Strict" : "Default"; });

// ---- random bytes ----

TEST_F(HostilePeerTest, RandomDatagramsOfEverySizeAreDroppedAtEveryPort)
{
    startServer(TRANSPORT_EUDP);
    connectGood(TRANSPORT_EUDP);
    ASSERT_NO_FATAL_FAILURE(exchange("before"));
    const uint16 client = m_good->getLocalPort();
    struct Target
    {
        uint16 port;
        std::string line;
    };
    // The accepted transport logs under its peer's port, the client under its own.
    const std::vector<Target> targets = {
        {m_port, eudpLine(0, "discarding invalid packet")},
        {serverPort(false), eudpLine(client, "dropping invalid packet")},
        {client, eudpLine(client, "dropping invalid packet")}};
    RawUdp stranger;
    std::mt19937 random(20240611);
    for (const Target& target : targets)
    {
        const std::size_t before = log().count(target.line);
        for (std::size_t size = 0; size <= EUDP_MAX_PACKET_SIZE; ++size)
        {
            stranger.send(target.port, randomBytes(random, size));
            // Paced, so that no socket queue overflows; an empty datagram
            // carries nothing and is skipped by the socket.
            if (size % 20 == 0 || size == EUDP_MAX_PACKET_SIZE)
            {
                ASSERT_TRUE(log().waitFor(target.line, 20s, before + size)) << "size " << size;
            }
        }
    }
    ASSERT_NO_FATAL_FAILURE(exchange("after"));
    EXPECT_EQ(m_connector->accepted(), 1);
    EXPECT_EQ(m_connector->reaped(), 0);
}

// ---- hostile TCP peers ----

class HostileTcpPeer : public HostilePeerTest
{
protected:
    void SetUp() override
    {
        HostilePeerTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(startServer(TRANSPORT_TCP));
        ASSERT_NO_FATAL_FAILURE(connectGood(TRANSPORT_TCP));
        ASSERT_NO_FATAL_FAILURE(exchange("before"));
        m_threadsBefore = threadCount();
        ASSERT_TRUE(m_raw.connect(tavo::HostAddress("127.0.0.1"), m_port));
        // Reported up once its receive thread runs.
        ASSERT_TRUE(seen(m_serverEvents, Event{"status", "server1", "connected"}, 10s));
    }

    void send(const Bytes& bytes)
    {
        ASSERT_EQ(m_raw.send(bytes.data(), static_cast<int>(bytes.size())),
                  static_cast<int>(bytes.size()));
    }

    tavo::TcpSocket m_raw;
    long m_threadsBefore = 0;
};

TEST_F(HostileTcpPeer, ATricklingPeerHoldsOneReceiveThreadWhileOthersAreServed)
{
    const long held = threadCount() - m_threadsBefore;
    std::printf("[ measured ] a trickling TCP peer holds %ld thread(s)\n", held);
    EXPECT_EQ(held, 1);
    // A subscribe to "x", one byte a second: time itself is the subject.
    const Bytes message = {6, 0, 1, 'S', 2, 0, 'x', 0};
    std::thread trickler(
        [&]
        {
            for (const uint8 byte : message)
            {
                m_raw.send(&byte, 1);
                std::this_thread::sleep_for(1s);
            }
        });
    ASSERT_NO_FATAL_FAILURE(exchange("while trickling"));
    EXPECT_EQ(countOf(m_serverEvents, Event{"subscribe", "x", ""}), 0);
    // No time limit: the message arrives whole after seven seconds.
    EXPECT_TRUE(seen(m_serverEvents, Event{"subscribe", "x", ""}, 30s));
    trickler.join();
    EXPECT_EQ(m_connector->reaped(), 0);
}

TEST_F(HostileTcpPeer, GarbageIsDroppedMessageByMessageUntilALengthIsTooLong)
{
    std::mt19937 random(7);
    // Framed garbage of every length the receive buffer holds keeps the
    // stream aligned: each message is refused or taken for what it says, and
    // the next one is read.
    for (std::size_t length = 1; length <= WEFT_MAX_PACKET_SIZE; ++length)
    {
        Bytes framed = {static_cast<uint8>(length), static_cast<uint8>(length >> 8)};
        const Bytes body = randomBytes(random, length);
        framed.insert(framed.end(), body.begin(), body.end());
        ASSERT_NO_FATAL_FAILURE(send(framed));
    }
    send({6, 0, 1, 'S', 2, 0, 'y', 0});
    ASSERT_TRUE(seen(m_serverEvents, Event{"subscribe", "y", ""}, 30s));
    EXPECT_GT(log().count("WEFT: discarding invalid packet"), WEFT_MAX_PACKET_SIZE / 2);
    EXPECT_EQ(m_connector->reaped(), 0);
    // The largest length a prefix can carry, and then nothing: far more than
    // the buffer holds, so it ends that connection at once, and only that.
    send({0xFF, 0xFF});
    EXPECT_TRUE(m_connector->waitForReaped(1, 10s));
    EXPECT_EQ(countOf(m_serverEvents, Event{"status", "server1", "disconnected"}), 1);
    ASSERT_NO_FATAL_FAILURE(exchange("after"));
}

} // namespace
