#include <tavo/HostAddress.h>
#include <tavo/TcpSocket.h>

#include <gtest/gtest.h>

#include <memory>

namespace
{

const tavo::HostAddress LOOPBACK("127.0.0.1");

// Closing from another thread wakes blocked calls: the system tests show it
// through the transport, whose disconnect is close() (FaultTest's disconnect
// racing the receive loop, EndToEndTest's listener shut down while it accepts).
TEST(TcpSocketTest, APortListenedOnIsNotBoundTwiceAndPeerCloseReadsAsZeroOwnCloseAsFailure)
{
    tavo::TcpSocket listener, second, client;
    ASSERT_TRUE(listener.bind(LOOPBACK, 0) && listener.listen(5));
    EXPECT_FALSE(second.bind(LOOPBACK, listener.getLocalPort()));
    ASSERT_TRUE(client.connect(LOOPBACK, listener.getLocalPort()));
    std::unique_ptr<tavo::TcpSocket> server(listener.accept());
    ASSERT_NE(server, nullptr);
    client.close();
    uint8 byte = 0;
    EXPECT_EQ(server->receive(&byte, 1), 0);
    EXPECT_LT(client.receive(&byte, 1), 0);
    EXPECT_LT(client.send(&byte, 1), 0);
}

} // namespace
