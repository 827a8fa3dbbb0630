#include "EUDPAcceptedPeers.h"

#include <weft/EUDPTransport.h>

#include "support/WeftFixture.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using TimePoint = EUDPAcceptedPeers::TimePoint;

const TimePoint START = TimePoint{} + 1h;
const tavo::HostAddress HOST("127.0.0.1"), OTHER_HOST("127.0.0.2");

class EUDPAcceptedPeersTest : public WeftFixture
{
protected:
    void SetUp() override
    {
        WeftFixture::SetUp();
        m_transports.reset(new EUDPTransport[4]);
    }
    void TearDown() override
    {
        m_transports.reset();
        WeftFixture::TearDown();
    }
    EUDPTransport* t(int i) { return &m_transports[i]; }
    int indexOf(EUDPTransport& transport) { return static_cast<int>(&transport - t(0)); }

    // Adds connection `i` for `port`, recording whatever it pushes out.
    void add(int i, uint16 port, TimePoint at, const tavo::HostAddress& host = HOST, uint con = 0)
    {
        m_peers.add(t(i), host, port, con, at, record());
    }
    bool evict(TimePoint now) { return m_peers.evictOldestHalfOpen(20ms, now, record()); }
    std::function<void(EUDPTransport&)> record()
    {
        return [this](EUDPTransport& gone) { m_gone.push_back(indexOf(gone)); };
    }

    std::unique_ptr<EUDPTransport[]> m_transports;
    EUDPAcceptedPeers m_peers;
    std::vector<int> m_gone;
};

TEST_F(EUDPAcceptedPeersTest, TheOldestHalfOpenGoesOnlyAfterItsGraceAndHeardOnesNever)
{
    EXPECT_FALSE(evict(START)); // none at all
    add(0, 1000, START);
    add(1, 1001, START + 5ms);
    add(2, 1002, START + 10ms);
    EXPECT_EQ(m_peers.halfOpenCount(), 3u);
    EXPECT_FALSE(evict(START + 19ms)); // the oldest may still hear from its client
    // The oldest heard from its peer: it is complete, the next one is oldest.
    m_peers.leaveHalfOpen(t(0));
    m_peers.leaveHalfOpen(t(0)); // only the first call counts
    EXPECT_EQ(m_peers.halfOpenCount(), 2u);
    EXPECT_FALSE(evict(START + 24ms));
    EXPECT_TRUE(evict(START + 25ms));
    EXPECT_EQ(m_gone, std::vector<int>{1});
    EXPECT_EQ(m_peers.halfOpenCount(), 1u);
    // A destroyed connection is counted no more.
    m_peers.remove(t(2));
    EXPECT_EQ(m_peers.halfOpenCount(), 0u);
    EXPECT_FALSE(evict(START + 1h));
    EXPECT_EQ(m_gone, std::vector<int>{1});
}

TEST_F(EUDPAcceptedPeersTest, ARepeatedConIsAnsweredByItsConnectionAndANewOneFromThatPortReplacesIt)
{
    add(0, 1000, START, HOST, 7);
    int answered = -1;
    auto answer = [&](EUDPTransport& transport) { answered = indexOf(transport); };
    EXPECT_TRUE(m_peers.answerAgain(HOST, 1000, 7, answer));
    EXPECT_EQ(answered, 0);
    // Another CON number, port or host is not the same client's repeat.
    EXPECT_FALSE(m_peers.answerAgain(HOST, 1000, 8, answer));
    EXPECT_FALSE(m_peers.answerAgain(HOST, 1001, 7, answer));
    EXPECT_FALSE(m_peers.answerAgain(OTHER_HOST, 1000, 7, answer));

    // A new CON from that port: the old connection never completed, so it
    // goes; one source holds one half-open place at most.
    add(1, 1000, START + 1ms, HOST, 8);
    EXPECT_EQ(m_gone, std::vector<int>{0});
    EXPECT_EQ(m_peers.halfOpenCount(), 1u);
    EXPECT_TRUE(m_peers.answerAgain(HOST, 1000, 8, answer));
    EXPECT_EQ(answered, 1);
    // A completed one is left alone when its client connects again.
    m_peers.leaveHalfOpen(t(1));
    add(2, 1000, START + 2ms, HOST, 9);
    EXPECT_EQ(m_gone, std::vector<int>{0});
    // The replaced connection's end changes nothing for the new one.
    m_peers.remove(t(1));
    EXPECT_EQ(m_peers.halfOpenCount(), 1u);
    EXPECT_TRUE(m_peers.answerAgain(HOST, 1000, 9, answer));
}

} // namespace
