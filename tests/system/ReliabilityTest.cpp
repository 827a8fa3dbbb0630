// EUDP through a relay that loses, duplicates, reorders or silences traffic,
// with every time-out shortened: two weft transports both ways, and weft's
// sender against a receiver written from the protocol alone. (That lost
// keep-alives never end a live connection is EUDPLivenessTest's.)

#include "EUDPTimeouts.h"

#include "ImpairmentRelay.h"
#include "support/EUDPTransportTestPeer.h"
#include "support/EudpWire.h"
#include "support/RawUdpSocket.h"
#include "support/Waiting.h"
#include "support/WeftFixture.h"

#include <weft/EUDPTransport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;

const tavo::HostAddress LOOPBACK("127.0.0.1");
using eudpwire::Bytes;

// Tests named after the share of datagrams the relay drops.
std::string percent(const ::testing::TestParamInfo<double>& info)
{
    return "Percent" + std::to_string(static_cast<int>(info.param * 100));
}

// Messages `from` to `to` (excluded): 4 bytes of index and filler up to
// the chosen size.
void sendAll(IWEFTTransport& transport, uint32_t from, uint32_t to, std::size_t size)
{
    for (uint32_t i = from; i < to; ++i)
    {
        std::vector<uint8> bytes(size, static_cast<uint8>(i * 31));
        std::memcpy(bytes.data(), &i, sizeof(i));
        ASSERT_TRUE(transport.sendData(bytes.data(), static_cast<uint>(bytes.size())));
    }
}

// The indices received, in arrival order, until the transport closes or
// `expected` have arrived.
std::vector<uint32_t> receiveIndices(IWEFTTransport& transport, std::size_t expected)
{
    std::vector<uint32_t> indices;
    uint8 buffer[EUDP_MAX_PAYLOAD];
    while (indices.size() < expected && transport.receiveData(buffer, sizeof(buffer)) > 0)
    {
        indices.push_back(0);
        std::memcpy(&indices.back(), buffer, sizeof(uint32_t));
    }
    return indices;
}

// A client and an accepted transport talking through the relay. The
// listener accepts in a loop, as a server does, so that a CON sent again
// after a lost ACK is answered.
class EUDPThroughRelay : public WeftFixture
{
protected:
    void SetUp() override
    {
        WeftFixture::SetUp();
        start(timeouts());
    }

    // A new listener and relay that run with `chosen`, until WeftFixture
    // puts its own back.
    void start(const EUDPTimeouts& chosen)
    {
        stop();
        EUDPTimeouts::setStandard(chosen);
        m_listener = std::make_unique<EUDPTransport>();
        ASSERT_TRUE(m_listener->listen(LOOPBACK, 0));
        m_relay = std::make_unique<ImpairmentRelay>(m_listener->getLocalPort(), 20261123);
        m_acceptor = std::thread(
            [this]
            {
                while (IWEFTTransport* accepted = m_listener->accept())
                {
                    std::lock_guard<std::mutex> lock(m_acceptedMutex);
                    m_accepted.emplace_back(accepted);
                    m_acceptedCount.add();
                }
            });
    }

    // A new client, numbering from `firstNumber`, connected through the
    // relay; and the server's side of its connection.
    void connect(int firstNumber = 0)
    {
        m_client = std::make_unique<EUDPTransport>();
        EUDPTransportTestPeer::numberFrom(*m_client, firstNumber);
        const int before = m_acceptedCount.get();
        ASSERT_TRUE(m_client->connect(LOOPBACK, m_relay->getPort()));
        ASSERT_TRUE(m_acceptedCount.waitFor(before + 1, 10s));
        std::lock_guard<std::mutex> lock(m_acceptedMutex);
        m_server = m_accepted.back().get();
    }

    // Transports go before weftDeinit; destroying one in any state is safe.
    void stop()
    {
        if (m_acceptor.joinable())
        {
            m_listener->disconnect(); // ends the accept loop
            m_acceptor.join();
        }
        m_accepted.clear();
        m_client.reset();
        m_listener.reset();
        m_relay.reset();
    }

    void TearDown() override
    {
        stop();
        WeftFixture::TearDown();
    }

    std::unique_ptr<EUDPTransport> m_listener;
    std::unique_ptr<EUDPTransport> m_client;
    IWEFTTransport* m_server = nullptr;
    std::unique_ptr<ImpairmentRelay> m_relay;
    std::thread m_acceptor;
    std::mutex m_acceptedMutex;
    std::vector<std::unique_ptr<IWEFTTransport>> m_accepted;
    EventCounter m_acceptedCount;
};

class ReliableThroughLoss : public EUDPThroughRelay, public ::testing::WithParamInterface<double>
{
};

TEST_P(ReliableThroughLoss, BothDirectionsDeliverEveryMessageOnceAndInOrderAcrossTheWrapAndASilence)
{
    // The client's numbers cross 65534 -> 0 part way through.
    ASSERT_NO_FATAL_FAILURE(connect(EUDP_SEQ_RANGE - 700));
    // Negotiated on a clean path: a lost request would only cost a time-out.
    ASSERT_TRUE(m_client->setSendMode(CONN_MODE_RELIABLE));
    ASSERT_TRUE(m_client->setReceiveMode(CONN_MODE_RELIABLE));
    ASSERT_TRUE(m_client->setWindowSize(32));
    ASSERT_TRUE(m_server->setWindowSize(32));
    const double loss = GetParam();
    const uint32_t count = loss < 0.1 ? 3000 : 1500; // fewer where more is lost
    auto atServer = std::async(std::launch::async, receiveIndices, std::ref(*m_server), count);
    auto atClient = std::async(std::launch::async, receiveIndices, std::ref(*m_client), count);
    // The first messages go into a network silent for half the time after
    // which a peer counts as dead (fewer than a full ring, whose sender would
    // give up sooner): both sides keep them and repeat them.
    m_relay->setSilent(true);
    sendAll(*m_server, 0, 300, 300);
    sendAll(*m_client, 0, 300, 100);
    std::this_thread::sleep_for(timeouts().deadPeer / 2);
    const RelayCounts silenced = m_relay->getCounts(RelayDirection::ClientToServer);
    m_relay->setSilent(false);
    m_relay->setImpairment(Impairment{
        .dropRate = loss, .duplicateRate = loss / 2, .reorderRate = loss / 2, .jitter = 200us});
    std::thread serverSender([&] { sendAll(*m_server, 300, count, 300); });
    sendAll(*m_client, 300, count, 100);
    serverSender.join();
    for (auto* collected : {&atServer, &atClient})
    {
        ASSERT_EQ(collected->wait_for(120s), std::future_status::ready);
        const std::vector<uint32_t> indices = collected->get();
        ASSERT_EQ(indices.size(), count);
        for (uint32_t i = 0; i < count; ++i)
        {
            ASSERT_EQ(indices[i], i) << "position " << i;
        }
    }
    // Repeats went into the silence: a go-back each retransmission time.
    EXPECT_GT(silenced.dropped, 10u);
    const RelayCounts up = m_relay->getCounts(RelayDirection::ClientToServer);
    EXPECT_GT(up.dropped, silenced.dropped);
    EXPECT_GT(up.duplicated, 0u);
    EXPECT_GT(up.reordered, 0u);
}

INSTANTIATE_TEST_SUITE_P(Loss, ReliableThroughLoss, ::testing::Values(0.05, 0.20), percent);

TEST_F(EUDPThroughRelay, ConnectsAndModeRequestsSucceedThroughThirtyPercentLoss)
{
    // Every request is repeated 20 times before it gives up; at twice real
    // time those repeats stay far enough apart for a busy machine to send them.
    start(EUDPTimeouts().shortenedBy(2));
    m_relay->setImpairment(Impairment{.dropRate = 0.3});
    for (int attempt = 0; attempt < 20; ++attempt)
    {
        ASSERT_NO_FATAL_FAILURE(connect()) << "attempt " << attempt;
        ASSERT_TRUE(m_client->setSendMode(CONN_MODE_RELIABLE)) << "attempt " << attempt;
        ASSERT_TRUE(m_client->setWindowSize(20)) << "attempt " << attempt;
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
    LetterReceiver() : m_thread([this] { run(); }) {}
    ~LetterReceiver()
    {
        m_stopping = true;
        m_thread.join();
    }

    uint16 listeningPort() const { return m_listening.port(); }
    // The payloads in arrival order, once `count` have come or `timeout` passed.
    std::vector<Bytes> waitFor(std::size_t count, std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_arrived.wait_for(lock, timeout, [&] { return m_payloads.size() >= count; });
        return m_payloads;
    }

private:
    static constexpr std::int32_t RANGE = 65535;

    static bool is(const Bytes& datagram, const char* command)
    {
        return datagram.size() >= 8 && datagram[0] == eudpwire::VERSION &&
               std::memcmp(datagram.data() + 1, command, 3) == 0;
    }
    static std::uint32_t argOf(const Bytes& datagram)
    {
        return datagram[4] | datagram[5] << 8 | datagram[6] << 16 |
               static_cast<std::uint32_t>(datagram[7]) << 24;
    }

    void run()
    {
        // The connection answers from a port of its own.
        while (!m_stopping && m_peerPort == 0)
        {
            const RawUdpSocket::Datagram con = m_listening.receive(20);
            if (is(con.bytes, "CON"))
            {
                m_peerPort = con.from;
                m_expected = (static_cast<std::int32_t>(argOf(con.bytes)) + 1) % RANGE;
                answer("ACK", argOf(con.bytes));
            }
        }
        while (!m_stopping)
        {
            handle(m_connection.receive(20).bytes);
        }
    }

    void handle(const Bytes& datagram)
    {
        if (is(datagram, "WIN"))
        {
            answer("WAK", argOf(datagram));
        }
        else if (is(datagram, "MOD"))
        {
            // Every mode allowed; only the receive half matters to a receiver.
            const std::uint8_t send = datagram[4];
            const std::uint8_t receive = datagram[6];
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
            if (distance < 0)
            {
                answer("ACK", argOf(datagram));
                return;
            }
            if (m_reliable && distance > 0)
            {
                answer("NAK", static_cast<std::uint32_t>(m_expected));
                return;
            }
            if (m_reliable)
            {
                answer("ACK", static_cast<std::uint32_t>(seq));
            }
            m_expected = (seq + 1) % RANGE;
            if (datagram.size() > 8)
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_payloads.emplace_back(datagram.begin() + 8, datagram.end());
                m_arrived.notify_all();
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

    RawUdpSocket m_listening;
    RawUdpSocket m_connection;
    std::atomic<bool> m_stopping{false};
    // The receiving thread's own.
    std::uint16_t m_peerPort = 0;
    std::int32_t m_expected = 0;
    bool m_reliable = false;
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::vector<Bytes> m_payloads;
    std::thread m_thread;
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
    constexpr int MESSAGES = 600;
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
    EUDPTransport sender;
    ASSERT_TRUE(sender.connect(tavo::HostAddress("127.0.0.1"), relay.getPort()));
    // Set up without loss: the handshake's own repeats are another test's.
    // This side sends reliably: the peer receives so.
    ASSERT_TRUE(sender.setReceiveMode(CONN_MODE_RELIABLE));
    Impairment loss;
    loss.dropRate = GetParam();
    relay.setImpairment(loss);
    std::vector<Bytes> sent;
    for (int i = 0; i < MESSAGES; ++i)
    {
        const std::string text = "message " + std::to_string(i);
        sent.emplace_back(text.begin(), text.end());
        ASSERT_TRUE(sender.sendData(sent.back().data(), static_cast<uint>(sent.back().size())))
            << i;
    }
    // Closing at once loses nothing that was handed over.
    sender.disconnect();
    const std::vector<Bytes> got = letter.waitFor(MESSAGES, std::chrono::seconds(20));
    const auto differ = std::mismatch(got.begin(), got.end(), sent.begin(), sent.end());
    EXPECT_EQ(differ.first - got.begin(), MESSAGES) << got.size() << " arrived";
}

INSTANTIATE_TEST_SUITE_P(Loss, LetterPeerTest, ::testing::Values(0.0, 0.05, 0.2), percent);

} // namespace
