// EUDP through a relay that loses, duplicates and reorders traffic, with
// every time-out shortened. (That lost keep-alives never end a live
// connection is EUDPLivenessTest's.)

#include "EUDPTimeouts.h"

#include "ImpairmentRelay.h"
#include "support/EUDPTransportTestPeer.h"
#include "support/Waiting.h"
#include "support/WeftFixture.h"

#include <weft/EUDPTransport.h>

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;

const tavo::HostAddress LOOPBACK("127.0.0.1");

// How much faster than real time the protocol runs here: enough for minutes
// to pass in seconds, not so much that a stall of a busy two-core machine
// looks like a dead peer. Sanitizer builds run several times slower, so their
// time-outs stay longer (gcc names the sanitizer in a macro, clang 14 only
// answers __has_feature).
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define WEFT_TEST_SANITIZED
#endif
#endif
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__) || defined(WEFT_TEST_SANITIZED)
constexpr int RELAY_SPEED_UP = 10;
#else
constexpr int RELAY_SPEED_UP = 20;
#endif

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

// A client and an accepted transport talking through the relay. The
// listener accepts in a loop, as a server does, so that a CON sent again
// after a lost ACK is answered.
class EUDPThroughRelay : public WeftFixture
{
protected:
    void SetUp() override
    {
        WeftFixture::SetUp();
        start(EUDPTimeouts().shortenedBy(RELAY_SPEED_UP));
    }

    // A new listener, client and relay that run with `timeouts`.
    void start(const EUDPTimeouts& timeouts)
    {
        stop();
        m_timeouts = std::make_unique<ScopedEUDPTimeouts>(timeouts);
        m_listener = std::make_unique<EUDPTransport>();
        m_client = std::make_unique<EUDPTransport>();
        ASSERT_TRUE(m_listener->listen(LOOPBACK, 0));
        m_relay = std::make_unique<ImpairmentRelay>(m_listener->getLocalPort(), 20261123);
        m_acceptor = std::thread(
            [this]
            {
                while (IWEFTTransport* accepted = m_listener->accept())
                {
                    std::lock_guard<std::mutex> lock(m_acceptedMutex);
                    m_accepted.emplace_back(accepted);
                    m_acceptedChanged.notify_all();
                }
            });
    }

    // Connects m_client (or `client`) and returns the server's side.
    std::unique_ptr<IWEFTTransport> connectOne(EUDPTransport& client, int firstNumber = 0)
    {
        EUDPTransportTestPeer::numberFrom(client, firstNumber);
        if (!client.connect(LOOPBACK, m_relay->getPort()))
        {
            return nullptr;
        }
        std::unique_lock<std::mutex> lock(m_acceptedMutex);
        m_acceptedChanged.wait_for(lock, 10s, [&] { return !m_accepted.empty(); });
        if (m_accepted.empty())
        {
            return nullptr;
        }
        std::unique_ptr<IWEFTTransport> accepted = std::move(m_accepted.front());
        m_accepted.pop_front();
        return accepted;
    }

    void connect(int firstClientNumber = 0)
    {
        m_server = connectOne(*m_client, firstClientNumber);
        ASSERT_NE(m_server, nullptr);
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
        m_server.reset();
        m_client.reset();
        m_listener.reset();
        m_relay.reset();
        m_timeouts.reset();
    }

    void TearDown() override
    {
        stop();
        WeftFixture::TearDown();
    }

    std::unique_ptr<ScopedEUDPTimeouts> m_timeouts;
    std::unique_ptr<EUDPTransport> m_listener;
    std::unique_ptr<EUDPTransport> m_client;
    std::unique_ptr<IWEFTTransport> m_server;
    std::unique_ptr<ImpairmentRelay> m_relay;
    std::thread m_acceptor;
    std::mutex m_acceptedMutex;
    std::condition_variable m_acceptedChanged;
    std::deque<std::unique_ptr<IWEFTTransport>> m_accepted;
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
    const RelayCounts up = m_relay->getCounts(RelayDirection::ClientToServer);
    EXPECT_GT(up.dropped, 0u);
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
        m_client = std::make_unique<EUDPTransport>();
        m_server = connectOne(*m_client);
        ASSERT_NE(m_server, nullptr) << "attempt " << attempt;
        ASSERT_TRUE(m_client->setSendMode(CONN_MODE_RELIABLE)) << "attempt " << attempt;
        ASSERT_TRUE(m_client->setWindowSize(20)) << "attempt " << attempt;
    }
}

} // namespace
