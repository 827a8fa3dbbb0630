#pragma once

#include <tavo/Export.h>
#include <tavo/SingletonDll.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>

namespace tavo
{

// Log levels, from the most to the least severe. A line is written when its
// level is at most the manager's maximum level.
enum ELogLevel
{
    LOG_LEVEL_OFF = 0,
    LOG_LEVEL_FATAL = 1,
    LOG_LEVEL_ERROR = 2,   // a message that cannot be built or read, failed operations
    LOG_LEVEL_WARNING = 3, // received data that is dropped
    LOG_LEVEL_INFO = 4,
    LOG_LEVEL_DEBUG = 5, // refused sends, duplicates, full buffers
    LOG_LEVEL_TRACE = 6,
};

class LogManager;

// Receives every written line: the output's name, the level and the text
// without its line end. Called under the manager's lock, one line at a time.
typedef std::function<void(const std::string& output, int level, const std::string& line)> LogSink;

// A named log output. level() returns a stream for one line; the line is
// written when the stream is flushed (std::endl). Each thread has its own
// line buffer, so lines written from many threads at once never interleave.
class TAVO_EXPORT LogOutput
{
public:
    std::ostream& level(ELogLevel level);
    std::ostream& level(int level);
    bool isEnabled(int level) const;
    const std::string& getName() const { return m_name; }

private:
    friend class LogManager;
    LogOutput(LogManager& manager, const std::string& name);

    LogManager& m_manager;
    std::string m_name;
};

// The process-wide set of log outputs.
class TAVO_EXPORT LogManager : public SingletonDll<LogManager>
{
public:
    // Lines up to this level reach the default sink: errors and dropped data.
    static constexpr int DEFAULT_MAX_LEVEL = LOG_LEVEL_WARNING;

    LogManager();
    ~LogManager() override;

    // The output of that name, created on first use; the pointer stays valid
    // as long as the manager.
    LogOutput* getLogOutput(const std::string& name);

    void setMaxLevel(int level);
    int getMaxLevel() const { return m_maxLevel.load(std::memory_order_relaxed); }

    // Installs a sink for every line; an empty sink restores the default,
    // which writes each line to stderr.
    void setSink(LogSink sink);

    // Hands one complete line to the sink.
    void write(const LogOutput& output, int level, const std::string& line);

private:
    std::atomic<int> m_maxLevel;
    std::mutex m_mutex;
    LogSink m_sink;
    std::map<std::string, std::unique_ptr<LogOutput>> m_outputs;
};

extern template class SingletonDll<LogManager>;

} // namespace tavo
