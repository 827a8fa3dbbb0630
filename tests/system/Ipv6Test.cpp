// Both transports over IPv6 and through a dual-stack listener, with strangers.

#include "support/EudpWire.h"
#include "support/ListenerFixture.h"

#include <weft/WEFTListener.h>

#include <tavo/UdpSocket.h>

namespace
{

using tavo::HostAddress;

// Listeners of its own on the fixture's connector.
class Ipv6Test : public ListenerFixture, public ::testing::WithParamInterface<ETransport>
{
protected:
    void SetUp() override
    {
        ListenerFixture::SetUp();
        if (!tavo::UdpSocket().bind(HostAddress::loopbackIpv6(), 0))
        {
            GTEST_SKIP() << "no IPv6 loopback (::1) on this machine";
        }
    }
};

TEST_P(Ipv6Test, IPv6AndIPv4ClientsOfAnIPv6ListenerTalkBothWaysAndStrangersCannotCloseThem)
{
    // Listen on, connect to, the client's address as the server sees it.
    const char* const routes[][3] = {{"::1", "[::1]", "::1"}, {"::", "127.0.0.1", "127.0.0.1"}};
    for (const auto& [host, target, seen] : routes)
    {
        SCOPED_TRACE(std::string(target) + " to " + host);
        WEFTListener listener(GetParam());
        listener.listen(host, 0, &m_connector);
        ASSERT_TRUE(listener.waitForListen(10000));
        const int index = m_connector.accepted();
        EventLog clientEvents;
        Recorder client(clientEvents);
        WEFTConnection connection(GetParam());
        ASSERT_TRUE(connection.connect(target, listener.getLocalPort(), &client));
        ASSERT_TRUE(m_connector.waitForConnections(index + 1));
        WEFTConnection& accepted = *m_connector.connection(index);
        EXPECT_EQ(accepted.getPeerAddress(), seen);
        EXPECT_EQ(accepted.getPeerPort(), connection.getLocalPort());
        EXPECT_EQ(connection.getPeerAddress(), HostAddress(target).getAddressString());

        if (GetParam() == TRANSPORT_EUDP)
        {
            // A DIS to both ends from the client's host: strict peers ignore
            // it (and log under the client's port) whichever family it has.
            const auto dis = eudpwire::packet("DIS", 0);
            tavo::UdpSocket stranger;
            for (const uint16 to : {accepted.getLocalPort(), connection.getLocalPort()})
            {
                stranger.sendTo(dis.data(), static_cast<int>(dis.size()), HostAddress(target), to);
            }
            ASSERT_TRUE(
                log().waitFor("WEFT/EUDP[" + std::to_string(connection.getLocalPort()) +
                                  "]: ignoring a datagram from " +
                                  HostAddress(target).getEndpointString(stranger.getLocalPort()) +
                                  " (not the peer)",
                              std::chrono::seconds(10), 2));
        }
        // Named after the route, since the server's log holds both. An IPv4
        // client kept as ::ffff:127.0.0.1 on one end would be a stranger too.
        ASSERT_TRUE(connection.subscribe(target));
        ASSERT_TRUE(m_serverEvents.waitFor(Event{"subscribe", target, ""}));
        ASSERT_TRUE(accepted.updateState(target, ParameterValue(0.5f)));
        ASSERT_TRUE(clientEvents.waitFor(Event{"update", target, "0.5"}));
        connection.disconnect();
        listener.shutdown(-1);
    }
}

INSTANTIATE_TEST_SUITE_P(Transports, Ipv6Test, ::testing::Values(TRANSPORT_TCP, TRANSPORT_EUDP),
                         [](const ::testing::TestParamInfo<ETransport>& info)
                         { return info.param == TRANSPORT_TCP ? "Tcp" : "Eudp"; });

} // namespace
