// EUDP through a relay that loses, duplicates, reorders or silences traffic,
// with every time-out shortened: two weft connections both ways, and weft's
// sender against a receiver written from the protocol alone. (That lost
// keep-alives never end a live connection is EUDPLivenessTest's.)

#include "EUDPTimeouts.h"

#include "ImpairmentRelay.h"
#include "support/EUDPTransportTestPeer.h"
#include "support/EudpWire.h"
#include "support/ListenerFixture.h"
#include "support/RawUdpSocket.h"

#include <weft/EUDPTransport.h>

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;

using eudpwire::argOf, eudpwire::Bytes, eudpwire::is;

// Tests named after the share of datagrams the relay drops.
std::string percent(const ::testing::TestParamInfo<double>& info)
{
    return "Percent" + std::to_string(static_cast<int>(info.param * 100));
}

// Connections through a relay in front of the fixture's listener, which
// accepts in a loop, as servers do, so that a CON sent again after a lost
// ACK is answered.
class ThroughRelay : public ListenerFixture
{
protected:
    // Accepted transports take the time-outs the listener was made with.
    void start()
    {
        ASSERT_NO_FATAL_FAILURE(listen(TRANSPORT_EUDP));
        m_relay = std::make_unique<ImpairmentRelay>(m_port, 20261123);
    }

    // A client through the relay whose first packet has number `first`, and
    // the server's end of it.
    std::unique_ptr<WEFTConnection> connectThroughRelay(int first = 0)
    {
        auto* transport = new EUDPTransport();
        EUDPTransportTestPeer::numberFrom(*transport, first);
        auto client = std::make_unique<WEFTConnection>(transport);
        const int before = m_connector.accepted();
        EXPECT_TRUE(client->connect("127.0.0.1", m_relay->getPort(), &m_client));
        EXPECT_TRUE(m_connector.waitForConnections(before + 1));
        m_server = m_connector.connection(static_cast<std::size_t>(before));
        return m_server ? std::move(client) : nullptr;
    }

    std::unique_ptr<ImpairmentRelay> m_relay;
    EventLog m_clientEvents;
    Recorder m_client{m_clientEvents};
    WEFTConnection* m_server = nullptr;
};

class ReliableThroughLoss : public ThroughRelay, public ::testing::WithParamInterface<double>
{
};

TEST_P(ReliableThroughLoss, BothDirectionsDeliverEveryMessageOnceAndInOrderAcrossTheWrapAndASilence)
{
    // Ten times real time: a sanitizer build still keeps up with it.
    EUDPTimeouts::setStandard(EUDPTimeouts().shortenedBy(10));
    ASSERT_NO_FATAL_FAILURE(start());
    // The client's numbers cross 65534 -> 0 part way through.
    const auto client = connectThroughRelay(EUDP_SEQ_RANGE - 700);
    ASSERT_NE(client, nullptr);
    // Negotiated on a clean path: a lost request would only cost a time-out.
    ASSERT_TRUE(client->setSendMode(CONN_MODE_RELIABLE));
    ASSERT_TRUE(client->setReceiveMode(CONN_MODE_RELIABLE));
    ASSERT_TRUE(client->setWindowSize(32));
    ASSERT_TRUE(m_server->setWindowSize(32));
    const double loss = GetParam();
    const int count = loss < 0.1 ? 3000 : 1500; // fewer where more is lost
    // The client subscribes to c<i>, the server updates s<i> to i.
    const auto send = [&](bool server, int from, int to)
    {
        for (int i = from; i < to; ++i)
        {
            const std::string n = std::to_string(i);
            ASSERT_TRUE(server ? m_server->updateState("s" + n, ParameterValue(i))
                               : client->subscribe("c" + n));
        }
    };
    // The first messages go into a network silent for half the time after
    // which a peer counts as dead (fewer than a full ring, whose sender would
    // give up sooner): both sides keep them and repeat them.
    m_relay->setSilent(true);
    send(true, 0, 300);
    send(false, 0, 300);
    std::this_thread::sleep_for(timeouts().deadPeer / 2);
    const RelayCounts silenced = m_relay->getCounts(RelayDirection::ClientToServer);
    m_relay->setSilent(false);
    m_relay->setImpairment(Impairment{
        .dropRate = loss, .duplicateRate = loss / 2, .reorderRate = loss / 2, .jitter = 200us});
    std::thread serverSends([&] { send(true, 300, count); });
    send(false, 300, count);
    serverSends.join();
    // Each side hears the other's messages, in order, after its start.
    ASSERT_TRUE(m_serverEvents.waitFor(2 + count, 60s));
    ASSERT_TRUE(m_clientEvents.waitFor(1 + count, 60s));
    const std::vector<Event> atServer = m_serverEvents.events();
    const std::vector<Event> atClient = m_clientEvents.events();
    ASSERT_EQ(atServer.size(), 2u + count);
    ASSERT_EQ(atClient.size(), 1u + count);
    for (int i = 0; i < count; ++i)
    {
        const std::string n = std::to_string(i);
        ASSERT_EQ(atServer[2 + i], (Event{"subscribe", "c" + n, ""})) << "position " << i;
        ASSERT_EQ(atClient[1 + i], (Event{"update", "s" + n, n})) << "position " << i;
    }
    // Repeats went into the silence: a go-back each retransmission time.
    EXPECT_GT(silenced.dropped, 10u);
    const RelayCounts up = m_relay->getCounts(RelayDirection::ClientToServer);
    EXPECT_GT(up.dropped, silenced.dropped);
    EXPECT_GT(up.duplicated, 0u);
    EXPECT_GT(up.reordered, 0u);
}

INSTANTIATE_TEST_SUITE_P(Loss, ReliableThroughLoss, ::testing::Values(0.05, 0.20), percent);

TEST_F(ThroughRelay, ConnectsAndModeRequestsSucceedThroughThirtyPercentLoss)
{
    // Every request is repeated 20 times before it gives up; at twice real
    // time those repeats stay far enough apart for a busy machine to send them.
    EUDPTimeouts::setStandard(EUDPTimeouts().shortenedBy(2));
    ASSERT_NO_FATAL_FAILURE(start());
    m_relay->setImpairment(Impairment{.dropRate = 0.3});
    for (int attempt = 0; attempt < 20; ++attempt)
    {
        const auto client = connectThroughRelay();
        ASSERT_NE(client, nullptr) << "attempt " << attempt;
        ASSERT_TRUE(client->setSendMode(CONN_MODE_RELIABLE)) << "attempt " << attempt;
        ASSERT_TRUE(client->setWindowSize(20)) << "attempt " << attempt;
    }
}

// The receiving end of a connection as the protocol describes it, from the
// wire format alone over plain UDP sockets: it accepts the first CON only,
// takes only the packet it expects (acknowledging each one), answers anything
// later with a NAK for the number it expects and drops it, answers a copy
// with its own number, a real-time keep-alive with NOP, and mode and window
// requests as granted.
class LetterReceiver
{
public:
    uint16 listeningPort() const { return m_listening.port(); }

    // Answers on the caller's thread until `done` holds or `timeout` has
    // passed; the payloads taken, in order.
    template <class Done>
    std::vector<Bytes> answerUntil(Done done, std::chrono::milliseconds timeout)
    {
        const auto end = std::chrono::steady_clock::now() + timeout;
        while (!done() && std::chrono::steady_clock::now() < end)
        {
            if (m_peerPort != 0)
            {
                handle(m_connection.receive(20).bytes);
                continue;
            }
            // The connection answers from a port of its own.
            const RawUdpSocket::Datagram con = m_listening.receive(20);
            if (is(con.bytes, "CON"))
            {
                m_peerPort = con.from;
                m_expected = (static_cast<std::int32_t>(argOf(con.bytes)) + 1) % RANGE;
                answer("ACK", argOf(con.bytes));
            }
        }
        return m_payloads;
    }

private:
    static constexpr std::int32_t RANGE = 65535;

    void handle(const Bytes& datagram)
    {
        if (is(datagram, "WIN"))
        {
            answer("WAK", argOf(datagram));
        }
        else if (is(datagram, "MOD"))
        {
            // Every mode allowed; only the receive half matters to a receiver.
            const std::uint8_t send = datagram[4], receive = datagram[6];
            if (receive == 'R' || receive == 'T')
            {
                m_reliable = receive == 'R';
            }
            answer("MAK", eudpwire::modes(send, send == 'D' ? 'T' : send, receive,
                                          m_reliable ? 'R' : 'T'));
        }
        else if (is(datagram, "CMD"))
        {
            const std::int32_t seq = static_cast<std::int32_t>(argOf(datagram)) % RANGE;
            std::int32_t distance = seq - m_expected;
            distance += distance < -32767 ? RANGE : distance > 32767 ? -RANGE : 0;
            // A copy is answered with its own number, a later packet with
            // the number expected, and dropped.
            if (distance < 0 || (m_reliable && distance > 0))
            {
                answer(distance < 0 ? "ACK" : "NAK",
                       distance < 0 ? argOf(datagram) : static_cast<std::uint32_t>(m_expected));
                return;
            }
            if (m_reliable)
            {
                answer("ACK", static_cast<std::uint32_t>(seq));
            }
            m_expected = (seq + 1) % RANGE;
            if (datagram.size() > 8)
            {
                m_payloads.emplace_back(datagram.begin() + 8, datagram.end());
            }
            else if (!m_reliable)
            {
                answer("NOP", 0);
            }
        }
    }

    void answer(const char* command, std::uint32_t arg)
    {
        m_connection.send(m_peerPort, eudpwire::packet(command, arg));
    }

    RawUdpSocket m_listening, m_connection;
    std::uint16_t m_peerPort = 0;
    std::int32_t m_expected = 0;
    bool m_reliable = false;
    std::vector<Bytes> m_payloads;
};

// All that weft's sender does differently inside (bursts, cumulative
// answers, held packets, the measured time-out, fillers) must still deliver
// everything, once and in order, to a peer that does none of it.
class LetterPeerTest : public WeftFixture, public ::testing::WithParamInterface<double>
{
};

TEST_P(LetterPeerTest,
       AReliableSenderDeliversEverythingInOrderToAPeerWrittenToTheLetterBeforeItCloses)
{
    // Closing waits for the last acknowledgements while they keep coming, up
    // to the send time-out: both as long as in production, so that a stall
    // of a busy machine does not cut the wait short.
    EUDPTimeouts patient = timeouts();
    patient.retransmit = EUDPTimeouts().retransmit;
    patient.sendStall = EUDPTimeouts().sendStall;
    EUDPTimeouts::setStandard(patient);
    LetterReceiver letter;
    ImpairmentRelay relay(letter.listeningPort(), 20261123);
    ASSERT_TRUE(relay.isOpen()) << relay.getError();
    std::vector<Bytes> sent;
    for (int i = 0; i < 600; ++i)
    {
        const std::string text = "message " + std::to_string(i);
        sent.emplace_back(text.begin(), text.end());
    }
    EUDPTransport sender;
    auto sending =
        std::async(std::launch::async,
                   [&]
                   {
                       // Set up without loss: the handshake's own repeats are another
                       // test's. This side sends reliably: the peer receives so.
                       if (!sender.connect(tavo::HostAddress("127.0.0.1"), relay.getPort()) ||
                           !sender.setReceiveMode(CONN_MODE_RELIABLE))
                       {
                           return false;
                       }
                       relay.setImpairment(Impairment{.dropRate = GetParam()});
                       for (const Bytes& message : sent)
                       {
                           if (!sender.sendData(message.data(), static_cast<uint>(message.size())))
                           {
                               return false;
                           }
                       }
                       // Closing at once loses nothing that was handed over.
                       sender.disconnect();
                       return true;
                   });
    const std::vector<Bytes> got =
        letter.answerUntil([&] { return sending.wait_for(0s) == std::future_status::ready; }, 20s);
    EXPECT_TRUE(sending.get());
    EXPECT_EQ(got, sent) << got.size() << " arrived";
}

INSTANTIATE_TEST_SUITE_P(Loss, LetterPeerTest, ::testing::Values(0.0, 0.05, 0.2), percent);

} // namespace
