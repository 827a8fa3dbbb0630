// Strangers and hostile peers against a server with the EUDP protections on
// (a half-open limit, strict peers), and a well-behaved client served before
// and after. What each attack costs without them is measured in
// docs/security.md.

#include "support/EudpWire.h"
#include "support/ListenerFixture.h"
#include "support/RawUdpSocket.h"

#include <weft/Constants.h>
#include <weft/WEFTConnection.h>
#include <weft/WEFTListener.h>

#include <gtest/gtest.h>

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
        for (Datagram datagram = receive(waitMs); !datagram.bytes.empty();
             datagram = receive(waitMs))
        {
            if (datagram.bytes.size() >= prefix.size() &&
                std::equal(prefix.begin(), prefix.end(), datagram.bytes.begin()))
            {
                return datagram.from;
            }
        }
        return 0;
    }
};

// A server that keeps every connection it accepts, and one well-behaved
// client of it.
class HostilePeerTest : public ListenerFixture
{
protected:
    void TearDown() override
    {
        m_good.reset();
        ListenerFixture::TearDown();
    }

    void startServer(ETransport transport, bool strict = false,
                     unsigned int halfOpenLimit = EUDP_NO_HALF_OPEN_LIMIT)
    {
        m_listener = std::make_unique<WEFTListener>(transport);
        m_listener->setStrictPeer(strict);
        m_listener->setHalfOpenLimit(halfOpenLimit);
        listen(transport);
    }

    // Connects the good client to `port` (the listener's when 0).
    void connectGood(ETransport transport, bool strict = false, uint16 port = 0)
    {
        m_good = std::make_unique<WEFTConnection>(transport);
        m_good->setStrictPeer(strict);
        const int before = m_connector.accepted();
        ASSERT_TRUE(m_good->connect("127.0.0.1", port != 0 ? port : m_port, &m_client));
        ASSERT_TRUE(m_connector.waitForConnections(before + 1, 10s));
        m_goodIndex = before;
    }

    // The good client asks and the server answers; both arrive.
    void exchange(const std::string& tag)
    {
        ASSERT_TRUE(m_good->subscribe(tag));
        ASSERT_TRUE(m_serverEvents.waitFor(Event{"subscribe", tag, ""}, 20s))
            << tag << " did not reach the server";
        ASSERT_TRUE(m_connector.connection(m_goodIndex)->updateState(tag, ParameterValue(1)));
        ASSERT_TRUE(m_clientEvents.waitFor(Event{"update", tag, "1"}, 20s))
            << tag << " did not reach the client";
    }

    // The good client's connection on the server side: its own port and its
    // peer's (the client's, or the relay's).
    uint16 serverPort(bool peer)
    {
        WEFTConnection* server = m_connector.connection(m_goodIndex);
        return peer ? server->getPeerPort() : server->getLocalPort();
    }

    static std::string eudpLine(uint16 port, const std::string& text)
    {
        return "WEFT/EUDP[" + std::to_string(port) + "]: " + text;
    }

    EventLog m_clientEvents;
    Recorder m_client{m_clientEvents};
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
    EXPECT_EQ(m_connector.accepted(), 3);
    ASSERT_NO_FATAL_FAILURE(exchange("at the limit"));

    // One answers its ACK: its connection is complete and frees a place.
    ASSERT_NE(firstAccepted, 0);
    first.send(firstAccepted, packet("NOP", 0));
    ASSERT_TRUE(eventually(
        [&]
        {
            third.send(m_port, packet("CON", 0));
            return m_connector.accepted() == 4;
        },
        10s));
    // The limit is reached again, until the silent ones close.
    RawUdp fourth;
    fourth.send(m_port, packet("CON", 0));
    EXPECT_EQ(fourth.sourceOfNext(ack, 200), 0);
    EXPECT_EQ(m_connector.accepted(), 4);
    ASSERT_TRUE(m_serverEvents.waitFor(Event{"status", "server2", "disconnected"}, 20s));
    // Its receive thread gives the place back as it ends, just after.
    EXPECT_TRUE(eventually(
        [&]
        {
            fourth.send(m_port, packet("CON", 0));
            return m_connector.accepted() == 5;
        },
        10s));
    ASSERT_NO_FATAL_FAILURE(exchange("after"));
}

// ---- datagrams from another port ----

TEST_F(HostilePeerTest, AStrictPeerIgnoresDisAndDataFromAnyOtherPort)
{
    startServer(TRANSPORT_EUDP, true);
    ASSERT_NO_FATAL_FAILURE(connectGood(TRANSPORT_EUDP, true));
    ASSERT_NO_FATAL_FAILURE(exchange("before"));
    RawUdp stranger;
    // Both ends: the server's transport at its own port, the client at its
    // port; and a subscribe numbered far ahead, which real-time mode would take.
    const Bytes message = {1, 'S', 9, 0, 'i', 'n', 't', 'r', 'u', 'd', 'e', 'r', 0};
    stranger.send(serverPort(false), packet("DIS", 0));
    stranger.send(m_good->getLocalPort(), packet("DIS", 0));
    stranger.send(serverPort(false), packet("CMD", 20000, message));
    // The client logs under its own port, the server's transport under its
    // peer's: the same port here, and one line per datagram.
    ASSERT_EQ(serverPort(true), m_good->getLocalPort());
    ASSERT_TRUE(log().waitFor(eudpLine(serverPort(true), "ignoring a datagram from 127.0.0.1:" +
                                                             std::to_string(stranger.port()) +
                                                             " (not the peer)"),
                              10s, 3));
    ASSERT_NO_FATAL_FAILURE(exchange("after"));
    EXPECT_EQ(m_serverEvents.countOf(Event{"subscribe", "intruder", ""}), 0);
    EXPECT_EQ(m_serverEvents.countOf(Event{"status", "server0", "disconnected"}), 0);
    EXPECT_EQ(m_clientEvents.countOf(Event{"status", "client", "disconnected"}), 0);
}

} // namespace
