#include "EUDPReceiveWindow.h"

EUDPReceiveWindow::EUDPReceiveWindow(uint capacity) : m_expectedSeq(0), m_receiveBuffer(capacity) {}

EUDPReceiveWindow::Verdict EUDPReceiveWindow::receive(const EUDPPacket& packet, EConnMode mode)
{
    const uint arg = packet.getArg();
    const ModuloValue seq = ModuloValue::fromArg(arg);
    const int distance = seq.distance(m_expectedSeq);
    if (distance < 0)
    {
        // Its acknowledgement was lost, or it is a copy: the sender learns
        // again that it arrived, with the number exactly as it came.
        return Verdict{ARRIVAL_DUPLICATE, distance, EUDP_ACK, arg, 0};
    }
    if (m_receiveBuffer.isFull())
    {
        // Still expected: a reliable sender repeats it once there is room.
        return Verdict{ARRIVAL_FULL, distance, EUDP_UNKNOWN, 0, 0};
    }
    if (mode == CONN_MODE_RELIABLE)
    {
        if (distance > 0)
        {
            hold(seq, packet);
            return Verdict{ARRIVAL_GAP, distance, EUDP_NAK,
                           static_cast<uint>(m_expectedSeq.getValue()), 0};
        }
        const unsigned int stored = deliverInOrder(packet);
        // Cumulative: everything up to the last packet taken has arrived.
        return Verdict{ARRIVAL_IN_ORDER, 0, EUDP_ACK,
                       static_cast<uint>(m_expectedSeq.previousInRange().getValue()), stored};
    }
    // Real-time: what was held for an earlier reliable phase is behind now.
    dropHeld();
    Verdict verdict{distance == 0 ? ARRIVAL_IN_ORDER : ARRIVAL_AHEAD, distance, EUDP_UNKNOWN, 0, 0};
    m_expectedSeq = seq.next();
    if (packet.getPayloadLength() > 0)
    {
        verdict.stored = m_receiveBuffer.push(packet) ? 1 : 0;
    }
    else if (mode == CONN_MODE_REALTIME)
    {
        verdict.answer = EUDP_NOP;
    }
    return verdict;
}

void EUDPReceiveWindow::take(const EUDPPacket& packet, unsigned int& stored)
{
    m_expectedSeq = m_expectedSeq.next();
    if (packet.getPayloadLength() > 0 && m_receiveBuffer.push(packet))
    {
        ++stored;
    }
}

unsigned int EUDPReceiveWindow::deliverInOrder(const EUDPPacket& packet)
{
    unsigned int stored = 0;
    take(packet, stored);
    while (m_heldCount > 0 && !m_receiveBuffer.isFull())
    {
        Held& next = m_pHeld[static_cast<uint>(m_expectedSeq.getValue()) % EUDP_REORDER_SLOTS];
        if (!next.held || next.packet.getArg() != static_cast<uint>(m_expectedSeq.getValue()))
        {
            break;
        }
        next.held = false;
        --m_heldCount;
        take(next.packet, stored);
    }
    return stored;
}

void EUDPReceiveWindow::hold(const ModuloValue& seq, const EUDPPacket& packet)
{
    // Only what lies within reach of the slots, and only real numbers.
    if (seq.getValue() < 0 || seq.distance(m_expectedSeq) >= static_cast<int>(EUDP_REORDER_SLOTS))
    {
        return;
    }
    if (!m_pHeld)
    {
        m_pHeld = std::make_unique<Held[]>(EUDP_REORDER_SLOTS);
    }
    Held& slot = m_pHeld[static_cast<uint>(seq.getValue()) % EUDP_REORDER_SLOTS];
    if (slot.held)
    {
        // A copy, or (across the wrap of the numbers) another number in the
        // same slot: the first one stays.
        return;
    }
    slot.held = true;
    slot.packet = packet;
    ++m_heldCount;
}

void EUDPReceiveWindow::dropHeld()
{
    if (m_heldCount == 0)
    {
        return;
    }
    for (uint i = 0; i < EUDP_REORDER_SLOTS; ++i)
    {
        m_pHeld[i].held = false;
    }
    m_heldCount = 0;
}

void EUDPReceiveWindow::restart(ModuloValue expected)
{
    dropHeld();
    m_expectedSeq = expected;
    while (!m_receiveBuffer.isEmpty())
    {
        m_receiveBuffer.pop();
    }
}
