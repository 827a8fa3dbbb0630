#include "Signals.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace weftcli
{

namespace
{

// Read by the handler: a lock-free atomic is safe there.
std::atomic<int> g_writeFd{-1};

extern "C" void onSignal(int)
{
    const int savedErrno = errno;
    const char reason = WAKE_SIGNAL;
    const int fd = g_writeFd.load();
    if (fd >= 0)
    {
        // A full pipe already holds a wake-up; nothing to do then.
        [[maybe_unused]] const ssize_t written = ::write(fd, &reason, 1);
    }
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
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0)
    {
        return false;
    }
    m_readFd = fds[0];
    g_writeFd = fds[1];

    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    // One-shot: a second Ctrl-C ends a shutdown that hangs.
    action.sa_flags = SA_RESETHAND | SA_RESTART;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    return true;
}

void Wakeup::notify(EWakeReason reason)
{
    const int fd = g_writeFd.load();
    if (fd >= 0)
    {
        const char byte = reason;
        [[maybe_unused]] const ssize_t written = ::write(fd, &byte, 1);
    }
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

} // namespace weftcli
