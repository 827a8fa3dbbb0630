// The send side of the protocol on plain values, and a sender and a receiver
// joined by a lossy link in one thread, with the time passed in.

#include "EUDPSendWindow.h"
#include "EUDPReceiveWindow.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using TimePoint = EUDPSendWindow::TimePoint;

const TimePoint START = TimePoint{} + 1h;
constexpr auto RETRANSMIT = 500ms;

// The numbers of the datagrams handed out until none may go; "e<n>" marks
// an empty one.
std::vector<std::string> drainReliable(EUDPSendWindow& window, int size, TimePoint now)
{
    std::vector<std::string> sent;
    while (const EUDPPacket* packet = window.nextReliable(size, now))
    {
        sent.push_back((packet->getPayloadLength() == 0 ? "e" : "") +
                       std::to_string(packet->getArg()));
    }
    return sent;
}

std::vector<std::string> numbers(int from, int to)
{
    std::vector<std::string> result;
    for (int n = from; n <= to; ++n)
    {
        result.push_back(std::to_string(n % 65535));
    }
    return result;
}

void queueMessages(EUDPSendWindow& window, int count)
{
    const uint8 byte = 'x';
    for (int i = 0; i < count; ++i)
    {
        window.queue(&byte, 1);
    }
}

TEST(EUDPSendWindowTest, TheWindowBoundsWhatIsInFlightAndAnAckFreesEverythingUpToItsNumber)
{
    EUDPSendWindow window(EUDP_RING_CAPACITY, RETRANSMIT);
    window.restart(ModuloValue(65530), ModuloValue(65529));
    window.startReliable();
    queueMessages(window, 15);
    EXPECT_EQ(drainReliable(window, 10, START), numbers(65530, 65539)); // across the wrap
    EXPECT_EQ(window.onAck(ModuloValue(2), START).freed, 8u);
    EXPECT_EQ(drainReliable(window, 10, START), numbers(65540, 65544));
    EXPECT_EQ(window.queued(), 7u);

    // Numbers already acknowledged, or never queued, change nothing.
    for (int stale : {2, 65531, 10, 60000, -1})
    {
        EXPECT_FALSE(window.onAck(ModuloValue(stale), START).accepted) << stale;
    }
    EXPECT_EQ(window.onAck(ModuloValue(9), START).freed, 7u);
    EXPECT_TRUE(window.isEmpty());
    EXPECT_FALSE(window.retransmitDue());
}

TEST(EUDPSendWindowTest, ANakOrSilenceSendsTheMissingPacketAloneUntilTheNextAck)
{
    EUDPSendWindow window(EUDP_RING_CAPACITY, RETRANSMIT);
    window.startReliable();
    queueMessages(window, 15);
    EXPECT_EQ(drainReliable(window, 10, START), numbers(0, 9));
    // The receiver holds what followed the gap: only the gap goes again, and
    // nothing more until it is answered.
    EXPECT_EQ(window.onNak(ModuloValue(3), START), EUDPSendWindow::NAK_RESEND);
    EXPECT_EQ(drainReliable(window, 10, START), numbers(3, 3));
    EXPECT_TRUE(drainReliable(window, 10, START).empty());
    EXPECT_EQ(window.onNak(ModuloValue(15), START), EUDPSendWindow::NAK_IMPOSSIBLE);
    const TimePoint answered = START + 1ms;
    ASSERT_TRUE(window.onAck(ModuloValue(5), answered).accepted);
    EXPECT_EQ(drainReliable(window, 10, answered), numbers(6, 14));
    EXPECT_EQ(window.onNak(ModuloValue(4), answered), EUDPSendWindow::NAK_ACKED);

    // Nothing heard: due one time-out after the oldest unacknowledged packet
    // went, which is measured from the round trip and shorter than the ceiling.
    const auto timeout = window.roundTrip().timeout();
    EXPECT_LT(timeout, RETRANSMIT);
    ASSERT_EQ(window.retransmitDue(), answered + timeout);
    window.goBack(answered + timeout);
    EXPECT_EQ(drainReliable(window, 10, answered + timeout), numbers(6, 6));
    EXPECT_EQ(window.roundTrip().timeout(), timeout); // a lost tail is repeated soon
    ASSERT_TRUE(window.onAck(ModuloValue(6), answered + timeout).accepted);
    EXPECT_EQ(drainReliable(window, 10, answered + timeout), numbers(7, 14));

    // A window of 0 lets nothing out, not even after a go-back.
    window.goBack(START + 1s);
    EXPECT_TRUE(drainReliable(window, 0, START + 1s).empty());
    EXPECT_EQ(drainReliable(window, 3, START + 1s), numbers(7, 7));
}

TEST(EUDPSendWindowTest, ReliableSendingTakesOverFromTheOldestPacketAfterAnyRealtimePhase)
{
    for (const int first : {0, 40000, 65534})
    {
        EUDPSendWindow window(EUDP_RING_CAPACITY, RETRANSMIT);
        window.restart(ModuloValue(first), ModuloValue(first).previous());
        // Half the number space and more goes out real-time, with no
        // acknowledgement at all; two packets are still queued at the switch.
        for (int i = 0; i < 40000; ++i)
        {
            queueMessages(window, 1);
            ASSERT_NE(window.takeOldest(), nullptr);
        }
        queueMessages(window, 2);
        window.startReliable();
        const int oldest = (first + 40000) % 65535;
        EXPECT_EQ(drainReliable(window, 10, START), numbers(oldest, oldest + 1)) << first;
    }
}

TEST(EUDPSendWindowTest, APeerWaitingForNumbersSentRealtimeIsBroughtPastThemByEmptyPackets)
{
    EUDPSendWindow window(EUDP_RING_CAPACITY, RETRANSMIT);
    window.restart(ModuloValue(65533), ModuloValue(65532));
    queueMessages(window, 4); // 65533, 65534, 0, 1 go out real-time
    while (window.takeOldest() != nullptr)
    {
    }
    queueMessages(window, 2);
    window.startReliable();
    EXPECT_EQ(drainReliable(window, 10, START), numbers(2, 3));

    // The peer lost 65534 and everything after it: it NAKs 65534 for each
    // later packet. The first NAK sends fillers up to the first reliable
    // number, then the packets the peer dropped; the rest do not repeat it.
    EXPECT_EQ(window.onNak(ModuloValue(65534), START), EUDPSendWindow::NAK_FILL);
    EXPECT_EQ(drainReliable(window, 10, START),
              (std::vector<std::string>{"e65534", "e0", "e1", "2", "3"}));
    EXPECT_EQ(window.onNak(ModuloValue(65534), START + 1ms), EUDPSendWindow::NAK_FILLING);
    EXPECT_TRUE(drainReliable(window, 10, START + 1ms).empty());
    // Lost again: after the retransmission time a NAK fills once more.
    EXPECT_EQ(window.onNak(ModuloValue(65534), START + RETRANSMIT), EUDPSendWindow::NAK_FILL);
    EXPECT_EQ(drainReliable(window, 10, START + RETRANSMIT).size(), 5u);

    // Acknowledged reliable numbers are not filled: the peer has them.
    ASSERT_TRUE(window.onAck(ModuloValue(2), START + RETRANSMIT).accepted);
    EXPECT_EQ(window.onNak(ModuloValue(2), START + 2 * RETRANSMIT), EUDPSendWindow::NAK_ACKED);
}

// A sender and a receiver joined in one thread: datagrams and answers cross
// the link at once unless the link loses them.
class Link
{
public:
    explicit Link(double loss, unsigned int seed) : m_loss(loss), m_random(seed) {}

    // Sends each message now and lets the protocol run until everything
    // queued is acknowledged, or `limit` passes.
    void send(const std::vector<std::string>& messages, std::chrono::seconds limit = 60s)
    {
        for (const std::string& message : messages)
        {
            ASSERT_FALSE(m_sender.isFull());
            m_sender.queue(reinterpret_cast<const uint8*>(message.data()),
                           static_cast<uint>(message.size()));
        }
        const TimePoint end = m_now + limit;
        while (m_now < end)
        {
            if (m_reliable)
            {
                const auto due = m_sender.retransmitDue();
                if (due && m_now >= *due)
                {
                    m_sender.goBack(m_now);
                }
                while (const EUDPPacket* packet = m_sender.nextReliable(WINDOW, m_now))
                {
                    transmit(*packet);
                }
            }
            else
            {
                while (const EUDPPacket* packet = m_sender.takeOldest())
                {
                    transmit(*packet);
                }
            }
            const auto due = m_sender.retransmitDue();
            if (!m_reliable || !due)
            {
                return;
            }
            m_now = std::max(m_now + 1ms, *due);
        }
    }

    // Both ends switch as a mode request would switch them.
    void setReliable(bool reliable)
    {
        if (reliable && !m_reliable)
        {
            m_sender.startReliable();
        }
        m_reliable = reliable;
    }

    // Payloads handed to the application, in order.
    std::vector<std::string> delivered()
    {
        std::vector<std::string> result;
        while (!m_receiver.isEmpty())
        {
            const EUDPPacket& packet = m_receiver.oldest();
            result.emplace_back(reinterpret_cast<const char*>(packet.getPayload()),
                                packet.getPayloadLength());
            m_receiver.dropOldest();
        }
        return result;
    }

private:
    static constexpr int WINDOW = 8;

    bool lost() { return std::uniform_real_distribution<double>(0, 1)(m_random) < m_loss; }

    void transmit(const EUDPPacket& packet)
    {
        if (lost())
        {
            return;
        }
        const auto verdict =
            m_receiver.receive(packet, m_reliable ? CONN_MODE_RELIABLE : CONN_MODE_REALTIME);
        if (verdict.answer == EUDP_UNKNOWN || lost())
        {
            return;
        }
        const ModuloValue seq = ModuloValue::fromArg(verdict.answerArg);
        if (verdict.answer == EUDP_ACK)
        {
            m_sender.onAck(seq, m_now);
        }
        else if (verdict.answer == EUDP_NAK)
        {
            m_sender.onNak(seq, m_now);
        }
    }

    double m_loss;
    std::mt19937 m_random;
    TimePoint m_now = START;
    bool m_reliable = false;
    EUDPSendWindow m_sender{EUDP_RING_CAPACITY, RETRANSMIT};
    EUDPReceiveWindow m_receiver{EUDP_RING_CAPACITY};
};

std::vector<std::string> batch(const std::string& prefix, int count)
{
    std::vector<std::string> messages;
    for (int i = 0; i < count; ++i)
    {
        messages.push_back(prefix + std::to_string(i));
    }
    return messages;
}

TEST(EUDPLinkTest, ModeSwitchesOverALossyLinkDeliverEveryReliableMessageOnceAndInOrder)
{
    for (unsigned int seed = 1; seed <= 40; ++seed)
    {
        Link link(0.25, seed);
        std::vector<std::string> reliableSent;
        std::vector<std::string> delivered;
        for (int phase = 0; phase < 6; ++phase)
        {
            const bool reliable = phase % 2 == 1;
            link.setReliable(reliable);
            const auto messages = batch("p" + std::to_string(phase) + "-", 30);
            link.send(messages);
            if (reliable)
            {
                reliableSent.insert(reliableSent.end(), messages.begin(), messages.end());
            }
            const auto now = link.delivered();
            delivered.insert(delivered.end(), now.begin(), now.end());
        }
        // Real-time messages may be missing; reliable ones never, and nothing
        // arrives twice or out of order.
        std::vector<std::string> reliableDelivered;
        for (const std::string& message : delivered)
        {
            const int phase = message[1] - '0';
            if (phase % 2 == 1)
            {
                reliableDelivered.push_back(message);
            }
        }
        ASSERT_EQ(reliableDelivered, reliableSent) << "seed " << seed;
        for (std::size_t i = 1; i < delivered.size(); ++i)
        {
            ASSERT_LT(std::make_pair(delivered[i - 1][1], std::stoi(delivered[i - 1].substr(3))),
                      std::make_pair(delivered[i][1], std::stoi(delivered[i].substr(3))))
                << "seed " << seed;
        }
    }
}

} // namespace
