#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

// Records every log line of the library while it exists, at every level.
class LogCapture
{
public:
    struct Line
    {
        std::string output;
        int level;
        std::string text;
    };

    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Line> lines() const;
    // Level of the first line equal to `text`, or -1.
    int levelOf(const std::string& text) const;
    // Waits until `occurrences` lines equal `text`.
    bool waitFor(const std::string& text, std::chrono::milliseconds timeout,
                 std::size_t occurrences = 1) const;
    void clear();

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<Line> m_lines;
};
