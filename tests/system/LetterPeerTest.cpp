// weft's EUDP sender against a receiver written from the protocol alone: all
// that weft does differently inside (bursts, cumulative answers, held
// packets, the measured time-out, fillers) must still deliver everything,
// once and in order, to a peer that does none of it, on a lossy path too.

#include "ImpairmentRelay.h"

#include "support/EudpWire.h"
#include "support/RawUdpSocket.h"
#include "support/WeftFixture.h"

#include <weft/EUDPTransport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{

using eudpwire::Bytes;

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

class LetterPeerTest : public WeftFixture, public ::testing::WithParamInterface<double>
{
};

TEST_P(LetterPeerTest,
       AReliableSenderDeliversEverythingInOrderToAPeerWrittenToTheLetterBeforeItCloses)
{
    constexpr int MESSAGES = 600;
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

INSTANTIATE_TEST_SUITE_P(Loss, LetterPeerTest, ::testing::Values(0.0, 0.05, 0.2),
                         [](const ::testing::TestParamInfo<double>& info) {
                             return "Percent" + std::to_string(static_cast<int>(info.param * 100));
                         });

} // namespace
