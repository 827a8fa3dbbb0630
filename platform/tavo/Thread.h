#pragma once

#include <tavo/Export.h>

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>

namespace tavo
{

// Scheduling priority of a thread; mapped onto the per-thread nice value.
enum EPriority
{
    PRIORITY_LOWEST,
    PRIORITY_LOW,
    PRIORITY_NORMAL,
    PRIORITY_HIGH,
    PRIORITY_HIGHEST,
};

// How a thread that becomes runnable competes for a processor another thread
// is using.
enum EWakeup
{
    WAKEUP_PREEMPTS, // may take it at once (the system's default)
    WAKEUP_WAITS,    // waits until that thread sleeps or its time slice ends
};

// Puts the calling thread under the given wake-up rule.
TAVO_EXPORT void applyWakeup(EWakeup wakeup);

// A worker thread. Derived classes implement run(); shutdown() asks the thread
// to stop through shutdownCallback() and waits for run() to return. One object
// may run its thread any number of times, one run at a time.
class TAVO_EXPORT Thread
{
public:
    explicit Thread(const std::string& name = std::string());
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Waits for a running thread to end: deleting an object whose run() is
    // still executing would pull the object from under it.
    virtual ~Thread();

    // Starts run() on a new thread. Refused (false) while the thread runs.
    virtual bool start();
    virtual bool start(EPriority priority);
    // `stackSize` in bytes; 0 takes the system's default.
    virtual bool start(EPriority priority, unsigned int stackSize);

    // Records the priority and applies it at once to a running thread.
    virtual bool setPriority(EPriority priority);
    // Applies the recorded priority to the running thread; false when the
    // system refuses it (raising priority needs privileges) or nothing runs.
    virtual bool applyPriority();
    virtual EPriority getPriority() const;
    // Applies from the next start. A hint: a system without it runs the
    // thread as WAKEUP_PREEMPTS.
    void setWakeup(EWakeup wakeup) { m_wakeup = wakeup; }
    EWakeup getWakeup() const { return m_wakeup; }

    // The thread's body.
    virtual void run() = 0;
    // Asked by shutdown() to make run() return soon; true when it did so.
    virtual bool shutdownCallback();
    // Called on the new thread right before and right after run().
    virtual void startupHook();
    virtual void shutdownHook();
    // Native priority (nice value) for a priority, and back.
    virtual int mapPriority(EPriority priority) const;
    virtual EPriority mapPriorityReverse(int nativePriority) const;

    // Calls shutdownCallback() and waits up to `timeoutMs` milliseconds for
    // run() to return; -1 waits without limit. True when the thread has ended
    // (or was never started). Calling it from the thread itself is a
    // programming error, since the thread would wait for itself.
    bool shutdown(int timeoutMs);

    // True from start() until run() has returned.
    bool isRunning() const;
    // True when called on this object's own thread.
    bool isCurrentThread() const;

    const std::string& getName() const { return m_name; }

    static void mssleep(unsigned int ms);

private:
    static void* entry(void* self);
    void body();
    // Joins a thread whose run() has returned. Caller holds m_controlMutex.
    void joinFinished();

    std::string m_name;
    // Atomic: setPriority may run while the new thread reads it at its start.
    std::atomic<EPriority> m_priority;
    std::atomic<EWakeup> m_wakeup;
    // Serialises start, shutdown and destruction against each other.
    std::mutex m_controlMutex;
    // Guards the run state below; m_ended signals the end of run().
    mutable std::mutex m_stateMutex;
    std::condition_variable m_ended;
    pthread_t m_handle;
    bool m_hasHandle; // a native thread exists and has not been joined
    bool m_running;   // run() has not returned yet
    int m_nativeId;   // kernel thread id while running, for priorities
};

} // namespace tavo
