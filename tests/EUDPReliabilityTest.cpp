// EUDP through a relay that loses, duplicates, reorders and silences traffic.

#include "ImpairmentRelay.h"
#include "support/EUDPTransportTestPeer.h"
#include "support/Waiting.h"
#include "support/WeftFixture.h"

#include <weft/EUDPTransport.h>

#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <memory>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

const tavo::HostAddress LOOPBACK("127.0.0.1");

// Numbered messages: 4 bytes of index and filler up to the chosen size.
void sendAll(IWEFTTransport& transport, uint32_t count, std::size_t size)
{
    for (uint32_t i = 0; i < count; ++i)
    {
        std::vector<uint8> bytes(size, static_cast<uint8>(i * 31));
        std::memcpy(bytes.data(), &i, sizeof(i));
        ASSERT_TRUE(transport.sendData(bytes.data(), static_cast<uint>(bytes.size())));
    }
}

// The indices received, in arrival order, until the transport closes or
// `expected` have arrived.
std::future<std::vector<uint32_t>> collect(IWEFTTransport& transport, std::size_t expected)
{
    return std::async(std::launch::async,
                      [&transport, expected]
                      {
                          std::vector<uint32_t> indices;
                          uint8 buffer[EUDP_MAX_PAYLOAD];
                          while (indices.size() < expected &&
                                 transport.receiveData(buffer, sizeof(buffer)) > 0)
                          {
                              indices.push_back(0);
                              std::memcpy(&indices.back(), buffer, sizeof(uint32_t));
                          }
                          return indices;
                      });
}

// A client and an accepted transport talking through the relay.
class EUDPThroughRelay : public WeftFixture
{
protected:
    void SetUp() override
    {
        WeftFixture::SetUp();
        m_listener = std::make_unique<EUDPTransport>();
        m_client = std::make_unique<EUDPTransport>();
        ASSERT_TRUE(m_listener->listen(LOOPBACK, 0));
        m_relay = std::make_unique<ImpairmentRelay>(m_listener->getLocalPort(), 20261123);
    }

    void connect(int firstClientNumber = 0)
    {
        std::thread acceptor([&] { m_server.reset(m_listener->accept()); });
        EUDPTransportTestPeer::numberFrom(*m_client, firstClientNumber);
        const bool connected = m_client->connect(LOOPBACK, m_relay->getPort());
        acceptor.join();
        ASSERT_TRUE(connected);
        ASSERT_NE(m_server, nullptr);
    }

    // Transports go before weftDeinit; destroying one in any state is safe.
    void TearDown() override
    {
        m_server.reset();
        m_client.reset();
        m_listener.reset();
        m_relay.reset();
        WeftFixture::TearDown();
    }

    std::unique_ptr<EUDPTransport> m_listener;
    std::unique_ptr<EUDPTransport> m_client;
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
    ASSERT_TRUE(m_client->setSendMode(CONN_MODE_RELIABLE));
    ASSERT_TRUE(m_client->setReceiveMode(CONN_MODE_RELIABLE));
    ASSERT_TRUE(m_client->setWindowSize(32));
    ASSERT_TRUE(m_server->setWindowSize(32));
    const double loss = GetParam().loss;
    m_relay->setImpairment(Impairment{
        .dropRate = loss, .duplicateRate = loss / 2, .reorderRate = loss / 2, .jitter = 200us});

    const uint32_t count = GetParam().messages;
    auto atServer = collect(*m_server, count);
    auto atClient = collect(*m_client, count);
    std::thread serverSender([&] { sendAll(*m_server, count, 300); });
    sendAll(*m_client, count, 100);
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
    if (loss > 0)
    {
        const RelayCounts up = m_relay->getCounts(RelayDirection::ClientToServer);
        EXPECT_GT(up.dropped, 0u);
        EXPECT_GT(up.duplicated, 0u);
        EXPECT_GT(up.reordered, 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Loss, ReliableThroughLoss,
    ::testing::Values(LossCase{0.0, 3000}, LossCase{0.05, 3000}, LossCase{0.20, 1500}),
    [](const ::testing::TestParamInfo<LossCase>& info)
    { return "Percent" + std::to_string(static_cast<int>(info.param.loss * 100)); });

TEST_F(EUDPThroughRelay, RealtimeModeSkipsGapsButNeverDeliversTwiceOrOutOfOrder)
{
    connect();
    m_relay->setImpairment(RelayDirection::ClientToServer,
                           Impairment{.dropRate = 0.2, .duplicateRate = 0.1, .reorderRate = 0.1});
    constexpr uint32_t count = 2000;
    auto atServer = collect(*m_server, count);
    sendAll(*m_client, count, 64);
    // Real-time sending outruns the kernel's buffers, so some datagrams never
    // reach the relay at all: wait until it has been idle for a while.
    uint64_t lastSeen = ~0ull;
    auto quietSince = Clock::now();
    ASSERT_TRUE(eventually(
        [&]
        {
            const RelayCounts up = m_relay->getCounts(RelayDirection::ClientToServer);
            if (up.received != lastSeen || up.received != up.forwarded + up.dropped)
            {
                lastSeen = up.received;
                quietSince = Clock::now();
            }
            return Clock::now() - quietSince > 300ms;
        },
        30s));
    m_server->disconnect();
    ASSERT_EQ(atServer.wait_for(30s), std::future_status::ready);

    const std::vector<uint32_t> indices = atServer.get();
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
        [&]
        {
            return m_relay->getCounts(RelayDirection::ServerToClient).forwarded >=
                       before.forwarded + 4 &&
                   m_relay->getCounts(RelayDirection::ClientToServer).forwarded >= 4;
        },
        30s));

    m_relay->setSilent(true);
    const auto silent = Clock::now();
    uint8 buffer[16];
    // The client closes 10 s after the keep-alive it sends 1 s into the silence.
    EXPECT_EQ(m_client->receiveData(buffer, sizeof(buffer)), 0);
    const auto closedAfter = Clock::now() - silent;
    EXPECT_GE(closedAfter, 10s);
    EXPECT_LT(closedAfter, 30s);
    EXPECT_EQ(m_server->receiveData(buffer, sizeof(buffer)), 0);
    EXPECT_FALSE(m_client->sendData(buffer, 1));
}

} // namespace
