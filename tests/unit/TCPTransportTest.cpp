#include "support/WeftFixture.h"

#include <weft/TCPTransport.h>

#include <tavo/TcpSocket.h>
#include <tavo/Thread.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
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

// A listening TCPTransport and a helper to accept on it.
class TCPTransportTest : public WeftFixture
{
protected:
    void SetUp() override
    {
        WeftFixture::SetUp();
        ASSERT_TRUE(m_listener.listen(LOOPBACK, 0));
        m_port = m_listener.getLocalPort();
    }

    std::unique_ptr<IWEFTTransport> acceptWhile(const std::function<void()>& connect)
    {
        IWEFTTransport* accepted = nullptr;
        std::thread acceptor([&] { accepted = m_listener.accept(); });
        connect();
        acceptor.join();
        return std::unique_ptr<IWEFTTransport>(accepted);
    }

    // A transport connected to a plain socket that the test drives byte by byte.
    std::unique_ptr<IWEFTTransport> acceptRawPeer(tavo::TcpSocket& raw)
    {
        return acceptWhile([&] { ASSERT_TRUE(raw.connect(LOOPBACK, m_port)); });
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

TEST_F(TCPTransportTest, MessagesTravelWholeAndInOrderBothWays)
{
    TCPTransport client;
    auto server = acceptWhile([&] { ASSERT_TRUE(client.connect(LOOPBACK, m_port)); });
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(server->getPeerPort(), client.getLocalPort());
    EXPECT_EQ(client.getPeerPort(), m_port);
    EXPECT_EQ(client.getPeerAddress().getAddressString(), "127.0.0.1");

    for (uint length : {1u, 2u, 100u, 1492u, 65535u})
    {
        Bytes message(length);
        for (uint i = 0; i < length; ++i)
        {
            message[i] = static_cast<uint8>(i * 7 + length);
        }
        for (auto [from, to] : {std::pair<IWEFTTransport*, IWEFTTransport*>(&client, server.get()),
                                std::pair<IWEFTTransport*, IWEFTTransport*>(server.get(), &client)})
        {
            ASSERT_TRUE(from->sendData(message.data(), length));
            Bytes received(65535);
            ASSERT_EQ(to->receiveData(received.data(), 65535), static_cast<int>(length));
            received.resize(length);
            EXPECT_EQ(received, message) << "length " << length;
        }
    }
}

TEST_F(TCPTransportTest, FramesEachMessageWithATwoByteLittleEndianLengthAndRefusesLongerOnes)
{
    tavo::TcpSocket raw;
    auto transport = acceptRawPeer(raw);
    ASSERT_NE(transport, nullptr);
    Bytes tooLong(65536, 1);
    EXPECT_FALSE(transport->sendData(tooLong.data(), 65536));
    // Nothing of it went out: the next message is the first thing the peer sees.
    const uint8 one = 0xAB;
    ASSERT_TRUE(transport->sendData(&one, 1));
    EXPECT_EQ(readExactly(raw, 3), (Bytes{0x01, 0x00, 0xAB}));

    Bytes largest(65535, 0x5A);
    ASSERT_TRUE(transport->sendData(largest.data(), 65535));
    const Bytes framed = readExactly(raw, 65537);
    ASSERT_EQ(framed.size(), 65537u);
    EXPECT_EQ(framed[0], 0xFF);
    EXPECT_EQ(framed[1], 0xFF);
    EXPECT_EQ(framed[65536], 0x5A);
}

TEST_F(TCPTransportTest, DisconnectWakesABlockedReceiveAndAcceptAndLaterCallsEndAtOnce)
{
    TCPTransport client;
    auto server = acceptWhile([&] { ASSERT_TRUE(client.connect(LOOPBACK, m_port)); });
    std::atomic<int> received{99};
    std::atomic<bool> acceptReturned{false};
    IWEFTTransport* accepted = reinterpret_cast<IWEFTTransport*>(1);
    std::thread receiver(
        [&]
        {
            uint8 buffer[16];
            received = client.receiveData(buffer, sizeof(buffer));
        });
    std::thread acceptor(
        [&]
        {
            accepted = m_listener.accept();
            acceptReturned = true;
        });
    tavo::Thread::mssleep(30); // long enough for both to block
    EXPECT_EQ(received.load(), 99);
    EXPECT_FALSE(acceptReturned.load());
    client.disconnect();
    client.disconnect();
    m_listener.disconnect();
    receiver.join();
    acceptor.join();
    EXPECT_LE(received.load(), 0);
    EXPECT_EQ(accepted, nullptr);
    EXPECT_EQ(receiveText(client, 16), "<0>");
    const uint8 byte = 0;
    EXPECT_FALSE(client.sendData(&byte, 1));
    EXPECT_EQ(receiveText(*server, 16), "<0>"); // the peer sees the end of the stream
}

TEST_F(TCPTransportTest, ConnectMayBeRetriedAfterAFailureAndUsesAFreshSocketAfterDisconnect)
{
    uint16 closedPort = 0;
    {
        TCPTransport placeholder;
        ASSERT_TRUE(placeholder.listen(LOOPBACK, 0));
        closedPort = placeholder.getLocalPort();
    }
    TCPTransport client;
    EXPECT_FALSE(client.connect(LOOPBACK, closedPort));
    auto first = acceptWhile([&] { ASSERT_TRUE(client.connect(LOOPBACK, m_port)); });
    ASSERT_NE(first, nullptr);
    const uint16 firstPort = client.getLocalPort();
    client.disconnect();
    auto second = acceptWhile([&] { ASSERT_TRUE(client.connect(LOOPBACK, m_port)); });
    ASSERT_NE(second, nullptr);
    EXPECT_NE(client.getLocalPort(), 0);
    EXPECT_NE(client.getLocalPort(), firstPort);
    const uint8 byte = '*';
    ASSERT_TRUE(client.sendData(&byte, 1));
    EXPECT_EQ(receiveText(*second, 4), "*");
}

TEST_F(TCPTransportTest, AnUnconnectedTransportOffersOnlyReliableModeNoWindowAndNoPorts)
{
    TCPTransport transport;
    EXPECT_EQ(transport.getPeerPort(), 0);
    EXPECT_EQ(transport.getPeerAddress(), tavo::HostAddress());
    EXPECT_EQ(transport.getLocalPort(), 0);
    for (EConnMode mode : {CONN_MODE_RELIABLE, CONN_MODE_REALTIME, CONN_MODE_DONT_CARE})
    {
        EXPECT_EQ(transport.setSendMode(mode), mode == CONN_MODE_RELIABLE) << mode;
        EXPECT_EQ(transport.setReceiveMode(mode), mode == CONN_MODE_RELIABLE) << mode;
    }
    for (uint size : {0u, 10u, 3000000000u})
    {
        EXPECT_FALSE(transport.setWindowSize(size));
    }
    transport.allowSendMode(false, false);
    EXPECT_TRUE(transport.setSendMode(CONN_MODE_RELIABLE));
}

TEST_F(TCPTransportTest, ConcurrentSendersNeverInterleaveTheirMessages)
{
    TCPTransport client;
    auto server = acceptWhile([&] { ASSERT_TRUE(client.connect(LOOPBACK, m_port)); });
    constexpr int senders = 4;
    constexpr int messagesEach = 300;
    std::vector<std::thread> threads;
    for (int s = 0; s < senders; ++s)
    {
        threads.emplace_back(
            [&, s]
            {
                Bytes message(700, static_cast<uint8>(s + 1));
                for (int i = 0; i < messagesEach; ++i)
                {
                    ASSERT_TRUE(client.sendData(message.data(), 700));
                }
            });
    }
    int perSender[senders] = {};
    uint8 buffer[1024];
    for (int m = 0; m < senders * messagesEach; ++m)
    {
        ASSERT_EQ(server->receiveData(buffer, sizeof(buffer)), 700);
        const uint8 mark = buffer[0];
        ASSERT_GE(mark, 1);
        ASSERT_LE(mark, senders);
        ASSERT_EQ(std::count(buffer, buffer + 700, mark), 700) << "message " << m;
        ++perSender[mark - 1];
    }
    for (auto& thread : threads)
    {
        thread.join();
    }
    for (int s = 0; s < senders; ++s)
    {
        EXPECT_EQ(perSender[s], messagesEach);
    }
}

TEST(TCPTransportDeathTest, OperationsWithoutASocketStopAtTheAssertion)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            TCPTransport transport(nullptr);
            transport.disconnect();
        },
        "m_pSocket");
    TCPTransport transport(nullptr);
    EXPECT_EQ(transport.getPeerPort(), 0);
    EXPECT_EQ(transport.getLocalPort(), 0);
}

} // namespace
