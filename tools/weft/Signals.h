#pragma once

// Ctrl-C, SIGTERM and the library's callbacks all wake the main thread the
// same way: a byte naming the reason, written into a pipe the main thread
// waits on. The signal handler does nothing else, so the library is never
// called from it.
//
// The library's connect and mode requests block for seconds, and the main
// thread cannot wait on the pipe meanwhile. So it marks such a call busy,
// and a watchdog thread ends the process at once when a signal comes during
// it, or when the call outlasts --timeout. After any other signal the main
// thread has a short grace to shut down in order (an EUDP client says
// goodbye to its server); a second signal ends it at once.

#include <chrono>
#include <optional>
#include <string>

namespace weftcli
{

enum EWakeReason : char
{
    WAKE_SIGNAL = 'S',       // SIGINT or SIGTERM
    WAKE_DISCONNECTED = 'D', // a connection ended
    WAKE_COUNT = 'C',        // the client has the messages it waited for
};

class Wakeup
{
public:
    using Deadline = std::optional<std::chrono::steady_clock::time_point>;

    // The process's one wake-up pipe.
    static Wakeup& instance();

    // Creates the pipes, routes SIGINT and SIGTERM into them, starts the
    // watchdog and ignores SIGPIPE; false when that cannot be done.
    bool open();
    // From any thread.
    void notify(EWakeReason reason);
    // The end to wait on for reading; -1 before open().
    int fd() const { return m_readFd; }
    // The reasons written since the last call, in order.
    std::string drain();
    // The first signal that arrived, 0 while none has.
    int signal() const;
    // When --timeout ends a busy call.
    void setDeadline(const Deadline& deadline);

    // The main thread is in a call that may block: the deadline ends the
    // process with `onDeadline` on stderr and `deadlineCode`. With `atOnce`
    // (a call that blocks for seconds as a rule), so does a signal, with
    // 130 (SIGINT) or 143 (SIGTERM); otherwise (a send, which may block only
    // on a stuck peer) a signal leaves the call its grace to end.
    void enterBusy(const std::string& onDeadline, int deadlineCode, bool atOnce);
    void leaveBusy();

private:
    Wakeup() = default;
    void watch(int fd);

    int m_readFd = -1;
};

// A busy call for the length of a scope.
class BusyScope
{
public:
    BusyScope(const std::string& onDeadline, int deadlineCode, bool atOnce = true)
    {
        Wakeup::instance().enterBusy(onDeadline, deadlineCode, atOnce);
    }
    ~BusyScope() { Wakeup::instance().leaveBusy(); }
    BusyScope(const BusyScope&) = delete;
    BusyScope& operator=(const BusyScope&) = delete;
};

// The exit code of a tool stopped by `signal`: 130 for Ctrl-C (an interrupt
// never exits 0), 0 for a SIGTERM that was obeyed in order.
int stoppedCode(int signal);

} // namespace weftcli
