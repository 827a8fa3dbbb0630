#pragma once

// weft connect: a client that subscribes, calls functions, and prints every
// trigger and state update it receives.

#include <weft/ConnStatus.h>
#include <weft/IWEFTTransport.h>

#include <tavo/HostAddress.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace CLI
{
class App;
}

namespace weftcli
{

struct ConnectOptions
{
    std::string target;
    ETransport transport = TRANSPORT_TCP;
    tavo::EAddressFamily family = tavo::ADDRESS_FAMILY_ANY;
    std::vector<std::string> subscribe;
    // Each --call: the function's name, then NAME=VALUE parameters.
    std::vector<std::vector<std::string>> calls;
    // CONN_MODE_DONT_CARE: not asked for.
    EConnMode sendMode = CONN_MODE_DONT_CARE;
    EConnMode receiveMode = CONN_MODE_DONT_CARE;
    unsigned int window = 0; // 0: leave the window as it is
    int count = 0;           // 0: no limit
    // From the start, the connect included; 0: none.
    std::chrono::microseconds timeout{0};
    bool json = false;
    bool timestamps = false;
};

// The commands read from stdin, as help prints them; the modes they name.
extern const char* const CONNECT_STDIN_HELP;
extern const std::map<std::string, EConnMode> CONNECT_MODES;

// In CommandLine.cpp, with every subcommand's options.
CLI::App* addConnectCommand(CLI::App& app, ConnectOptions& options);
// What is wrong with a parsed set of options; empty when nothing is.
std::string checkConnectOptions(const ConnectOptions& options);
int runConnect(const ConnectOptions& options);

} // namespace weftcli
