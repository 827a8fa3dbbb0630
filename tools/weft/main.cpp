// weft: use and debug weft connections from a shell.
#include "Common.h"
#include "ConnectCommand.h"
#include "DemoCommand.h"
#include "RelayCommand.h"
#include "ServeCommand.h"
#include "Signals.h"

#include <weft/Init.h>

#include <tavo/LogManager.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace
{

using namespace weftcli;

struct Verbosity
{
    int more = 0;
    int less = 0;

    // Library log lines up to this level reach stderr.
    int level() const
    {
        return std::clamp(tavo::LogManager::DEFAULT_MAX_LEVEL + more - less,
                          static_cast<int>(tavo::LOG_LEVEL_OFF),
                          static_cast<int>(tavo::LOG_LEVEL_TRACE));
    }
};

void addVerbosity(CLI::App& app, Verbosity& verbosity)
{
    app.add_flag("-v,--verbose", verbosity.more,
                 "more library log lines on stderr (repeatable; default: errors and dropped "
                 "messages)");
    app.add_flag("-q,--quiet", verbosity.less, "fewer library log lines (-qqq: none)");
}

// One line on what is wrong and where to read more; the whole help would
// push the line out of sight.
int usageError(CLI::App* command, const std::string& message)
{
    const std::string name = command != nullptr ? "weft " + command->get_name() : "weft";
    std::fprintf(stderr, "%s: %s\nsee '%s --help'\n", name.c_str(), message.c_str(), name.c_str());
    return EXIT_USAGE;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app("weft: serve, connect to and demonstrate weft connections over TCP or EUDP.",
                 "weft");
    app.set_version_flag("--version", "weft " WEFT_TOOL_VERSION);
    app.require_subcommand(1, 1);
    app.footer(R"(Run 'weft COMMAND --help' for a command's options, 'man weft' for more.

examples:
  weft demo                                      # a conversation on both transports
  weft serve --port 7420                         # then type: update level 0.5
  weft connect localhost:7420 --subscribe level
  echo 'call play clip=intro loop=on' | weft connect localhost
  weft relay --listen 7421 --to localhost:7420 --drop 5% --print)");
    Verbosity verbosity;
    ServeOptions serveOptions;
    ConnectOptions connectOptions;
    RelayCommandOptions relayOptions;
    DemoOptions demoOptions;
    CLI::App* serve = addServeCommand(app, serveOptions);
    CLI::App* connect = addConnectCommand(app, connectOptions);
    CLI::App* relay = addRelayCommand(app, relayOptions);
    CLI::App* demo = addDemoCommand(app, demoOptions);
    const std::vector<CLI::App*> commands{serve, connect, relay, demo};
    for (CLI::App* command : commands)
    {
        addVerbosity(*command, verbosity);
    }

    // CLI11 would only say that a command is missing.
    const auto isCommand = [&](const char* word)
    {
        return std::any_of(commands.begin(), commands.end(),
                           [word](CLI::App* command) { return command->check_name(word); });
    };
    if (argc > 1 && argv[1][0] != '-' && !isCommand(argv[1]))
    {
        return usageError(nullptr, "unknown command '" + std::string(argv[1]) +
                                       "' (serve, connect, relay, demo)");
    }
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::CallForHelp&)
    {
        CLI::App* command = app.get_subcommands().empty() ? &app : app.get_subcommands().back();
        std::printf("%s", command->help().c_str());
        return EXIT_OK;
    }
    catch (const CLI::CallForVersion&)
    {
        std::printf("weft %s\n", WEFT_TOOL_VERSION);
        return EXIT_OK;
    }
    catch (const CLI::ParseError& error)
    {
        return usageError(app.get_subcommands().empty() ? nullptr : app.get_subcommands().back(),
                          error.what());
    }

    CLI::App* command = app.get_subcommands().back();
    std::string problem;
    if (command == serve)
    {
        problem = checkServeOptions(serveOptions);
    }
    else if (command == connect)
    {
        problem = checkConnectOptions(connectOptions);
    }
    else if (command == relay)
    {
        problem = checkRelayOptions(relayOptions);
    }
    if (!problem.empty())
    {
        return usageError(command, problem);
    }
    // The demo keeps the default signal handling: Ctrl-C ends it at once.
    if (command != demo && !Wakeup::instance().open())
    {
        std::fprintf(stderr, "weft %s: cannot set up signal handling\n",
                     command->get_name().c_str());
        return EXIT_FAILED;
    }

    weftInit();
    tavo::LogManager::getInstance()->setMaxLevel(verbosity.level());
    int result = EXIT_OK;
    if (command == serve)
    {
        result = runServe(serveOptions);
    }
    else if (command == connect)
    {
        result = runConnect(connectOptions);
    }
    else if (command == relay)
    {
        result = runRelay(relayOptions);
    }
    else
    {
        result = runDemo(demoOptions);
    }
    weftDeinit();
    return result;
}
