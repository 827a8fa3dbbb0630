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
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_lines.push_back(Line{output, level, text});
            }
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

std::size_t LogCapture::countContaining(const std::string& part) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<std::size_t>(
        std::count_if(m_lines.begin(), m_lines.end(),
                      [&](const Line& line) { return line.text.find(part) != std::string::npos; }));
}

int LogCapture::levelOf(const std::string& text) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const Line& line : m_lines)
    {
        if (line.text == text)
        {
            return line.level;
        }
    }
    return -1;
}

bool LogCapture::waitFor(const std::string& text, std::chrono::milliseconds timeout,
                         std::size_t occurrences) const
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, timeout,
                              [&]
                              {
                                  std::size_t n = 0;
                                  for (const Line& line : m_lines)
                                  {
                                      n += line.text == text ? 1 : 0;
                                  }
                                  return n >= occurrences;
                              });
}

void LogCapture::clear()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.clear();
}
