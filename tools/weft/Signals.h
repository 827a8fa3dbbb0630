#pragma once

// Ctrl-C, SIGTERM and the library's callbacks all wake the main thread the
// same way: a byte naming the reason, written into a pipe the main thread
// waits on. The signal handler does nothing else, so the library is never
// called from it.

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
    // The process's one wake-up pipe.
    static Wakeup& instance();

    // Creates the pipe, routes SIGINT and SIGTERM into it (a second signal
    // stops the process the default way, should shutting down hang) and
    // ignores SIGPIPE; false when the pipe cannot be made.
    bool open();
    // From any thread.
    void notify(EWakeReason reason);
    // The end to wait on for reading; -1 before open().
    int fd() const { return m_readFd; }
    // The reasons written since the last call, in order.
    std::string drain();

private:
    Wakeup() = default;

    int m_readFd = -1;
};

} // namespace weftcli
