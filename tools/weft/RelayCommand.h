#pragma once

// weft relay: stands between a client and a server, passes their traffic
// on (impaired, if asked: loss, duplication, reordering, delay) and prints
// every message that passes.

#include <weft/ConnStatus.h>

#include <tavo/HostAddress.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace CLI
{
class App;
}

namespace weftcli
{

struct RelayCommandOptions
{
    std::string listen;
    std::string to;
    ETransport transport = TRANSPORT_TCP;
    tavo::EAddressFamily family = tavo::ADDRESS_FAMILY_ANY;
    double drop = 0;      // 0 to 1
    double duplicate = 0; // 0 to 1
    double reorder = 0;   // 0 to 1
    std::chrono::microseconds delay{0};
    std::optional<uint32_t> seed; // none: a new one each run, printed
    bool print = false;
    bool json = false;
    bool timestamps = false;
};

// In CommandLine.cpp, with every subcommand's options.
CLI::App* addRelayCommand(CLI::App& app, RelayCommandOptions& options);
// What is wrong with a parsed set of options; empty when nothing is.
std::string checkRelayOptions(const RelayCommandOptions& options);
int runRelay(const RelayCommandOptions& options);

} // namespace weftcli
