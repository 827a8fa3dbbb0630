#pragma once

#include <weft/EUDPPacket.h>
#include <weft/IWEFTTransport.h>
#include <weft/ModuloValue.h>
#include <weft/RingBuffer.h>

#include <memory>

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
        // Payloads queued for the application: this packet's and, in
        // reliable mode, those held after the gap it closes.
        unsigned int stored;
    };

    explicit EUDPReceiveWindow(uint capacity);
    EUDPReceiveWindow(const EUDPReceiveWindow&) = delete;
    EUDPReceiveWindow& operator=(const EUDPReceiveWindow&) = delete;

    // Judges one data packet in the given receive mode: reliable delivers
    // only in order (a packet after a gap is NAKed, and held until the gap is
    // filled, so that only the missing packets need to come again); every
    // other mode takes anything newer, skipping gaps. Empty packets
    // (keep-alives) advance the number but are not stored.
    Verdict receive(const EUDPPacket& packet, EConnMode mode);

    ModuloValue expected() const { return m_expectedSeq; }
    // Connection set-up: the first number the peer sends; nothing stored.
    void restart(ModuloValue expected);

    bool isEmpty() const { return m_receiveBuffer.isEmpty(); }
    uint stored() const { return m_receiveBuffer.size(); }
    // Payloads that can still be stored.
    uint room() const { return m_receiveBuffer.capacity() - 1 - m_receiveBuffer.size(); }
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
    // One packet after a gap, in the slot of its number.
    struct Held
    {
        bool held = false;
        EUDPPacket packet;
    };

    // Takes the packet expected, and after it those held that follow on;
    // returns how many payloads it stored.
    unsigned int deliverInOrder(const EUDPPacket& packet);
    void take(const EUDPPacket& packet, unsigned int& stored);
    void hold(const ModuloValue& seq, const EUDPPacket& packet);
    void dropHeld();

    ModuloValue m_expectedSeq;
    RingBuffer<EUDPPacket> m_receiveBuffer;
    // Made at the first gap; EUDP_REORDER_SLOTS of them.
    std::unique_ptr<Held[]> m_pHeld;
    unsigned int m_heldCount = 0;
};
