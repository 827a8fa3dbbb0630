#pragma once

// The main thread's wait: for a command line on stdin, the end of stdin, a
// wake-up (signal or callback) or a deadline, whichever comes first.

#include <chrono>
#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace weftcli
{

class Printer;
class Wakeup;

struct InputEvent
{
    enum EKind
    {
        INPUT_LINE,
        INPUT_END,     // stdin is at its end; reported once
        INPUT_WAKE,    // `text` holds the wake-up reasons
        INPUT_TIMEOUT, // the deadline passed
    };
    EKind kind;
    std::string text;
};

class InputLoop
{
public:
    using Deadline = std::optional<std::chrono::steady_clock::time_point>;

    InputLoop(Wakeup& wakeup, bool readStdin);
    // False when reading stdin would stop the process: a terminal that
    // belongs to the foreground job while this one runs in the background.
    static bool stdinUsable();
    // Wake-ups come before pending lines, so a flood of input cannot delay
    // a Ctrl-C.
    InputEvent next(const Deadline& deadline);

private:
    // Reads what stdin has; false at its end.
    bool readStdin();

    Wakeup& m_wakeup;
    bool m_stdinOpen;
    bool m_endReported;
    std::string m_partial;
    std::deque<std::string> m_lines;
};

// The words of a command line from stdin; false when there is nothing to
// run: an empty line or a comment, or a line that does not split, whose error
// is printed under `command`'s name.
bool commandWords(const std::string& line, Printer& printer, const std::string& command,
                  std::vector<std::string>& words);

} // namespace weftcli
