#include <tavo/Thread.h>

#include <tavo/Assert.h>

#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace tavo
{

namespace
{

// Linux limits thread names to 15 characters plus the terminator.
constexpr std::size_t MAX_THREAD_NAME = 15;

int currentNativeId()
{
    return static_cast<int>(::syscall(SYS_gettid));
}

} // namespace

void applyWakeup(EWakeup wakeup)
{
#ifdef SCHED_BATCH
    // A new thread inherits its creator's policy: one started from a
    // waiting thread is put back unless it is to wait too. A real-time
    // policy the application chose is inherited as it is.
    sched_param parameters{};
    const int policy = ::sched_getscheduler(0);
    if (wakeup == WAKEUP_WAITS && policy == SCHED_OTHER)
    {
        // Same share of the processor, but a wake-up no longer preempts
        // the thread running. Needs no privilege; refused, the thread
        // simply keeps preempting.
        ::pthread_setschedparam(::pthread_self(), SCHED_BATCH, &parameters);
    }
    else if (wakeup == WAKEUP_PREEMPTS && policy == SCHED_BATCH)
    {
        ::pthread_setschedparam(::pthread_self(), SCHED_OTHER, &parameters);
    }
#else
    (void)wakeup;
#endif
}

Thread::Thread(const std::string& name)
    : m_name(name), m_priority(PRIORITY_NORMAL), m_wakeup(WAKEUP_PREEMPTS), m_handle(),
      m_hasHandle(false), m_running(false), m_nativeId(0)
{
}

Thread::~Thread()
{
    std::lock_guard<std::mutex> control(m_controlMutex);
    if (!m_hasHandle)
    {
        return;
    }
    if (isCurrentThread())
    {
        // A thread that deletes its own object cannot join itself.
        ::pthread_detach(m_handle);
        m_hasHandle = false;
        return;
    }
    ::pthread_join(m_handle, nullptr);
    m_hasHandle = false;
}

bool Thread::start()
{
    return start(m_priority, 0);
}

bool Thread::start(EPriority priority)
{
    return start(priority, 0);
}

bool Thread::start(EPriority priority, unsigned int stackSize)
{
    std::lock_guard<std::mutex> control(m_controlMutex);
    {
        std::lock_guard<std::mutex> state(m_stateMutex);
        if (m_running)
        {
            return false;
        }
    }
    joinFinished();
    m_priority = priority;

    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    if (stackSize > 0)
    {
        ::pthread_attr_setstacksize(&attributes, stackSize);
    }
    {
        std::lock_guard<std::mutex> state(m_stateMutex);
        m_running = true;
    }
    const int result = ::pthread_create(&m_handle, &attributes, &Thread::entry, this);
    ::pthread_attr_destroy(&attributes);
    if (result != 0)
    {
        std::lock_guard<std::mutex> state(m_stateMutex);
        m_running = false;
        return false;
    }
    m_hasHandle = true;
    return true;
}

void* Thread::entry(void* self)
{
    static_cast<Thread*>(self)->body();
    return nullptr;
}

void Thread::body()
{
    if (!m_name.empty())
    {
        ::pthread_setname_np(::pthread_self(), m_name.substr(0, MAX_THREAD_NAME).c_str());
    }
    {
        std::lock_guard<std::mutex> state(m_stateMutex);
        m_nativeId = currentNativeId();
    }
    applyWakeup(m_wakeup);
    if (m_priority != PRIORITY_NORMAL)
    {
        applyPriority();
    }
    startupHook();
    run();
    shutdownHook();
    std::lock_guard<std::mutex> state(m_stateMutex);
    m_running = false;
    m_nativeId = 0;
    m_ended.notify_all();
}

void Thread::joinFinished()
{
    if (m_hasHandle)
    {
        ::pthread_join(m_handle, nullptr);
        m_hasHandle = false;
    }
}

bool Thread::setPriority(EPriority priority)
{
    m_priority = priority;
    std::lock_guard<std::mutex> state(m_stateMutex);
    if (!m_running || m_nativeId == 0)
    {
        // Not running, or still starting: the thread applies it at its start.
        return true;
    }
    return ::setpriority(PRIO_PROCESS, static_cast<id_t>(m_nativeId), mapPriority(priority)) == 0;
}

bool Thread::applyPriority()
{
    std::lock_guard<std::mutex> state(m_stateMutex);
    if (!m_running || m_nativeId == 0)
    {
        return false;
    }
    return ::setpriority(PRIO_PROCESS, static_cast<id_t>(m_nativeId), mapPriority(m_priority)) == 0;
}

EPriority Thread::getPriority() const
{
    return m_priority;
}

bool Thread::shutdownCallback()
{
    return true;
}

void Thread::startupHook() {}

void Thread::shutdownHook() {}

int Thread::mapPriority(EPriority priority) const
{
    switch (priority)
    {
    case PRIORITY_LOWEST:
        return 19;
    case PRIORITY_LOW:
        return 10;
    case PRIORITY_NORMAL:
        return 0;
    case PRIORITY_HIGH:
        return -5;
    case PRIORITY_HIGHEST:
        return -10;
    }
    return 0;
}

EPriority Thread::mapPriorityReverse(int nativePriority) const
{
    if (nativePriority >= 15)
    {
        return PRIORITY_LOWEST;
    }
    if (nativePriority >= 5)
    {
        return PRIORITY_LOW;
    }
    if (nativePriority > -3)
    {
        return PRIORITY_NORMAL;
    }
    if (nativePriority > -8)
    {
        return PRIORITY_HIGH;
    }
    return PRIORITY_HIGHEST;
}

bool Thread::shutdown(int timeoutMs)
{
    TAVO_ASSERT_TEXT(!isCurrentThread(), "shutdown called from the thread itself");
    std::lock_guard<std::mutex> control(m_controlMutex);
    if (!m_hasHandle)
    {
        return true;
    }
    shutdownCallback();
    {
        std::unique_lock<std::mutex> state(m_stateMutex);
        const auto stopped = [this] { return !m_running; };
        if (timeoutMs < 0)
        {
            m_ended.wait(state, stopped);
        }
        else if (!m_ended.wait_for(state, std::chrono::milliseconds(timeoutMs), stopped))
        {
            return false;
        }
    }
    joinFinished();
    return true;
}

bool Thread::isRunning() const
{
    std::lock_guard<std::mutex> state(m_stateMutex);
    return m_running;
}

bool Thread::isCurrentThread() const
{
    std::lock_guard<std::mutex> state(m_stateMutex);
    return m_running && m_nativeId == currentNativeId();
}

void Thread::mssleep(unsigned int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

} // namespace tavo
