#include <tavo/Semaphore.h>

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

TEST(SemaphoreTest, BinarySemaphoreCollapsesGivesIntoOne)
{
    tavo::BinarySemaphore semaphore;
    EXPECT_EQ(semaphore.take(0), tavo::TAKE_TIMEOUT);
    semaphore.give();
    semaphore.give();
    EXPECT_EQ(semaphore.take(0), tavo::TAKE_OK);
    EXPECT_EQ(semaphore.take(0), tavo::TAKE_TIMEOUT);
    tavo::BinarySemaphore given(true);
    EXPECT_EQ(given.take(0), tavo::TAKE_OK);
}

TEST(SemaphoreTest, CountingSemaphoreKeepsEveryGive)
{
    tavo::CountingSemaphore semaphore(2);
    semaphore.give();
    EXPECT_EQ(semaphore.getCount(), 3u);
    for (int i = 0; i < 3; ++i)
    {
        EXPECT_EQ(semaphore.take(0), tavo::TAKE_OK) << "take " << i;
    }
    EXPECT_EQ(semaphore.take(0), tavo::TAKE_TIMEOUT);
}

TEST(SemaphoreTest, TimedTakesReturnAfterAboutTheTimeAsked)
{
    tavo::BinarySemaphore binary;
    tavo::CountingSemaphore counting;
    tavo::MutexSemaphore mutex;
    mutex.take();

    for (int which = 0; which < 3; ++which)
    {
        const auto started = Clock::now();
        int result = 0;
        if (which == 0)
        {
            result = binary.take(100);
        }
        else if (which == 1)
        {
            result = counting.take(100);
        }
        else
        {
            result = mutex.take(100);
        }
        const auto waited = Clock::now() - started;
        EXPECT_EQ(result, tavo::TAKE_TIMEOUT) << "semaphore " << which;
        EXPECT_GE(waited, 100ms) << "semaphore " << which;
        EXPECT_LT(waited, 5s) << "semaphore " << which;
    }
    mutex.give();
}

TEST(SemaphoreTest, GiveWakesATakerOnAnotherThread)
{
    tavo::BinarySemaphore request;
    tavo::BinarySemaphore answer;
    std::thread peer([&] {
        request.take();
        answer.give();
    });
    request.give();
    EXPECT_EQ(answer.take(5000), tavo::TAKE_OK);
    peer.join();
}

TEST(SemaphoreTest, MutexSemaphoreExcludesAndMayBeGivenByAnotherThread)
{
    tavo::MutexSemaphore mutex;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
    {
        threads.emplace_back([&] {
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

    mutex.take();
    std::thread other([&] { mutex.give(); });
    other.join();
    EXPECT_EQ(mutex.take(1000), tavo::TAKE_OK);
    mutex.give();
}

} // namespace
