#include <tavo/HostAddress.h>
#include <tavo/UdpSocket.h>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;

const tavo::HostAddress LOOPBACK("127.0.0.1");

// Closing from another thread wakes a blocked receiver: that is
// system/EUDPWireTest's case of a listener closed while accept waits.
TEST(UdpSocketTest, SendToBindsAFreshPortAndReceiveSkipsEmptyDatagramsCutsLongOnesAndNamesTheSource)
{
    tavo::UdpSocket receiver;
    ASSERT_TRUE(receiver.bind(LOOPBACK, 0));
    tavo::UdpSocket sender;
    EXPECT_EQ(sender.getLocalPort(), 0);
    const uint8 data[] = {9, 8, 7};
    EXPECT_EQ(sender.sendTo(data, 3, LOOPBACK, receiver.getLocalPort()), 3);
    EXPECT_NE(sender.getLocalPort(), 0);
    EXPECT_EQ(sender.sendTo(data, 0, LOOPBACK, receiver.getLocalPort()), 0);
    EXPECT_EQ(sender.sendTo(data + 1, 2, LOOPBACK, receiver.getLocalPort()), 2);

    uint8 buffer[2];
    tavo::HostAddress from;
    uint16 port = 0;
    EXPECT_EQ(sender.receiveFrom(buffer, sizeof(buffer), from, port, 1ms),
              tavo::UdpSocket::NOTHING_PENDING);
    EXPECT_EQ(receiver.receiveFrom(buffer, sizeof(buffer), from, port), 2);
    EXPECT_EQ(std::vector<uint8>(buffer, buffer + 2), (std::vector<uint8>{9, 8}));
    EXPECT_EQ(from, LOOPBACK);
    EXPECT_EQ(port, sender.getLocalPort());
    EXPECT_EQ(receiver.receiveFrom(buffer, sizeof(buffer), from, port), 2);
    EXPECT_EQ(std::vector<uint8>(buffer, buffer + 2), (std::vector<uint8>{8, 7}));

    // Closed, bound or not: every later call fails.
    tavo::UdpSocket unbound;
    for (tavo::UdpSocket* socket : {&receiver, &unbound})
    {
        std::thread closer([socket] { socket->close(); });
        EXPECT_LT(socket->receiveFrom(buffer, sizeof(buffer), from, port, 10s), 0);
        closer.join();
        EXPECT_LT(socket->receiveFrom(buffer, sizeof(buffer), from, port), 0);
        EXPECT_LT(socket->sendTo(data, 1, LOOPBACK, 9), 0);
        EXPECT_EQ(socket->getLocalPort(), 0);
    }
}

} // namespace
