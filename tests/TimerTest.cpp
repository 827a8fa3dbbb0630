#include "support/Waiting.h"

#include <tavo/Callback.h>
#include <tavo/Semaphore.h>
#include <tavo/Thread.h>
#include <tavo/Timer.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class Counter
{
public:
    void fire() { fired.add(); }
    EventCounter fired;
};

TEST(TimerTest, OneShotFiresOnceAfterItsPeriod)
{
    Counter counter;
    tavo::Callback<Counter> callback(&counter, &Counter::fire);
    tavo::Timer timer;
    timer.addCallback(&callback);

    const auto started = Clock::now();
    timer.start(20000, true);
    EXPECT_TRUE(timer.isRunning());
    ASSERT_TRUE(counter.fired.waitFor(1, 5s));
    EXPECT_GE(Clock::now() - started, 20ms);
    EXPECT_FALSE(timer.isRunning());
    // A one-shot timer stays quiet afterwards.
    EXPECT_FALSE(counter.fired.waitFor(2, 100ms));
}

TEST(TimerTest, StopBeforeExpiryPreventsTheCallAndStoppingIdleTimersIsHarmless)
{
    Counter counter;
    tavo::Callback<Counter> callback(&counter, &Counter::fire);
    tavo::Timer timer;
    timer.addCallback(&callback);
    timer.stop();

    timer.start(50000, true);
    timer.stop();
    EXPECT_FALSE(timer.isRunning());
    timer.stop();
    EXPECT_FALSE(counter.fired.waitFor(1, 150ms));
}

TEST(TimerTest, RestartingPushesTheDeadlineBack)
{
    Counter counter;
    tavo::Callback<Counter> callback(&counter, &Counter::fire);
    tavo::Timer timer;
    timer.addCallback(&callback);
    timer.start(200000, true);
    timer.start(10000, true);
    ASSERT_TRUE(counter.fired.waitFor(1, 5s));
    EXPECT_FALSE(counter.fired.waitFor(2, 300ms));
}

TEST(TimerTest, ATimerReArmedOftenFiresOnceAndAnEarlierDeadlineStillWakesTheThread)
{
    Counter far;
    Counter pushed;
    Counter near;
    tavo::Callback<Counter> farCallback(&far, &Counter::fire);
    tavo::Callback<Counter> pushedCallback(&pushed, &Counter::fire);
    tavo::Callback<Counter> nearCallback(&near, &Counter::fire);
    tavo::Timer farTimer;
    tavo::Timer pushedTimer;
    tavo::Timer nearTimer;
    farTimer.addCallback(&farCallback);
    pushedTimer.addCallback(&pushedCallback);
    nearTimer.addCallback(&nearCallback);

    // The timer thread sleeps towards the far deadline; re-arming pushes the
    // other timer back without waking it, and the near deadline must wake
    // it all the same, long before the far one.
    farTimer.start(30000000, true);
    // Once a short timer has fired, the thread runs and heads for the far one.
    Counter probe;
    tavo::Callback<Counter> probeCallback(&probe, &Counter::fire);
    tavo::Timer probeTimer;
    probeTimer.addCallback(&probeCallback);
    probeTimer.start(1000, true);
    ASSERT_TRUE(probe.fired.waitFor(1, 10s));
    for (int i = 0; i < 1000; ++i)
    {
        pushedTimer.start(40000, true);
    }
    nearTimer.start(20000, true);
    EXPECT_TRUE(near.fired.waitFor(1, 10s));
    ASSERT_TRUE(pushed.fired.waitFor(1, 10s));
    EXPECT_FALSE(pushed.fired.waitFor(2, 200ms)) << "a re-armed one-shot timer fired twice";
    EXPECT_EQ(far.fired.get(), 0);
    EXPECT_TRUE(farTimer.isRunning());
    farTimer.stop();
}

TEST(TimerTest, ManyTimersFireInDeadlineOrder)
{
    constexpr int timers = 20;
    std::mutex mutex;
    std::vector<int> order;
    EventCounter done;

    struct Recorder
    {
        int index;
        std::mutex* mutex;
        std::vector<int>* order;
        EventCounter* done;
        void fire()
        {
            {
                std::lock_guard<std::mutex> lock(*mutex);
                order->push_back(index);
            }
            done->add();
        }
    };
    std::vector<Recorder> recorders;
    for (int i = 0; i < timers; ++i)
    {
        recorders.push_back(Recorder{i, &mutex, &order, &done});
    }
    std::vector<tavo::Callback<Recorder>> callbacks;
    for (auto& recorder : recorders)
    {
        callbacks.emplace_back(&recorder, &Recorder::fire);
    }
    std::vector<tavo::Timer> timerObjects(timers);
    // Armed in reverse so that arming order and deadline order differ.
    for (int i = timers - 1; i >= 0; --i)
    {
        timerObjects[i].addCallback(&callbacks[i]);
        timerObjects[i].start(5000 * (i + 1), true);
    }
    ASSERT_TRUE(done.waitFor(timers, 10s));
    std::lock_guard<std::mutex> lock(mutex);
    for (int i = 0; i < timers; ++i)
    {
        EXPECT_EQ(order[i], i) << "position " << i;
    }
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
            tavo::Thread::mssleep(50);
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

TEST(TimerTest, PeriodicTimerFiresUntilStopped)
{
    Counter counter;
    tavo::Callback<Counter> callback(&counter, &Counter::fire);
    tavo::Timer timer;
    timer.addCallback(&callback);
    timer.start(5000, false);
    ASSERT_TRUE(counter.fired.waitFor(3, 5s));
    EXPECT_TRUE(timer.isRunning());
    timer.stop();
    const int after = counter.fired.get();
    EXPECT_FALSE(counter.fired.waitFor(after + 1, 100ms));
}

TEST(TimerTest, RemovedCallbackIsNotCalled)
{
    Counter kept;
    Counter removed;
    tavo::Callback<Counter> keptCallback(&kept, &Counter::fire);
    tavo::Callback<Counter> removedCallback(&removed, &Counter::fire);
    tavo::Timer timer;
    timer.addCallback(&keptCallback);
    timer.addCallback(&removedCallback);
    EXPECT_TRUE(timer.removeCallback(&removedCallback));
    EXPECT_FALSE(timer.removeCallback(&removedCallback));
    timer.start(1000, true);
    ASSERT_TRUE(kept.fired.waitFor(1, 5s));
    EXPECT_EQ(removed.fired.get(), 0);
}

TEST(CallbackTest, UnsetCallbackDoesNothing)
{
    tavo::Callback<Counter> callback;
    callback.call();
    Counter counter;
    callback.set(&counter, nullptr);
    callback.call();
    EXPECT_EQ(counter.fired.get(), 0);
    callback.set(&counter, &Counter::fire);
    callback.call();
    EXPECT_EQ(counter.fired.get(), 1);
}

} // namespace
