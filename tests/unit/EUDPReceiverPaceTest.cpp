#include "EUDPReceiverPace.h"

#include <weft/Constants.h>

#include <gtest/gtest.h>

namespace
{

constexpr unsigned int FULL = EUDP_RECEIVE_BURST;

TEST(EUDPReceiverPaceTest, ARealtimeReceiverBehindPreemptsUntilItHasLongBeenCaughtUp)
{
    EUDPReceiverPace pace;
    EXPECT_EQ(pace.afterTurn(FULL, false), std::nullopt); // reliable: waits
    EXPECT_EQ(pace.afterTurn(FULL - 1, true), std::nullopt);
    EXPECT_EQ(pace.afterTurn(FULL, true), tavo::WAKEUP_PREEMPTS);
    for (unsigned int taken : {1u, 10u, FULL, 2u}) // 10: neither behind nor caught up
    {
        for (int turn = 0; turn < (taken == FULL ? 1 : 255); ++turn)
        {
            ASSERT_EQ(pace.afterTurn(taken, true), std::nullopt) << taken << " " << turn;
        }
    }
    EXPECT_EQ(pace.afterTurn(2, true), tavo::WAKEUP_WAITS);
    EXPECT_EQ(pace.afterTurn(FULL, true), tavo::WAKEUP_PREEMPTS);
    EXPECT_EQ(pace.afterTurn(1, false), tavo::WAKEUP_WAITS); // reliable again: waits at once
}

} // namespace
