#include "EUDPModes.h"

#include "support/EudpWire.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace
{

using eudpwire::modes;

const uint8 LETTERS[] = {'T', 'R', 'D', 'X'};

TEST(EUDPModesTest, EveryModeRequestAgainstEveryPolicyIsAnsweredOrRefusedHalfByHalf)
{
    // The rule in its simplest form: a letter asks for a mode this side
    // allows, or "D" keeps the current one; anything else refuses.
    const auto allowedLetter = [](uint8 letter, bool realtime, bool reliable)
    { return letter == 'D' || (letter == 'T' && realtime) || (letter == 'R' && reliable); };
    const auto after = [](uint8 letter, EConnMode current)
    { return letter == 'D' ? current : static_cast<EConnMode>(letter); };
    for (int flags = 0; flags < 16; ++flags)
    {
        const ModePolicy policy{(flags & 1) != 0, (flags & 2) != 0, (flags & 4) != 0,
                                (flags & 8) != 0};
        for (uint8 askedSend : LETTERS)
        {
            for (uint8 askedReceive : LETTERS)
            {
                const std::string what = std::string("policy ") + std::to_string(flags) + " MOD " +
                                         char(askedSend) + "D" + char(askedReceive) + "D";
                const uint request = modes(askedSend, 'D', askedReceive, 'D');
                const ModeAnswer answer =
                    answerModeRequest(request, policy, CONN_MODE_RELIABLE, CONN_MODE_REALTIME);
                const bool sendOk =
                    allowedLetter(askedSend, policy.sendRealtime, policy.sendReliable);
                const bool receiveOk =
                    allowedLetter(askedReceive, policy.receiveRealtime, policy.receiveReliable);
                EXPECT_EQ(answer.sendAccepted, sendOk) << what;
                EXPECT_EQ(answer.accepted, sendOk && receiveOk) << what;
                // A send half once accepted stays, even when the receive half is not.
                EXPECT_EQ(answer.send,
                          sendOk ? after(askedSend, CONN_MODE_RELIABLE) : CONN_MODE_RELIABLE)
                    << what;
                if (answer.accepted)
                {
                    const EConnMode receive = after(askedReceive, CONN_MODE_REALTIME);
                    EXPECT_EQ(answer.receive, receive) << what;
                    EXPECT_EQ(answer.answerArg, modes(askedSend, static_cast<uint8>(answer.send),
                                                      askedReceive, static_cast<uint8>(receive)))
                        << what;
                }
            }
        }
    }
}

TEST(EUDPModesTest, ARequesterTellsItsOwnAnswerFromAnotherRequestsAndSeesARefusal)
{
    EXPECT_EQ(modeRequestArg(CONN_MODE_RELIABLE, true), modes("RDDD"));
    EXPECT_EQ(modeRequestArg(CONN_MODE_REALTIME, false), modes("DDTD"));
    // The mode asked for, in which direction, the answer and what it means.
    const std::tuple<EConnMode, bool, uint, EModeReply> table[] = {
        {CONN_MODE_RELIABLE, true, modes("RRDT"), MODE_AGREED},
        {CONN_MODE_RELIABLE, true, modes("RTDT"), MODE_REFUSED},
        {CONN_MODE_RELIABLE, true, modes("DRRR"), MODE_NOT_OURS}, // a receive request's answer
        {CONN_MODE_RELIABLE, true, modes("RRTT"), MODE_NOT_OURS}, // it asked for the other direction too
        {CONN_MODE_REALTIME, false, modes("DTTR"), MODE_REFUSED},
        {CONN_MODE_REALTIME, false, modes("DRTT"), MODE_AGREED},
        {CONN_MODE_DONT_CARE, true, modes("DRDT"), MODE_AGREED},
        {CONN_MODE_DONT_CARE, true, modes("TRDT"), MODE_NOT_OURS},
    };
    for (const auto& [mode, sendDirection, answer, reply] : table)
    {
        EXPECT_EQ(readModeAnswer(answer, modeRequestArg(mode, sendDirection), mode, sendDirection),
                  reply)
            << std::hex << answer;
    }
    EXPECT_EQ(modeLetterAt(modes("DTRR"), 1), CONN_MODE_REALTIME);
    EXPECT_EQ(modeLetterAt(modes("DTRR"), 3), CONN_MODE_RELIABLE);
}

} // namespace
