// Strangers and hostile peers against a server with the EUDP protections on
// (a half-open limit, strict peers), and a well-behaved client served before
// and after. What each attack costs without them is measured in
// docs/security.md.

#include "support/EudpWire.h"
#include "support/ListenerFixture.h"
#include "support/RawUdpSocket.h"

#include <weft/WEFTConnection.h>
#include <weft/WEFTListener.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using eudpwire::Bytes, eudpwire::packet;

using HostilePeerTest = ListenerFixture;

TEST_F(HostilePeerTest,
       ConsBeyondTheHalfOpenLimitAndDatagramsFromStrangersAreIgnoredWhileAGoodClientIsServed)
{
    // No half-open connection is old enough to be closed for a newcomer
    // (which place goes when is the registry's own test).
    EUDPTimeouts noEviction = timeouts();
    noEviction.halfOpenGrace = std::chrono::hours(1);
    EUDPTimeouts::setStandard(noEviction);
    m_listener = std::make_unique<WEFTListener>(TRANSPORT_EUDP);
    m_listener->setStrictPeer(true);
    m_listener->setHalfOpenLimit(2);
    listen(TRANSPORT_EUDP);
    EventLog clientEvents;
    Recorder client(clientEvents);
    WEFTConnection good(TRANSPORT_EUDP);
    good.setStrictPeer(true);
    ASSERT_TRUE(good.connect("127.0.0.1", m_port, &client));
    ASSERT_TRUE(m_connector.waitForConnections(1, 10s));
    WEFTConnection& server = *m_connector.connection(0);
    // The good client asks and the server answers; both arrive.
    const auto exchange = [&](const std::string& tag)
    {
        ASSERT_TRUE(good.subscribe(tag));
        ASSERT_TRUE(m_serverEvents.waitFor(Event{"subscribe", tag, ""}, 20s))
            << tag << " did not reach the server";
        ASSERT_TRUE(server.updateState(tag, ParameterValue(1)));
        ASSERT_TRUE(clientEvents.waitFor(Event{"update", tag, "1"}, 20s))
            << tag << " did not reach the client";
    };
    // The good client's connection completes with its first message.
    ASSERT_NO_FATAL_FAILURE(exchange("before"));
    const auto isAck = [](const Bytes& bytes) { return bytes == packet("ACK", 0); };
    // A CON from `socket`, then the number of connections accepted so far.
    const auto conThenAccepted = [&](RawUdpSocket& socket)
    {
        socket.send(m_port, packet("CON", 0));
        return m_connector.accepted();
    };
    RawUdpSocket first, second, third;
    first.send(m_port, packet("CON", 0));
    const uint16 firstAccepted = first.receiveFirst(isAck).from;
    second.send(m_port, packet("CON", 0));
    ASSERT_NE(second.receiveFirst(isAck).from, 0);
    third.send(m_port, packet("CON", 0));
    const std::string ignored = "WEFT/EUDP[0]: too many half-open connections (ignoring CON)";
    ASSERT_TRUE(log().waitFor(ignored, 10s));
    EXPECT_EQ(log().levelOf(ignored), 3);
    EXPECT_EQ(m_connector.accepted(), 3);
    ASSERT_NO_FATAL_FAILURE(exchange("at the limit"));

    // A stranger's DIS to either end of the good client's connection, and a
    // subscribe numbered far ahead, which real-time mode would take, are
    // ignored: a line each, under the client's port (the server's transport
    // logs under its peer's).
    ASSERT_EQ(server.getPeerPort(), good.getLocalPort());
    RawUdpSocket stranger;
    const Bytes message = {1, 'S', 9, 0, 'i', 'n', 't', 'r', 'u', 'd', 'e', 'r', 0};
    stranger.send(server.getLocalPort(), packet("DIS", 0));
    stranger.send(good.getLocalPort(), packet("DIS", 0));
    stranger.send(server.getLocalPort(), packet("CMD", 20000, message));
    ASSERT_TRUE(log().waitFor("WEFT/EUDP[" + std::to_string(good.getLocalPort()) +
                                  "]: ignoring a datagram from 127.0.0.1:" +
                                  std::to_string(stranger.port()) + " (not the peer)",
                              10s, 3));

    // One answers its ACK: its connection is complete and frees a place.
    ASSERT_NE(firstAccepted, 0);
    first.send(firstAccepted, packet("NOP", 0));
    ASSERT_TRUE(eventually([&] { return conThenAccepted(third) == 4; }, 10s));
    // The limit is reached again, until the silent ones close.
    RawUdpSocket fourth;
    fourth.send(m_port, packet("CON", 0));
    EXPECT_EQ(fourth.receiveFirst(isAck, 200).from, 0);
    EXPECT_EQ(m_connector.accepted(), 4);
    ASSERT_TRUE(m_serverEvents.waitFor(Event{"status", "server2", "disconnected"}, 20s));
    // Its receive thread gives the place back as it ends, just after.
    EXPECT_TRUE(eventually([&] { return conThenAccepted(fourth) == 5; }, 10s));
    ASSERT_NO_FATAL_FAILURE(exchange("after"));
    EXPECT_EQ(m_serverEvents.countOf(Event{"subscribe", "intruder", ""}), 0);
    EXPECT_EQ(m_serverEvents.countOf(Event{"status", "server0", "disconnected"}), 0);
    EXPECT_EQ(clientEvents.countOf(Event{"status", "client", "disconnected"}), 0);
}

} // namespace
