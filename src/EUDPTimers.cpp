// Keep-alive and dead-peer watch. The timer callback runs on the process's
// one timer thread, which every timer shares: it never blocks.

#include <weft/EUDPTransport.h>

#include "EUDPLiveness.h"
#include "EUDPSendWindow.h"
#include "EUDPTimeouts.h"

#include <tavo/UdpSocket.h>

namespace
{

int microsecondsUntil(std::chrono::steady_clock::time_point when)
{
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
        when - std::chrono::steady_clock::now());
    return static_cast<int>(std::max<std::chrono::microseconds::rep>(left.count(), 0));
}

} // namespace

void EUDPTransport::initTimers(std::chrono::microseconds keepAlivePeriod)
{
    if (m_pAliveCallback == nullptr)
    {
        m_pAliveCallback = new tavo::Callback<EUDPTransport>(this, &EUDPTransport::onAliveTimer);
        m_aliveTimer.addCallback(m_pAliveCallback);
    }
    const auto now = std::chrono::steady_clock::now();
    m_pLiveness = std::make_unique<EUDPLiveness>(keepAlivePeriod, m_pTimeouts->deadPeer, now);
    // Set last, so that the receiver's resetTimers finds the watch in place.
    m_timersInitialised = true;
    m_aliveTimer.start(static_cast<int>(keepAlivePeriod.count()), true);
}

void EUDPTransport::resetTimers()
{
    // An answer heard before the connection is set up starts nothing; hearing
    // is only noted, the timer looks at it when it fires.
    if (m_timersInitialised)
    {
        m_pLiveness->heard(std::chrono::steady_clock::now());
    }
}

void EUDPTransport::stopTimers()
{
    m_aliveTimer.stop();
}

void EUDPTransport::onAliveTimer()
{
    if (m_closed || !m_timersInitialised)
    {
        return;
    }
    const EUDPLiveness::Tick tick = m_pLiveness->tick(std::chrono::steady_clock::now());
    if (tick.dead)
    {
        // Nothing is sent and nothing is logged: the application learns of
        // the end from receiveData.
        closeSocket();
        wakeWaiters();
        return;
    }
    if (tick.sendKeepAlive)
    {
        queueKeepAlive();
    }
    m_aliveTimer.start(microsecondsUntil(tick.next), true);
}

void EUDPTransport::queueKeepAlive()
{
    bool wakeSender = false;
    bool giveSpace = false;
    {
        tavo::MutexLock lock(m_sendMutex);
        // A reliable sender with packets queued repeats them until they are
        // acknowledged, which asks the peer for an answer as well; and a
        // full queue must not block this thread.
        if (m_closed || m_pSendWindow->isFull() ||
            (m_sendMode == CONN_MODE_RELIABLE && !m_pSendWindow->isEmpty()))
        {
            return;
        }
        m_pSendWindow->queue(nullptr, 0);
        const bool freed = flushSendable(std::chrono::steady_clock::now());
        afterQueued(freed, wakeSender, giveSpace);
    }
    giveWakeups(wakeSender, giveSpace);
}
