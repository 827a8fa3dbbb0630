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
    explicit Printer(bool json) : m_json(json) {}

    bool json() const { return m_json; }
    // One event, in whichever form this printer writes.
    void event(const std::string& text, const JsonObject& json);
    // A text line on stdout, whatever the form (usage, help, the demo).
    void line(const std::string& text);
    // A message on stderr, prefixed with the command's name.
    void error(const std::string& command, const std::string& text);

private:
    void write(std::FILE* stream, const std::string& line);

    bool m_json;
    std::mutex m_mutex;
};

} // namespace weftcli
