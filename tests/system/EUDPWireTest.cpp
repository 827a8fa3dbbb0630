// The EUDP transport over real sockets, with a plain UDP socket playing the
// peer: what only sockets and threads show (the handshake from a new port,
// the threads acting on what the protocol core decides, closing paths waking
// blocked callers). Every time-out is shortened.

#include "EUDPTimeouts.h"

#include "support/EUDPTransportTestPeer.h"
#include "support/EudpWire.h"
#include "support/RawUdpSocket.h"
#include "support/WeftFixture.h"

#include <weft/EUDPTransport.h>

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

const tavo::HostAddress LOOPBACK("127.0.0.1");

using eudpwire::Bytes, eudpwire::modes, eudpwire::packet;

// A plain UDP socket on loopback through which a test plays the peer.
struct RawPeer : RawUdpSocket
{
    // The next datagram that is not an idle keep-alive (a CMD without payload).
    Datagram answer()
    {
        return receiveFirst([](const Bytes& bytes)
                            { return bytes.size() != 8 || !eudpwire::is(bytes, "CMD"); });
    }

    // Nothing else reached this socket: a marker sent now is the next datagram.
    void expectNothingMore()
    {
        RawUdpSocket().send(port(), Bytes{'m'});
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

// The waits of connect and of requests shortened; keep-alives as usual, so
// that none takes a number in the middle of a test.
const EUDPTimeouts SHORT_WAITS{.connect = 400ms,
                               .connectRepeat = 40ms,
                               .negotiation = 600ms,
                               .negotiationRepeat = 100ms,
                               .retransmit = 100ms};

class EUDPTransportTest : public WeftFixture
{
protected:
    void SetUp() override
    {
        WeftFixture::SetUp();
        EUDPTimeouts::setStandard(SHORT_WAITS); // until WeftFixture puts its own back
        listenAgain();
    }

    // A listener that takes the standard time-outs as they are now.
    void listenAgain()
    {
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
        const auto ack = raw.receive();
        EXPECT_EQ(ack.bytes, packet("ACK", first));
        EXPECT_NE(ack.from, m_listenPort);
        EXPECT_EQ(ack.from, server->getLocalPort());
        m_serverPort = ack.from;
        return server;
    }

    // The transport logged `text` under `port` at `level`.
    void expectLine(uint16 port, const std::string& text, int level)
    {
        const std::string line = "WEFT/EUDP[" + std::to_string(port) + "]: " + text;
        EXPECT_TRUE(log().waitFor(line, 10s)) << line;
        EXPECT_EQ(log().levelOf(line), level) << line;
    }

    std::unique_ptr<EUDPTransport> m_listener;
    uint16 m_listenPort = 0, m_serverPort = 0;
};

TEST_F(EUDPTransportTest, ARepeatedConIsAnsweredFromTheSamePortAndANewOneMakesANewConnection)
{
    RawPeer raw;
    auto first = acceptRaw(raw, 7);
    // In use: a half-open one would be replaced by a new CON from this port.
    raw.send(m_serverPort, packet("CMD", 8, "a"));
    EXPECT_EQ(receiveText(*first), "a");
    // The ACK was late: the same CON again is answered from the same port
    // and makes no second connection.
    std::unique_ptr<IWEFTTransport> second;
    std::thread acceptor([&] { second.reset(m_listener->accept()); });
    raw.send(m_listenPort, packet("CON", 7));
    const auto repeated = raw.answer();
    EXPECT_EQ(repeated.bytes, packet("ACK", 7));
    EXPECT_EQ(repeated.from, m_serverPort);
    // A CON with another number is another connection, from a new port.
    raw.send(m_listenPort, packet("CON", 100));
    acceptor.join();
    const auto other = raw.receive();
    EXPECT_EQ(other.bytes, packet("ACK", 100));
    EXPECT_NE(other.from, m_serverPort);
}

// The client's side of the handshake, failing and succeeding, and what a
// connected client receives and sends at the end.
TEST_F(EUDPTransportTest, ConnectFailsOnAWrongAckSilenceOrDisconnectAndTheNextTakesTheAckSource)
{
    RawPeer listening;
    EUDPTransport client;
    const auto connecting = [&]
    {
        return std::async(std::launch::async,
                          [&] { return client.connect(LOOPBACK, listening.port()); });
    };
    auto connected = connecting();
    const uint16 first = listening.receive().from;
    // An answer to some other CON: the right one may still come, so the
    // connect waits out its time.
    listening.send(first, packet("ACK", 5));
    ASSERT_FALSE(connected.get());
    const std::string target = "127.0.0.1:" + std::to_string(listening.port());
    expectLine(first, "failed to connect to " + target + " (wrong ACK)", 2);
    listening.drain();

    // Nobody answers: the CON goes out again and again until the time is up.
    const auto started = Clock::now();
    EXPECT_FALSE(client.connect(LOOPBACK, listening.port()));
    EXPECT_GE(Clock::now() - started, SHORT_WAITS.connect);
    const uint16 second = listening.receive().from;
    EXPECT_NE(second, first); // a new socket
    expectLine(second, "failed to connect to " + target + " (timeout)", 2);
    int cons = 1;
    while (listening.receive(0).bytes == packet("CON", 0))
    {
        ++cons;
    }
    EXPECT_GE(cons, 3);
    EXPECT_EQ(client.getPeerPort(), 0);

    // A disconnect ends a connect that waits, at once.
    connected = connecting();
    listening.receive();
    client.disconnect();
    EXPECT_EQ(connected.wait_for(SHORT_WAITS.connect / 2), std::future_status::ready);
    EXPECT_FALSE(connected.get());

    // The next one starts afresh, and a lost CON is sent again.
    listening.drain();
    RawPeer accepted, duplicate; // duplicate: a server making a connection for every CON
    connected = connecting();
    const auto lost = listening.receive();
    const auto con = listening.receive();
    EXPECT_EQ(con.bytes, packet("CON", 0));
    EXPECT_EQ(con.bytes, lost.bytes);
    EXPECT_EQ(con.from, lost.from);
    accepted.send(con.from, packet("ACK", 0));
    ASSERT_TRUE(connected.get());
    EXPECT_EQ(client.getLocalPort(), con.from);
    EXPECT_EQ(client.getPeerPort(), accepted.port());
    // A sign of life at once, so the accepting side counts it connected.
    EXPECT_EQ(accepted.receive().bytes, packet("NOP", 0));
    duplicate.send(con.from, packet("ACK", 0));
    EXPECT_EQ(duplicate.receive().bytes, packet("DIS", 0));

    // Too small a buffer fails a receive and keeps the payload for the next
    // one, which gets it at once.
    accepted.send(con.from, packet("CMD", 0, "yo"));
    EXPECT_EQ(receiveText(client, 1), "<-1>");
    expectLine(con.from, "receive failed, provided buffer too small", 2);
    auto retry = std::async(std::launch::async, [&] { return receiveText(client, 2); });
    ASSERT_EQ(retry.wait_for(2s), std::future_status::ready);
    EXPECT_EQ(retry.get(), "yo");
    client.disconnect();
    client.disconnect();
    EXPECT_EQ(accepted.answer().bytes, packet("DIS", 1));
    accepted.expectNothingMore();
    EXPECT_EQ(receiveText(client), "<0>");
}

TEST_F(EUDPTransportTest, FullSendRingBlocksUntilAnAckAndClosingWakesBlockedCallers)
{
    for (const bool peerCloses : {false, true})
    {
        RawPeer raw;
        auto server = acceptRaw(raw, 0);
        // A reliable sender whose ring the silent peer lets fill.
        raw.send(m_serverPort, packet("MOD", modes("RDDD")));
        EXPECT_EQ(raw.answer().bytes, packet("MAK", modes("RRDT")));
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
        EXPECT_FALSE(blocked.get());
        EXPECT_EQ(receiving.get(), "<0>");
        EXPECT_EQ(receiveText(*server), "<0>"); // and at once on every later call
        expectLine(raw.port(), "trying to send, but connection closed", 5);
    }
}

TEST_F(EUDPTransportTest, ASilentPeerGetsAKeepAliveEachPeriodAndIsDeadAfterTheDeadPeerTime)
{
    EUDPTimeouts quick = SHORT_WAITS;
    quick.acceptedKeepAlive = 30ms;
    quick.deadPeer = 300ms;
    ScopedEUDPTimeouts scoped(quick);
    listenAgain();
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    // Each answer ends the silence (EUDPLivenessTest): one, then none.
    ASSERT_EQ(raw.receive().bytes, packet("CMD", 0));
    raw.send(m_serverPort, packet("NOP", 0));
    uint seq = 1;
    // Then silence: the keep-alives go on, one each period, until the end.
    ASSERT_EQ(raw.receive().bytes, packet("CMD", seq));
    const auto unanswered = Clock::now();
    auto closed = std::async(std::launch::async, [&] { return receiveText(*server); });
    uint repeats = 0;
    while (raw.receive(200).bytes == packet("CMD", seq + 1 + repeats))
    {
        ++repeats;
    }
    EXPECT_EQ(closed.get(), "<0>");
    EXPECT_GE(Clock::now() - unanswered, quick.deadPeer - 50ms);
    EXPECT_GE(repeats, 3u);
}

TEST_F(EUDPTransportTest, AnAckHeldForTheNextPacketLeavesAtItsTimeOrBeforeAnotherAnswer)
{
    EUDPTimeouts held = SHORT_WAITS;
    held.ackDelay = 300ms;
    ScopedEUDPTimeouts scoped(held);
    listenAgain();
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    raw.send(m_serverPort, packet("MOD", modes("DDRD")));
    raw.answer();
    // After a pause: at once. Soon after another: at its time, since no
    // third comes; after that pause at once again.
    for (uint seq : {1, 2, 3})
    {
        const auto sent = Clock::now();
        raw.send(m_serverPort, packet("CMD", seq, "x"));
        EXPECT_EQ(raw.answer().bytes, packet("ACK", seq));
        EXPECT_EQ(Clock::now() - sent >= 250ms, seq == 2) << seq;
    }
    raw.send(m_serverPort, packet("CMD", 4, "x"));
    raw.send(m_serverPort, packet("WIN", 40));
    EXPECT_EQ(raw.answer().bytes, packet("ACK", 4));
    EXPECT_EQ(raw.answer().bytes, packet("WAK", 40));
    for (int i = 0; i < 4; ++i)
    {
        EXPECT_EQ(receiveText(*server), "x");
    }
}

TEST_F(EUDPTransportTest, AFullReceiveRingLeavesDataInTheSocketForAWhileThenDropsItAndAnswersOn)
{
    EUDPTimeouts wait = SHORT_WAITS;
    wait.receiveRoomWait = 300ms;
    ScopedEUDPTimeouts scoped(wait);
    listenAgain();
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    // Nobody reads: the ring takes 999, the rest waits in the socket until
    // the reader makes room, and all of it arrives in order.
    uint seq = 1;
    for (; seq <= 1010; ++seq)
    {
        raw.send(m_serverPort, packet("CMD", seq, std::to_string(seq)));
    }
    for (uint i = 1; i < seq; ++i)
    {
        ASSERT_EQ(receiveText(*server), std::to_string(i));
    }
    // A reader away for longer than the wait: what then finds the ring full
    // is dropped, and a request behind it is answered without waiting again
    // for each burst.
    const uint first = seq;
    for (; seq < first + 1400; ++seq)
    {
        raw.send(m_serverPort, packet("CMD", seq, std::to_string(seq)));
    }
    raw.send(m_serverPort, packet("WIN", 40));
    EXPECT_EQ(
        raw.receiveFirst([](const Bytes& bytes) { return eudpwire::is(bytes, "WAK"); }, 1500).bytes,
        packet("WAK", 40));
    expectLine(raw.port(), "receive buffer is full (dropping packet)", 5);
    for (uint i = first; i < first + 999; ++i)
    {
        ASSERT_EQ(receiveText(*server), std::to_string(i));
    }
}

// The lines of the transport's threads that no other test here checks; those
// of the codecs and the connection are in unit/WeftLogTest.cpp. (How each
// request is answered is EUDPModesTest's.)
TEST_F(EUDPTransportTest, EachRefusalWritesItsLineAtItsLevel)
{
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    raw.send(m_serverPort, packet("WIN", 3000000000u));
    EXPECT_EQ(raw.answer().bytes, packet("WAK", 3000000000u));
    EXPECT_EQ(EUDPTransportTestPeer::window(*server), 999); // beyond the ring: the whole ring
    auto mode =
        std::async(std::launch::async, [&] { return server->setReceiveMode(CONN_MODE_REALTIME); });
    EXPECT_EQ(raw.answer().bytes, packet("MOD", modes("DDTD")));
    raw.send(m_serverPort, packet("MAK", modes("DTTR")));
    EXPECT_FALSE(mode.get());
    expectLine(raw.port(), "failed to set receive mode (peer refused)", 3);
    auto window = std::async(std::launch::async, [&] { return server->setWindowSize(40); });
    EXPECT_EQ(raw.answer().bytes, packet("WIN", 40));
    raw.send(m_serverPort, packet("WAK", 30));
    EXPECT_EQ(raw.answer().bytes, packet("WIN", 40)); // repeated: that was another size's
    EXPECT_FALSE(window.get());
    expectLine(raw.port(), "failed to set window size (tried 40, got 30)", 2);

    const std::tuple<std::vector<Bytes>, std::string, int> cases[] = {
        {{packet("cmd", 1)}, "dropping invalid packet", 3},
        {{packet("CON", 0)}, "unknown/unexpected command (ignoring)", 3},
        {{packet("CMD", 1, "a"), packet("CMD", 1, "a")},
         "received a duplicate packet - ACK and ignore",
         5},
        {{packet("MOD", modes("DDRD")), packet("CMD", 5, "x")}, "3 packets lost", 3},
    };
    for (const auto& [datagrams, text, level] : cases)
    {
        for (const Bytes& datagram : datagrams)
        {
            raw.send(m_serverPort, datagram);
        }
        expectLine(raw.port(), text, level);
    }
    server->allowReceiveMode(false, false);
    expectLine(raw.port(), "allowing neither realtime nor reliable mode", 2);
    EUDPTransport().setWindowSize(25);
    expectLine(0, "no remote port (internal error)", 2);
}

TEST_F(EUDPTransportTest, DestroyingOrClosingATransportInAnyStateEndsItsWaitsAndSendsNothing)
{
    RawPeer raw;
    for (const bool destroy : {true, false}) // a listener with accept waiting on another thread
    {
        auto listening = std::make_unique<EUDPTransport>();
        ASSERT_TRUE(listening->listen(LOOPBACK, 0));
        IWEFTTransport* accepted = listening.get();
        std::thread acceptor([&] { accepted = listening->accept(); });
        // Logged only while accept waits.
        raw.send(listening->getLocalPort(), destroy ? Bytes{7} : packet("ACK", 0));
        expectLine(0,
                   destroy ? "discarding invalid packet"
                           : "received a non-CON packet without a connection (ignoring)",
                   3);
        destroy ? listening.reset() : listening->disconnect();
        acceptor.join();
        EXPECT_EQ(accepted, nullptr);
    }
    raw.expectNothingMore();
    auto connected = acceptRaw(raw, 0);
    connected.reset();
    raw.expectNothingMore();
    auto closed = acceptRaw(raw, 1);
    closed->disconnect();
    EXPECT_EQ(raw.answer().bytes, packet("DIS", 0));
    closed.reset();
    raw.expectNothingMore();
}

} // namespace
