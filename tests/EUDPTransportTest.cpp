#include "support/Waiting.h"
#include "support/WeftFixture.h"

#include <weft/EUDPTransport.h>

#include <tavo/Timer.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

// Reaches the state of a transport that the wire does not show.
class EUDPTransportTestPeer
{
public:
    static EConnMode sendMode(const EUDPTransport& t) { return t.m_sendMode; }
    static EConnMode receiveMode(const EUDPTransport& t) { return t.m_receiveMode; }
    static int window(const EUDPTransport& t) { return t.m_windowSize; }
    static std::vector<bool> allowed(const EUDPTransport& t)
    {
        return {t.m_allowSendRealtime, t.m_allowSendReliable, t.m_allowReceiveRealtime,
                t.m_allowReceiveReliable};
    }
    // As if the transport had already sent that many packets.
    static void numberFrom(EUDPTransport& t, int seq)
    {
        tavo::MutexLock lock(t.m_sendMutex);
        t.m_nextSendSeq = ModuloValue(seq);
    }
};

namespace
{

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
typedef std::vector<uint8> Bytes;
typedef EUDPTransportTestPeer Peer;

const tavo::HostAddress LOOPBACK("127.0.0.1");

Bytes packet(const std::string& command, uint arg, const std::string& payload = "")
{
    Bytes bytes(8 + payload.size());
    bytes[0] = 1;
    for (std::size_t i = 0; i < 3; ++i)
    {
        bytes[1 + i] = static_cast<uint8>(command[i]);
        bytes[4 + i] = static_cast<uint8>(arg >> (8 * i));
    }
    bytes[7] = static_cast<uint8>(arg >> 24);
    std::copy(payload.begin(), payload.end(), bytes.begin() + 8);
    return bytes;
}

uint modes(char b0, char b1, char b2, char b3)
{
    return static_cast<uint8>(b0) | static_cast<uint8>(b1) << 8 | static_cast<uint8>(b2) << 16 |
           static_cast<uint>(static_cast<uint8>(b3)) << 24;
}

struct Datagram
{
    Bytes bytes;
    uint16 from = 0;
    std::string command() const
    {
        return bytes.size() >= 4 ? std::string(bytes.begin() + 1, bytes.begin() + 4) : "";
    }
    uint arg() const
    {
        return bytes.size() >= 8
                   ? bytes[4] | bytes[5] << 8 | bytes[6] << 16 | static_cast<uint>(bytes[7]) << 24
                   : 0;
    }
    bool isKeepAlive() const { return bytes.size() == 8 && command() == "CMD"; }
};

// A plain UDP socket on loopback through which a test plays the peer.
class RawPeer
{
public:
    RawPeer() : m_fd(::socket(AF_INET, SOCK_DGRAM, 0))
    {
        const sockaddr_in local = address(0);
        EXPECT_EQ(::bind(m_fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)), 0);
    }
    ~RawPeer() { ::close(m_fd); }

    uint16 port() const
    {
        sockaddr_in local{};
        socklen_t length = sizeof(local);
        ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&local), &length);
        return ntohs(local.sin_port);
    }

    void send(uint16 port, const Bytes& bytes)
    {
        const sockaddr_in target = address(port);
        ::sendto(m_fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&target),
                 sizeof(target));
    }

    // The next datagram; an empty one when none comes in time.
    Datagram receive(std::chrono::milliseconds timeout = 10s)
    {
        pollfd wait{m_fd, POLLIN, 0};
        Datagram datagram;
        if (::poll(&wait, 1, static_cast<int>(timeout.count())) == 1)
        {
            Bytes buffer(2000);
            sockaddr_in source{};
            socklen_t length = sizeof(source);
            const ssize_t n = ::recvfrom(m_fd, buffer.data(), buffer.size(), 0,
                                         reinterpret_cast<sockaddr*>(&source), &length);
            buffer.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
            datagram.bytes = buffer;
            datagram.from = ntohs(source.sin_port);
        }
        return datagram;
    }

    // The next datagram that is not one of the transport's idle keep-alives.
    Datagram answer()
    {
        Datagram datagram;
        do
        {
            datagram = receive();
        } while (datagram.isKeepAlive());
        return datagram;
    }

    // Nothing else reached this socket: a marker sent now is the next datagram.
    void expectNothingMore()
    {
        RawPeer other;
        other.send(port(), Bytes{'m'});
        EXPECT_EQ(receive().bytes, Bytes{'m'});
    }

private:
    static sockaddr_in address(uint16 port)
    {
        sockaddr_in result{};
        result.sin_family = AF_INET;
        result.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        result.sin_port = htons(port);
        return result;
    }

    int m_fd;
};

std::string receiveText(IWEFTTransport& transport, uint size = 1492)
{
    Bytes buffer(1492);
    const int n = transport.receiveData(buffer.data(), size);
    return n > 0 ? std::string(buffer.begin(), buffer.begin() + n) : "<" + std::to_string(n) + ">";
}

bool sendText(IWEFTTransport& transport, const std::string& text)
{
    return transport.sendData(reinterpret_cast<const uint8*>(text.data()),
                              static_cast<uint>(text.size()));
}

// Sends `count` distinct messages on one thread while this one receives them;
// returns how many arrived whole and in order.
int exchange(IWEFTTransport& from, IWEFTTransport& to, int count)
{
    std::thread sender(
        [&]
        {
            for (int i = 0; i < count; ++i)
            {
                sendText(from,
                         std::to_string(i) + std::string(static_cast<std::size_t>(i % 50), 'x'));
            }
        });
    int good = 0;
    for (int i = 0; i < count; ++i)
    {
        good += receiveText(to) == std::to_string(i) + std::string(i % 50, 'x') ? 1 : 0;
    }
    sender.join();
    return good;
}

int threadCount()
{
    int count = 0;
    DIR* tasks = ::opendir("/proc/self/task");
    while (const dirent* entry = ::readdir(tasks))
    {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    ::closedir(tasks);
    return count;
}

class EUDPTransportTest : public WeftFixture
{
protected:
    void SetUp() override
    {
        WeftFixture::SetUp();
        m_listener = std::make_unique<EUDPTransport>();
        ASSERT_TRUE(m_listener->listen(LOOPBACK, 0));
        m_listenPort = m_listener->getLocalPort();
    }

    void TearDown() override
    {
        m_listener.reset();
        WeftFixture::TearDown();
    }

    // The raw peer connects with CON `first`; the accepted transport must
    // answer ACK `first` from a port of its own, kept in m_serverPort.
    std::unique_ptr<EUDPTransport> acceptRaw(RawPeer& raw, uint first = 0)
    {
        raw.send(m_listenPort, packet("CON", first));
        std::unique_ptr<EUDPTransport> server(static_cast<EUDPTransport*>(m_listener->accept()));
        const Datagram ack = raw.receive();
        EXPECT_EQ(ack.bytes, packet("ACK", first));
        EXPECT_NE(ack.from, m_listenPort);
        EXPECT_EQ(ack.from, server->getLocalPort());
        m_serverPort = ack.from;
        return server;
    }

    std::unique_ptr<EUDPTransport> acceptWhileConnecting(EUDPTransport& client)
    {
        std::unique_ptr<EUDPTransport> server;
        std::thread acceptor([&]
                             { server.reset(static_cast<EUDPTransport*>(m_listener->accept())); });
        const bool connected = client.connect(LOOPBACK, m_listenPort);
        acceptor.join();
        EXPECT_TRUE(connected);
        return server;
    }

    // Raw peer asks for reliable sending; the transport agrees.
    void makeReliableSender(RawPeer& raw)
    {
        raw.send(m_serverPort, packet("MOD", modes('R', 'D', 'D', 'D')));
        EXPECT_EQ(raw.answer().bytes, packet("MAK", modes('R', 'R', 'D', 'T')));
    }

    // Random datagrams of 1 to 1500 bytes that no check lets through (version
    // byte wrong, or right with letters that name no command, or cut short),
    // ten at a time so that the socket queue never overflows; true once each
    // was refused with the line `dropped`.
    bool sendGarbage(RawPeer& raw, uint16 port, const std::string& dropped, int count)
    {
        std::mt19937 random(static_cast<unsigned>(count));
        bool refused = true;
        for (int i = 0; i < count && refused; ++i)
        {
            Bytes garbage(1 + random() % 1500);
            for (uint8& byte : garbage)
            {
                byte = static_cast<uint8>(random());
            }
            garbage[0] = i % 2 == 0 ? 1 : garbage[0] == 1 ? 0 : garbage[0];
            if (garbage.size() >= 2)
            {
                garbage[1] = 'z'; // no command name starts with it
            }
            raw.send(port, garbage);
            refused = i % 10 != 9 || log().waitFor(dropped, 10s, static_cast<std::size_t>(i + 1));
        }
        return refused;
    }

    static std::string line(uint16 port, const std::string& text)
    {
        return "WEFT/EUDP[" + std::to_string(port) + "]: " + text;
    }

    std::unique_ptr<EUDPTransport> m_listener;
    uint16 m_listenPort = 0;
    uint16 m_serverPort = 0;
};

TEST_F(EUDPTransportTest, ConnectTakesTheAckSourceAsPeerAndNumbersDataFromConPlusOne)
{
    RawPeer listening;
    RawPeer accepted;
    EUDPTransport client;
    auto connected =
        std::async(std::launch::async, [&] { return client.connect(LOOPBACK, listening.port()); });
    const Datagram con = listening.receive();
    EXPECT_EQ(con.bytes, packet("CON", 0));
    accepted.send(con.from, packet("ACK", 0));
    ASSERT_TRUE(connected.get());
    EXPECT_EQ(client.getLocalPort(), con.from);
    EXPECT_EQ(client.getPeerPort(), accepted.port());

    ASSERT_TRUE(sendText(client, "hi"));
    EXPECT_EQ(accepted.receive().bytes, packet("CMD", 1, "hi"));
    accepted.send(con.from, packet("CMD", 0, "yo"));
    EXPECT_EQ(receiveText(client), "yo");

    client.disconnect();
    client.disconnect();
    EXPECT_EQ(accepted.answer().bytes, packet("DIS", 2));
    accepted.expectNothingMore();
    EXPECT_EQ(receiveText(client), "<0>");
    listening.expectNothingMore();
}

TEST_F(EUDPTransportTest, AcceptAnswersEachConFromANewPortAndExpectsItsNumberPlusOne)
{
    RawPeer raw;
    auto server = acceptRaw(raw, 7);
    EXPECT_EQ(server->getPeerPort(), raw.port());
    raw.send(m_serverPort, packet("CMD", 8, "a"));
    EXPECT_EQ(receiveText(*server), "a");
    const uint16 firstPort = m_serverPort;
    auto second = acceptRaw(raw, 7);
    EXPECT_NE(m_serverPort, firstPort);
}

TEST_F(EUDPTransportTest, WrongAckFailsConnectAndTheNextConnectStartsAfresh)
{
    RawPeer listening;
    EUDPTransport client;
    auto connected =
        std::async(std::launch::async, [&] { return client.connect(LOOPBACK, listening.port()); });
    const Datagram con = listening.receive();
    listening.send(con.from, packet("ACK", 5));
    ASSERT_FALSE(connected.get());
    const std::string failed =
        line(con.from,
             "failed to connect to 127.0.0.1:" + std::to_string(listening.port()) + " (wrong ACK)");
    EXPECT_EQ(log().levelOf(failed), 2);

    // The receiver of the failed attempt ends; a new socket carries the new CON.
    auto server = acceptWhileConnecting(client);
    ASSERT_NE(server, nullptr);
    EXPECT_NE(client.getLocalPort(), con.from);
    ASSERT_TRUE(sendText(client, "again"));
    EXPECT_EQ(receiveText(*server), "again");
}

TEST_F(EUDPTransportTest, ConnectToASilentPortFailsAfterFiveSecondsAndTheTransportStillGoesAway)
{
    tavo::Timer().start(1000000); // the process's timer thread, which outlives transports
    const int baseline = threadCount();
    RawPeer silent;
    auto client = std::make_unique<EUDPTransport>();
    const auto started = Clock::now();
    EXPECT_FALSE(client->connect(LOOPBACK, silent.port()));
    EXPECT_GE(Clock::now() - started, 4900ms);
    const Datagram con = silent.receive();
    EXPECT_EQ(con.bytes, packet("CON", 0));
    const std::string failed = line(
        con.from, "failed to connect to 127.0.0.1:" + std::to_string(silent.port()) + " (timeout)");
    EXPECT_EQ(log().levelOf(failed), 2);
    EXPECT_EQ(client->getPeerPort(), 0);
    client.reset(); // its receiver still waits for a late ACK
    EXPECT_TRUE(eventually([&] { return threadCount() == baseline; }, 5s)) << threadCount();
}

TEST_F(EUDPTransportTest, RealtimeReceiverSkipsGapsAndAnswersOnlyDuplicatesAndKeepAlives)
{
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    raw.send(m_serverPort, packet("CMD", 1, "a"));
    raw.send(m_serverPort, packet("CMD", 4, "b"));         // 2 and 3 are skipped for good
    raw.send(m_serverPort, packet("CMD", 65535 + 2, "c")); // number 2: a duplicate now
    raw.send(m_serverPort, packet("CMD", 5));              // the peer's keep-alive
    EXPECT_EQ(raw.answer().bytes, packet("ACK", 65537));   // the argument as received
    EXPECT_EQ(raw.answer().bytes, packet("NOP", 0));
    EXPECT_EQ(receiveText(*server), "a");
    EXPECT_EQ(receiveText(*server), "b");
    EXPECT_EQ(log().levelOf(line(raw.port(), "received a duplicate packet - ACK and ignore")), 5);
}

TEST_F(EUDPTransportTest, ReliableReceiverAcksInOrderNaksGapsAndKeepsAPacketForALargerBuffer)
{
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    raw.send(m_serverPort, packet("MOD", modes('D', 'D', 'R', 'D')));
    EXPECT_EQ(raw.answer().bytes, packet("MAK", modes('D', 'T', 'R', 'R')));
    const std::vector<std::pair<Bytes, Bytes>> exchanges = {
        {packet("CMD", 1, "a"), packet("ACK", 1)},  {packet("CMD", 4, "x"), packet("NAK", 2)},
        {packet("CMD", 2, "bb"), packet("ACK", 2)}, {packet("CMD", 1, "a"), packet("ACK", 1)},
        {packet("CMD", 3), packet("ACK", 3)}, // a keep-alive: its ACK, no NOP
    };
    for (const auto& [sent, answer] : exchanges)
    {
        raw.send(m_serverPort, sent);
        EXPECT_EQ(raw.answer().bytes, answer);
    }
    EXPECT_EQ(log().levelOf(line(raw.port(), "2 packets lost")), 3);

    // Well before the dead-peer timer could add counts of its own.
    const auto started = Clock::now();
    EXPECT_EQ(receiveText(*server, 0), "<-1>");
    EXPECT_EQ(log().levelOf(line(raw.port(), "receive failed, provided buffer too small")), 2);
    EXPECT_EQ(receiveText(*server, 1), "a");
    EXPECT_EQ(receiveText(*server, 1), "<-1>");
    EXPECT_EQ(receiveText(*server, 2), "bb");
    EXPECT_LT(Clock::now() - started, 5s) << "a retry waited for a later packet";
}

TEST_F(EUDPTransportTest, FullReceiveRingDropsWithoutAnswerAndKeepsExpectingThatPacket)
{
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    auto probe = [&] { // every datagram before it has been handled
        raw.send(m_serverPort, packet("WIN", 10));
        return raw.answer().bytes;
    };
    for (uint seq = 1; seq <= 999; ++seq)
    {
        raw.send(m_serverPort, packet("CMD", seq, std::to_string(seq)));
        if (seq % 100 == 0)
        {
            ASSERT_EQ(probe(), packet("WAK", 10)); // a pace the socket queue can hold
        }
    }
    raw.send(m_serverPort, packet("CMD", 1000, "1000"));
    EXPECT_EQ(probe(), packet("WAK", 10)); // no answer to the dropped packet
    EXPECT_EQ(log().levelOf(line(raw.port(), "receive buffer is full (dropping packet)")), 5);
    EXPECT_EQ(receiveText(*server), "1");
    raw.send(m_serverPort, packet("CMD", 1000, "1000")); // still expected: no duplicate ACK
    EXPECT_EQ(probe(), packet("WAK", 10));
    for (int seq = 2; seq <= 1000; ++seq)
    {
        ASSERT_EQ(receiveText(*server), std::to_string(seq));
    }
}

TEST_F(EUDPTransportTest, ReliableSenderKeepsItsWindowAndGoesBackOnNakAndAfterSilence)
{
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    makeReliableSender(raw);
    // A window of 0 holds everything back until all 15 packets are queued.
    raw.send(m_serverPort, packet("WIN", 0));
    ASSERT_EQ(raw.answer().bytes, packet("WAK", 0));
    for (int i = 0; i < 15; ++i)
    {
        ASSERT_TRUE(sendText(*server, std::string(1, static_cast<char>('a' + i))));
    }
    raw.send(m_serverPort, packet("WIN", 10));
    auto expectRun = [&](uint from, uint to)
    {
        for (uint seq = from; seq <= to; ++seq)
        {
            Datagram d = raw.receive();
            d = d.command() == "WAK" ? raw.receive() : d;
            ASSERT_EQ(d.bytes, packet("CMD", seq, std::string(1, 'a' + seq)));
        }
    };
    expectRun(0, 9); // one window
    raw.send(m_serverPort, packet("NAK", 3));
    expectRun(3, 12); // again from 3, one window
    const auto windowSent = Clock::now();
    expectRun(0, 0); // nothing acknowledged in 500 ms: back to the oldest
    EXPECT_GE(Clock::now() - windowSent, 450ms);
    expectRun(1, 9);

    raw.send(m_serverPort, packet("ACK", 9));
    raw.send(m_serverPort, packet("NAK", 5));
    EXPECT_TRUE(log().waitFor(
        line(raw.port(), "Received a NAK for a packet that had already been ACKed (ignoring)"),
        10s));
    raw.send(m_serverPort, packet("ACK", 14));
}

TEST_F(EUDPTransportTest, SwitchToReliableAfterALongRealtimePhaseSendsAtOnce)
{
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    // More than half the number space beyond both reliable counters.
    Peer::numberFrom(*server, 40000);
    makeReliableSender(raw);
    ASSERT_TRUE(sendText(*server, "x"));
    EXPECT_EQ(raw.answer().bytes, packet("CMD", 40000, "x"));
}

TEST_F(EUDPTransportTest, FullSendRingBlocksUntilAnAckAndClosingWakesBlockedCallers)
{
    for (const bool peerCloses : {false, true})
    {
        RawPeer raw;
        auto server = acceptRaw(raw, 0);
        makeReliableSender(raw);
        for (int i = 0; i < 999; ++i)
        {
            ASSERT_TRUE(sendText(*server, "q"));
        }
        auto blocked = std::async(std::launch::async, [&] { return sendText(*server, "1000"); });
        EXPECT_EQ(blocked.wait_for(100ms), std::future_status::timeout);
        raw.send(m_serverPort, packet("ACK", 0));
        EXPECT_TRUE(blocked.get());

        blocked = std::async(std::launch::async, [&] { return sendText(*server, "1001"); });
        auto receiving = std::async(std::launch::async, [&] { return receiveText(*server); });
        if (peerCloses)
        {
            raw.send(m_serverPort, packet("DIS", 0));
        }
        else
        {
            server->disconnect();
        }
        ASSERT_EQ(blocked.wait_for(10s), std::future_status::ready);
        EXPECT_FALSE(blocked.get());
        EXPECT_EQ(receiving.get(), "<0>");
        EXPECT_EQ(receiveText(*server), "<0>"); // and at once on every later call
        EXPECT_EQ(log().levelOf(line(raw.port(), "trying to send, but connection closed")), 5);
    }
}

TEST_F(EUDPTransportTest, DeadPeerWakesASendBlockedOnAFullRingWithoutBlockingTheTimerThread)
{
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    makeReliableSender(raw);
    for (int i = 0; i < 999; ++i)
    {
        ASSERT_TRUE(sendText(*server, "q"));
    }
    // The keep-alive finds no room and must not wait for it on the timer thread.
    auto blocked = std::async(std::launch::async, [&] { return sendText(*server, "stuck"); });
    auto receiving = std::async(std::launch::async, [&] { return receiveText(*server); });
    ASSERT_EQ(blocked.wait_for(30s), std::future_status::ready);
    EXPECT_FALSE(blocked.get());
    EXPECT_EQ(receiving.get(), "<0>");
}

TEST_F(EUDPTransportTest, DeadPeerClosesTenSecondsAfterTheKeepAliveThatWentUnanswered)
{
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    // Each answer restarts the idle timer and stops the dead-peer timer.
    for (uint seq = 0; seq < 3; ++seq)
    {
        ASSERT_EQ(raw.receive().bytes, packet("CMD", seq));
        raw.send(m_serverPort, packet("NOP", 0));
    }
    ASSERT_EQ(raw.receive().bytes, packet("CMD", 3));
    const auto unanswered = Clock::now();
    EXPECT_EQ(receiveText(*server), "<0>");
    EXPECT_GE(Clock::now() - unanswered, 9500ms);
    EXPECT_LE(Clock::now() - unanswered, 20s);
    EXPECT_FALSE(sendText(*server, "late"));
    raw.expectNothingMore(); // no DIS, no further keep-alive
}

TEST_F(EUDPTransportTest, ModeAndWindowRequestsAreAppliedAnsweredOrRefused)
{
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    raw.send(m_serverPort, packet("WIN", 0));
    EXPECT_EQ(raw.answer().bytes, packet("WAK", 0));
    EXPECT_EQ(Peer::window(*server), 0);
    raw.send(m_serverPort, packet("WIN", 3000000000u));
    EXPECT_EQ(raw.answer().bytes, packet("WAK", 3000000000u));
    EXPECT_LT(Peer::window(*server), 0);

    // What each request gets back: a refused one gets nothing before the WAK of a probe.
    auto answersTo = [&](uint request)
    {
        raw.send(m_serverPort, packet("MOD", request));
        raw.send(m_serverPort, packet("WIN", 10));
        std::vector<Bytes> answers;
        for (Datagram d = raw.answer(); d.command() != "WAK" && !d.bytes.empty(); d = raw.answer())
        {
            answers.push_back(d.bytes);
        }
        return answers;
    };
    const std::string refused = line(raw.port(), "unknown mode request (ignoring)");
    server->allowSendMode(true, false);
    EXPECT_TRUE(answersTo(modes('R', 'D', 'D', 'D')).empty());
    EXPECT_EQ(log().count(refused), 1u);
    EXPECT_EQ(log().levelOf(refused), 3);
    EXPECT_EQ(answersTo(modes('T', 'D', 'R', 'D')),
              std::vector<Bytes>{packet("MAK", modes('T', 'T', 'R', 'R'))});
    server->allowSendMode(true, true);
    // The send half is applied even though the receive half is refused.
    EXPECT_TRUE(answersTo(modes('R', 'D', 'X', 'D')).empty());
    EXPECT_EQ(Peer::sendMode(*server), CONN_MODE_RELIABLE);
    EXPECT_TRUE(answersTo(modes('Q', 'D', 'D', 'D')).empty());
    EXPECT_EQ(log().count(refused), 3u);
    EXPECT_EQ(answersTo(modes('D', 'D', 'D', 'D')),
              std::vector<Bytes>{packet("MAK", modes('D', 'R', 'D', 'R'))});
}

TEST_F(EUDPTransportTest, RequestsIgnoreStaleAnswersAndReportAnswersThatDisagree)
{
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    raw.send(m_serverPort, packet("WAK", 99)); // an answer nobody waits for
    raw.send(m_serverPort, packet("MAK", modes('R', 'R', 'D', 'T')));
    raw.send(m_serverPort, packet("WIN", 10));
    ASSERT_EQ(raw.answer().bytes, packet("WAK", 10)); // both stale answers are in

    auto window = std::async(std::launch::async, [&] { return server->setWindowSize(25); });
    EXPECT_EQ(raw.answer().bytes, packet("WIN", 25));
    raw.send(m_serverPort, packet("WAK", 30));
    EXPECT_FALSE(window.get());
    EXPECT_EQ(log().levelOf(line(raw.port(), "failed to set window size (tried 25, got 30)")), 2);

    auto mode =
        std::async(std::launch::async, [&] { return server->setReceiveMode(CONN_MODE_RELIABLE); });
    EXPECT_EQ(raw.answer().bytes, packet("MOD", modes('D', 'D', 'R', 'D')));
    raw.send(m_serverPort, packet("MAK", modes('D', 'T', 'R', 'T')));
    EXPECT_FALSE(mode.get());
    EXPECT_EQ(log().levelOf(line(raw.port(), "failed to set receive mode (peer refused)")), 3);
    EXPECT_EQ(Peer::sendMode(*server), CONN_MODE_REALTIME);
}

TEST_F(EUDPTransportTest, HostileDatagramsAtTheListeningPortAreLoggedAndAcceptGoesOn)
{
    RawPeer raw;
    std::unique_ptr<EUDPTransport> server;
    std::thread acceptor([&] { server.reset(static_cast<EUDPTransport*>(m_listener->accept())); });
    const std::string discarded = "WEFT/EUDP[0]: discarding invalid packet";
    EXPECT_TRUE(sendGarbage(raw, m_listenPort, discarded, 100));
    raw.send(m_listenPort, packet("CMD", 1, "x"));
    raw.send(m_listenPort, packet("ACK", 0));
    raw.send(m_listenPort, packet("CON", 0));
    acceptor.join();
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(raw.receive().bytes, packet("ACK", 0));
    EXPECT_EQ(log().count(discarded), 100u);
    EXPECT_EQ(log().levelOf(discarded), 3);
    const std::string nonCon =
        "WEFT/EUDP[0]: received a non-CON packet without a connection (ignoring)";
    EXPECT_EQ(log().count(nonCon), 2u);
    EXPECT_EQ(log().levelOf(nonCon), 3);
}

TEST_F(EUDPTransportTest, HostileDatagramsAtAConnectedTransportAreDroppedAndItKeepsWorking)
{
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    const std::string dropped = line(raw.port(), "dropping invalid packet");
    ASSERT_TRUE(sendGarbage(raw, m_serverPort, dropped, 200));
    EXPECT_EQ(log().levelOf(dropped), 3);
    raw.send(m_serverPort, packet("CON", 0));
    raw.send(m_serverPort, packet("WIN", 10));
    EXPECT_EQ(raw.answer().bytes, packet("WAK", 10));
    const std::string unexpected = line(raw.port(), "unknown/unexpected command (ignoring)");
    EXPECT_EQ(log().count(unexpected), 1u);
    EXPECT_EQ(log().levelOf(unexpected), 3);
    raw.send(m_serverPort, packet("CMD", 1, "still here"));
    EXPECT_EQ(receiveText(*server), "still here");
}

TEST_F(EUDPTransportTest, DestroyingATransportInAnyStateEndsItsThreadsAndSendsNothing)
{
    tavo::Timer().start(1000000); // the process's timer thread, which outlives transports
    const int baseline = threadCount();
    {
        EUDPTransport neverConnected;
    }
    auto listening = std::make_unique<EUDPTransport>();
    ASSERT_TRUE(listening->listen(LOOPBACK, 0));
    IWEFTTransport* accepted = listening.get();
    std::thread acceptor([&] { accepted = listening->accept(); });
    RawPeer raw;
    raw.send(listening->getLocalPort(), Bytes{7}); // proves accept is waiting
    ASSERT_TRUE(log().waitFor("WEFT/EUDP[0]: discarding invalid packet", 10s));
    listening.reset();
    acceptor.join();
    EXPECT_EQ(accepted, nullptr);

    auto connected = acceptRaw(raw, 0);
    connected.reset();
    raw.expectNothingMore();
    auto closed = acceptRaw(raw, 0);
    closed->disconnect();
    EXPECT_EQ(raw.answer().command(), "DIS");
    closed.reset();
    raw.expectNothingMore();
    EUDPTransport client;
    auto server = acceptWhileConnecting(client);
    server.reset();
    EXPECT_TRUE(eventually([&] { return threadCount() == baseline + 2; }, 5s)) << threadCount();
}

TEST_F(EUDPTransportTest, TwoTransportsNegotiateModesAndExchangeAcrossTheSequenceWrap)
{
    EUDPTransport client;
    // About to wrap: the reliable phase crosses from 65534 to 0.
    Peer::numberFrom(client, 65400);
    auto server = acceptWhileConnecting(client);
    for (int i = 0; i < 50; ++i) // real-time, in lock-step so that nothing overflows
    {
        ASSERT_TRUE(sendText(client, "c" + std::to_string(i)));
        ASSERT_EQ(receiveText(*server), "c" + std::to_string(i));
        ASSERT_TRUE(sendText(*server, "s" + std::to_string(i)));
        ASSERT_EQ(receiveText(client), "s" + std::to_string(i));
    }

    ASSERT_TRUE(client.setSendMode(CONN_MODE_RELIABLE));
    EXPECT_EQ(Peer::sendMode(*server), CONN_MODE_RELIABLE);
    EXPECT_EQ(Peer::receiveMode(client), CONN_MODE_RELIABLE);
    EXPECT_EQ(Peer::sendMode(client), CONN_MODE_REALTIME);
    EXPECT_EQ(Peer::receiveMode(*server), CONN_MODE_REALTIME);
    ASSERT_TRUE(client.setReceiveMode(CONN_MODE_RELIABLE));
    EXPECT_EQ(Peer::sendMode(client), CONN_MODE_RELIABLE);
    EXPECT_EQ(Peer::receiveMode(*server), CONN_MODE_RELIABLE);
    ASSERT_TRUE(server->setSendMode(CONN_MODE_DONT_CARE));
    EXPECT_EQ(Peer::receiveMode(*server), CONN_MODE_RELIABLE);

    // Reliable both ways at once, more than a ring holds.
    int fromServer = 0;
    std::thread back([&] { fromServer = exchange(*server, client, 3000); });
    EXPECT_EQ(exchange(client, *server, 3000), 3000);
    back.join();
    EXPECT_EQ(fromServer, 3000);

    ASSERT_TRUE(client.setWindowSize(25));
    EXPECT_EQ(Peer::window(*server), 25);
    EXPECT_EQ(Peer::window(client), 10);
    client.allowReceiveMode(false, false);
    const std::string neither =
        line(client.getLocalPort(), "allowing neither realtime nor reliable mode");
    EXPECT_EQ(log().levelOf(neither), 2);
    EXPECT_EQ(Peer::allowed(client), std::vector<bool>(4, true));

    client.disconnect();
    EXPECT_EQ(receiveText(*server), "<0>");
}

TEST_F(EUDPTransportTest, RefusedAndUnsendableRequestsFailAfterTenSeconds)
{
    EUDPTransport client;
    auto server = acceptWhileConnecting(client);
    server->allowSendMode(true, false);
    EUDPTransport unconnected;
    auto window = std::async(std::launch::async, [&] { return unconnected.setWindowSize(25); });
    const auto started = Clock::now();
    EXPECT_FALSE(client.setSendMode(CONN_MODE_RELIABLE));
    EXPECT_GE(Clock::now() - started, 9900ms);
    EXPECT_FALSE(window.get());
    const uint16 port = client.getLocalPort(); // the server logs under its peer's port
    EXPECT_EQ(log().levelOf(line(port, "unknown mode request (ignoring)")), 3);
    EXPECT_EQ(log().levelOf(line(port, "failed to set send mode (timeout)")), 2);
    EXPECT_EQ(log().levelOf(line(0, "no remote port (internal error)")), 2);
    EXPECT_EQ(log().levelOf(line(0, "failed to set window size (timeout)")), 2);
    EXPECT_EQ(Peer::sendMode(*server), CONN_MODE_REALTIME);
}

} // namespace
