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

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <functional>
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
    Datagram receive(int waitMs = 10000)
    {
        pollfd wait{m_fd, POLLIN, 0};
        Datagram datagram{Bytes(2000)};
        sockaddr_in source{};
        socklen_t length = sizeof(source);
        const ssize_t n = ::poll(&wait, 1, waitMs) == 1
                              ? ::recvfrom(m_fd, datagram.bytes.data(), 2000, 0,
                                           reinterpret_cast<sockaddr*>(&source), &length)
                              : 0;
        datagram.bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
        datagram.from = ntohs(source.sin_port);
        return datagram;
    }

    // The next datagram that is not one of the transport's idle keep-alives.
    Datagram answerDatagram()
    {
        Datagram datagram = receive();
        while (datagram.isKeepAlive())
        {
            datagram = receive();
        }
        return datagram;
    }
    Bytes answer() { return answerDatagram().bytes; }
    // Forgets what has come in already.
    void drain()
    {
        while (!receive(0).bytes.empty())
        {
        }
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

// The waits of connect and of requests shortened; keep-alives as usual, so
// that none takes a number in the middle of a test.
EUDPTimeouts shortWaits()
{
    EUDPTimeouts timeouts;
    timeouts.connect = 400ms;
    timeouts.connectRepeat = 40ms;
    timeouts.negotiation = 600ms;
    timeouts.negotiationRepeat = 100ms;
    timeouts.retransmit = 100ms;
    return timeouts;
}

class EUDPTransportTest : public WeftFixture
{
protected:
    void SetUp() override
    {
        WeftFixture::SetUp();
        m_timeouts = std::make_unique<ScopedEUDPTimeouts>(shortWaits());
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
        m_timeouts.reset();
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

    static std::string line(uint16 port, const std::string& text)
    {
        return "WEFT/EUDP[" + std::to_string(port) + "]: " + text;
    }

    std::unique_ptr<ScopedEUDPTimeouts> m_timeouts;
    std::unique_ptr<EUDPTransport> m_listener;
    uint16 m_listenPort = 0;
    uint16 m_serverPort = 0;
};

TEST_F(EUDPTransportTest, ConnectRepeatsItsConTakesTheAckSourceAsPeerAndDismissesASecondOne)
{
    RawPeer listening;
    RawPeer accepted;
    RawPeer duplicate; // a server that makes a connection for every CON
    EUDPTransport client;
    auto connected =
        std::async(std::launch::async, [&] { return client.connect(LOOPBACK, listening.port()); });
    const Datagram lost = listening.receive(); // as if lost on the way
    const Datagram con = listening.receive();
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

    ASSERT_TRUE(sendText(client, "hi"));
    EXPECT_EQ(accepted.answer(), packet("CMD", 1, "hi"));
    accepted.send(con.from, packet("CMD", 0, "yo"));
    EXPECT_EQ(receiveText(client), "yo");
    client.disconnect();
    client.disconnect();
    EXPECT_EQ(accepted.answer(), packet("DIS", 2));
    accepted.expectNothingMore();
    EXPECT_EQ(receiveText(client), "<0>");
}

TEST_F(EUDPTransportTest, ARepeatedConIsAnsweredFromTheSamePortAndANewOneMakesANewConnection)
{
    RawPeer raw;
    std::unique_ptr<IWEFTTransport> first;
    std::thread acceptor([&] { first.reset(m_listener->accept()); });
    raw.send(m_listenPort, packet("CON", 7));
    acceptor.join();
    const Datagram ack = raw.receive();
    EXPECT_EQ(ack.bytes, packet("ACK", 7));

    // The ACK was late: the same CON again is answered from the same port,
    // even after the connection is in use, and makes no second connection.
    raw.send(ack.from, packet("CMD", 7, "old")); // the CON's own number is behind
    EXPECT_EQ(raw.answer(), packet("ACK", 7));
    raw.send(ack.from, packet("CMD", 8, "a"));
    EXPECT_EQ(receiveText(*first), "a");
    std::unique_ptr<IWEFTTransport> second;
    std::thread acceptAgain([&] { second.reset(m_listener->accept()); });
    raw.send(m_listenPort, packet("CON", 7));
    const Datagram repeated = raw.answerDatagram();
    EXPECT_EQ(repeated.bytes, packet("ACK", 7));
    EXPECT_EQ(repeated.from, ack.from);
    // A CON with another number is another connection, from a new port.
    raw.send(m_listenPort, packet("CON", 100));
    acceptAgain.join();
    const Datagram other = raw.receive();
    EXPECT_EQ(other.bytes, packet("ACK", 100));
    EXPECT_NE(other.from, ack.from);
}

TEST_F(EUDPTransportTest, AWrongAckOrNoAnswerFailsConnectAndTheNextConnectStartsAfresh)
{
    RawPeer listening;
    EUDPTransport client;
    auto connected =
        std::async(std::launch::async, [&] { return client.connect(LOOPBACK, listening.port()); });
    const Datagram con = listening.receive();
    // An answer to some other CON: the right one may still come, so the
    // connect waits out its time.
    listening.send(con.from, packet("ACK", 5));
    ASSERT_FALSE(connected.get());
    listening.drain();

    // Nobody answers: the CON goes out again and again until the time is up.
    const auto started = Clock::now();
    EXPECT_FALSE(client.connect(LOOPBACK, listening.port()));
    EXPECT_GE(Clock::now() - started, shortWaits().connect);
    EXPECT_NE(listening.receive().from, con.from); // a new socket
    int cons = 1;
    while (listening.receive(0).bytes == packet("CON", 0))
    {
        ++cons;
    }
    EXPECT_GE(cons, 3);
    EXPECT_EQ(client.getPeerPort(), 0);

    // A disconnect ends a connect that waits, at once.
    auto waiting =
        std::async(std::launch::async, [&] { return client.connect(LOOPBACK, listening.port()); });
    listening.receive();
    client.disconnect();
    EXPECT_EQ(waiting.wait_for(shortWaits().connect / 2), std::future_status::ready);
    EXPECT_FALSE(waiting.get());

    auto server = acceptWhileConnecting(client);
    ASSERT_TRUE(sendText(client, "again"));
    EXPECT_EQ(receiveText(*server), "again");
}

TEST_F(EUDPTransportTest, AReceiveIntoTooSmallABufferFailsAndKeepsThePayloadForTheNextOne)
{
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    raw.send(m_serverPort, packet("CMD", 1, "a"));
    raw.send(m_serverPort, packet("CMD", 2, "dd"));
    EXPECT_EQ(receiveText(*server, 0), "<-1>");
    EXPECT_EQ(receiveText(*server, 1), "a");
    EXPECT_EQ(receiveText(*server, 1), "<-1>");
    // The retry gets the packet at once, not after a later one.
    auto retry = std::async(std::launch::async, [&] { return receiveText(*server, 2); });
    ASSERT_EQ(retry.wait_for(2s), std::future_status::ready);
    EXPECT_EQ(retry.get(), "dd");
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
    }
}

TEST_F(EUDPTransportTest, ASilentPeerGetsAKeepAliveEachPeriodAndIsDeadAfterTheDeadPeerTime)
{
    EUDPTimeouts quick = shortWaits();
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

    // A reliable sender whose ring is full: the timer thread never waits for
    // room, and the end wakes the blocked sender.
    RawPeer other;
    auto full = acceptRaw(other, 0);
    makeReliableSender(other);
    fillSendRing(*full);
    auto blocked = std::async(std::launch::async, [&] { return sendText(*full, "stuck"); });
    EXPECT_FALSE(blocked.get());
    EXPECT_EQ(receiveText(*full), "<0>");
}

// How each request is answered is EUDPModesTest's. A request of this side's
// is repeated until its own answer comes: answers nobody waits for, or meant
// for another request, are passed over.
TEST_F(EUDPTransportTest, RequestsAreRepeatedUntilTheirOwnAnswerComes)
{
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    raw.send(m_serverPort, packet("WIN", 3000000000u));
    EXPECT_EQ(raw.answer(), packet("WAK", 3000000000u));
    EXPECT_EQ(Peer::window(*server), 999); // beyond the ring: the whole ring
    raw.send(m_serverPort, packet("WAK", 99));
    raw.send(m_serverPort, packet("MAK", modes("DTDT")));
    auto window = std::async(std::launch::async, [&] { return server->setWindowSize(25); });
    EXPECT_EQ(raw.answer(), packet("WIN", 25));
    raw.send(m_serverPort, packet("WAK", 30));
    EXPECT_EQ(raw.answer(), packet("WIN", 25));
    raw.send(m_serverPort, packet("WAK", 25));
    EXPECT_TRUE(window.get());
    auto mode =
        std::async(std::launch::async, [&] { return server->setReceiveMode(CONN_MODE_REALTIME); });
    EXPECT_EQ(raw.answer(), packet("MOD", modes("DDTD")));
    raw.send(m_serverPort, packet("MAK", modes("RRDT"))); // another request's
    EXPECT_EQ(raw.answer(), packet("MOD", modes("DDTD")));
    raw.send(m_serverPort, packet("MAK", modes("DRTT")));
    EXPECT_TRUE(mode.get());
}

// The lines of the transport's threads; those of the codecs and the
// connection are in unit/WeftLogTest.cpp.
TEST_F(EUDPTransportTest, EachRefusalWritesItsLineAtItsLevel)
{
    RawPeer raw;
    auto server = acceptRaw(raw, 0);
    const uint16 peer = raw.port();
    RawPeer listening;
    const std::string target = "127.0.0.1:" + std::to_string(listening.port());
    // Each refusal returns the port its line is logged under.
    const auto send = [&](uint16 port, std::vector<Bytes> datagrams)
    {
        return [&, port, datagrams]
        {
            for (const Bytes& datagram : datagrams)
            {
                raw.send(port, datagram);
            }
            return port == m_listenPort ? uint16(0) : peer;
        };
    };
    // A request of the server's, answered with `answer`.
    const auto refusedRequest = [&](bool mode, const Bytes& answer)
    {
        return [&, mode, answer]
        {
            auto asked = std::async(std::launch::async,
                                    [&] {
                                        return mode ? server->setReceiveMode(CONN_MODE_REALTIME)
                                                    : server->setWindowSize(40);
                                    });
            // Past the answers to earlier rows, to the request itself.
            const Bytes request = mode ? packet("MOD", modes("DDTD")) : packet("WIN", 40);
            for (Bytes next = raw.answer(); !next.empty() && next != request; next = raw.answer())
            {
            }
            raw.send(m_serverPort, answer);
            EXPECT_FALSE(asked.get());
            return peer;
        };
    };
    // A client's connect that `listening` answers with `answer`, or not at all.
    const auto failedConnect = [&](const Bytes& answer)
    {
        return [&, answer]
        {
            listening.drain(); // an earlier client's repeated CONs
            EUDPTransport client;
            auto connected = std::async(std::launch::async,
                                        [&] { return client.connect(LOOPBACK, listening.port()); });
            const Datagram con = listening.receive();
            if (!answer.empty())
            {
                listening.send(con.from, answer);
            }
            EXPECT_FALSE(connected.get());
            return con.from;
        };
    };
    // The listening port reads only while an accept waits.
    std::unique_ptr<IWEFTTransport> accepted;
    std::thread acceptor([&] { accepted.reset(m_listener->accept()); });
    const struct
    {
        std::function<uint16()> refuse;
        std::string text;
        int level;
    } cases[] = {
        {send(m_listenPort, {Bytes{2, 'C', 'M', 'D', 1, 0, 0, 0}}), "discarding invalid packet", 3},
        {send(m_listenPort, {packet("ACK", 0)}),
         "received a non-CON packet without a connection (ignoring)", 3},
        {send(m_serverPort, {packet("cmd", 1)}), "dropping invalid packet", 3},
        {send(m_serverPort, {packet("CON", 0)}), "unknown/unexpected command (ignoring)", 3},
        {send(m_serverPort, {packet("MOD", modes("QDDD"))}), "unknown mode request (ignoring)", 3},
        {send(m_serverPort, {packet("CMD", 1, "a"), packet("CMD", 1, "a")}),
         "received a duplicate packet - ACK and ignore", 5},
        {[&] { return receiveText(*server, 0), peer; }, "receive failed, provided buffer too small",
         2},
        {send(m_serverPort, {packet("MOD", modes("DDRD")), packet("CMD", 5, "x")}),
         "3 packets lost", 3},
        {refusedRequest(true, packet("MAK", modes("DTTR"))),
         "failed to set receive mode (peer refused)", 3},
        {refusedRequest(false, packet("WAK", 30)), "failed to set window size (tried 40, got 30)",
         2},
        {[&] { return server->allowReceiveMode(false, false), peer; },
         "allowing neither realtime nor reliable mode", 2},
        {failedConnect(packet("ACK", 5)), "failed to connect to " + target + " (wrong ACK)", 2},
        {failedConnect(Bytes()), "failed to connect to " + target + " (timeout)", 2},
        {[] { return EUDPTransport().setWindowSize(25), uint16(0); },
         "no remote port (internal error)", 2},
        {[&] { return server->disconnect(), sendText(*server, "x"), peer; },
         "trying to send, but connection closed", 5},
    };
    for (const auto& c : cases)
    {
        log().clear();
        const std::string expected = line(c.refuse(), c.text);
        EXPECT_TRUE(log().waitFor(expected, 10s)) << expected;
        EXPECT_EQ(log().levelOf(expected), c.level) << expected;
    }
    RawPeer().send(m_listenPort, packet("CON", 0));
    acceptor.join();
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
    auto closed = acceptRaw(raw, 1);
    closed->disconnect();
    EXPECT_EQ(raw.answer(), packet("DIS", 0));
    closed.reset();
    raw.expectNothingMore();
}

} // namespace
