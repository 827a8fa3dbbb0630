#include "EUDPAckDelay.h"

#include <gtest/gtest.h>

namespace
{

using namespace std::chrono_literals;

const EUDPAckDelay::TimePoint START = EUDPAckDelay::TimePoint{} + 1h;

TEST(EUDPAckDelayTest, AnAckWaitsOnlyInADenseStreamUntilTheNextCoversItAnotherAnswerOrItsTime)
{
    EUDPAckDelay delay(1ms);
    EXPECT_EQ(delay.afterInOrder(1, 1, START), 1u); // after a pause: at once
    EXPECT_EQ(delay.afterInOrder(2, 1, START + 300us), std::nullopt);
    EXPECT_EQ(delay.due(), START + 1300us);
    EXPECT_EQ(delay.afterInOrder(3, 1, START + 600us), 3u); // covers the held one
    EXPECT_EQ(delay.due(), std::nullopt);
    EXPECT_EQ(delay.afterInOrder(4, 1, START + 900us), std::nullopt);
    EXPECT_EQ(delay.release(), 4u);
    EXPECT_EQ(delay.release(), std::nullopt);
    EXPECT_EQ(delay.afterInOrder(6, 2, START + 1000us), 6u); // two at once: at once
    EXPECT_EQ(delay.afterInOrder(7, 1, START + 3000us), 7u); // after a pause again

    EUDPAckDelay none(0us);
    none.afterInOrder(1, 1, START);
    EXPECT_EQ(none.afterInOrder(2, 1, START), 2u);
}

} // namespace
