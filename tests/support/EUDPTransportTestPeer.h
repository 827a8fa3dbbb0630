#pragma once

#include "EUDPReceiveWindow.h"
#include "EUDPSendWindow.h"

#include <weft/EUDPTransport.h>

#include <tavo/Semaphore.h>

// Reaches the state of an EUDP transport that the wire does not show (a
// friend of EUDPTransport). What a lock guards is read under that lock.
class EUDPTransportTestPeer
{
public:
    static int window(const EUDPTransport& t) { return t.m_windowSize; }
    static bool closed(const EUDPTransport& t) { return t.m_closed; }

    // As if the transport had sent that many packets already.
    static void numberFrom(EUDPTransport& t, int seq)
    {
        tavo::MutexLock lock(t.m_sendMutex);
        const ModuloValue next(seq);
        t.m_pSendWindow->restart(next, next.previous());
    }

    static int expectedSeq(EUDPTransport& t)
    {
        tavo::MutexLock lock(t.m_receiveMutex);
        return t.m_pReceiveWindow->expected().getValue();
    }
    // Messages received and not yet handed out.
    static uint stored(EUDPTransport& t)
    {
        tavo::MutexLock lock(t.m_receiveMutex);
        return t.m_pReceiveWindow->stored();
    }
};
