#include <tavo/LogManager.h>

#include <cstdio>
#include <sstream>

namespace tavo
{

template class SingletonDll<LogManager>;

namespace
{

// Collects one line per thread and hands it to the manager on flush.
class LineBuffer : public std::stringbuf
{
public:
    void begin(const LogOutput* output, int level)
    {
        if (!str().empty())
        {
            // A line left without its end is not lost: it goes out on its own.
            emit();
        }
        m_pOutput = output;
        m_level = level;
    }

protected:
    int sync() override
    {
        emit();
        return 0;
    }

private:
    void emit()
    {
        std::string line = str();
        str(std::string());
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        {
            line.pop_back();
        }
        if (m_pOutput != nullptr && LogManager::hasInstance())
        {
            LogManager::getInstance()->write(*m_pOutput, m_level, line);
        }
    }

    const LogOutput* m_pOutput = nullptr;
    int m_level = 0;
};

struct ThreadLine
{
    LineBuffer buffer;
    std::ostream stream{&buffer};
};

ThreadLine& threadLine()
{
    static thread_local ThreadLine line;
    return line;
}

// A stream in a failed state: formatting into it does nothing at all.
std::ostream& discardStream()
{
    static thread_local std::ostream discard(nullptr);
    return discard;
}

} // namespace

LogOutput::LogOutput(LogManager& manager, const std::string& name)
    : m_manager(manager), m_name(name)
{
}

std::ostream& LogOutput::level(ELogLevel level)
{
    return this->level(static_cast<int>(level));
}

std::ostream& LogOutput::level(int level)
{
    if (!isEnabled(level))
    {
        return discardStream();
    }
    ThreadLine& line = threadLine();
    line.buffer.begin(this, level);
    // Formatting set by an earlier line of this thread does not carry over.
    line.stream.clear();
    line.stream.flags(std::ios_base::dec | std::ios_base::skipws);
    line.stream.precision(6);
    line.stream.width(0);
    line.stream.fill(' ');
    return line.stream;
}

bool LogOutput::isEnabled(int level) const
{
    return level <= m_manager.getMaxLevel();
}

LogManager::LogManager() : m_maxLevel(DEFAULT_MAX_LEVEL) {}

LogManager::~LogManager() = default;

LogOutput* LogManager::getLogOutput(const std::string& name)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::unique_ptr<LogOutput>& output = m_outputs[name];
    if (!output)
    {
        output.reset(new LogOutput(*this, name));
    }
    return output.get();
}

void LogManager::setMaxLevel(int level)
{
    m_maxLevel.store(level, std::memory_order_relaxed);
}

void LogManager::setSink(LogSink sink)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_sink = std::move(sink);
}

void LogManager::write(const LogOutput& output, int level, const std::string& line)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_sink)
    {
        m_sink(output.getName(), level, line);
        return;
    }
    std::fprintf(stderr, "%s\n", line.c_str());
    std::fflush(stderr);
}

} // namespace tavo
