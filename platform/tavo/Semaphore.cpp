#include <tavo/Semaphore.h>

#include <chrono>

namespace tavo
{

namespace
{

// Waits on `cond` until `ready` holds or `timeoutMs` has passed, measured on
// the steady clock so that a change of the wall clock cannot shorten or
// stretch the wait.
template <class Ready>
bool waitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& cond,
             unsigned int timeoutMs, Ready ready)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    return cond.wait_until(lock, deadline, ready);
}

} // namespace

BinarySemaphore::BinarySemaphore(bool given) : m_given(given) {}

void BinarySemaphore::give()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_given = true;
    }
    m_cond.notify_one();
}

void BinarySemaphore::clear()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_given = false;
}

int BinarySemaphore::take()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cond.wait(lock, [this] { return m_given; });
    m_given = false;
    return TAKE_OK;
}

int BinarySemaphore::take(unsigned int timeoutMs)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!waitFor(lock, m_cond, timeoutMs, [this] { return m_given; }))
    {
        return TAKE_TIMEOUT;
    }
    m_given = false;
    return TAKE_OK;
}

CountingSemaphore::CountingSemaphore(unsigned int initialCount) : m_count(initialCount) {}

void CountingSemaphore::give()
{
    give(1);
}

void CountingSemaphore::give(unsigned int count)
{
    if (count == 0)
    {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_count += count;
    }
    if (count == 1)
    {
        m_cond.notify_one();
    }
    else
    {
        m_cond.notify_all();
    }
}

int CountingSemaphore::take()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cond.wait(lock, [this] { return m_count > 0; });
    --m_count;
    return TAKE_OK;
}

int CountingSemaphore::take(unsigned int timeoutMs)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!waitFor(lock, m_cond, timeoutMs, [this] { return m_count > 0; }))
    {
        return TAKE_TIMEOUT;
    }
    --m_count;
    return TAKE_OK;
}

unsigned int CountingSemaphore::getCount()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_count;
}

MutexSemaphore::MutexSemaphore() : m_taken(false) {}

int MutexSemaphore::take()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cond.wait(lock, [this] { return !m_taken; });
    m_taken = true;
    return TAKE_OK;
}

int MutexSemaphore::take(unsigned int timeoutMs)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!waitFor(lock, m_cond, timeoutMs, [this] { return !m_taken; }))
    {
        return TAKE_TIMEOUT;
    }
    m_taken = true;
    return TAKE_OK;
}

void MutexSemaphore::give()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_taken = false;
    }
    m_cond.notify_one();
}

} // namespace tavo
