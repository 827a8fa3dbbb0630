// The sender thread: puts queued data packets on the wire, once each in
// real-time mode, within the window and again until acknowledged in reliable
// mode. What to send and when to go back is the send window's decision.

#include <weft/EUDPTransport.h>

#include "EUDPSendWindow.h"
#include "EUDPTimeouts.h"

#include <tavo/UdpSocket.h>

EUDPTransport::EUDPSender::EUDPSender() : tavo::Thread("eudp-sender"), m_pOwner(nullptr) {}

EUDPTransport::EUDPSender::~EUDPSender() {}

void EUDPTransport::EUDPSender::run()
{
    if (m_pOwner != nullptr)
    {
        m_pOwner->senderThread();
    }
}

void EUDPTransport::senderThread()
{
    std::optional<std::chrono::steady_clock::time_point> wakeAt;
    while (!m_closed)
    {
        if (sendPass(wakeAt))
        {
            continue;
        }
        // Woken early by new data, an acknowledgement, a change of mode or
        // window, or the end; each is looked at again in the next pass.
        if (!wakeAt)
        {
            m_semSendWork.take();
            continue;
        }
        const auto now = std::chrono::steady_clock::now();
        if (*wakeAt > now)
        {
            m_semSendWork.take(
                toWaitMs(std::chrono::duration_cast<std::chrono::microseconds>(*wakeAt - now)));
        }
    }
}

bool EUDPTransport::sendPass(std::optional<std::chrono::steady_clock::time_point>& wakeAt)
{
    tavo::MutexLock lock(m_sendMutex);
    wakeAt.reset();
    if (m_sendMode != CONN_MODE_RELIABLE)
    {
        // The whole queue in one locked pass; each slot is read after its pop,
        // still under the lock, so no writer can reuse it yet.
        bool freed = false;
        while (const EUDPPacket* packet = m_pSendWindow->takeOldest())
        {
            sendDatagram(*packet);
            freed = true;
        }
        if (freed)
        {
            m_semSendSpace.give();
        }
        return false;
    }
    const auto now = std::chrono::steady_clock::now();
    const auto due = m_pSendWindow->retransmitDue();
    if (due && now >= *due)
    {
        // Nothing heard for a while: everything unacknowledged goes again.
        m_pSendWindow->goBack(now);
    }
    if (const EUDPPacket* packet = m_pSendWindow->nextReliable(m_windowSize, now))
    {
        sendDatagram(*packet);
        return true;
    }
    wakeAt = m_pSendWindow->retransmitDue();
    return false;
}

void EUDPTransport::sendDatagram(const EUDPPacket& packet)
{
    m_pSocket->sendTo(packet.getBuffer(), static_cast<int>(packet.getLength()), m_peerAddress,
                      m_peerPort);
}
