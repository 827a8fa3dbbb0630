#include <tavo/Timer.h>

#include <tavo/Thread.h>

#include <tavo/Assert.h>

#include <pthread.h>

#include <algorithm>
#include <condition_variable>

namespace tavo
{

// The process's timer thread and its schedule. It is created on first use and
// lives until the process ends, so no timer can outlive it.
class TimerService
{
public:
    static TimerService& instance()
    {
        static TimerService* service = new TimerService();
        return *service;
    }

    void start(Timer& timer, std::chrono::microseconds period, bool oneShot)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        unschedule(timer);
        timer.m_period = period;
        timer.m_oneShot = oneShot;
        const auto deadline = std::chrono::steady_clock::now() + period;
        schedule(timer, deadline);
        // The timer thread needs waking only when this deadline comes before
        // the moment it already wakes at; a later one it finds by itself. A
        // timer pushed back again and again thus costs no wake-up each time.
        if (deadline < m_wakeAt)
        {
            m_wake.notify_one();
        }
    }

    void stop(Timer& timer)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        unschedule(timer);
        // A callback of this timer may be running right now; wait for it so
        // that the caller may free what the callback uses. The timer thread
        // itself runs callbacks one after another and never waits.
        if (!isTimerThread())
        {
            m_idle.wait(lock, [&] { return m_firing != &timer; });
        }
    }

    bool isArmed(const Timer& timer) { return timer.m_armed.load(); }

private:
    TimerService() : m_firing(nullptr), m_wakeAt(std::chrono::steady_clock::time_point::min())
    {
        pthread_t thread;
        pthread_attr_t attributes;
        ::pthread_attr_init(&attributes);
        ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
        const int result = ::pthread_create(&thread, &attributes, &TimerService::entry, this);
        ::pthread_attr_destroy(&attributes);
        TAVO_ASSERT_TEXT(result == 0, "timer thread could not be created");
    }

    static void* entry(void* self)
    {
        ::pthread_setname_np(::pthread_self(), "tavo-timer");
        // Timers are due when due, whichever thread created the service.
        applyWakeup(WAKEUP_PREEMPTS);
        isTimerThread() = true;
        static_cast<TimerService*>(self)->loop();
        return nullptr;
    }

    static bool& isTimerThread()
    {
        static thread_local bool onTimerThread = false;
        return onTimerThread;
    }

    void schedule(Timer& timer, std::chrono::steady_clock::time_point deadline)
    {
        if (timer.m_spareEntry)
        {
            timer.m_spareEntry.key() = deadline;
            timer.m_entry = m_schedule.insert(std::move(timer.m_spareEntry));
        }
        else
        {
            timer.m_entry = m_schedule.emplace(deadline, &timer);
        }
        timer.m_armed = true;
    }

    void unschedule(Timer& timer)
    {
        if (timer.m_armed)
        {
            timer.m_spareEntry = m_schedule.extract(timer.m_entry);
            timer.m_armed = false;
        }
    }

    void loop()
    {
        std::vector<ICallback*> due;
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;)
        {
            if (m_schedule.empty())
            {
                m_wakeAt = std::chrono::steady_clock::time_point::max();
                m_wake.wait(lock);
                m_wakeAt = std::chrono::steady_clock::time_point::min();
                continue;
            }
            const auto first = m_schedule.begin();
            const auto now = std::chrono::steady_clock::now();
            if (now < first->first)
            {
                // A copy: the entry may be erased while this thread waits.
                const auto next = first->first;
                m_wakeAt = next;
                m_wake.wait_until(lock, next);
                m_wakeAt = std::chrono::steady_clock::time_point::min();
                continue;
            }
            Timer& timer = *first->second;
            const auto deadline = first->first;
            unschedule(timer);
            if (!timer.m_oneShot)
            {
                // A periodic timer keeps its rhythm but never fires in a burst
                // to catch up on periods it missed.
                schedule(timer, std::max(now, deadline) + timer.m_period);
            }
            m_firing = &timer;
            {
                std::lock_guard<std::mutex> callbacks(timer.m_callbackMutex);
                due = timer.m_callbacks;
            }
            lock.unlock();
            for (ICallback* callback : due)
            {
                callback->call();
            }
            lock.lock();
            m_firing = nullptr;
            m_idle.notify_all();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::condition_variable m_idle;
    Timer::Schedule m_schedule;
    Timer* m_firing;
    // When the timer thread wakes by itself: the deadline it waits for, the
    // far future while it waits for a first timer, the far past while it is
    // awake (it looks at the schedule again before it sleeps).
    std::chrono::steady_clock::time_point m_wakeAt;
};

Timer::Timer() : m_armed(false), m_oneShot(true), m_period(0), m_entry() {}

Timer::~Timer()
{
    stop();
}

bool Timer::start(int periodUs, bool oneShot)
{
    TimerService::instance().start(*this, std::chrono::microseconds(periodUs < 0 ? 0 : periodUs),
                                   oneShot);
    return true;
}

void Timer::stop()
{
    TimerService::instance().stop(*this);
}

bool Timer::isRunning() const
{
    return TimerService::instance().isArmed(*this);
}

void Timer::addCallback(ICallback* callback)
{
    std::lock_guard<std::mutex> lock(m_callbackMutex);
    m_callbacks.push_back(callback);
}

bool Timer::removeCallback(ICallback* callback)
{
    std::lock_guard<std::mutex> lock(m_callbackMutex);
    for (auto it = m_callbacks.begin(); it != m_callbacks.end(); ++it)
    {
        if (*it == callback)
        {
            m_callbacks.erase(it);
            return true;
        }
    }
    return false;
}

} // namespace tavo
