#include "Printer.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <unistd.h>

namespace weftcli
{

namespace
{

// Never destroyed: library threads may still print while the process exits.
std::timed_mutex& outputMutex()
{
    static std::timed_mutex* mutex = new std::timed_mutex();
    return *mutex;
}

// "15:26:18.123456 ", local time.
std::string timeOfDay(std::chrono::system_clock::time_point now)
{
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto micros =
        std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch()).count() %
        1000000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[32];
    std::snprintf(text, sizeof(text), "%02d:%02d:%02d.%06lld ", local.tm_hour, local.tm_min,
                  local.tm_sec, static_cast<long long>(micros));
    return text;
}

std::string epochSeconds(std::chrono::system_clock::time_point now)
{
    const long long micros =
        std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch()).count();
    char text[32];
    std::snprintf(text, sizeof(text), "%lld.%06lld", micros / 1000000, micros % 1000000);
    return text;
}

} // namespace

Printer::Printer(bool json, bool timestamps) : m_json(json), m_timestamps(timestamps) {}

void Printer::event(const std::string& text, const JsonObject& json)
{
    const auto now = std::chrono::system_clock::now();
    if (m_json)
    {
        writeLine(stdout, JsonObject(json).addRaw("time", epochSeconds(now)).str());
        return;
    }
    writeLine(stdout, m_timestamps ? timeOfDay(now) + text : text);
}

void Printer::line(const std::string& text)
{
    writeLine(stdout, text);
}

void Printer::error(const std::string& command, const std::string& text)
{
    writeLine(stderr, command + ": " + text);
}

void writeLine(std::FILE* stream, const std::string& line)
{
    std::lock_guard<std::timed_mutex> lock(outputMutex());
    // A reader that went away (closed pipe) is not an error worth stopping for.
    std::fwrite(line.data(), 1, line.size(), stream);
    std::fputc('\n', stream);
    std::fflush(stream);
}

void exitNow(int code, const std::string& message)
{
    // The watchdog and the main thread may both get here: one is enough.
    static std::atomic<bool> exiting{false};
    if (exiting.exchange(true))
    {
        for (;;)
        {
            ::pause();
        }
    }
    // A line being written finishes first; a writer stuck on a reader that
    // stopped reading is not waited for.
    [[maybe_unused]] const bool locked = outputMutex().try_lock_for(std::chrono::milliseconds(100));
    if (!message.empty())
    {
        std::fprintf(stderr, "%s\n", message.c_str());
    }
    std::fflush(stdout);
    std::fflush(stderr);
    ::_exit(code);
}

} // namespace weftcli
