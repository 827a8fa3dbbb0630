// IPv6 and dual stack: both transports end to end over ::1, IPv4 clients of
// a listener on ::, sockets that take their family from their first address,
// strangers over IPv6, and listen errors that say what happened.

#include "support/EudpWire.h"
#include "support/Recorders.h"
#include "support/WeftFixture.h"

#include <weft/WEFTConnection.h>
#include <weft/WEFTListener.h>

#include <tavo/HostAddress.h>
#include <tavo/TcpSocket.h>
#include <tavo/UdpSocket.h>

#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>

namespace
{

using namespace std::chrono_literals;
using tavo::HostAddress;

bool hasIpv6Loopback()
{
    tavo::UdpSocket probe;
    return probe.bind(HostAddress::loopbackIpv6(), 0);
}

#define SKIP_WITHOUT_IPV6()                                                                        \
    if (!hasIpv6Loopback())                                                                        \
    GTEST_SKIP() << "this machine has no IPv6 loopback (::1)"

int openDescriptors()
{
    int count = 0;
    if (DIR* dir = ::opendir("/proc/self/fd"))
    {
        while (::readdir(dir) != nullptr)
        {
            ++count;
        }
        ::closedir(dir);
    }
    return count;
}

// The text form a socket reports for a datagram's source.
std::string sourceOf(tavo::UdpSocket& socket)
{
    uint8 buffer[16];
    HostAddress from;
    uint16 port = 0;
    return socket.receiveFrom(buffer, sizeof(buffer), from, port) > 0 ? from.getEndpointString(port)
                                                                      : "nothing";
}

// A server: a listener and a connector that records into one log.
struct Server
{
    Server(ETransport transport, const std::string& host, uint16 port = 0) : listener(transport)
    {
        listener.listen(host, port, &connector);
    }
    ~Server()
    {
        listener.shutdown(-1);
        connector.closeAll();
    }

    EventLog events;
    CollectingConnector connector{events};
    WEFTListener listener;
};

class Ipv6Test : public WeftFixture, public ::testing::WithParamInterface<ETransport>
{
};

struct Route
{
    const char* listen;
    const char* connect;
    const char* peerSeen; // the client's address as the server sees it
};

TEST_P(Ipv6Test, BothWaysOverIpv6AndIpv4ClientsOfADualStackListenerShowAsIpv4)
{
    SKIP_WITHOUT_IPV6();
    const Route routes[] = {
        {"::1", "::1", "::1"},
        {"::", "[::1]", "::1"},
        // Strict peers on both sides: a peer kept as ::ffff:127.0.0.1 on one
        // side and 127.0.0.1 on the other would lose every datagram here.
        {"::", "127.0.0.1", "127.0.0.1"},
        {"::", "::ffff:127.0.0.1", "127.0.0.1"},
    };
    for (const Route& route : routes)
    {
        SCOPED_TRACE(std::string(route.connect) + " to " + route.listen);
        Server server(GetParam(), route.listen);
        ASSERT_TRUE(server.listener.waitForListen(10000));
        const uint16 port = server.listener.getLocalPort();
        EventLog clientEvents;
        RecordingClient client(clientEvents);
        WEFTConnection connection(GetParam());
        ASSERT_TRUE(connection.connect(route.connect, port, &client));
        ASSERT_TRUE(server.connector.waitForConnections(1));
        WEFTConnection& accepted = *server.connector.connection(0);
        EXPECT_EQ(accepted.getPeerAddress(), route.peerSeen);
        EXPECT_EQ(accepted.getPeerPort(), connection.getLocalPort());
        EXPECT_EQ(connection.getPeerAddress(), HostAddress(route.connect).getAddressString());
        EXPECT_EQ(connection.getPeerPort(), port);

        ASSERT_TRUE(connection.subscribe("level"));
        ParameterList params;
        params.addString("clip", "intro");
        ASSERT_TRUE(connection.callFunctionId("play", params));
        ASSERT_TRUE(server.events.waitFor(4)); // connection, status, subscribe, call
        ASSERT_TRUE(accepted.updateState("level", ParameterValue(0.5f)));
        ASSERT_TRUE(clientEvents.waitFor(2)); // connected, update
        EXPECT_EQ(clientEvents.events().back(), (Event{"update", "level", "0.5"}));
        const auto events = server.events.events();
        EXPECT_EQ(std::count(events.begin(), events.end(), Event{"subscribe", "level", ""}), 1);
        EXPECT_EQ(std::count(events.begin(), events.end(), Event{"call", "play", listText(params)}),
                  1);
        connection.disconnect();
    }
}

TEST_P(Ipv6Test, ListenErrorsSayWhatHappenedInsteadOfAnAcceptFailure)
{
    struct Case
    {
        std::string host;
        bool takenPort;
        std::string why;
    };
    std::vector<Case> cases = {
        {"no-such-host.invalid", false, "unknown host"},
        // A documentation address: on no machine of ours.
        {"192.0.2.1", false, "no such address on this host"},
        {"127.0.0.1", true, "address in use"},
    };
    if (hasIpv6Loopback())
    {
        cases.push_back({"::1", true, "address in use"});
    }
    for (const Case& test : cases)
    {
        SCOPED_TRACE(test.host);
        log().clear();
        std::unique_ptr<Server> first;
        uint16 port = 0;
        if (test.takenPort)
        {
            first = std::make_unique<Server>(GetParam(), test.host);
            ASSERT_TRUE(first->listener.waitForListen(10000));
            port = first->listener.getLocalPort();
        }
        Server second(GetParam(), test.host, port);
        EXPECT_FALSE(second.listener.waitForListen(10000));
        EXPECT_EQ(second.listener.getListenError(), test.why);
        const std::string line =
            "WEFT: cannot bind " + HostAddress(test.host).getEndpointString(port) + ": " + test.why;
        EXPECT_TRUE(log().contains(line)) << line;
        second.listener.shutdown(-1);
        EXPECT_EQ(log().countContaining("accept"), 0u);
        if (first)
        {
            // The error goes with the next listen, which binds.
            first.reset();
            second.listener.listen(test.host, port, &second.connector);
            EXPECT_TRUE(second.listener.waitForListen(10000));
            EXPECT_EQ(second.listener.getListenError(), "");
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Transports, Ipv6Test, ::testing::Values(TRANSPORT_TCP, TRANSPORT_EUDP),
                         [](const ::testing::TestParamInfo<ETransport>& info)
                         { return info.param == TRANSPORT_TCP ? "Tcp" : "Eudp"; });

TEST(Ipv6SocketTest, AnUnboundSocketTakesTheFamilyOfItsFirstDestination)
{
    SKIP_WITHOUT_IPV6();
    tavo::UdpSocket receiver;
    ASSERT_TRUE(receiver.bind(HostAddress("::"), 0));
    const uint16 port = receiver.getLocalPort();
    const uint8 byte = 1;

    tavo::UdpSocket v4;
    ASSERT_EQ(v4.sendTo(&byte, 1, HostAddress::loopback(), port), 1);
    EXPECT_EQ(sourceOf(receiver), "127.0.0.1:" + std::to_string(v4.getLocalPort()));
    EXPECT_LT(v4.sendTo(&byte, 1, HostAddress::loopbackIpv6(), port), 0);

    // An IPv6 socket reaches IPv4 addresses too.
    tavo::UdpSocket v6;
    EXPECT_EQ(v6.getLocalPort(), 0);
    ASSERT_EQ(v6.sendTo(&byte, 1, HostAddress::loopbackIpv6(), port), 1);
    EXPECT_EQ(sourceOf(receiver), "[::1]:" + std::to_string(v6.getLocalPort()));
    ASSERT_EQ(v6.sendTo(&byte, 1, HostAddress::loopback(), port), 1);
    EXPECT_EQ(sourceOf(receiver), "127.0.0.1:" + std::to_string(v6.getLocalPort()));
}

TEST(Ipv6SocketTest, ADualStackSocketOnColonsHoldsTheIpv4PortAndAnIpv6OnlyOneLeavesIt)
{
    SKIP_WITHOUT_IPV6();
    for (const bool dualStack : {true, false})
    {
        SCOPED_TRACE(dualStack ? "dual stack" : "IPv6 only");
        tavo::TcpSocket tcp6;
        tcp6.setDualStack(dualStack);
        ASSERT_TRUE(tcp6.bind(HostAddress("::"), 0));
        ASSERT_TRUE(tcp6.listen(5));
        tavo::TcpSocket tcp4;
        EXPECT_EQ(tcp4.bind(HostAddress::loopback(), tcp6.getLocalPort()) && tcp4.listen(5),
                  !dualStack);

        tavo::UdpSocket udp6;
        udp6.setDualStack(dualStack);
        ASSERT_TRUE(udp6.bind(HostAddress("::"), 0));
        tavo::UdpSocket udp4;
        EXPECT_EQ(udp4.bind(HostAddress::loopback(), udp6.getLocalPort()), !dualStack);
    }
}

TEST(Ipv6SocketTest, ACloseRacingTheFirstSendLeavesNoDescriptorAndNoWorkingSocket)
{
    const HostAddress target =
        hasIpv6Loopback() ? HostAddress::loopbackIpv6() : HostAddress::loopback();
    const int before = openDescriptors();
    const uint8 byte = 1;
    for (int round = 0; round < 200; ++round)
    {
        tavo::UdpSocket socket;
        std::thread sender([&] { socket.sendTo(&byte, 1, target, 9); });
        socket.close();
        sender.join();
        ASSERT_TRUE(socket.isClosed());
        ASSERT_LT(socket.sendTo(&byte, 1, target, 9), 0) << round;
        ASSERT_EQ(socket.getLocalPort(), 0) << round;
    }
    EXPECT_EQ(openDescriptors(), before);
}

// Strict peers over IPv6: strangers on ::1 and on 127.0.0.1 (which reaches
// the client's dual-stack socket) cannot close either end.
class Ipv6StrangerTest : public WeftFixture
{
};

TEST_F(Ipv6StrangerTest, StrangersOfEitherFamilyCannotCloseAStrictConnection)
{
    SKIP_WITHOUT_IPV6();
    Server server(TRANSPORT_EUDP, "::1");
    ASSERT_TRUE(server.listener.waitForListen(10000));
    EventLog clientEvents;
    RecordingClient client(clientEvents);
    WEFTConnection connection(TRANSPORT_EUDP);
    ASSERT_TRUE(connection.connect("::1", server.listener.getLocalPort(), &client));
    ASSERT_TRUE(server.connector.waitForConnections(1));
    WEFTConnection& accepted = *server.connector.connection(0);

    const auto dis = eudpwire::packet("DIS", 0);
    for (const HostAddress& from : {HostAddress::loopbackIpv6(), HostAddress::loopback()})
    {
        tavo::UdpSocket stranger;
        for (const uint16 port : {accepted.getLocalPort(), connection.getLocalPort()})
        {
            ASSERT_EQ(stranger.sendTo(dis.data(), static_cast<int>(dis.size()), from, port),
                      static_cast<int>(dis.size()));
        }
        // Both ends log under the client's port: the client under its own,
        // the accepted transport under its peer's.
        const std::string line = "WEFT/EUDP[" + std::to_string(connection.getLocalPort()) +
                                 "]: ignoring a datagram from " +
                                 from.getEndpointString(stranger.getLocalPort()) +
                                 " (not the peer)";
        EXPECT_TRUE(log().waitFor(line, 10s, 2)) << line;
    }
    ASSERT_TRUE(connection.subscribe("after"));
    ASSERT_TRUE(server.events.waitFor(3)); // connection, status, subscribe
    ASSERT_TRUE(accepted.updateState("after", ParameterValue(1)));
    ASSERT_TRUE(clientEvents.waitFor(2)); // connected, update
    EXPECT_EQ(clientEvents.events().back(), (Event{"update", "after", "1"}));
    const auto events = server.events.events();
    EXPECT_EQ(std::count(events.begin(), events.end(), Event{"subscribe", "after", ""}), 1);
    connection.disconnect();
}

} // namespace
