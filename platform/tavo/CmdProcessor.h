#pragma once

#include <tavo/Export.h>
#include <tavo/SingletonDll.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace tavo
{

// Runs a named command with its arguments and returns its text output.
typedef std::function<std::string(const std::vector<std::string>& arguments)> CmdHandler;

// The process-wide registry of text commands: a line such as
// `update level i:5` runs the handler registered for "update" with the
// arguments "level" and "i:5". Words are separated by blanks; a word in double
// quotes may hold blanks, and a backslash inside quotes escapes the next
// character.
class TAVO_EXPORT CmdProcessor : public SingletonDll<CmdProcessor>
{
public:
    CmdProcessor();
    ~CmdProcessor() override;

    // False when a command of that name is registered already.
    bool registerCommand(const std::string& name, const std::string& help, CmdHandler handler);
    bool unregisterCommand(const std::string& name);
    std::vector<std::string> getCommandNames() const;
    std::string getHelp(const std::string& name) const;

    // Runs one line. False for an empty line, an unknown command or unbalanced
    // quotes, with the reason in `output`. The handler runs without the
    // registry's lock, so it may register or run commands itself.
    bool execute(const std::string& line, std::string& output);

    // Splits a line into words as execute() does; false on unbalanced quotes.
    static bool split(const std::string& line, std::vector<std::string>& words);

private:
    struct Command
    {
        std::string help;
        CmdHandler handler;
    };

    mutable std::mutex m_mutex;
    std::map<std::string, Command> m_commands;
};

extern template class SingletonDll<CmdProcessor>;

} // namespace tavo
