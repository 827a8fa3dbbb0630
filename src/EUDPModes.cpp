#include "EUDPModes.h"

#include "ByteOrder.h"

#include <array>

namespace
{

// Positions of the letters in a mode argument.
constexpr unsigned int ASKED_SEND = 0;
constexpr unsigned int SEND_NOW = 1;
constexpr unsigned int ASKED_RECEIVE = 2;
constexpr unsigned int RECEIVE_NOW = 3;

typedef std::array<uint8, 4> Letters;

Letters lettersOf(uint arg)
{
    Letters letters{};
    byteorder::writeLE32(letters.data(), arg);
    return letters;
}

uint argOf(const Letters& letters)
{
    return byteorder::readLE32(letters.data());
}

uint8 letterOf(EConnMode mode)
{
    return static_cast<uint8>(static_cast<int>(mode) & 0xFF);
}

EConnMode modeOf(uint8 letter)
{
    return static_cast<EConnMode>(static_cast<signed char>(letter));
}

// The mode one asked-for letter sets, if allowed; "D" keeps `current`.
bool pickMode(uint8 letter, bool realtimeAllowed, bool reliableAllowed, EConnMode current,
              EConnMode& chosen)
{
    switch (letter)
    {
    case CONN_MODE_REALTIME:
        chosen = CONN_MODE_REALTIME;
        return realtimeAllowed;
    case CONN_MODE_RELIABLE:
        chosen = CONN_MODE_RELIABLE;
        return reliableAllowed;
    case CONN_MODE_DONT_CARE:
        chosen = current;
        return true;
    default:
        return false;
    }
}

} // namespace

uint modeRequestArg(EConnMode mode, bool sendDirection)
{
    const uint8 keep = letterOf(CONN_MODE_DONT_CARE);
    Letters letters{keep, keep, keep, keep};
    letters[sendDirection ? ASKED_SEND : ASKED_RECEIVE] = letterOf(mode);
    return argOf(letters);
}

EConnMode modeLetterAt(uint arg, unsigned int index)
{
    return modeOf(lettersOf(arg).at(index));
}

ModeAnswer answerModeRequest(uint requestArg, const ModePolicy& policy, EConnMode currentSend,
                             EConnMode currentReceive)
{
    Letters letters = lettersOf(requestArg);
    ModeAnswer answer{false, currentSend, false, currentReceive, 0};
    answer.sendAccepted = pickMode(letters[ASKED_SEND], policy.sendRealtime, policy.sendReliable,
                                   currentSend, answer.send);
    if (!answer.sendAccepted)
    {
        answer.send = currentSend;
        return answer;
    }
    answer.accepted = pickMode(letters[ASKED_RECEIVE], policy.receiveRealtime,
                               policy.receiveReliable, currentReceive, answer.receive);
    if (!answer.accepted)
    {
        answer.receive = currentReceive;
        return answer;
    }
    letters[SEND_NOW] = letterOf(answer.send);
    letters[RECEIVE_NOW] = letterOf(answer.receive);
    answer.answerArg = argOf(letters);
    return answer;
}

EModeReply readModeAnswer(uint answerArg, uint requestArg, EConnMode mode, bool sendDirection)
{
    const Letters answer = lettersOf(answerArg);
    const Letters request = lettersOf(requestArg);
    if (answer[ASKED_SEND] != request[ASKED_SEND] ||
        answer[ASKED_RECEIVE] != request[ASKED_RECEIVE])
    {
        return MODE_NOT_OURS;
    }
    if (mode == CONN_MODE_DONT_CARE)
    {
        return MODE_AGREED;
    }
    const EConnMode now = modeOf(answer[sendDirection ? SEND_NOW : RECEIVE_NOW]);
    return now == mode ? MODE_AGREED : MODE_REFUSED;
}
