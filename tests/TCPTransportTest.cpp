#include "support/Waiting.h"
#include "support/WeftFixture.h"

#include <weft/TCPTransport.h>

#include <tavo/TcpSocket.h>
#include <tavo/Thread.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;

const tavo::HostAddress LOOPBACK("127.0.0.1");

typedef std::vector<uint8> Bytes;

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

    static Bytes readExactly(tavo::TcpSocket& socket, std::size_t count)
    {
        Bytes bytes(count);
        std::size_t received = 0;
        while (received < count)
        {
            const int n = socket.receive(bytes.data() + received, static_cast<int>(count - received));
            if (n <= 0)
            {
                bytes.resize(received);
                break;
            }
            received += static_cast<std::size_t>(n);
        }
        return bytes;
    }

    static void write(tavo::TcpSocket& socket, const Bytes& bytes)
    {
        ASSERT_EQ(socket.send(bytes.data(), static_cast<int>(bytes.size())),
                  static_cast<int>(bytes.size()));
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
        ASSERT_TRUE(client.sendData(message.data(), length));
        Bytes received(65535);
        ASSERT_EQ(server->receiveData(received.data(), 65535), static_cast<int>(length));
        received.resize(length);
        EXPECT_EQ(received, message) << "length " << length;

        ASSERT_TRUE(server->sendData(message.data(), length));
        received.assign(65535, 0);
        ASSERT_EQ(client.receiveData(received.data(), 65535), static_cast<int>(length));
        received.resize(length);
        EXPECT_EQ(received, message) << "length " << length;
    }
    client.disconnect();
}

TEST_F(TCPTransportTest, FramesEachMessageWithATwoByteLittleEndianLength)
{
    tavo::TcpSocket raw;
    auto transport = acceptRawPeer(raw);
    ASSERT_NE(transport, nullptr);

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

TEST_F(TCPTransportTest, RefusesAMessageTooLongToFrame)
{
    tavo::TcpSocket raw;
    auto transport = acceptRawPeer(raw);
    Bytes tooLong(65536, 1);
    EXPECT_FALSE(transport->sendData(tooLong.data(), 65536));
    // Nothing went out: the next message is the first thing the peer sees.
    const uint8 byte = 7;
    ASSERT_TRUE(transport->sendData(&byte, 1));
    EXPECT_EQ(readExactly(raw, 3), (Bytes{0x01, 0x00, 0x07}));
}

TEST_F(TCPTransportTest, GathersAPrefixAndBodyThatArriveInPieces)
{
    tavo::TcpSocket raw;
    auto transport = acceptRawPeer(raw);
    std::thread writer([&] {
        for (uint8 byte : Bytes{0x05, 0x00, 'h', 'e', 'l', 'l', 'o'})
        {
            write(raw, Bytes{byte});
            tavo::Thread::mssleep(5);
        }
    });
    uint8 buffer[16] = {};
    EXPECT_EQ(transport->receiveData(buffer, sizeof(buffer)), 5);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), 5), "hello");
    writer.join();
}

TEST_F(TCPTransportTest, SkipsEmptyMessagesAndDeliversTheNext)
{
    tavo::TcpSocket raw;
    auto transport = acceptRawPeer(raw);
    write(raw, Bytes{0x00, 0x00, 0x00, 0x00, 0x02, 0x00, 'o', 'k'});
    uint8 buffer[16] = {};
    EXPECT_EQ(transport->receiveData(buffer, sizeof(buffer)), 2);
    EXPECT_EQ(buffer[0], 'o');
}

TEST_F(TCPTransportTest, AMessageOfExactlyTheBufferSizeFitsAndOneMoreByteIsRefused)
{
    tavo::TcpSocket raw;
    auto transport = acceptRawPeer(raw);
    write(raw, Bytes{0x04, 0x00, 1, 2, 3, 4});
    uint8 buffer[4];
    EXPECT_EQ(transport->receiveData(buffer, 4), 4);
    write(raw, Bytes{0x05, 0x00, 1, 2, 3, 4, 5});
    EXPECT_EQ(transport->receiveData(buffer, 4), -1);
}

TEST_F(TCPTransportTest, PeerCloseBetweenOrInsideMessagesEndsWithZero)
{
    {
        tavo::TcpSocket raw;
        auto transport = acceptRawPeer(raw);
        write(raw, Bytes{0x01, 0x00, 'a'});
        raw.close();
        uint8 buffer[8];
        EXPECT_EQ(transport->receiveData(buffer, sizeof(buffer)), 1);
        EXPECT_EQ(transport->receiveData(buffer, sizeof(buffer)), 0);
    }
    {
        tavo::TcpSocket raw;
        auto transport = acceptRawPeer(raw);
        write(raw, Bytes{0x0A, 0x00, 'p', 'a', 'r', 't'});
        raw.close();
        uint8 buffer[16];
        EXPECT_EQ(transport->receiveData(buffer, sizeof(buffer)), 0);
    }
    {
        // One byte of a prefix, then the end of the stream.
        tavo::TcpSocket raw;
        auto transport = acceptRawPeer(raw);
        write(raw, Bytes{0x03});
        raw.close();
        uint8 buffer[16];
        EXPECT_EQ(transport->receiveData(buffer, sizeof(buffer)), 0);
    }
}

TEST_F(TCPTransportTest, DisconnectWakesABlockedReceiveAndLaterReceivesReturnZeroAtOnce)
{
    TCPTransport client;
    auto server = acceptWhile([&] { ASSERT_TRUE(client.connect(LOOPBACK, m_port)); });
    std::atomic<int> result{99};
    std::thread receiver([&] {
        uint8 buffer[16];
        result = client.receiveData(buffer, sizeof(buffer));
    });
    tavo::Thread::mssleep(30);
    client.disconnect();
    client.disconnect();
    receiver.join();
    EXPECT_LE(result.load(), 0);
    uint8 buffer[16];
    EXPECT_EQ(client.receiveData(buffer, sizeof(buffer)), 0);
    EXPECT_FALSE(client.sendData(buffer, 1));
    // The peer sees the end of the stream.
    EXPECT_EQ(server->receiveData(buffer, sizeof(buffer)), 0);
}

TEST_F(TCPTransportTest, DisconnectWakesABlockedAccept)
{
    std::atomic<bool> returned{false};
    IWEFTTransport* accepted = reinterpret_cast<IWEFTTransport*>(1);
    std::thread acceptor([&] {
        accepted = m_listener.accept();
        returned = true;
    });
    tavo::Thread::mssleep(30);
    EXPECT_FALSE(returned.load());
    m_listener.disconnect();
    acceptor.join();
    EXPECT_EQ(accepted, nullptr);
}

TEST_F(TCPTransportTest, ConnectAfterDisconnectUsesAFreshSocket)
{
    TCPTransport client;
    auto first = acceptWhile([&] { ASSERT_TRUE(client.connect(LOOPBACK, m_port)); });
    const uint16 firstPort = client.getLocalPort();
    client.disconnect();
    auto second = acceptWhile([&] { ASSERT_TRUE(client.connect(LOOPBACK, m_port)); });
    ASSERT_NE(second, nullptr);
    EXPECT_NE(client.getLocalPort(), 0);
    EXPECT_NE(client.getLocalPort(), firstPort);
    const uint8 byte = 42;
    ASSERT_TRUE(client.sendData(&byte, 1));
    uint8 buffer[4];
    EXPECT_EQ(second->receiveData(buffer, sizeof(buffer)), 1);
    EXPECT_EQ(buffer[0], 42);
}

TEST_F(TCPTransportTest, ConnectToAPortWhereNobodyListensFailsAndMayBeRetried)
{
    TCPTransport client;
    TCPTransport placeholder;
    ASSERT_TRUE(placeholder.listen(LOOPBACK, 0));
    const uint16 closedPort = placeholder.getLocalPort();
    placeholder.disconnect();
    EXPECT_FALSE(client.connect(LOOPBACK, closedPort));
    auto server = acceptWhile([&] { EXPECT_TRUE(client.connect(LOOPBACK, m_port)); });
    EXPECT_NE(server, nullptr);
}

TEST_F(TCPTransportTest, OffersOnlyReliableModeAndNoWindow)
{
    TCPTransport transport;
    EXPECT_TRUE(transport.setSendMode(CONN_MODE_RELIABLE));
    EXPECT_TRUE(transport.setReceiveMode(CONN_MODE_RELIABLE));
    for (EConnMode mode : {CONN_MODE_REALTIME, CONN_MODE_DONT_CARE})
    {
        EXPECT_FALSE(transport.setSendMode(mode));
        EXPECT_FALSE(transport.setReceiveMode(mode));
    }
    for (uint size : {0u, 10u, 3000000000u})
    {
        EXPECT_FALSE(transport.setWindowSize(size));
    }
    transport.allowSendMode(false, false);
    EXPECT_TRUE(transport.setSendMode(CONN_MODE_RELIABLE));
}

TEST_F(TCPTransportTest, GettersOfAnUnconnectedTransportReturnDefaults)
{
    TCPTransport transport;
    EXPECT_EQ(transport.getPeerPort(), 0);
    EXPECT_EQ(transport.getPeerAddress(), tavo::HostAddress());
    EXPECT_EQ(transport.getLocalPort(), 0);
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
        threads.emplace_back([&, s] {
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
        for (int i = 1; i < 700; ++i)
        {
            ASSERT_EQ(buffer[i], mark) << "message " << m << " byte " << i;
        }
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

TEST_F(TCPTransportTest, GarbageFromAPeerEndsInMessagesOrAFailureNeverAHang)
{
    std::mt19937 random(1234);
    for (int round = 0; round < 20; ++round)
    {
        tavo::TcpSocket raw;
        auto transport = acceptRawPeer(raw);
        Bytes garbage(1 + random() % 4000);
        for (auto& byte : garbage)
        {
            byte = static_cast<uint8>(random());
        }
        write(raw, garbage);
        raw.close();
        uint8 buffer[1492];
        int result = 1;
        int messages = 0;
        while (result > 0 && messages < 4000)
        {
            result = transport->receiveData(buffer, sizeof(buffer));
            ++messages;
        }
        EXPECT_LE(result, 0) << "round " << round;
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
