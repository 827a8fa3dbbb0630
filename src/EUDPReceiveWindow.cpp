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
        return Verdict{ARRIVAL_DUPLICATE, distance, EUDP_ACK, arg, false};
    }
    if (m_receiveBuffer.isFull())
    {
        // Still expected: a reliable sender repeats it once there is room.
        return Verdict{ARRIVAL_FULL, distance, EUDP_UNKNOWN, 0, false};
    }
    Verdict verdict{distance == 0 ? ARRIVAL_IN_ORDER : ARRIVAL_AHEAD, distance, EUDP_UNKNOWN, 0,
                    false};
    if (mode == CONN_MODE_RELIABLE)
    {
        if (distance > 0)
        {
            return Verdict{ARRIVAL_GAP, distance, EUDP_NAK,
                           static_cast<uint>(m_expectedSeq.getValue()), false};
        }
        verdict.answer = EUDP_ACK;
        verdict.answerArg = static_cast<uint>(seq.getValue());
    }
    m_expectedSeq = seq.next();
    if (packet.getPayloadLength() > 0)
    {
        verdict.stored = m_receiveBuffer.push(packet);
    }
    else if (mode == CONN_MODE_REALTIME)
    {
        // A keep-alive; in reliable mode its ACK answers it.
        verdict.answer = EUDP_NOP;
    }
    return verdict;
}

void EUDPReceiveWindow::restart(ModuloValue expected)
{
    m_expectedSeq = expected;
    while (!m_receiveBuffer.isEmpty())
    {
        m_receiveBuffer.pop();
    }
}
