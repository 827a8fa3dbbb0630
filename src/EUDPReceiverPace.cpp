#include "EUDPReceiverPace.h"

#include <weft/Constants.h>

std::optional<tavo::EWakeup> EUDPReceiverPace::afterTurn(unsigned int taken, bool realtime)
{
    if (!m_preempts)
    {
        if (!realtime || taken < EUDP_RECEIVE_BURST)
        {
            return std::nullopt;
        }
        m_preempts = true;
        m_caughtUpTurns = 0;
        return tavo::WAKEUP_PREEMPTS;
    }
    if (taken >= EUDP_RECEIVE_BURST)
    {
        m_caughtUpTurns = 0;
    }
    else if (taken <= 2)
    {
        ++m_caughtUpTurns;
    }
    if (realtime && m_caughtUpTurns < CAUGHT_UP_TURNS)
    {
        return std::nullopt;
    }
    m_preempts = false;
    return tavo::WAKEUP_WAITS;
}
