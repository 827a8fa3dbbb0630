#include "support/LogCapture.h"

#include <tavo/LogManager.h>

#include <algorithm>

LogCapture::LogCapture()
{
    tavo::LogManager* manager = tavo::LogManager::getInstance();
    manager->setMaxLevel(tavo::LOG_LEVEL_TRACE);
    manager->setSink(
        [this](const std::string& output, int level, const std::string& text)
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_lines.push_back(Line{output, level, text});
            m_changed.notify_all();
        });
}

LogCapture::~LogCapture()
{
    if (tavo::LogManager::hasInstance())
    {
        tavo::LogManager::getInstance()->setSink(tavo::LogSink());
        tavo::LogManager::getInstance()->setMaxLevel(tavo::LogManager::DEFAULT_MAX_LEVEL);
    }
}

std::vector<LogCapture::Line> LogCapture::lines() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
}

int LogCapture::levelOf(const std::string& text) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto line = std::find_if(m_lines.begin(), m_lines.end(),
                                   [&](const Line& each) { return each.text == text; });
    return line == m_lines.end() ? -1 : line->level;
}

bool LogCapture::waitFor(const std::string& text, std::chrono::milliseconds timeout,
                         std::size_t occurrences) const
{
    const auto equal = [&](const Line& line) { return line.text == text; };
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, timeout,
                              [&]
                              {
                                  return static_cast<std::size_t>(std::count_if(
                                             m_lines.begin(), m_lines.end(), equal)) >= occurrences;
                              });
}

void LogCapture::clear()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.clear();
}
