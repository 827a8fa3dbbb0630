// EUDP through a relay that loses, duplicates, reorders or silences traffic,
// with every time-out shortened. (That lost keep-alives never end a live
// connection is EUDPLivenessTest's.)

#include "EUDPTimeouts.h"

#include "ImpairmentRelay.h"
#include "support/EUDPTransportTestPeer.h"
#include "support/Waiting.h"
#include "support/WeftFixture.h"

#include <weft/EUDPTransport.h>

#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;

const tavo::HostAddress LOOPBACK("127.0.0.1");

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

TEST_P(ReliableThroughLoss, BothDirectionsDeliverEveryMessageOnceAndInOrderAcrossTheWrapAndASilence)
{
    // The client's numbers cross 65534 -> 0 part way through.
    ASSERT_NO_FATAL_FAILURE(connect(EUDP_SEQ_RANGE - 700));
    // Negotiated on a clean path: a lost request would only cost a time-out.
    ASSERT_TRUE(m_client->setSendMode(CONN_MODE_RELIABLE));
    ASSERT_TRUE(m_client->setReceiveMode(CONN_MODE_RELIABLE));
    ASSERT_TRUE(m_client->setWindowSize(32));
    ASSERT_TRUE(m_server->setWindowSize(32));
    const uint32_t count = GetParam().messages;
    auto atServer = collect(*m_server, count);
    auto atClient = collect(*m_client, count);
    // The first messages go into a network silent for half the time after
    // which a peer counts as dead (fewer than a full ring, whose sender would
    // give up sooner): both sides keep them and repeat them.
    m_relay->setSilent(true);
    sendAll(*m_server, 0, 300, 300);
    sendAll(*m_client, 0, 300, 100);
    std::this_thread::sleep_for(timeouts().deadPeer / 2);
    const RelayCounts silenced = m_relay->getCounts(RelayDirection::ClientToServer);
    m_relay->setSilent(false);
    const double loss = GetParam().loss;
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

INSTANTIATE_TEST_SUITE_P(Loss, ReliableThroughLoss,
                         ::testing::Values(LossCase{0.05, 3000}, LossCase{0.20, 1500}),
                         [](const ::testing::TestParamInfo<LossCase>& info) {
                             return "Percent" +
                                    std::to_string(static_cast<int>(info.param.loss * 100));
                         });

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

} // namespace
