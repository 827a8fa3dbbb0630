#include "EUDPTimeouts.h"

#include <tavo/Assert.h>

#include <mutex>

namespace
{

std::mutex g_standardMutex;
EUDPTimeouts g_standard;

} // namespace

EUDPTimeouts EUDPTimeouts::shortenedBy(int divisor) const
{
    TAVO_ASSERT(divisor > 0);
    EUDPTimeouts shorter = *this;
    for (Duration* value :
         {&shorter.connect, &shorter.connectRepeat, &shorter.negotiation,
          &shorter.negotiationRepeat, &shorter.retransmit, &shorter.retransmitFloor,
          &shorter.ackDelay, &shorter.receiveRoomWait, &shorter.acceptedKeepAlive,
          &shorter.connectingKeepAlive, &shorter.deadPeer, &shorter.sendStall, &shorter.tcpMessage})
    {
        *value /= divisor;
    }
    return shorter;
}

EUDPTimeouts EUDPTimeouts::standard()
{
    std::lock_guard<std::mutex> lock(g_standardMutex);
    return g_standard;
}

void EUDPTimeouts::setStandard(const EUDPTimeouts& timeouts)
{
    std::lock_guard<std::mutex> lock(g_standardMutex);
    g_standard = timeouts;
}

unsigned int toWaitMs(EUDPTimeouts::Duration duration)
{
    if (duration <= EUDPTimeouts::Duration::zero())
    {
        return 0;
    }
    // Rounded up, so that a wait never ends before its time.
    return static_cast<unsigned int>(
        std::chrono::ceil<std::chrono::milliseconds>(duration).count());
}
