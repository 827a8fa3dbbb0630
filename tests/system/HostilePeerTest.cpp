// Strangers and hostile peers against a server with the EUDP protections on
// (a half-open limit, strict peers), and a well-behaved client served before
// and after. What each attack costs without them is measured in
// docs/security.md.

#include "ImpairmentRelay.h"
#include "support/EUDPTransportTestPeer.h"
#include "support/EudpWire.h"
#include "support/RawUdpSocket.h"
#include "support/Recorders.h"
#include "support/WeftFixture.h"

#include <weft/Constants.h>
#include <weft/EUDPTransport.h>
#include <weft/WEFTConnection.h>
#include <weft/WEFTListener.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;
typedef std::vector<uint8> Bytes;
using eudpwire::packet;

// A plain UDP socket on loopback: the stranger.
class RawUdp : public RawUdpSocket
{
public:
    // The port the next datagram starting with `prefix` came from; 0 when
    // none comes within `waitMs`.
    uint16 sourceOfNext(const Bytes& prefix, int waitMs = 10000)
    {
        Bytes buffer(2000);
        pollfd wait{m_fd, POLLIN, 0};
        while (::poll(&wait, 1, waitMs) == 1)
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

// A server that keeps every connection it accepts, and one well-behaved
// client of it.
class HostilePeerTest : public WeftFixture
{
protected:
    void SetUp() override
    {
        WeftFixture::SetUp();
        m_connector = std::make_unique<CollectingConnector>(m_serverEvents);
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
        ASSERT_TRUE(m_serverEvents.waitFor(Event{"subscribe", tag, ""}, 20s))
            << tag << " did not reach the server";
        ASSERT_TRUE(m_connector->connection(m_goodIndex)->updateState(tag, ParameterValue(1)));
        ASSERT_TRUE(m_clientEvents.waitFor(Event{"update", tag, "1"}, 20s))
            << tag << " did not reach the client";
    }

    // The good client's connection on the server side: its own port and its
    // peer's (the client's, or the relay's).
    uint16 serverPort(bool peer)
    {
        WEFTConnection* server = m_connector->connection(m_goodIndex);
        return peer ? server->getPeerPort() : server->getLocalPort();
    }

    static std::string eudpLine(uint16 port, const std::string& text)
    {
        return "WEFT/EUDP[" + std::to_string(port) + "]: " + text;
    }

    EventLog m_serverEvents;
    std::unique_ptr<CollectingConnector> m_connector;
    std::unique_ptr<WEFTListener> m_listener;
    uint16 m_port = 0;
    EventLog m_clientEvents;
    RecordingClient m_client{m_clientEvents};
    std::unique_ptr<WEFTConnection> m_good;
    int m_goodIndex = 0;
};

// ---- half-open connections ----

TEST_F(HostilePeerTest, AHalfOpenLimitIgnoresFurtherConsUntilOneCompletesOrCloses)
{
    // No half-open connection is old enough to be closed for a newcomer
    // (which place goes when is the registry's own test).
    EUDPTimeouts noEviction = timeouts();
    noEviction.halfOpenGrace = std::chrono::hours(1);
    ScopedEUDPTimeouts scoped(noEviction);
    startServer(TRANSPORT_EUDP, false, 2);
    connectGood(TRANSPORT_EUDP);
    // The good client's connection completes with its first message.
    ASSERT_NO_FATAL_FAILURE(exchange("before"));
    const Bytes ack = packet("ACK", 0);
    RawUdp first;
    RawUdp second;
    RawUdp third;
    first.send(m_port, packet("CON", 0));
    const uint16 firstAccepted = first.sourceOfNext(ack);
    second.send(m_port, packet("CON", 0));
    ASSERT_NE(second.sourceOfNext(ack), 0);
    third.send(m_port, packet("CON", 0));
    const std::string ignored = eudpLine(0, "too many half-open connections (ignoring CON)");
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
    EXPECT_EQ(fourth.sourceOfNext(ack, 200), 0);
    EXPECT_EQ(m_connector->accepted(), 4);
    ASSERT_TRUE(m_serverEvents.waitFor(Event{"status", "server2", "disconnected"}, 20s));
    // Its receive thread gives the place back as it ends, just after.
    EXPECT_TRUE(eventually(
        [&]
        {
            fourth.send(m_port, packet("CON", 0));
            return m_connector->accepted() == 5;
        },
        10s));
    ASSERT_NO_FATAL_FAILURE(exchange("after"));
}

// ---- datagrams from another port ----

class StrangerTest : public HostilePeerTest
{
protected:
    // The good client through a relay, so that a test can blackhole one way.
    void connectThroughRelay()
    {
        startServer(TRANSPORT_EUDP, m_strict);
        m_relay = std::make_unique<ImpairmentRelay>(m_port, 11);
        ASSERT_NO_FATAL_FAILURE(connectGood(TRANSPORT_EUDP, m_strict, m_relay->getPort()));
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

    bool m_strict = true;
    std::unique_ptr<ImpairmentRelay> m_relay;
};

TEST_F(StrangerTest, AStrictPeerIgnoresDisAndDataFromAnyOtherPort)
{
    ASSERT_NO_FATAL_FAILURE(connectThroughRelay());
    RawUdp stranger;
    // Both ends: the server's transport at its own port, the client at its
    // port; and a subscribe numbered far ahead, which real-time mode would take.
    const Bytes message = {1, 'S', 9, 0, 'i', 'n', 't', 'r', 'u', 'd', 'e', 'r', 0};
    stranger.send(serverPort(false), packet("DIS", 0));
    stranger.send(m_good->getLocalPort(), packet("DIS", 0));
    stranger.send(serverPort(false), packet("CMD", 20000, message));
    // The server's transport logs under its peer's port (the relay's).
    ASSERT_TRUE(log().waitFor(notThePeer(serverPort(true), stranger), 10s, 2));
    ASSERT_TRUE(log().waitFor(notThePeer(m_good->getLocalPort(), stranger), 10s));
    ASSERT_NO_FATAL_FAILURE(exchange("after"));
    EXPECT_EQ(m_serverEvents.countOf(Event{"subscribe", "intruder", ""}), 0);
    EXPECT_EQ(m_serverEvents.countOf(Event{"status", "server0", "disconnected"}), 0);
    EXPECT_EQ(m_clientEvents.countOf(Event{"status", "client", "disconnected"}), 0);
}

class StrangerAck : public StrangerTest, public ::testing::WithParamInterface<bool>
{
};

// Two transports through a relay, so that the test can see what the sender
// still holds.
TEST_P(StrangerAck, ForANumberNeverSentLosesNoQueuedReliableDataStrictOrNot)
{
    m_strict = GetParam();
    EUDPTransport listening;
    listening.setStrictPeer(m_strict);
    ASSERT_TRUE(listening.listen(tavo::HostAddress("127.0.0.1"), 0));
    m_relay = std::make_unique<ImpairmentRelay>(listening.getLocalPort(), 13);
    EUDPTransport client;
    client.setStrictPeer(m_strict);
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
    const std::string after = m_strict ? notThePeer(client.getLocalPort(), stranger)
                                       : eudpLine(client.getLocalPort(), "dropping invalid packet");
    ASSERT_TRUE(log().waitFor(after, 10s, m_strict ? 2 : 1));
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

INSTANTIATE_TEST_SUITE_P(Peers, StrangerAck, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info)
                         { return info.param ? "Strict" : "Default"; });

} // namespace
