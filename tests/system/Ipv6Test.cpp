// Both transports over IPv6 and a dual-stack listener; strangers over IPv6.

#include "support/EudpWire.h"
#include "support/Recorders.h"
#include "support/WeftFixture.h"

#include <weft/WEFTConnection.h>
#include <weft/WEFTListener.h>

#include <tavo/HostAddress.h>
#include <tavo/LogManager.h>
#include <tavo/UdpSocket.h>

#include <gtest/gtest.h>

namespace
{

using namespace std::chrono_literals;
using tavo::HostAddress;

class Ipv6Test : public WeftFixture, public ::testing::WithParamInterface<ETransport>
{
protected:
    void SetUp() override
    {
        WeftFixture::SetUp();
        tavo::UdpSocket probe;
        if (!probe.bind(HostAddress::loopbackIpv6(), 0))
        {
            GTEST_SKIP() << "no IPv6 loopback (::1) on this machine";
        }
    }

    EventLog m_serverEvents;
    CollectingConnector m_connector{m_serverEvents};
};

TEST_P(Ipv6Test, IPv6AndIPv4ClientsOfAnIPv6ListenerTalkBothWaysAndSeeTheirPeers)
{
    // Listen on, connect to, the client's address as the server sees it.
    const char* const routes[][3] = {{"::1", "[::1]", "::1"}, {"::", "127.0.0.1", "127.0.0.1"}};
    for (const auto& [host, target, seen] : routes)
    {
        SCOPED_TRACE(std::string(target) + " to " + host);
        WEFTListener listener(GetParam());
        listener.listen(host, 0, &m_connector);
        ASSERT_TRUE(listener.waitForListen(10000));
        const uint16 port = listener.getLocalPort();
        const int index = m_connector.accepted();
        EventLog clientEvents;
        Recorder client(clientEvents);
        WEFTConnection connection(GetParam());
        ASSERT_TRUE(connection.connect(target, port, &client));
        ASSERT_TRUE(m_connector.waitForConnections(index + 1));
        WEFTConnection& accepted = *m_connector.connection(index);
        EXPECT_EQ(accepted.getPeerAddress(), seen);
        EXPECT_EQ(accepted.getPeerPort(), connection.getLocalPort());
        EXPECT_EQ(connection.getPeerAddress(), HostAddress(target).getAddressString());

        // EUDP's strict peers on both ends: an IPv4 client kept as
        // ::ffff:127.0.0.1 on one side would lose every datagram here.
        // The item is named after the route: the server's log holds both.
        ASSERT_TRUE(connection.subscribe(target));
        ASSERT_TRUE(m_serverEvents.waitFor(Event{"subscribe", target, ""}));
        ASSERT_TRUE(accepted.updateState(target, ParameterValue(0.5f)));
        ASSERT_TRUE(clientEvents.waitFor(Event{"update", target, "0.5"}));

        // The port is taken (on IPv4 too, for ::): the listen error says so.
        const std::string taken = host == std::string("::") ? "127.0.0.1" : host;
        WEFTListener second(GetParam());
        second.listen(taken, port, &m_connector);
        EXPECT_FALSE(second.waitForListen(10000));
        EXPECT_EQ(second.getListenError(), "address in use");
        EXPECT_EQ(log().levelOf("WEFT: cannot bind " + HostAddress(taken).getEndpointString(port) +
                                ": address in use"),
                  tavo::LOG_LEVEL_ERROR);
        connection.disconnect();
        listener.shutdown(-1);
    }
    EXPECT_EQ(log().levelOf("WEFT: failed to accept incoming connection"), -1);
}

INSTANTIATE_TEST_SUITE_P(Transports, Ipv6Test, ::testing::Values(TRANSPORT_TCP, TRANSPORT_EUDP),
                         [](const ::testing::TestParamInfo<ETransport>& info)
                         { return info.param == TRANSPORT_TCP ? "Tcp" : "Eudp"; });

using Ipv6StrictPeerTest = Ipv6Test;

TEST_F(Ipv6StrictPeerTest, AStrangerOnIPv6CannotCloseEitherEnd)
{
    WEFTListener listener(TRANSPORT_EUDP);
    listener.listen("::1", 0, &m_connector);
    ASSERT_TRUE(listener.waitForListen(10000));
    EventLog clientEvents;
    Recorder client(clientEvents);
    WEFTConnection connection(TRANSPORT_EUDP);
    ASSERT_TRUE(connection.connect("::1", listener.getLocalPort(), &client));
    ASSERT_TRUE(m_connector.waitForConnections(1));
    WEFTConnection& accepted = *m_connector.connection(0);

    const auto dis = eudpwire::packet("DIS", 0);
    tavo::UdpSocket stranger;
    for (const uint16 port : {accepted.getLocalPort(), connection.getLocalPort()})
    {
        ASSERT_EQ(stranger.sendTo(dis.data(), static_cast<int>(dis.size()),
                                  HostAddress::loopbackIpv6(), port),
                  static_cast<int>(dis.size()));
    }
    // Both ends log under the client's port: the accepted transport names its peer.
    const std::string line =
        "WEFT/EUDP[" + std::to_string(connection.getLocalPort()) +
        "]: ignoring a datagram from [::1]:" + std::to_string(stranger.getLocalPort()) +
        " (not the peer)";
    ASSERT_TRUE(log().waitFor(line, 10s, 2)) << line;
    ASSERT_TRUE(connection.subscribe("after"));
    ASSERT_TRUE(m_serverEvents.waitFor(Event{"subscribe", "after", ""}));
    ASSERT_TRUE(accepted.updateState("after", ParameterValue(1)));
    ASSERT_TRUE(clientEvents.waitFor(Event{"update", "after", "1"}));
    EXPECT_EQ(clientEvents.countOf(Event{"status", "client", "disconnected"}), 0);
    listener.shutdown(-1);
}

} // namespace
