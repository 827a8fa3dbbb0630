#include "support/EUDPTransportTestPeer.h"
#include "support/EudpWire.h"
#include "support/RawUdpSocket.h"
#include "support/WeftFixture.h"

#include <weft/EUDPTransport.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
typedef std::vector<uint8> Bytes;
typedef EUDPTransportTestPeer Peer;

const tavo::HostAddress LOOPBACK("127.0.0.1");
const std::pair RELIABLE_BOTH(CONN_MODE_RELIABLE, CONN_MODE_RELIABLE);
const std::pair REALTIME_BOTH(CONN_MODE_REALTIME, CONN_MODE_REALTIME);

using eudpwire::modes;
using eudpwire::packet;

struct Datagram
{
    Bytes bytes;
    uint16 from = 0;
    bool isKeepAlive() const
    {
        return bytes.size() == 8 &&
               std::equal(bytes.begin(), bytes.begin() + 4, packet("CMD", 0).begin());
    }
};

// A plain UDP socket on loopback through which a test plays the peer.
class RawPeer : public RawUdpSocket
{
public:
    // The next datagram; an empty one when none comes in 10 s.
    Datagram receive()
    {
        pollfd wait{m_fd, POLLIN, 0};
        Datagram datagram{Bytes(2000)};
        sockaddr_in source{};
        socklen_t length = sizeof(source);
        const ssize_t n = ::poll(&wait, 1, 10000) == 1
                              ? ::recvfrom(m_fd, datagram.bytes.data(), 2000, 0,
                                           reinterpret_cast<sockaddr*>(&source), &length)
                              : 0;
        datagram.bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
        datagram.from = ntohs(source.sin_port);
        return datagram;
    }

    // The next datagram that is not one of the transport's idle keep-alives.
    Bytes answer()
    {
        Datagram datagram = receive();
        while (datagram.isKeepAlive())
        {
            datagram = receive();
        }
        return datagram.bytes;
    }

    // Nothing else reached this socket: a marker sent now is the next datagram.
    void expectNothingMore()
    {
        RawPeer().send(port(), Bytes{'m'});
        EXPECT_EQ(receive().bytes, Bytes{'m'});
    }
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

    // The raw peer connects with CON `first`; the accepted transport answers
    // ACK `first` from a port of its own, kept in m_serverPort.
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
        EXPECT_TRUE(client.connect(LOOPBACK, m_listenPort));
        acceptor.join();
        return server;
    }

    // The raw peer asks for reliable sending; the transport agrees.
    void makeReliableSender(RawPeer& raw)
    {
        raw.send(m_serverPort, packet("MOD", modes("RDDD")));
        EXPECT_EQ(raw.answer(), packet("MAK", modes("RRDT")));
    }

    // Fills the send ring of a reliable sender whose peer stays silent.
    static void fillSendRing(EUDPTransport& transport)
    {
        for (int i = 0; i < 999; ++i)
        {
            ASSERT_TRUE(sendText(transport, "q"));
        }
    }

    // One datagram for each check that refuses it: version, length, command.
    // (HostilePeerTest sends random ones of every size at every port.)
    static void sendInvalid(RawPeer& raw, uint16 port)
    {
        for (const Bytes& invalid : {Bytes{2, 'C', 'M', 'D', 1, 0, 0, 0},
                                     Bytes{1, 'C', 'M', 'D', 1, 0, 0}, packet("cmd", 1)})
        {
            raw.send(port, invalid);
        }
    }

    static std::string line(uint16 port, const std::string& text)
    {
        return "WEFT/EUDP[" + std::to_string(port) + "]: " + text;
    }

    std::unique_ptr<EUDPTransport> m_listener;
    uint16 m_listenPort = 0;
    uint16 m_serverPort = 0;
};

TEST_F(EUDPTransportTest, ConnectTakesTheAckSourceAsPeerNumbersDataFromConPlusOneAndSaysDisOnce)
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
    EXPECT_EQ(accepted.answer(), packet("DIS", 2));
    accepted.expectNothingMore();
    listening.expectNothingMore();
    EXPECT_EQ(receiveText(client), "<0>");
}

TEST_F(EUDPTransportTest, ListeningPortDropsHostileDatagramsAndAnswersEachConFromANewPort)
{
    RawPeer raw;
    std::unique_ptr<IWEFTTransport> first;
    std::thread acceptor([&] { first.reset(m_listener->accept()); });
    sendInvalid(raw, m_listenPort);
    raw.send(m_listenPort, packet("CMD", 1, "x"));
    raw.send(m_listenPort, packet("ACK", 0));
    raw.send(m_listenPort, packet("CON", 7));
    acceptor.join();
    const Datagram ack = raw.receive();
    EXPECT_EQ(ack.bytes, packet("ACK", 7));
    const std::string discarded = "WEFT/EUDP[0]: discarding invalid packet";
    EXPECT_EQ(log().count(discarded), 3u);
    EXPECT_EQ(log().levelOf(discarded), 3);
    const std::string nonCon =
        "WEFT/EUDP[0]: received a non-CON packet without a connection (ignoring)";
    EXPECT_EQ(log().count(nonCon), 2u);
    EXPECT_EQ(log().levelOf(nonCon), 3);

    raw.send(ack.from, packet("CMD", 7, "old")); // the CON's own number is behind
    EXPECT_EQ(raw.answer(), packet("ACK", 7));
    raw.send(ack.from, packet("CMD", 8, "a"));
    EXPECT_EQ(receiveText(*first), "a");
    auto second = acceptRaw(raw, 7);
    EXPECT_NE(m_serverPort, ack.from);
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
    EXPECT_EQ(log().levelOf(line(con.from, "failed to connect to 127.0.0.1:" +
                                               std::to_string(listening.port()) + " (wrong ACK)")),
              2);
    // The receiver of the failed attempt ends; a new socket sends the new CON.
    auto server = acceptWhileConnecting(client);
    EXPECT_NE(client.getLocalPort(), con.from);
    ASSERT_TRUE(sendText(client, "again"));
    EXPECT_EQ(receiveText(*server), "again");
}

TEST_F(EUDPTransportTest, ConnectToASilentPortFailsAfterFiveSecondsAndTheTransportStillGoesAway)
{
    RawPeer silent;
    auto client = std::make_unique<EUDPTransport>();
    const auto started = Clock::now();
    EXPECT_FALSE(client->connect(LOOPBACK, silent.port()));
    EXPECT_GE(Clock::now() - started, 4900ms);
    const uint16 port = silent.receive().from;
    EXPECT_EQ(log().levelOf(line(port, "failed to connect to 127.0.0.1:" +
                                           std::to_string(silent.port()) + " (timeout)")),
              2);
    EXPECT_EQ(client->getPeerPort(), 0);
    client.reset(); // ends the receiver that still waits for a late ACK
}

TEST_F(EUDPTransportTest, ReceiverSkipsGapsInRealtimeModeAndNaksThemInReliableMode)
{
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    const std::vector<std::pair<Bytes, Bytes>> exchanges = {
        {packet("CMD", 1, "a"), {}},
        {packet("CMD", 4, "b"), {}},                           // 2 and 3 are skipped for good
        {packet("CMD", 65535 + 2, "x"), packet("ACK", 65537)}, // a duplicate, arg as received
        {packet("CMD", 5), packet("NOP", 0)},                  // the peer's keep-alive
        {packet("MOD", modes("DDRD")), packet("MAK", modes("DTRR"))},
        {packet("CMD", 6, "c"), packet("ACK", 6)},
        {packet("CMD", 8, "x"), packet("NAK", 7)},
        {packet("CMD", 7, "dd"), packet("ACK", 7)},
        {packet("CMD", 6, "c"), packet("ACK", 6)},
        {packet("CMD", 8), packet("ACK", 8)}, // a keep-alive: its ACK answers it
    };
    for (const auto& [sent, expected] : exchanges)
    {
        raw.send(m_serverPort, sent);
        if (!expected.empty())
        {
            EXPECT_EQ(raw.answer(), expected);
        }
    }
    EXPECT_EQ(log().levelOf(line(raw.port(), "received a duplicate packet - ACK and ignore")), 5);
    EXPECT_EQ(log().levelOf(line(raw.port(), "1 packets lost")), 3);

    // Well before the dead-peer timer could add counts of its own.
    const auto started = Clock::now();
    EXPECT_EQ(receiveText(*server, 0), "<-1>");
    EXPECT_EQ(log().levelOf(line(raw.port(), "receive failed, provided buffer too small")), 2);
    for (const std::string expected : {"a", "b", "c"})
    {
        EXPECT_EQ(receiveText(*server, 1), expected);
    }
    EXPECT_EQ(receiveText(*server, 1), "<-1>");
    EXPECT_EQ(receiveText(*server, 2), "dd");
    EXPECT_LT(Clock::now() - started, 5s) << "a retry waited for a later packet";
}

TEST_F(EUDPTransportTest, FullReceiveRingDropsWithoutAnswerAndKeepsExpectingThatPacket)
{
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    auto handled = [&] { // every datagram before the probe has been handled
        raw.send(m_serverPort, packet("WIN", 10));
        return raw.answer() == packet("WAK", 10);
    };
    for (uint seq = 1; seq <= 1000; ++seq)
    {
        raw.send(m_serverPort, packet("CMD", seq, std::to_string(seq)));
        ASSERT_TRUE(seq % 100 != 0 || handled()); // at a pace the socket queue can hold
    }
    EXPECT_EQ(log().levelOf(line(raw.port(), "receive buffer is full (dropping packet)")), 5);
    EXPECT_EQ(receiveText(*server), "1");
    raw.send(m_serverPort, packet("CMD", 1000, "1000")); // still expected: no duplicate ACK
    EXPECT_TRUE(handled());
    for (int seq = 2; seq <= 1000; ++seq)
    {
        ASSERT_EQ(receiveText(*server), std::to_string(seq));
    }
}

TEST_F(EUDPTransportTest, ReliableSenderKeepsItsWindowAndGoesBackOnNakAndAfterSilence)
{
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    // Numbers more than half the number space beyond the reliable counters, as
    // after a long real-time phase: the switch must not stall the sender.
    Peer::numberFrom(*server, 40000);
    makeReliableSender(raw);
    raw.send(m_serverPort, packet("WIN", 0)); // holds everything back until all is queued
    ASSERT_EQ(raw.answer(), packet("WAK", 0));
    for (uint i = 0; i < 15; ++i)
    {
        ASSERT_TRUE(sendText(*server, std::string(1, static_cast<char>('a' + i))));
    }
    raw.send(m_serverPort, packet("WIN", 10));
    auto expectRun = [&](uint from, uint to)
    {
        for (uint i = from; i <= to; ++i)
        {
            Bytes next = raw.receive().bytes;
            next = next == packet("WAK", 10) ? raw.receive().bytes : next;
            ASSERT_EQ(next, packet("CMD", 40000 + i, std::string(1, static_cast<char>('a' + i))));
        }
    };
    expectRun(0, 9); // one window
    raw.send(m_serverPort, packet("NAK", 40003));
    expectRun(3, 12); // again from the NAK's number, one window
    const auto windowSent = Clock::now();
    expectRun(0, 9); // nothing acknowledged for 500 ms: back to the oldest
    EXPECT_GE(Clock::now() - windowSent, 450ms);
    raw.send(m_serverPort, packet("ACK", 40009));
    raw.send(m_serverPort, packet("NAK", 40005));
    EXPECT_TRUE(log().waitFor(
        line(raw.port(), "Received a NAK for a packet that had already been ACKed (ignoring)"),
        10s));
}

TEST_F(EUDPTransportTest, FullSendRingBlocksUntilAnAckAndClosingWakesBlockedCallers)
{
    for (const bool peerCloses : {false, true})
    {
        RawPeer raw;
        auto server = acceptRaw(raw, 0);
        makeReliableSender(raw);
        fillSendRing(*server);
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
    fillSendRing(*server);
    // The keep-alive finds no room; waiting for it would stop every timer.
    auto blocked = std::async(std::launch::async, [&] { return sendText(*server, "stuck"); });
    EXPECT_FALSE(blocked.get());
    EXPECT_EQ(receiveText(*server), "<0>");
}

TEST_F(EUDPTransportTest, DeadPeerClosesTenSecondsAfterTheKeepAliveThatWentUnanswered)
{
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    for (uint seq = 0; seq < 3; ++seq) // each answer stops the dead-peer timer
    {
        ASSERT_EQ(raw.receive().bytes, packet("CMD", seq));
        raw.send(m_serverPort, packet("NOP", 0));
    }
    ASSERT_EQ(raw.receive().bytes, packet("CMD", 3));
    const auto unanswered = Clock::now();
    EXPECT_EQ(receiveText(*server), "<0>");
    EXPECT_GE(Clock::now() - unanswered, 9500ms);
    EXPECT_LE(Clock::now() - unanswered, 20s);
    raw.expectNothingMore(); // no DIS, no other keep-alive
}

TEST_F(EUDPTransportTest, ModeAndWindowRequestsAreAnsweredRefusedOrAskedWithoutStaleAnswers)
{
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    // A MOD's answers: a refused one gets nothing before the WAK of a probe.
    auto answersTo = [&](const char(&letters)[5])
    {
        raw.send(m_serverPort, packet("MOD", modes(letters)));
        raw.send(m_serverPort, packet("WIN", 3000000000u));
        const Bytes first = raw.answer();
        if (first == packet("WAK", 3000000000u))
        {
            return Bytes{};
        }
        EXPECT_EQ(raw.answer(), packet("WAK", 3000000000u));
        return first;
    };
    server->allowSendMode(true, false);
    EXPECT_EQ(answersTo("RDDD"), Bytes{});
    EXPECT_LT(Peer::window(*server), 0); // taken unchecked
    EXPECT_EQ(answersTo("TDRD"), packet("MAK", modes("TTRR")));
    server->allowSendMode(true, true);
    EXPECT_EQ(answersTo("RDXD"), Bytes{}); // the send half stays applied
    EXPECT_EQ(Peer::sendMode(*server), CONN_MODE_RELIABLE);
    EXPECT_EQ(answersTo("QDDD"), Bytes{});
    EXPECT_EQ(answersTo("DDDD"), packet("MAK", modes("DRDR")));
    const std::string refused = line(raw.port(), "unknown mode request (ignoring)");
    EXPECT_EQ(log().count(refused), 3u);
    EXPECT_EQ(log().levelOf(refused), 3);

    // Answers nobody waits for; a new request must not take them for its own.
    raw.send(m_serverPort, packet("WAK", 99));
    raw.send(m_serverPort, packet("MAK", modes("DTDT")));
    raw.send(m_serverPort, packet("WIN", 10));
    ASSERT_EQ(raw.answer(), packet("WAK", 10)); // both are in before the requests
    auto window = std::async(std::launch::async, [&] { return server->setWindowSize(25); });
    EXPECT_EQ(raw.answer(), packet("WIN", 25));
    raw.send(m_serverPort, packet("WAK", 30));
    EXPECT_FALSE(window.get());
    EXPECT_EQ(log().levelOf(line(raw.port(), "failed to set window size (tried 25, got 30)")), 2);
    auto mode =
        std::async(std::launch::async, [&] { return server->setReceiveMode(CONN_MODE_REALTIME); });
    EXPECT_EQ(raw.answer(), packet("MOD", modes("DDTD")));
    raw.send(m_serverPort, packet("MAK", modes("DTTR")));
    EXPECT_FALSE(mode.get());
    EXPECT_EQ(log().levelOf(line(raw.port(), "failed to set receive mode (peer refused)")), 3);
    EXPECT_EQ(Peer::sendMode(*server), CONN_MODE_RELIABLE);
}

TEST_F(EUDPTransportTest, HostileDatagramsAtAConnectedTransportAreDroppedAndItKeepsWorking)
{
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    sendInvalid(raw, m_serverPort);
    raw.send(m_serverPort, packet("CON", 0));
    raw.send(m_serverPort, packet("CMD", 1, "still here"));
    EXPECT_EQ(receiveText(*server), "still here");
    const std::string dropped = line(raw.port(), "dropping invalid packet");
    EXPECT_EQ(log().count(dropped), 3u);
    EXPECT_EQ(log().levelOf(dropped), 3);
    const std::string unexpected = line(raw.port(), "unknown/unexpected command (ignoring)");
    EXPECT_EQ(log().count(unexpected), 1u);
    EXPECT_EQ(log().levelOf(unexpected), 3);
}

TEST_F(EUDPTransportTest, DestroyingOrClosingATransportInAnyStateEndsItsWaitsAndSendsNothing)
{
    {
        EUDPTransport neverConnected;
    }
    RawPeer raw;
    for (const bool destroy : {true, false}) // a listener with accept waiting on another thread
    {
        auto listening = std::make_unique<EUDPTransport>();
        ASSERT_TRUE(listening->listen(LOOPBACK, 0));
        IWEFTTransport* accepted = listening.get();
        std::thread acceptor([&] { accepted = listening->accept(); });
        raw.send(listening->getLocalPort(), Bytes{7}); // proves accept is waiting
        EXPECT_TRUE(log().waitFor("WEFT/EUDP[0]: discarding invalid packet", 10s, destroy ? 1 : 2));
        destroy ? listening.reset() : listening->disconnect();
        acceptor.join();
        EXPECT_EQ(accepted, nullptr);
    }
    raw.expectNothingMore();
    auto connected = acceptRaw(raw, 0);
    connected.reset();
    raw.expectNothingMore();
    auto closed = acceptRaw(raw, 0);
    closed->disconnect();
    EXPECT_EQ(raw.answer(), packet("DIS", 0));
    closed.reset();
    raw.expectNothingMore();
}

TEST_F(EUDPTransportTest, TwoTransportsNegotiateModesAndWindowAndConnectAgainAfterClosing)
{
    EUDPTransport client;
    auto server = acceptWhileConnecting(client);
    for (int i = 0; i < 50; ++i) // real-time, in lock-step so that nothing overflows
    {
        ASSERT_TRUE(sendText(client, "c" + std::to_string(i)) && sendText(*server, "s"));
        ASSERT_EQ(receiveText(*server) + receiveText(client), "c" + std::to_string(i) + "s");
    }
    ASSERT_TRUE(client.setSendMode(CONN_MODE_RELIABLE));
    EXPECT_EQ(std::pair(Peer::sendMode(*server), Peer::receiveMode(client)), RELIABLE_BOTH);
    EXPECT_EQ(std::pair(Peer::sendMode(client), Peer::receiveMode(*server)), REALTIME_BOTH);
    ASSERT_TRUE(client.setReceiveMode(CONN_MODE_RELIABLE));
    EXPECT_EQ(std::pair(Peer::sendMode(client), Peer::receiveMode(*server)), RELIABLE_BOTH);
    ASSERT_TRUE(server->setSendMode(CONN_MODE_DONT_CARE));
    EXPECT_EQ(Peer::receiveMode(*server), CONN_MODE_RELIABLE);
    ASSERT_TRUE(sendText(client, "c") && sendText(*server, "s"));
    EXPECT_EQ(receiveText(*server) + receiveText(client), "cs");

    ASSERT_TRUE(client.setWindowSize(25));
    EXPECT_EQ(std::pair(Peer::window(*server), Peer::window(client)), std::pair(25, 10));
    client.allowReceiveMode(false, false);
    EXPECT_EQ(
        log().levelOf(line(client.getLocalPort(), "allowing neither realtime nor reliable mode")),
        2);
    EXPECT_TRUE(Peer::allowsAll(client));

    client.disconnect();
    EXPECT_EQ(receiveText(*server), "<0>");
    // A closed transport connects again from a new socket, as a new one would.
    const uint16 oldPort = client.getLocalPort();
    auto again = acceptWhileConnecting(client);
    EXPECT_NE(client.getLocalPort(), oldPort);
    EXPECT_EQ(Peer::sendMode(client), CONN_MODE_REALTIME);
    ASSERT_TRUE(sendText(client, "again"));
    EXPECT_EQ(receiveText(*again), "again");
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
