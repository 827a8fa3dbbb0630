#include "support/Waiting.h"

#include <tavo/Callback.h>
#include <tavo/Semaphore.h>
#include <tavo/Thread.h>
#include <tavo/Timer.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

namespace
{

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// A timer whose one callback runs `body` and counts; the timer, declared
// last, stops first.
struct TestTimer
{
    TestTimer() { timer.addCallback(&callback); }
    void fire()
    {
        body();
        fired.add();
    }
    std::function<void()> body = [] {};
    EventCounter fired;
    tavo::Callback<TestTimer> callback{this, &TestTimer::fire};
    tavo::Timer timer;
};

TEST(TimerTest, OneShotFiresOnceAfterItsPeriodAndStopSilencesArmedAndPeriodicTimers)
{
    TestTimer oneShot;
    // Removed and unset callbacks are not called.
    TestTimer removed;
    tavo::Callback<TestTimer> unset;
    unset.set(&removed, nullptr);
    oneShot.timer.addCallback(&removed.callback);
    oneShot.timer.addCallback(&unset);
    EXPECT_TRUE(oneShot.timer.removeCallback(&removed.callback));
    EXPECT_FALSE(oneShot.timer.removeCallback(&removed.callback));
    const auto started = Clock::now();
    oneShot.timer.start(20000, true);
    EXPECT_TRUE(oneShot.timer.isRunning());
    ASSERT_TRUE(oneShot.fired.waitFor(1, 5s));
    EXPECT_GE(Clock::now() - started, 20ms);
    EXPECT_FALSE(oneShot.timer.isRunning());

    TestTimer stopped;
    stopped.timer.stop(); // harmless on an idle timer
    stopped.timer.start(50000, true);
    stopped.timer.stop();
    EXPECT_FALSE(stopped.timer.isRunning());
    TestTimer periodic;
    periodic.timer.start(5000, false);
    ASSERT_TRUE(periodic.fired.waitFor(3, 5s));
    EXPECT_TRUE(periodic.timer.isRunning());
    periodic.timer.stop();
    const int after = periodic.fired.get();
    EXPECT_FALSE(periodic.fired.waitFor(after + 1, 150ms));
    EXPECT_EQ(stopped.fired.get(), 0); // its 50 ms have passed by now
    EXPECT_EQ(oneShot.fired.get(), 1);
    EXPECT_EQ(removed.fired.get(), 0);
    // Stopped first: a pass that fired may still be calling `unset`.
    oneShot.timer.stop();
    oneShot.timer.removeCallback(&unset);
}

TEST(TimerTest, ATimerReArmedOftenFiresOnceAndAnEarlierDeadlineStillWakesTheThread)
{
    TestTimer far, pushed, near;
    // The timer thread sleeps towards the far deadline; re-arming pushes the
    // other timer back without waking it, and the near deadline must wake
    // it all the same, long before the far one.
    far.timer.start(30000000, true);
    TestTimer probe; // once it has fired, the thread heads for the far deadline
    probe.timer.start(1000, true);
    ASSERT_TRUE(probe.fired.waitFor(1, 10s));
    pushed.timer.start(200000, true); // a shorter period replaces this one
    for (int i = 0; i < 1000; ++i)
    {
        pushed.timer.start(40000, true);
    }
    near.timer.start(20000, true);
    EXPECT_TRUE(near.fired.waitFor(1, 10s));
    ASSERT_TRUE(pushed.fired.waitFor(1, 10s));
    EXPECT_FALSE(pushed.fired.waitFor(2, 300ms)) << "a re-armed one-shot timer fired twice";
    EXPECT_EQ(far.fired.get(), 0);
    EXPECT_TRUE(far.timer.isRunning());
}

TEST(TimerTest, StopWaitsForARunningCallbackExceptOnTheTimerThreadWhereTimersMayBeRestarted)
{
    tavo::BinarySemaphore entered, release;
    std::atomic<bool> finished{false};
    TestTimer slow;
    slow.body = [&]
    {
        entered.give();
        release.take();
        finished = true;
    };
    slow.timer.start(0, true);
    ASSERT_EQ(entered.take(5000), tavo::TAKE_OK);
    std::thread releaser(
        [&]
        {
            tavo::Thread::mssleep(50); // long enough for stop() to be waiting
            release.give();
        });
    slow.timer.stop();
    EXPECT_TRUE(finished.load());
    releaser.join();

    // A callback stops its own timer and another, then re-arms its own.
    TestTimer chain, other;
    chain.body = [&]
    {
        chain.timer.stop();
        other.timer.stop();
        if (chain.fired.get() < 2)
        {
            chain.timer.start(1000, true);
        }
    };
    chain.timer.start(1000, true);
    ASSERT_TRUE(chain.fired.waitFor(3, 5s));
}

} // namespace
