#include <tavo/HostAddress.h>
#include <tavo/TcpSocket.h>
#include <tavo/Thread.h>
#include <tavo/UdpSocket.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace
{

const tavo::HostAddress LOOPBACK("127.0.0.1");

TEST(HostAddressTest, ParsesDottedTextAndHostNamesAndTakesNoTextForAddressZero)
{
    const tavo::HostAddress dotted("10.1.2.3");
    EXPECT_TRUE(dotted.isValid());
    EXPECT_EQ(dotted.getAddress(), 0x0A010203u);
    EXPECT_EQ(dotted.getAddressString(), "10.1.2.3");
    EXPECT_EQ(tavo::HostAddress("localhost").getAddressString(), "127.0.0.1");
    EXPECT_EQ(tavo::HostAddress("localhost"), tavo::HostAddress::loopback());

    EXPECT_EQ(tavo::HostAddress().getAddress(), 0u);
    EXPECT_EQ(tavo::HostAddress().getAddressString(), "0.0.0.0");
    EXPECT_EQ(tavo::HostAddress(""), tavo::HostAddress());
    EXPECT_EQ(tavo::HostAddress(static_cast<const char*>(nullptr)), tavo::HostAddress());
}

TEST(HostAddressTest, UnresolvableNameIsInvalidAndKeepsItsText)
{
    const tavo::HostAddress unknown("no-such-host.invalid");
    EXPECT_FALSE(unknown.isValid());
    EXPECT_EQ(unknown.getAddressString(), "no-such-host.invalid");
    EXPECT_NE(unknown, tavo::HostAddress());
    tavo::UdpSocket socket;
    const uint8 byte = 1;
    EXPECT_LT(socket.sendTo(&byte, 1, unknown, 9), 0);
    tavo::TcpSocket tcp;
    EXPECT_FALSE(tcp.connect(unknown, 9));
}

struct TcpPair
{
    tavo::TcpSocket listener;
    std::unique_ptr<tavo::TcpSocket> client = std::make_unique<tavo::TcpSocket>();
    std::unique_ptr<tavo::TcpSocket> server;

    TcpPair()
    {
        EXPECT_TRUE(listener.bind(LOOPBACK, 0));
        EXPECT_TRUE(listener.listen(5));
        EXPECT_TRUE(client->connect(LOOPBACK, listener.getLocalPort()));
        server.reset(listener.accept());
        EXPECT_NE(server, nullptr);
    }
};

TEST(TcpSocketTest, PeerCloseReadsAsZeroAndOwnCloseAsFailure)
{
    TcpPair pair;
    pair.client->close();
    uint8 byte;
    EXPECT_EQ(pair.server->receive(&byte, 1), 0);
    EXPECT_LT(pair.client->receive(&byte, 1), 0);
    EXPECT_LT(pair.client->send(&byte, 1), 0);
}

TEST(TcpSocketTest, CloseFromAnotherThreadWakesBlockedReceiveAndAccept)
{
    TcpPair pair;
    std::atomic<int> receiveResult{1};
    std::thread receiver(
        [&]
        {
            uint8 byte;
            receiveResult = pair.server->receive(&byte, 1);
        });
    std::atomic<bool> acceptReturnedNull{false};
    std::thread acceptor([&] { acceptReturnedNull = pair.listener.accept() == nullptr; });
    tavo::Thread::mssleep(50);
    pair.server->close();
    pair.listener.close();
    receiver.join();
    acceptor.join();
    EXPECT_LT(receiveResult.load(), 0);
    EXPECT_TRUE(acceptReturnedNull.load());
    EXPECT_EQ(pair.listener.accept(), nullptr);
}

TEST(TcpSocketTest, BindingAPortThatIsListenedOnFails)
{
    tavo::TcpSocket first;
    ASSERT_TRUE(first.bind(LOOPBACK, 0));
    ASSERT_TRUE(first.listen(5));
    tavo::TcpSocket second;
    EXPECT_FALSE(second.bind(LOOPBACK, first.getLocalPort()));
}

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

TEST(SocketDescriptorTest, ADescriptorInUseIsReleasedOnlyByItsLastUser)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(fd, 0);
    auto descriptor = std::make_unique<tavo::SocketDescriptor>(fd);
    const int used = descriptor->acquire();
    EXPECT_EQ(used, fd);
    descriptor->close();
    EXPECT_EQ(descriptor->acquire(), -1);
    // Still open for the call in progress: the number cannot be reused yet.
    EXPECT_EQ(::fcntl(fd, F_GETFD), 0) << "descriptor closed under its user";
    descriptor->release();
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
}

} // namespace
