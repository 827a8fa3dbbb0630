#include <tavo/HostAddress.h>
#include <tavo/TcpSocket.h>
#include <tavo/Thread.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

namespace
{

const tavo::HostAddress LOOPBACK("127.0.0.1");

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

} // namespace
