#pragma once

#include <weft/Constants.h>
#include <weft/Export.h>

#include <tavo/Types.h>

// A sequence number counting modulo its range (65535 in the transport: 0 to
// 65534), compared in cyclic order. -1 stands for "no number yet".
class WEFT_EXPORT ModuloValue
{
public:
    ModuloValue(int value = 0, int range = EUDP_SEQ_RANGE) : m_value(value), m_range(range) {}
    ModuloValue(const ModuloValue& other) = default;
    virtual ~ModuloValue() {}
    ModuloValue& operator=(const ModuloValue& other) = default;

    // A number taken from a packet's argument: the 32-bit argument as a signed
    // number, reduced with the signed remainder.
    static ModuloValue fromArg(uint arg)
    {
        return ModuloValue(static_cast<int>(arg) % EUDP_SEQ_RANGE, EUDP_SEQ_RANGE);
    }

    int getValue() const { return m_value; }
    int getRange() const { return m_range; }

    void increment() { m_value = (m_value + 1) % m_range; }

    // The number after this one.
    ModuloValue next() const { return ModuloValue((m_value + 1) % m_range, m_range); }
    // The number before this one, by the signed remainder: 0 gives -1, the
    // "no number yet" that lies just before 0.
    ModuloValue previous() const { return ModuloValue((m_value - 1) % m_range, m_range); }
    // The number before this one within the range: 0 gives the last number,
    // as an acknowledgement across the wrap must name it.
    ModuloValue previousInRange() const
    {
        return ModuloValue((m_value + m_range - 1) % m_range, m_range);
    }

    // Steps from `other` to this number, in -32767..32767 (fixed bounds).
    int distance(const ModuloValue& other) const
    {
        int d = m_value - other.m_value;
        if (d < -EUDP_SEQ_HALF)
        {
            d += EUDP_SEQ_RANGE;
        }
        else if (d > EUDP_SEQ_HALF)
        {
            d -= EUDP_SEQ_RANGE;
        }
        return d;
    }

    // True when this number lies 1 to 32767 steps ahead of `other`.
    bool isAfter(const ModuloValue& other) const { return distance(other) > 0; }

private:
    int m_value;
    int m_range;
};
