#pragma once

#include <weft/EUDPPacket.h>
#include <weft/IWEFTTransport.h>
#include <weft/ModuloValue.h>
#include <weft/RingBuffer.h>

// The receiving half of the protocol, without sockets or threads: what an
// arriving data packet's number means against the number expected, what to
// answer, and the queue of payloads waiting for the application. The
// transport calls it under its receive lock and sends the answer it names.
class EUDPReceiveWindow
{
public:
    enum EArrival
    {
        ARRIVAL_IN_ORDER,  // the number expected: taken
        ARRIVAL_AHEAD,     // later than expected, taken anyway (real-time)
        ARRIVAL_DUPLICATE, // before the number expected: dropped, acknowledged
        ARRIVAL_GAP,       // later than expected (reliable): dropped, NAKed
        ARRIVAL_FULL       // no room to store it: dropped without an answer
    };

    struct Verdict
    {
        EArrival arrival;
        // Steps from the number expected to the packet's: below 0 for a
        // duplicate, the count of missing packets for a gap.
        int distance;
        // EUDP_UNKNOWN when nothing is answered.
        EEUDPCommand answer;
        uint answerArg;
        // The payload was queued for the application.
        bool stored;
    };

    explicit EUDPReceiveWindow(uint capacity);
    EUDPReceiveWindow(const EUDPReceiveWindow&) = delete;
    EUDPReceiveWindow& operator=(const EUDPReceiveWindow&) = delete;

    // Judges one data packet in the given receive mode: reliable takes only
    // the number expected; every other mode takes anything newer, skipping
    // gaps. Empty packets (keep-alives) advance the number but are not stored.
    Verdict receive(const EUDPPacket& packet, EConnMode mode);

    ModuloValue expected() const { return m_expectedSeq; }
    // Connection set-up: the first number the peer sends; nothing stored.
    void restart(ModuloValue expected);

    bool isEmpty() const { return m_receiveBuffer.isEmpty(); }
    uint stored() const { return m_receiveBuffer.size(); }
    // The oldest stored packet; only when not empty.
    const EUDPPacket& oldest() { return m_receiveBuffer.front(); }
    void dropOldest() { m_receiveBuffer.pop(); }
    // Gives the queue's memory back once nothing is stored (a closed
    // connection's last payload was handed out).
    void releaseIfEmpty()
    {
        if (m_receiveBuffer.isEmpty())
        {
            m_receiveBuffer.release();
        }
    }

private:
    ModuloValue m_expectedSeq;
    RingBuffer<EUDPPacket> m_receiveBuffer;
};
