#include <tavo/Semaphore.h>

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

TEST(SemaphoreTest, BinaryCollapsesGivesCountingKeepsEachAndATimedTakeRunsOutOrIsWoken)
{
    tavo::BinarySemaphore binary;
    binary.give();
    binary.give();
    EXPECT_EQ(binary.take(0), tavo::TAKE_OK);
    EXPECT_EQ(binary.take(0), tavo::TAKE_TIMEOUT);
    tavo::CountingSemaphore counting(2);
    counting.give();
    EXPECT_EQ(counting.getCount(), 3u);
    for (int i = 0; i < 3; ++i)
    {
        EXPECT_EQ(counting.take(0), tavo::TAKE_OK) << "take " << i;
    }
    // Each kind, taken now: a timed take runs out after about the time asked,
    // and a give from another thread wakes a waiting one (for the mutex: a
    // thread that did not take it gives it back).
    tavo::MutexSemaphore mutex;
    mutex.take();
    const auto runsOutOrIsWoken = [](auto& semaphore, const char* kind)
    {
        SCOPED_TRACE(kind);
        const auto started = Clock::now();
        EXPECT_EQ(semaphore.take(100), tavo::TAKE_TIMEOUT);
        EXPECT_GE(Clock::now() - started, 100ms);
        EXPECT_LT(Clock::now() - started, 5s);
        std::thread giver([&] { semaphore.give(); });
        const auto waiting = Clock::now();
        EXPECT_EQ(semaphore.take(10000), tavo::TAKE_OK);
        EXPECT_LT(Clock::now() - waiting, 5s) << "woken only by the end of the wait";
        giver.join();
    };
    runsOutOrIsWoken(binary, "binary");
    runsOutOrIsWoken(counting, "counting");
    runsOutOrIsWoken(mutex, "mutex");
    mutex.give();
}

TEST(SemaphoreTest, MutexSemaphoreExcludes)
{
    tavo::MutexSemaphore mutex;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
    {
        threads.emplace_back(
            [&]
            {
                for (int i = 0; i < 2000; ++i)
                {
                    tavo::MutexLock lock(mutex);
                    ++counter;
                }
            });
    }
    for (auto& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(counter, 8000);
}

} // namespace
