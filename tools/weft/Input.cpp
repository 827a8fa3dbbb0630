#include "Input.h"

#include "Printer.h"
#include "Signals.h"
#include "ValueSyntax.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <unistd.h>

namespace weftcli
{

InputLoop::InputLoop(Wakeup& wakeup, bool readStdin)
    : m_wakeup(wakeup), m_stdinOpen(readStdin), m_endReported(!readStdin)
{
}

bool InputLoop::stdinUsable()
{
    return ::isatty(STDIN_FILENO) == 0 || ::tcgetpgrp(STDIN_FILENO) == ::getpgrp();
}

InputEvent InputLoop::next(const Deadline& deadline)
{
    for (;;)
    {
        int timeoutMs = -1;
        if (!m_lines.empty() || (!m_stdinOpen && !m_endReported))
        {
            timeoutMs = 0;
        }
        else if (deadline)
        {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                *deadline - std::chrono::steady_clock::now());
            // Round up, so that the deadline has passed when poll returns.
            timeoutMs = static_cast<int>(std::max<long long>(0, left.count() + 1));
        }
        pollfd fds[2] = {{m_wakeup.fd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        const nfds_t count = (m_stdinOpen && m_lines.empty()) ? 2 : 1;
        const int ready = ::poll(fds, count, timeoutMs);
        if (ready < 0 && errno != EINTR)
        {
            return {InputEvent::INPUT_END, ""};
        }
        if (ready > 0 && (fds[0].revents & POLLIN) != 0)
        {
            const std::string reasons = m_wakeup.drain();
            if (!reasons.empty())
            {
                return {InputEvent::INPUT_WAKE, reasons};
            }
        }
        if (!m_lines.empty())
        {
            std::string line = std::move(m_lines.front());
            m_lines.pop_front();
            return {InputEvent::INPUT_LINE, line};
        }
        if (!m_stdinOpen && !m_endReported)
        {
            m_endReported = true;
            return {InputEvent::INPUT_END, ""};
        }
        if (count == 2 && ready > 0 &&
            (fds[1].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) != 0)
        {
            m_stdinOpen = readStdin();
            continue;
        }
        if (ready == 0 && deadline && std::chrono::steady_clock::now() >= *deadline)
        {
            return {InputEvent::INPUT_TIMEOUT, ""};
        }
    }
}

bool InputLoop::readStdin()
{
    char buffer[4096];
    const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof(buffer));
    if (n < 0 && (errno == EINTR || errno == EAGAIN))
    {
        return true;
    }
    if (n > 0)
    {
        m_partial.append(buffer, static_cast<std::size_t>(n));
    }
    std::size_t start = 0;
    for (std::size_t newline; (newline = m_partial.find('\n', start)) != std::string::npos;
         start = newline + 1)
    {
        std::string line = m_partial.substr(start, newline - start);
        if (!line.empty() && line.back() == '\r')
        {
            line.pop_back();
        }
        m_lines.push_back(line);
    }
    m_partial.erase(0, start);
    if (n <= 0)
    {
        // The last line may lack its newline.
        if (!m_partial.empty())
        {
            m_lines.push_back(m_partial);
            m_partial.clear();
        }
        return false;
    }
    return true;
}

bool commandWords(const std::string& line, Printer& printer, const std::string& command,
                  std::vector<std::string>& words)
{
    std::string error;
    if (!splitWords(line, words, error))
    {
        printer.error(command, error);
        return false;
    }
    return !words.empty();
}

} // namespace weftcli
