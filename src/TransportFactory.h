#pragma once

#include <weft/ConnStatus.h>
#include <weft/Constants.h>
#include <weft/IWEFTTransport.h>

class IWEFTNegotiationObserver;

// What a transport may be told beyond IWEFTTransport. Most are EUDP's only:
// a TCP stream has its peer fixed by the kernel and no half-open state.
struct TransportOptions
{
    // Ignore datagrams that do not come from the peer.
    bool strictPeer = true;
    // Listening: at most this many accepted connections half-open; 0 sets none.
    unsigned int halfOpenLimit = EUDP_DEFAULT_HALF_OPEN_LIMIT;
    // Listening: accepted connections hold their peer's mode requests until
    // releaseHeldModeRequests.
    bool holdModeRequests = false;
    // Listening TCP: connections the kernel may hold waiting for accept.
    int listenBacklog = TCP_LISTEN_BACKLOG;
    // Listening on ::, IPv4 clients are taken too.
    bool dualStack = true;
};

// The one place that knows the concrete transports: the protocol layer
// builds and adjusts its transports here and otherwise sees IWEFTTransport.
class TransportFactory
{
public:
    // A new transport of that kind; an unknown kind stops the process.
    static IWEFTTransport* create(ETransport kind, const TransportOptions& options = {});
    // Switches strict peer on or off for a transport made already.
    static void setStrictPeer(IWEFTTransport& transport, bool strict);
    // How long a send may wait while the peer takes nothing; 0: no limit.
    static void setSendTimeout(IWEFTTransport& transport, unsigned int timeoutMs);
    static void setNegotiationObserver(IWEFTTransport& transport,
                                       IWEFTNegotiationObserver* observer);
    // Answers the mode request an accepted transport held, if any, and stops holding.
    static void releaseHeldModeRequests(IWEFTTransport& transport);
};
