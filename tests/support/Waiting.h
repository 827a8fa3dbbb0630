#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

// A count that tests wait on instead of sleeping.
class EventCounter
{
public:
    void add(int n = 1)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_count += n;
        m_changed.notify_all();
    }

    int get() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_count;
    }

    // True once the count has reached `target` within `timeout`.
    bool waitFor(int target, std::chrono::milliseconds timeout) const
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, timeout, [&] { return m_count >= target; });
    }

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    int m_count = 0;
};

// Polls `condition` until it holds or `timeout` passes; for state that has no
// event of its own to wait on.
template <class Condition>
bool eventually(Condition condition, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() >= deadline)
        {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}
