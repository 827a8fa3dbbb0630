#include "EUDPLiveness.h"

#include <gtest/gtest.h>

#include <vector>

namespace
{

using namespace std::chrono_literals;
using TimePoint = EUDPLiveness::TimePoint;

const TimePoint START = TimePoint{} + 1h;

// Runs the watch as its timer would, tick after tick, until it reports the
// peer dead or `until`; the peer is heard at the times in `heard`. Returns
// the times of the keep-alives, relative to START, and sets `deadAt`.
std::vector<std::chrono::milliseconds> run(std::chrono::milliseconds period,
                                           const std::vector<std::chrono::milliseconds>& heard,
                                           std::chrono::milliseconds until,
                                           std::chrono::milliseconds& deadAt)
{
    EUDPLiveness watch(period, 10s, START);
    std::vector<std::chrono::milliseconds> keepAlives;
    std::size_t nextHeard = 0;
    TimePoint now = START;
    deadAt = -1ms;
    while (now < START + until)
    {
        const EUDPLiveness::Tick tick = watch.tick(now);
        const auto at = std::chrono::duration_cast<std::chrono::milliseconds>(now - START);
        if (tick.dead)
        {
            deadAt = at;
            break;
        }
        if (tick.sendKeepAlive)
        {
            keepAlives.push_back(at);
        }
        // The next event: the tick asked for, or the peer heard before it.
        now = tick.next;
        if (nextHeard < heard.size() && START + heard[nextHeard] <= now)
        {
            watch.heard(START + heard[nextHeard]);
            now = START + heard[nextHeard++];
        }
    }
    return keepAlives;
}

TEST(EUDPLivenessTest, KeepAlivesRepeatThroughASilenceAndThePeerIsDeadTenSecondsAfterTheFirst)
{
    std::chrono::milliseconds deadAt;
    const auto keepAlives = run(500ms, {}, 60s, deadAt);
    ASSERT_EQ(keepAlives.size(), 20u);
    for (std::size_t i = 0; i < keepAlives.size(); ++i)
    {
        EXPECT_EQ(keepAlives[i], 500ms * static_cast<int>(i + 1));
    }
    EXPECT_EQ(deadAt, 10500ms);
}

TEST(EUDPLivenessTest, AnyAnswerEndsTheSilenceSoLostKeepAlivesNeverEndALiveConnection)
{
    // Nine keep-alives in a row go unanswered (or their answers are lost)
    // before one is answered, again and again: the connection lives.
    std::vector<std::chrono::milliseconds> heard;
    for (int round = 1; round <= 20; ++round)
    {
        heard.push_back(std::chrono::milliseconds(round * 5000) - 1ms);
    }
    std::chrono::milliseconds deadAt;
    const auto keepAlives = run(500ms, heard, 100s, deadAt);
    EXPECT_EQ(deadAt, -1ms);
    EXPECT_GE(keepAlives.size(), 20u * 9);

    // Heard all the time: not one keep-alive.
    std::vector<std::chrono::milliseconds> chatty;
    for (int ms = 100; ms < 30000; ms += 400)
    {
        chatty.push_back(std::chrono::milliseconds(ms));
    }
    EXPECT_TRUE(run(1s, chatty, 30s, deadAt).empty());
    EXPECT_EQ(deadAt, -1ms);
}

} // namespace
