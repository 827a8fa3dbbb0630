#include <tavo/HostAddress.h>
#include <tavo/Thread.h>
#include <tavo/UdpSocket.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace
{

const tavo::HostAddress LOOPBACK("127.0.0.1");

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
    EXPECT_EQ(receiver.receiveFrom(buffer, sizeof(buffer), from, port), 2);
    EXPECT_EQ(std::vector<uint8>(buffer, buffer + 2), (std::vector<uint8>{9, 8}));
    EXPECT_EQ(from, LOOPBACK);
    EXPECT_EQ(port, sender.getLocalPort());
    EXPECT_EQ(receiver.receiveFrom(buffer, sizeof(buffer), from, port), 2);
    EXPECT_EQ(std::vector<uint8>(buffer, buffer + 2), (std::vector<uint8>{8, 7}));
}

TEST(UdpSocketTest, CloseWakesABlockedReceiverBoundOrNotAndLaterCallsFail)
{
    for (const bool bound : {true, false})
    {
        SCOPED_TRACE(bound ? "bound" : "unbound");
        tavo::UdpSocket socket;
        ASSERT_TRUE(!bound || socket.bind(LOOPBACK, 0));
        std::atomic<int> result{1};
        std::thread receiver(
            [&]
            {
                uint8 buffer[16];
                tavo::HostAddress from;
                uint16 port = 0;
                result = socket.receiveFrom(buffer, sizeof(buffer), from, port);
            });
        tavo::Thread::mssleep(50); // long enough for the receiver to block
        socket.close();
        receiver.join();
        EXPECT_LT(result.load(), 1);
        const uint8 byte = 0;
        EXPECT_LT(socket.sendTo(&byte, 1, LOOPBACK, 9), 0);
        EXPECT_EQ(socket.getLocalPort(), 0);
    }
}

} // namespace
