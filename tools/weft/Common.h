#pragma once

// What every subcommand shares: exit codes and transport names.

#include <weft/ConnStatus.h>
#include <weft/IWEFTTransport.h>

#include <chrono>
#include <string>

namespace weftcli
{

enum EExitCode
{
    EXIT_OK = 0,
    EXIT_FAILED = 1,  // could not listen or connect, the connection dropped, a step failed
    EXIT_USAGE = 2,   // bad arguments
    EXIT_TIMEOUT = 3, // connect --timeout passed before --count messages arrived
};

// How long weft relay keeps an EUDP client's session without traffic: well
// past the 10 s after which EUDP itself gives a silent peer up, so only
// clients that are gone are forgotten.
constexpr std::chrono::seconds RELAY_IDLE_TIMEOUT{30};

inline const char* transportName(ETransport transport)
{
    return transport == TRANSPORT_TCP ? "tcp" : "eudp";
}

inline const char* modeName(EConnMode mode)
{
    switch (mode)
    {
    case CONN_MODE_REALTIME:
        return "realtime";
    case CONN_MODE_RELIABLE:
        return "reliable";
    case CONN_MODE_DONT_CARE:
        break;
    }
    return "dont-care";
}

} // namespace weftcli
