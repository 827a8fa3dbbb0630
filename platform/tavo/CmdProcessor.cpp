#include <tavo/CmdProcessor.h>

namespace tavo
{

template class SingletonDll<CmdProcessor>;

CmdProcessor::CmdProcessor() = default;

CmdProcessor::~CmdProcessor() = default;

bool CmdProcessor::registerCommand(const std::string& name, const std::string& help,
                                   CmdHandler handler)
{
    if (name.empty() || !handler)
    {
        return false;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_commands.emplace(name, Command{help, std::move(handler)}).second;
}

bool CmdProcessor::unregisterCommand(const std::string& name)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_commands.erase(name) > 0;
}

std::vector<std::string> CmdProcessor::getCommandNames() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> names;
    for (const auto& entry : m_commands)
    {
        names.push_back(entry.first);
    }
    return names;
}

std::string CmdProcessor::getHelp(const std::string& name) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_commands.find(name);
    return found == m_commands.end() ? std::string() : found->second.help;
}

bool CmdProcessor::split(const std::string& line, std::vector<std::string>& words)
{
    words.clear();
    std::string word;
    bool inWord = false;
    bool quoted = false;
    for (std::size_t i = 0; i < line.size(); ++i)
    {
        const char c = line[i];
        if (quoted)
        {
            if (c == '\\' && i + 1 < line.size())
            {
                word += line[++i];
            }
            else if (c == '"')
            {
                quoted = false;
            }
            else
            {
                word += c;
            }
        }
        else if (c == '"')
        {
            quoted = true;
            inWord = true;
        }
        else if (c == ' ' || c == '\t' || c == '\r' || c == '\n')
        {
            if (inWord)
            {
                words.push_back(word);
                word.clear();
                inWord = false;
            }
        }
        else
        {
            word += c;
            inWord = true;
        }
    }
    if (quoted)
    {
        return false;
    }
    if (inWord)
    {
        words.push_back(word);
    }
    return true;
}

bool CmdProcessor::execute(const std::string& line, std::string& output)
{
    std::vector<std::string> words;
    if (!split(line, words))
    {
        output = "unbalanced quotes";
        return false;
    }
    if (words.empty())
    {
        output.clear();
        return false;
    }
    CmdHandler handler;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_commands.find(words.front());
        if (found == m_commands.end())
        {
            output = "unknown command: " + words.front();
            return false;
        }
        handler = found->second.handler;
    }
    words.erase(words.begin());
    output = handler(words);
    return true;
}

} // namespace tavo
