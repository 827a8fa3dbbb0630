#pragma once

#include <tavo/Callback.h>
#include <tavo/Export.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

namespace tavo
{

class TimerService;

// A timer whose callbacks run on the process's one timer thread. Armed with
// start(), it calls every registered callback once the period has passed
// (and again every period unless it is one-shot).
//
// After stop() or the destructor returns, no callback of this timer runs or
// will run, except when they are called from a callback on the timer thread
// itself (which cannot wait for itself). Callbacks must not block for long:
// all timers of the process share the thread.
class TAVO_EXPORT Timer
{
public:
    Timer();
    ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    // Arms the timer to fire after `periodUs` microseconds; re-arms it if it
    // was armed already. A negative period counts as 0.
    bool start(int periodUs, bool oneShot = true);
    // Disarms the timer; harmless when it is not armed.
    void stop();
    // True while the timer is armed (a one-shot timer is disarmed as it fires).
    bool isRunning() const;

    // Registers a callback (not owned); the list has its own lock.
    void addCallback(ICallback* callback);
    bool removeCallback(ICallback* callback);

private:
    friend class TimerService;
    typedef std::multimap<std::chrono::steady_clock::time_point, Timer*> Schedule;

    // Guards m_callbacks only.
    std::mutex m_callbackMutex;
    std::vector<ICallback*> m_callbacks;

    // Guarded by the service's lock; atomic so that isRunning() needs no
    // lock (the EUDP receiver asks for every datagram).
    std::atomic<bool> m_armed;
    bool m_oneShot;
    std::chrono::microseconds m_period;
    Schedule::iterator m_entry;
    // The schedule node of the last disarm, kept for the next start: a timer
    // re-armed for every datagram then costs no allocation.
    Schedule::node_type m_spareEntry;
};

} // namespace tavo
