#pragma once

// Where the tool's events go: one line each on stdout, as text for people or
// as a JSON object for scripts. Callbacks on library threads and the main
// thread print at the same time, so every line is written whole.

#include "Json.h"

#include <cstdio>
#include <mutex>
#include <string>

namespace weftcli
{

class Printer
{
public:
    // With `timestamps`, each text event starts with its local time of day;
    // a JSON event always carries "time", in seconds since 1970.
    Printer(bool json, bool timestamps);

    bool json() const { return m_json; }
    // One event, in whichever form this printer writes, stamped now.
    void event(const std::string& text, const JsonObject& json);
    // A text line on stdout, whatever the form (usage, help, the demo).
    void line(const std::string& text);
    // A message on stderr, prefixed with the command's name.
    void error(const std::string& command, const std::string& text);

private:
    bool m_json;
    bool m_timestamps;
};

// Writes one line and flushes it, under the lock that exitNow() takes so
// that the process never ends in the middle of a line.
void writeLine(std::FILE* stream, const std::string& line);

// Ends the process at once with `code`, after `message` (if any) on stderr
// and what was printed before. Library threads are not waited for: this is
// the way out of a call that may block for seconds.
[[noreturn]] void exitNow(int code, const std::string& message = "");

} // namespace weftcli
