#include "support/WeftFixture.h"

#include <weft/TCPTransport.h>

#include <tavo/TcpSocket.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace
{

const tavo::HostAddress LOOPBACK("127.0.0.1");

typedef std::vector<uint8> Bytes;

// The message received into a buffer of exactly `size` bytes, or "<n>" for a
// result n <= 0.
std::string receiveText(IWEFTTransport& transport, uint size)
{
    Bytes buffer(size);
    const int n = transport.receiveData(buffer.data(), size);
    return n > 0 ? std::string(buffer.begin(), buffer.begin() + n) : "<" + std::to_string(n) + ">";
}

// A listening TCPTransport.
class TCPTransportTest : public WeftFixture
{
protected:
    void SetUp() override
    {
        WeftFixture::SetUp();
        ASSERT_TRUE(m_listener.listen(LOOPBACK, 0));
        m_port = m_listener.getLocalPort();
    }

    // The transport the listener accepts for `client` (a transport or a plain
    // socket the test drives byte by byte), which connects first: the
    // listener's backlog holds it until then.
    template <class Client>
    std::unique_ptr<IWEFTTransport> connectAndAccept(Client& client)
    {
        const bool connected = client.connect(LOOPBACK, m_port);
        EXPECT_TRUE(connected);
        return std::unique_ptr<IWEFTTransport>(connected ? m_listener.accept() : nullptr);
    }

    // Up to `count` bytes: fewer only when the stream ends first.
    static Bytes readExactly(tavo::TcpSocket& socket, std::size_t count)
    {
        Bytes bytes(count);
        std::size_t received = 0;
        for (int n = 1; received < count && n > 0;
             received += static_cast<std::size_t>(std::max(n, 0)))
        {
            n = socket.receive(bytes.data() + received, static_cast<int>(count - received));
        }
        bytes.resize(received);
        return bytes;
    }

    TCPTransport m_listener;
    uint16 m_port = 0;
};

// Each message framed by a two-byte little-endian length, whole both ways
// up to the largest; one longer is refused with nothing of it sent.
TEST_F(TCPTransportTest, FramesEachMessageWithItsLengthAndRefusesLongerOnes)
{
    tavo::TcpSocket raw;
    auto transport = connectAndAccept(raw);
    ASSERT_NE(transport, nullptr);
    Bytes tooLong(65536, 1);
    EXPECT_FALSE(transport->sendData(tooLong.data(), 65536));
    for (uint length : {1u, 300u, 65535u})
    {
        Bytes message(length);
        std::iota(message.begin(), message.end(), static_cast<uint8>(length));
        ASSERT_TRUE(transport->sendData(message.data(), length));
        Bytes framed = readExactly(raw, length + 2);
        ASSERT_EQ(framed.size(), length + 2);
        EXPECT_EQ(framed[0] | framed[1] << 8, static_cast<int>(length));
        EXPECT_TRUE(std::equal(message.begin(), message.end(), framed.begin() + 2));
        ASSERT_EQ(raw.send(framed.data(), static_cast<int>(framed.size())),
                  static_cast<int>(framed.size()));
        Bytes received(65535);
        ASSERT_EQ(transport->receiveData(received.data(), 65535), static_cast<int>(length));
        received.resize(length);
        EXPECT_EQ(received, message) << "length " << length;
    }
    // Written a byte at a time, an empty message skipped; one longer than the
    // buffer ends the reading with -1, one cut short by the close with 0.
    for (const auto& [stream, room, results] :
         {std::tuple<Bytes, uint, std::vector<int>>{{0, 0, 2, 0, 'a', 'b', 3, 0, 'c'}, 4, {2, 0}},
          {{5, 0, 1, 2, 3, 4, 5}, 4, {-1}}})
    {
        tavo::TcpSocket peer;
        auto reader = connectAndAccept(peer);
        ASSERT_NE(reader, nullptr);
        for (const uint8 byte : stream)
        {
            ASSERT_EQ(peer.send(&byte, 1), 1);
        }
        peer.close();
        for (const int result : results)
        {
            Bytes buffer(room);
            EXPECT_EQ(reader->receiveData(buffer.data(), room), result);
        }
    }
}

// Waking a receive or an accept blocked in another thread is the system
// tests' (FaultTest's disconnect racing the receive loop, EndToEndTest's
// listener shut down while it accepts).
TEST_F(TCPTransportTest, ConnectIsRetriedAfterAFailureAndAfterADisconnectOnAFreshSocket)
{
    uint16 closedPort = 0;
    {
        TCPTransport placeholder;
        ASSERT_TRUE(placeholder.listen(LOOPBACK, 0));
        closedPort = placeholder.getLocalPort();
    }
    TCPTransport client;
    EXPECT_FALSE(client.connect(LOOPBACK, closedPort));
    auto first = connectAndAccept(client);
    ASSERT_NE(first, nullptr);
    const uint16 firstPort = client.getLocalPort();
    client.disconnect();
    client.disconnect();
    const uint8 byte = '*';
    EXPECT_FALSE(client.sendData(&byte, 1));
    EXPECT_EQ(receiveText(client, 16), "<0>");
    EXPECT_EQ(receiveText(*first, 16), "<0>"); // the peer sees the end of the stream
    auto second = connectAndAccept(client);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(client.getLocalPort(), firstPort);
    EXPECT_EQ(second->getPeerPort(), client.getLocalPort());
    EXPECT_EQ(client.getPeerPort(), m_port);
    EXPECT_EQ(client.getPeerAddress().getAddressString(), "127.0.0.1");
    ASSERT_TRUE(client.sendData(&byte, 1));
    EXPECT_EQ(receiveText(*second, 4), "*");
}

TEST_F(TCPTransportTest, ConcurrentSendersNeverInterleaveTheirMessages)
{
    TCPTransport client;
    auto server = connectAndAccept(client);
    ASSERT_NE(server, nullptr);
    std::vector<std::thread> senders;
    for (uint8 mark = 1; mark <= 4; ++mark)
    {
        senders.emplace_back(
            [&client, mark]
            {
                const Bytes message(700, mark);
                for (int i = 0; i < 300; ++i)
                {
                    ASSERT_TRUE(client.sendData(message.data(), 700));
                }
            });
    }
    std::vector<int> perSender(5); // by mark
    uint8 buffer[1024];
    for (int m = 0; m < 4 * 300; ++m)
    {
        ASSERT_EQ(server->receiveData(buffer, sizeof(buffer)), 700);
        ASSERT_EQ(std::count(buffer, buffer + 700, buffer[0]), 700) << "message " << m;
        ++perSender.at(buffer[0]);
    }
    for (auto& thread : senders)
    {
        thread.join();
    }
    EXPECT_EQ(perSender, (std::vector<int>{0, 300, 300, 300, 300}));
}

} // namespace
