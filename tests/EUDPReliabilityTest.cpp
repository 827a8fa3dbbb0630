// EUDP through a relay that loses, duplicates, reorders and silences traffic.

#include "support/EUDPTransportTestPeer.h"
#include "support/ImpairmentRelay.h"
#include "support/Recorders.h"
#include "support/WeftFixture.h"

#include <weft/EUDPTransport.h>
#include <weft/WEFTConnection.h>
#include <weft/WEFTListener.h>

#include <tavo/Semaphore.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;

const tavo::HostAddress LOOPBACK("127.0.0.1");

// Numbered messages: 4 bytes of index and filler up to the chosen size.
std::vector<uint8> message(uint32_t index, std::size_t size)
{
    std::vector<uint8> bytes(size, static_cast<uint8>(index * 31));
    std::memcpy(bytes.data(), &index, sizeof(index));
    return bytes;
}

uint32_t indexOf(const uint8* bytes)
{
    uint32_t index;
    std::memcpy(&index, bytes, sizeof(index));
    return index;
}

// Receives until the transport closes or `expected` messages have arrived,
// recording the indices in arrival order.
class Collector
{
public:
    Collector(IWEFTTransport& transport, std::size_t expected)
        : m_thread([this, &transport, expected] {
              uint8 buffer[EUDP_MAX_PAYLOAD];
              while (m_indices.size() < expected)
              {
                  const int n = transport.receiveData(buffer, sizeof(buffer));
                  if (n <= 0)
                  {
                      break;
                  }
                  m_indices.push_back(indexOf(buffer));
              }
              m_done.give();
          })
    {
    }

    ~Collector() { m_thread.join(); }

    bool waitUntilDone(std::chrono::milliseconds timeout)
    {
        return m_done.take(static_cast<unsigned int>(timeout.count())) == tavo::TAKE_OK;
    }

    // Only after waitUntilDone succeeded.
    const std::vector<uint32_t>& indices() const { return m_indices; }

private:
    std::vector<uint32_t> m_indices;
    tavo::BinarySemaphore m_done;
    std::thread m_thread;
};

// A client and an accepted transport talking through the relay.
class EUDPThroughRelay : public WeftFixture
{
protected:
    void SetUp() override
    {
        WeftFixture::SetUp();
        m_pListener = std::make_unique<EUDPTransport>();
        m_pClient = std::make_unique<EUDPTransport>();
    }

    EUDPTransport& listener() { return *m_pListener; }
    EUDPTransport& client() { return *m_pClient; }

    void connect(int firstClientNumber = 0)
    {
        ASSERT_TRUE(listener().listen(LOOPBACK, 0));
        m_relay = std::make_unique<ImpairmentRelay>(listener().getLocalPort(), 20261123);
        IWEFTTransport* accepted = nullptr;
        std::thread acceptor([&] { accepted = listener().accept(); });
        EUDPTransportTestPeer::numberFrom(client(), firstClientNumber);
        const bool connected = client().connect(LOOPBACK, m_relay->getPort());
        acceptor.join();
        ASSERT_TRUE(connected);
        ASSERT_NE(accepted, nullptr);
        m_server.reset(accepted);
    }

    void TearDown() override
    {
        client().disconnect();
        if (m_server)
        {
            m_server->disconnect();
        }
        m_relay.reset();
        m_server.reset();
        listener().disconnect();
        m_pClient.reset();
        m_pListener.reset();
        WeftFixture::TearDown();
    }

    static void sendAll(IWEFTTransport& transport, uint32_t count, std::size_t size)
    {
        for (uint32_t i = 0; i < count; ++i)
        {
            const auto bytes = message(i, size);
            ASSERT_TRUE(transport.sendData(bytes.data(), static_cast<uint>(bytes.size())));
        }
    }

    std::unique_ptr<EUDPTransport> m_pListener;
    std::unique_ptr<EUDPTransport> m_pClient;
    std::unique_ptr<IWEFTTransport> m_server;
    std::unique_ptr<ImpairmentRelay> m_relay;
};

struct LossCase
{
    double loss;
    uint32_t messages;
};

void PrintTo(const LossCase& lossCase, std::ostream* out)
{
    *out << lossCase.loss * 100 << "% loss, " << lossCase.messages << " messages";
}

class ReliableThroughLoss : public EUDPThroughRelay, public ::testing::WithParamInterface<LossCase>
{
};

TEST_P(ReliableThroughLoss, BothDirectionsDeliverEveryMessageOnceAndInOrderAcrossTheWrap)
{
    // The client's numbers cross 65534 -> 0 part way through.
    connect(EUDP_SEQ_RANGE - 700);
    // Negotiated on a clean path: a lost request would only cost a time-out.
    ASSERT_TRUE(client().setSendMode(CONN_MODE_RELIABLE));
    ASSERT_TRUE(client().setReceiveMode(CONN_MODE_RELIABLE));
    ASSERT_TRUE(client().setWindowSize(32));
    ASSERT_TRUE(m_server->setWindowSize(32));

    Impairment impairment;
    impairment.dropRate = GetParam().loss;
    impairment.duplicateRate = GetParam().loss / 2;
    impairment.reorderRate = GetParam().loss / 2;
    impairment.jitter = 200us;
    m_relay->setImpairment(impairment);

    const uint32_t count = GetParam().messages;
    Collector atServer(*m_server, count);
    Collector atClient(client(), count);
    std::thread serverSender([&] { sendAll(*m_server, count, 300); });
    sendAll(client(), count, 100);
    serverSender.join();

    ASSERT_TRUE(atServer.waitUntilDone(120s));
    ASSERT_TRUE(atClient.waitUntilDone(120s));
    for (const auto* collector : {&atServer, &atClient})
    {
        ASSERT_EQ(collector->indices().size(), count);
        for (uint32_t i = 0; i < count; ++i)
        {
            ASSERT_EQ(collector->indices()[i], i) << "position " << i;
        }
    }
    if (GetParam().loss > 0)
    {
        const RelayCounts up = m_relay->getCounts(RelayDirection::ClientToServer);
        EXPECT_GT(up.dropped, 0u);
        EXPECT_GT(up.duplicated, 0u);
        EXPECT_GT(up.reordered, 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(Loss, ReliableThroughLoss,
                         ::testing::Values(LossCase{0.0, 3000}, LossCase{0.05, 3000},
                                           LossCase{0.20, 1500}),
                         [](const ::testing::TestParamInfo<LossCase>& info) {
                             return "Percent" +
                                    std::to_string(static_cast<int>(info.param.loss * 100));
                         });

TEST_F(EUDPThroughRelay, RealtimeModeSkipsGapsButNeverDeliversTwiceOrOutOfOrder)
{
    connect();
    Impairment impairment;
    impairment.dropRate = 0.2;
    impairment.duplicateRate = 0.1;
    impairment.reorderRate = 0.1;
    m_relay->setImpairment(RelayDirection::ClientToServer, impairment);

    constexpr uint32_t count = 2000;
    Collector atServer(*m_server, count);
    sendAll(client(), count, 64);
    // Real-time sending outruns the kernel's buffers, so some datagrams never
    // reach the relay at all: wait until it has been idle for a while.
    uint64_t lastSeen = ~0ull;
    auto quietSince = std::chrono::steady_clock::now();
    ASSERT_TRUE(eventually(
        [&] {
            const RelayCounts up = m_relay->getCounts(RelayDirection::ClientToServer);
            const auto now = std::chrono::steady_clock::now();
            if (up.received != lastSeen || up.received != up.forwarded + up.dropped)
            {
                lastSeen = up.received;
                quietSince = now;
            }
            return now - quietSince > 300ms;
        },
        30s));
    m_server->disconnect();
    ASSERT_TRUE(atServer.waitUntilDone(30s));

    const auto& indices = atServer.indices();
    ASSERT_FALSE(indices.empty());
    EXPECT_LT(indices.size(), count);
    for (std::size_t i = 1; i < indices.size(); ++i)
    {
        ASSERT_GT(indices[i], indices[i - 1]) << "position " << i;
    }
    // Copies and late packets were recognised as such, not delivered.
    EXPECT_GT(log().countContaining("]: received a duplicate packet - ACK and ignore"), 0u);
}

TEST_F(EUDPThroughRelay, AnIdleConnectionStaysUpOnKeepAlivesAndClosesWhenThePeerFallsSilent)
{
    connect();
    const RelayCounts before = m_relay->getCounts(RelayDirection::ServerToClient);
    // Several idle periods: both sides keep each other alive.
    ASSERT_TRUE(eventually(
        [&] {
            return m_relay->getCounts(RelayDirection::ServerToClient).forwarded >=
                       before.forwarded + 4 &&
                   m_relay->getCounts(RelayDirection::ClientToServer).forwarded >= 4;
        },
        30s));

    m_relay->setSilent(true);
    const auto silent = std::chrono::steady_clock::now();
    uint8 buffer[16];
    // The client closes 10 s after the keep-alive it sends 1 s into the silence.
    EXPECT_EQ(client().receiveData(buffer, sizeof(buffer)), 0);
    const auto closedAfter = std::chrono::steady_clock::now() - silent;
    EXPECT_GE(closedAfter, 10s);
    EXPECT_LT(closedAfter, 30s);
    EXPECT_EQ(m_server->receiveData(buffer, sizeof(buffer)), 0);
    EXPECT_FALSE(client().sendData(buffer, 1));
}

TEST_F(EUDPThroughRelay, ReliableDeliveryResumesAfterFiveSilentSecondsAndLosesNothing)
{
    connect();
    ASSERT_TRUE(client().setReceiveMode(CONN_MODE_RELIABLE));
    constexpr uint32_t count = 400;
    Collector atServer(*m_server, count);
    std::thread sender([&] { sendAll(client(), count, 200); });
    ASSERT_TRUE(eventually(
        [&] { return m_relay->getCounts(RelayDirection::ClientToServer).forwarded > 50; }, 30s));
    m_relay->setSilent(true);
    std::this_thread::sleep_for(5s);
    m_relay->setSilent(false);
    sender.join();
    ASSERT_TRUE(atServer.waitUntilDone(60s));
    ASSERT_EQ(atServer.indices().size(), count);
    for (uint32_t i = 0; i < count; ++i)
    {
        ASSERT_EQ(atServer.indices()[i], i);
    }
}

// The whole stack over EUDP: the client's connection reports the end when the
// network between it and the server goes silent.
TEST(EUDPConnectionThroughRelay, ASilentNetworkEndsBothConnectionsWithDisconnected)
{
    weftInit();
    {
        EventLog serverEvents;
        CollectingConnector connector(serverEvents);
        WEFTListener listener(TRANSPORT_EUDP);
        listener.listen("127.0.0.1", 0, &connector);
        ASSERT_TRUE(listener.waitForListen(10000));
        ImpairmentRelay relay(listener.getLocalPort(), 7);

        EventLog clientEvents;
        RecordingClient client(clientEvents);
        WEFTConnection connection(TRANSPORT_EUDP);
        ASSERT_TRUE(connection.connect("127.0.0.1", relay.getPort(), &client));
        ASSERT_TRUE(serverEvents.waitFor(2));
        relay.setSilent(true);
        ASSERT_TRUE(clientEvents.waitFor(2, 30s));
        EXPECT_EQ(clientEvents.events().back(), (Event{"status", "client", "disconnected"}));
        ASSERT_TRUE(serverEvents.waitFor(3, 30s));
        EXPECT_EQ(serverEvents.events().back(), (Event{"status", "server0", "disconnected"}));
        connection.disconnect();
        listener.shutdown(-1);
        connector.closeAll();
    }
    weftDeinit();
}

} // namespace
