#pragma once

// weft serve: a server that shows every connection and request, keeps the
// last value of each item and pushes values typed on stdin.

#include <weft/ConnStatus.h>

#include <tavo/HostAddress.h>

#include <string>

namespace CLI
{
class App;
}

namespace weftcli
{

enum EAllowModes
{
    ALLOW_REALTIME,
    ALLOW_RELIABLE,
    ALLOW_BOTH,
};

struct ServeOptions
{
    ETransport transport = TRANSPORT_TCP;
    // Loopback unless told otherwise (empty: 127.0.0.1, ::1 with -6): a
    // server reachable from the whole network is a choice, not a default.
    std::string host;
    tavo::EAddressFamily family = tavo::ADDRESS_FAMILY_ANY;
    // Networks whose clients are taken (CIDR list); empty: everyone who can reach the port.
    std::string allowFrom;
    // 0: no limit.
    unsigned int maxClients = 0;
    // Items one client may subscribe to at once; a flood of subscriptions
    // must not grow the server without bound.
    unsigned int maxSubscriptions = 10000;
    unsigned short port = 0;
    EAllowModes allowSend = ALLOW_BOTH;
    EAllowModes allowReceive = ALLOW_BOTH;
    bool json = false;
    bool timestamps = false;
};

// Adds the subcommand and its options to the tool.
// The commands read from stdin, as help prints them.
extern const char* const SERVE_STDIN_HELP;

// In CommandLine.cpp, with every subcommand's options.
CLI::App* addServeCommand(CLI::App& app, ServeOptions& options);
// What is wrong with a parsed set of options; empty when nothing is.
std::string checkServeOptions(const ServeOptions& options);
// Runs until quit, end of a signal, or a failure to listen; the exit code.
int runServe(const ServeOptions& options);

} // namespace weftcli
