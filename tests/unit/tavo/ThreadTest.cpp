#include "support/Waiting.h"

#include <tavo/Semaphore.h>
#include <tavo/Thread.h>

#include <gtest/gtest.h>

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace
{

using namespace std::chrono_literals;

// Runs until asked to stop (or until `stop` is given), counting its runs.
class StoppableThread : public tavo::Thread
{
public:
    StoppableThread() : tavo::Thread("stoppable") {}
    ~StoppableThread() override { shutdown(-1); }

    void run() override
    {
        nativeId = static_cast<int>(::gettid());
        policy = ::sched_getscheduler(0);
        ++runs;
        started.give();
        stop.take();
    }

    bool shutdownCallback() override
    {
        ++shutdownRequests;
        if (!stubborn)
        {
            stop.give();
        }
        return true;
    }

    std::atomic<int> nativeId{0};
    std::atomic<int> policy{-1};
    std::atomic<int> runs{0};
    std::atomic<int> shutdownRequests{0};
    std::atomic<bool> stubborn{false}; // ignores requests to stop
    tavo::BinarySemaphore started, stop;
};

TEST(ThreadTest, ShutdownAsksRunToEndOrReportsItDoesNotAndAFinishedThreadRunsAgainWithItsPriority)
{
    StoppableThread thread;
    EXPECT_TRUE(thread.shutdown(-1)); // never started: nothing to ask
    EXPECT_EQ(thread.shutdownRequests.load(), 0);
    ASSERT_TRUE(thread.start());
    ASSERT_EQ(thread.started.take(5000), tavo::TAKE_OK);
    EXPECT_TRUE(thread.isRunning());
    EXPECT_FALSE(thread.start()) << "started twice";
    EXPECT_TRUE(thread.shutdown(-1));
    EXPECT_FALSE(thread.isRunning());
    EXPECT_EQ(thread.shutdownRequests.load(), 1);
    // Set while the thread may still be starting: it still takes effect.
    ASSERT_TRUE(thread.start(tavo::PRIORITY_NORMAL));
    EXPECT_TRUE(thread.setPriority(tavo::PRIORITY_LOW)); // lowering needs no privilege
    ASSERT_EQ(thread.started.take(5000), tavo::TAKE_OK);
    EXPECT_EQ(thread.getPriority(), tavo::PRIORITY_LOW);
    const auto id = static_cast<id_t>(thread.nativeId.load());
    const int low = thread.mapPriority(tavo::PRIORITY_LOW);
    EXPECT_TRUE(eventually([&] { return ::getpriority(PRIO_PROCESS, id) == low; }, 5s));
    EXPECT_EQ(thread.policy.load(), SCHED_OTHER);
    ASSERT_TRUE(thread.shutdown(-1));
    EXPECT_EQ(thread.runs.load(), 2);

    // Waiting on wake-up, the thread keeps its priority; a thread it starts
    // preempts again unless told to wait too.
    thread.setWakeup(tavo::WAKEUP_WAITS);
    ASSERT_TRUE(thread.start(tavo::PRIORITY_LOW));
    ASSERT_EQ(thread.started.take(5000), tavo::TAKE_OK);
    EXPECT_EQ(thread.policy.load(), SCHED_BATCH);
    EXPECT_EQ(::getpriority(PRIO_PROCESS, static_cast<id_t>(thread.nativeId.load())), low);
    ASSERT_TRUE(thread.shutdown(-1));
    std::atomic<int> childPolicy{-1};
    std::thread parent(
        [&]
        {
            tavo::applyWakeup(tavo::WAKEUP_WAITS);
            StoppableThread child;
            child.start();
            child.started.take(5000);
            childPolicy = child.policy.load();
        });
    parent.join();
    EXPECT_EQ(childPolicy.load(), SCHED_OTHER);

    // A time-out reports a thread that does not end; it may end by itself.
    thread.stubborn = true;
    ASSERT_TRUE(thread.start());
    EXPECT_FALSE(thread.shutdown(50));
    EXPECT_TRUE(thread.isRunning());
    thread.stop.give();
    EXPECT_TRUE(eventually([&] { return !thread.isRunning(); }, 5s));
    EXPECT_TRUE(thread.shutdown(-1));
}

} // namespace
