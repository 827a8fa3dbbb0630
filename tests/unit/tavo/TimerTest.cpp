#include "support/Waiting.h"

#include <tavo/Callback.h>
#include <tavo/Semaphore.h>
#include <tavo/Thread.h>
#include <tavo/Timer.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <numeric>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

struct Counter
{
    void fire() { fired.add(); }
    EventCounter fired;
};

// A timer whose one callback counts; the timer, declared last, stops first.
struct CountingTimer : Counter
{
    CountingTimer() { timer.addCallback(&callback); }
    tavo::Callback<Counter> callback{this, &Counter::fire};
    tavo::Timer timer;
};

TEST(TimerTest, OneShotFiresOnceAfterItsPeriodAndStopSilencesArmedAndPeriodicTimers)
{
    CountingTimer oneShot;
    // Removed and unset callbacks are not called.
    Counter removed;
    tavo::Callback<Counter> removedCallback(&removed, &Counter::fire);
    tavo::Callback<Counter> unset;
    unset.set(&removed, nullptr);
    oneShot.timer.addCallback(&removedCallback);
    oneShot.timer.addCallback(&unset);
    EXPECT_TRUE(oneShot.timer.removeCallback(&removedCallback));
    EXPECT_FALSE(oneShot.timer.removeCallback(&removedCallback));
    const auto started = Clock::now();
    oneShot.timer.start(20000, true);
    EXPECT_TRUE(oneShot.timer.isRunning());
    ASSERT_TRUE(oneShot.fired.waitFor(1, 5s));
    EXPECT_GE(Clock::now() - started, 20ms);
    EXPECT_FALSE(oneShot.timer.isRunning());

    CountingTimer stopped;
    stopped.timer.stop(); // harmless on an idle timer
    stopped.timer.start(50000, true);
    stopped.timer.stop();
    EXPECT_FALSE(stopped.timer.isRunning());
    CountingTimer periodic;
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
    CountingTimer far;
    CountingTimer pushed;
    CountingTimer near;
    // The timer thread sleeps towards the far deadline; re-arming pushes the
    // other timer back without waking it, and the near deadline must wake
    // it all the same, long before the far one.
    far.timer.start(30000000, true);
    CountingTimer probe; // once it has fired, the thread heads for the far deadline
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

TEST(TimerTest, StopWaitsForACallbackThatIsRunning)
{
    struct Slow
    {
        tavo::BinarySemaphore entered;
        tavo::BinarySemaphore release;
        std::atomic<bool> finished{false};
        void fire()
        {
            entered.give();
            release.take();
            finished = true;
        }
    } slow;
    tavo::Callback<Slow> callback(&slow, &Slow::fire);
    tavo::Timer timer;
    timer.addCallback(&callback);
    timer.start(0, true);
    ASSERT_EQ(slow.entered.take(5000), tavo::TAKE_OK);
    std::thread releaser(
        [&]
        {
            tavo::Thread::mssleep(50); // long enough for stop() to be waiting
            slow.release.give();
        });
    timer.stop();
    EXPECT_TRUE(slow.finished.load());
    releaser.join();
}

TEST(TimerTest, ACallbackMayStopAndRestartTimersFromTheTimerThread)
{
    struct Chain
    {
        tavo::Timer* self = nullptr;
        tavo::Timer* other = nullptr;
        EventCounter fired;
        void fire()
        {
            self->stop();
            other->stop();
            if (fired.get() < 2)
            {
                self->start(1000, true);
            }
            fired.add();
        }
    } chain;
    tavo::Timer timer;
    tavo::Timer other;
    chain.self = &timer;
    chain.other = &other;
    tavo::Callback<Chain> callback(&chain, &Chain::fire);
    timer.addCallback(&callback);
    timer.start(1000, true);
    ASSERT_TRUE(chain.fired.waitFor(3, 5s));
}

} // namespace
