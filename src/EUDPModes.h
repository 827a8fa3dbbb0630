#pragma once

#include <weft/IWEFTTransport.h>

#include <tavo/Types.h>

// Mode negotiation on plain values. A MOD or MAK argument holds four mode
// letters, byte 0 first on the wire: the send mode asked, the send mode in
// force after the request, the receive mode asked, the receive mode in force
// after it ("D" asks for no change). A requester fills bytes 0 and 2 and
// leaves "D" in 1 and 3; the answer copies 0 and 2 and fills 1 and 3.

// Which modes a peer's request may set on this side.
struct ModePolicy
{
    bool sendRealtime = true;
    bool sendReliable = true;
    bool receiveRealtime = true;
    bool receiveReliable = true;
};

// The argument of the MOD that setSendMode (`sendDirection`) or
// setReceiveMode sends for `mode`.
uint modeRequestArg(EConnMode mode, bool sendDirection);

// Letter `index` (0 to 3) of a mode argument, as a mode: the letter is a
// signed character.
EConnMode modeLetterAt(uint arg, unsigned int index);

// What this side does with a peer's MOD.
struct ModeAnswer
{
    // The send half was acceptable: `send` is in force from now on, even
    // when the receive half is refused.
    bool sendAccepted;
    EConnMode send;
    // Both halves acceptable: `receive` is in force and `answerArg` goes back
    // in a MAK. Otherwise nothing is answered.
    bool accepted;
    EConnMode receive;
    uint answerArg;
};
ModeAnswer answerModeRequest(uint requestArg, const ModePolicy& policy, EConnMode currentSend,
                             EConnMode currentReceive);

// What a MAK means to the request that `requestArg` made for `mode`.
enum EModeReply
{
    MODE_AGREED,  // the peer is in the mode asked (or any, for "D")
    MODE_REFUSED, // the peer answered this request but is in another mode
    MODE_NOT_OURS // an answer to another request (a late or a stranger's)
};
EModeReply readModeAnswer(uint answerArg, uint requestArg, EConnMode mode, bool sendDirection);
