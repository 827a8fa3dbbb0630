#include "Printer.h"

#include <cstdio>

namespace weftcli
{

void Printer::event(const std::string& text, const JsonObject& json)
{
    write(stdout, m_json ? json.str() : text);
}

void Printer::line(const std::string& text)
{
    write(stdout, text);
}

void Printer::error(const std::string& command, const std::string& text)
{
    write(stderr, command + ": " + text);
}

void Printer::write(std::FILE* stream, const std::string& line)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    // A reader that went away (closed pipe) is not an error worth stopping for.
    std::fwrite(line.data(), 1, line.size(), stream);
    std::fputc('\n', stream);
    std::fflush(stream);
}

} // namespace weftcli
