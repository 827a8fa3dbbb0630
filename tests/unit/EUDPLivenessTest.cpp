#include "EUDPLiveness.h"

#include <gtest/gtest.h>

#include <vector>

namespace
{

using namespace std::chrono_literals;
using TimePoint = EUDPLiveness::TimePoint;

using ms = std::chrono::milliseconds;

const TimePoint START = TimePoint{} + 1h;

// Runs the watch as its timer would, tick after tick, until it reports the
// peer dead or `until`; the peer is heard at the times in `heard`. Returns
// the times of the keep-alives, relative to START, and sets `deadAt`.
std::vector<ms> run(ms period, const std::vector<ms>& heard, ms until, ms& deadAt)
{
    EUDPLiveness watch(period, 10s, START);
    std::vector<ms> keepAlives;
    std::size_t nextHeard = 0;
    deadAt = -1ms;
    for (TimePoint now = START; now < START + until;)
    {
        const EUDPLiveness::Tick tick = watch.tick(now);
        const auto at = std::chrono::duration_cast<ms>(now - START);
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
            now = START + heard[nextHeard++];
            watch.heard(now);
        }
    }
    return keepAlives;
}

TEST(EUDPLivenessTest, KeepAlivesRepeatThroughASilenceUntilThePeerIsDeadAndAnyAnswerEndsIt)
{
    ms deadAt;
    const auto keepAlives = run(500ms, {}, 60s, deadAt);
    ASSERT_EQ(keepAlives.size(), 20u);
    for (std::size_t i = 0; i < keepAlives.size(); ++i)
    {
        EXPECT_EQ(keepAlives[i], 500ms * static_cast<int>(i + 1));
    }
    EXPECT_EQ(deadAt, 10500ms); // ten seconds after the first keep-alive
    // Nine keep-alives in a row go unanswered (or their answers are lost)
    // before one is answered, again and again: the connection lives.
    std::vector<ms> heard;
    for (int round = 1; round <= 20; ++round)
    {
        heard.push_back(ms(round * 5000) - 1ms);
    }
    EXPECT_GE(run(500ms, heard, 100s, deadAt).size(), 20u * 9);
    EXPECT_EQ(deadAt, -1ms);

    // Heard all the time: not one keep-alive.
    std::vector<ms> chatty;
    for (int at = 100; at < 30000; at += 400)
    {
        chatty.push_back(ms(at));
    }
    EXPECT_TRUE(run(1s, chatty, 30s, deadAt).empty());
    EXPECT_EQ(deadAt, -1ms);
}

} // namespace
