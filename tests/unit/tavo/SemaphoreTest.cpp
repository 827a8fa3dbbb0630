#include <tavo/Semaphore.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

TEST(SemaphoreTest, ABinarySemaphoreCollapsesGivesIntoOneAndACountingOneKeepsEach)
{
    tavo::BinarySemaphore binary;
    EXPECT_EQ(binary.take(0), tavo::TAKE_TIMEOUT);
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
    EXPECT_EQ(counting.take(0), tavo::TAKE_TIMEOUT);
}

// Each kind: a timed take runs out after about the time asked, and a give
// from another thread wakes a waiting take (for the mutex: a thread that
// did not take it gives it back).
TEST(SemaphoreTest, TimedTakeRunsOutOrIsWokenByAGiveFromAnotherThread)
{
    tavo::BinarySemaphore binary;
    tavo::CountingSemaphore counting;
    tavo::MutexSemaphore mutex;
    mutex.take();
    const struct
    {
        const char* kind;
        std::function<int(unsigned int)> take;
        std::function<void()> give;
    } kinds[] = {
        {"binary", [&](unsigned int ms) { return binary.take(ms); }, [&] { binary.give(); }},
        {"counting", [&](unsigned int ms) { return counting.take(ms); }, [&] { counting.give(); }},
        {"mutex", [&](unsigned int ms) { return mutex.take(ms); }, [&] { mutex.give(); }},
    };
    for (const auto& kind : kinds)
    {
        SCOPED_TRACE(kind.kind);
        const auto started = Clock::now();
        EXPECT_EQ(kind.take(100), tavo::TAKE_TIMEOUT);
        EXPECT_GE(Clock::now() - started, 100ms);
        EXPECT_LT(Clock::now() - started, 5s);
        std::thread giver(kind.give);
        EXPECT_EQ(kind.take(10000), tavo::TAKE_OK);
        giver.join();
    }
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
