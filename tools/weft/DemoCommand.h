#pragma once

// weft demo: a server and a client in one process talk over loopback, on TCP
// and then on EUDP, and the transcript shows who says what.

#include <string>

namespace CLI
{
class App;
}

namespace weftcli
{

struct DemoOptions
{
    std::string transport = "both"; // tcp, eudp or both
};

// In CommandLine.cpp, with every subcommand's options.
CLI::App* addDemoCommand(CLI::App& app, DemoOptions& options);
// 0 when every step was seen; 1 with the step that failed.
int runDemo(const DemoOptions& options);

} // namespace weftcli
