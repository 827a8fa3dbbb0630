#include "Signals.h"

#include "Printer.h"

#include <poll.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <mutex>
#include <thread>
#include <unistd.h>

namespace weftcli
{

namespace
{

// How long an orderly shutdown after a signal may take: enough to close a
// few connections cleanly, short enough to feel immediate.
constexpr std::chrono::milliseconds SHUTDOWN_GRACE{500};

// Read by the handler: lock-free atomics are safe there.
std::atomic<int> g_wakeFd{-1};
std::atomic<int> g_watchFd{-1};
std::atomic<int> g_signal{0};

// A byte on the watchdog's pipe: a signal number, or POKE when the busy
// state or the deadline changed.
constexpr char POKE = 0;

struct BusyState
{
    std::mutex mutex;
    bool busy = false;
    bool atOnce = false;
    std::string onDeadline;
    int deadlineCode = 0;
    Wakeup::Deadline deadline;
};

// Never destroyed: the watchdog may still run while the process exits.
BusyState& busyState()
{
    static BusyState* state = new BusyState();
    return *state;
}

int forcedCode(int signal)
{
    return signal == SIGINT ? 130 : 143;
}

void writeByte(int fd, char byte)
{
    if (fd >= 0)
    {
        // A full pipe already holds a wake-up; nothing to do then.
        [[maybe_unused]] const ssize_t written = ::write(fd, &byte, 1);
    }
}

extern "C" void onSignal(int signal)
{
    const int savedErrno = errno;
    int none = 0;
    g_signal.compare_exchange_strong(none, signal);
    writeByte(g_wakeFd.load(), WAKE_SIGNAL);
    writeByte(g_watchFd.load(), static_cast<char>(signal));
    errno = savedErrno;
}

} // namespace

Wakeup& Wakeup::instance()
{
    static Wakeup wakeup;
    return wakeup;
}

bool Wakeup::open()
{
    if (m_readFd >= 0)
    {
        return true;
    }
    int wakePipe[2];
    int watchPipe[2];
    if (::pipe2(wakePipe, O_CLOEXEC | O_NONBLOCK) != 0)
    {
        return false;
    }
    if (::pipe2(watchPipe, O_CLOEXEC | O_NONBLOCK) != 0)
    {
        ::close(wakePipe[0]);
        ::close(wakePipe[1]);
        return false;
    }
    m_readFd = wakePipe[0];
    g_wakeFd = wakePipe[1];
    g_watchFd = watchPipe[1];
    std::thread([this, fd = watchPipe[0]] { watch(fd); }).detach();

    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    return true;
}

void Wakeup::notify(EWakeReason reason)
{
    writeByte(g_wakeFd.load(), reason);
}

std::string Wakeup::drain()
{
    std::string reasons;
    char buffer[64];
    for (;;)
    {
        const ssize_t n = ::read(m_readFd, buffer, sizeof(buffer));
        if (n <= 0)
        {
            break;
        }
        reasons.append(buffer, static_cast<std::size_t>(n));
    }
    return reasons;
}

int Wakeup::signal() const
{
    return g_signal.load();
}

void Wakeup::setDeadline(const Deadline& deadline)
{
    {
        std::lock_guard<std::mutex> lock(busyState().mutex);
        busyState().deadline = deadline;
    }
    writeByte(g_watchFd.load(), POKE);
}

void Wakeup::enterBusy(const std::string& onDeadline, int deadlineCode, bool atOnce)
{
    {
        BusyState& state = busyState();
        std::lock_guard<std::mutex> lock(state.mutex);
        state.busy = true;
        state.atOnce = atOnce;
        state.onDeadline = onDeadline;
        state.deadlineCode = deadlineCode;
    }
    writeByte(g_watchFd.load(), POKE);
    // A signal that came just before: the watchdog may have found the main
    // thread not busy yet.
    if (atOnce && g_signal.load() != 0)
    {
        exitNow(forcedCode(g_signal.load()));
    }
}

void Wakeup::leaveBusy()
{
    std::lock_guard<std::mutex> lock(busyState().mutex);
    busyState().busy = false;
}

void Wakeup::watch(int fd)
{
    using Clock = std::chrono::steady_clock;
    BusyState& state = busyState();
    Deadline graceEnd;
    for (;;)
    {
        Deadline wake;
        {
            std::lock_guard<std::mutex> lock(state.mutex);
            if (state.busy)
            {
                wake = state.deadline;
            }
        }
        if (graceEnd && (!wake || *graceEnd < *wake))
        {
            wake = graceEnd;
        }
        int timeoutMs = -1;
        if (wake)
        {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(*wake - Clock::now()).count();
            timeoutMs = static_cast<int>(std::max<long long>(0, left));
        }
        pollfd entry{fd, POLLIN, 0};
        ::poll(&entry, 1, timeoutMs);

        char bytes[16];
        const ssize_t n = ::read(fd, bytes, sizeof(bytes));
        for (ssize_t i = 0; i < n; ++i)
        {
            if (bytes[i] == POKE)
            {
                continue;
            }
            if (graceEnd)
            {
                exitNow(forcedCode(g_signal.load())); // the second signal
            }
            graceEnd = Clock::now() + SHUTDOWN_GRACE;
        }
        const auto now = Clock::now();
        if (graceEnd && now >= *graceEnd)
        {
            exitNow(forcedCode(g_signal.load()));
        }
        std::lock_guard<std::mutex> lock(state.mutex);
        if (state.busy && state.atOnce && graceEnd)
        {
            exitNow(forcedCode(g_signal.load()));
        }
        if (state.busy && state.deadline && now >= *state.deadline)
        {
            exitNow(state.deadlineCode, state.onDeadline);
        }
    }
}

int stoppedCode(int signal)
{
    return signal == SIGINT ? 130 : 0;
}

} // namespace weftcli
