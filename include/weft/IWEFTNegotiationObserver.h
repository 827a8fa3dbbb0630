#pragma once

#include <weft/Export.h>
#include <weft/IWEFTTransport.h>

// Implemented by an application that wants to see the mode and window
// requests its peer makes on a connection, and what became of them. Only
// EUDP negotiates; a TCP connection never calls it. Called on the
// transport's receive thread: return quickly. A request repeated while its
// answer is on the way is reported once.
class WEFT_EXPORT IWEFTNegotiationObserver
{
public:
    virtual ~IWEFTNegotiationObserver() {}
    // The peer asked this side to send in `askedSend` and to receive in
    // `askedReceive` (CONN_MODE_DONT_CARE: no change); `granted` tells
    // whether both were allowed, and `send` and `receive` are the modes in
    // force now.
    virtual void onModeRequest(EConnMode askedSend, EConnMode askedReceive, bool granted,
                               EConnMode send, EConnMode receive) = 0;
    // The peer set this side's send window to `size` packets (always granted).
    virtual void onWindowRequest(unsigned int size) = 0;
};
