#pragma once

#include <tavo/Export.h>

#include <condition_variable>
#include <mutex>

namespace tavo
{

// Result of a timed take.
enum ETakeResult
{
    TAKE_OK = 0,      // the semaphore was obtained
    TAKE_TIMEOUT = 1, // the time ran out first
};

// Holds at most one pending give: several gives before a take collapse into one.
class TAVO_EXPORT BinarySemaphore
{
public:
    explicit BinarySemaphore(bool given = false);
    BinarySemaphore(const BinarySemaphore&) = delete;
    BinarySemaphore& operator=(const BinarySemaphore&) = delete;

    void give();
    // Waits without limit; returns TAKE_OK.
    int take();
    // Waits at most `timeoutMs` milliseconds (0: only tests); TAKE_OK or TAKE_TIMEOUT.
    int take(unsigned int timeoutMs);
    // Drops a pending give, such as an answer meant for an earlier request.
    void clear();

private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    bool m_given;
};

// Counts gives; each take consumes one.
class TAVO_EXPORT CountingSemaphore
{
public:
    explicit CountingSemaphore(unsigned int initialCount = 0);
    CountingSemaphore(const CountingSemaphore&) = delete;
    CountingSemaphore& operator=(const CountingSemaphore&) = delete;

    void give();
    // `count` gives at once.
    void give(unsigned int count);
    int take();
    int take(unsigned int timeoutMs);
    unsigned int getCount();

private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    unsigned int m_count;
};

// A mutual-exclusion lock in semaphore form: unlike std::mutex it may be given
// back by another thread than the one that took it. Not recursive.
class TAVO_EXPORT MutexSemaphore
{
public:
    MutexSemaphore();
    MutexSemaphore(const MutexSemaphore&) = delete;
    MutexSemaphore& operator=(const MutexSemaphore&) = delete;

    int take();
    int take(unsigned int timeoutMs);
    void give();

private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    bool m_taken;
};

// Holds a MutexSemaphore for the lifetime of a scope.
class MutexLock
{
public:
    explicit MutexLock(MutexSemaphore& mutex) : m_mutex(mutex) { m_mutex.take(); }
    ~MutexLock() { m_mutex.give(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    MutexSemaphore& m_mutex;
};

} // namespace tavo
