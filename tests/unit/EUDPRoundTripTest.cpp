#include "EUDPRoundTrip.h"

#include <gtest/gtest.h>

namespace
{

using namespace std::chrono_literals;
using D = EUDPRoundTrip::Duration;

TEST(EUDPRoundTripTest, TheTimeOutFollowsTheRoundTripWithinItsBoundsAndBacksOffAfterTwoTimeOuts)
{
    EUDPRoundTrip rt(2ms, 500ms);
    // Nothing measured yet: the ceiling.
    EXPECT_EQ(rt.timeout(), D(500ms));
    EXPECT_FALSE(rt.smoothed());
    EXPECT_FALSE(rt.probeInterval());
    // First sample: round trip plus four half round trips.
    rt.sample(10ms);
    EXPECT_EQ(rt.timeout(), D(30ms));
    EXPECT_EQ(rt.probeInterval(), D(30ms));
    // Steady samples shrink the variation towards nothing, down to the floor.
    for (int i = 0; i < 200; ++i)
    {
        rt.sample(100us);
    }
    EXPECT_EQ(rt.timeout(), D(2ms));
    EXPECT_EQ(rt.probeInterval(), D(1ms)); // a probe costs a datagram, not a go-back
    // A slow path raises it, never above the ceiling.
    for (int i = 0; i < 200; ++i)
    {
        rt.sample(2s);
    }
    EXPECT_EQ(rt.timeout(), D(500ms));
    // A floor above the ceiling gives way to it.
    EUDPRoundTrip odd(800ms, 500ms);
    odd.sample(1ms);
    EXPECT_EQ(odd.timeout(), D(500ms));

    // Two time-outs keep the time-out, then each doubles it until progress.
    rt = EUDPRoundTrip(2ms, 500ms);
    rt.sample(10ms); // 30 ms
    const D expected[] = {30ms, 30ms, 30ms, 60ms, 120ms, 240ms, 480ms, 500ms};
    for (int timeouts = 0; timeouts < 8; ++timeouts)
    {
        EXPECT_EQ(rt.timeout(), expected[timeouts]) << timeouts << " time-outs";
        rt.timedOut();
    }
    rt.progressed();
    EXPECT_EQ(rt.timeout(), D(30ms));
}

} // namespace
