#include <weft/EUDPPacket.h>
#include <weft/ModuloValue.h>
#include <weft/RingBuffer.h>

#include <gtest/gtest.h>

namespace
{

ModuloValue seq(int value)
{
    return ModuloValue(value, EUDP_SEQ_RANGE);
}

TEST(ModuloValueTest, NumbersRunTo65534ThenWrapAndStayAfterTheirPredecessor)
{
    ModuloValue last = seq(65534);
    ModuloValue next = last;
    next.increment();
    EXPECT_EQ(next.getValue(), 0);
    EXPECT_EQ(next.distance(last), 1);
    EXPECT_TRUE(next.isAfter(last));
    EXPECT_EQ(last.distance(next), -1);
    EXPECT_FALSE(last.isAfter(next));
    // -1 is "no number yet": 0 and 5 follow it.
    EXPECT_EQ(seq(5).distance(seq(-1)), 6);
    EXPECT_TRUE(seq(0).isAfter(seq(-1)));
}

TEST(ModuloValueTest, OrderFlipsBeyondHalfTheNumberSpace)
{
    for (int base : {0, 100, 40000, 65534})
    {
        const ModuloValue from = seq(base);
        const ModuloValue halfAhead = seq((base + 32767) % EUDP_SEQ_RANGE);
        const ModuloValue beyond = seq((base + 32768) % EUDP_SEQ_RANGE);
        EXPECT_EQ(halfAhead.distance(from), 32767) << "base " << base;
        EXPECT_EQ(beyond.distance(from), -32767) << "base " << base;
        EXPECT_FALSE(beyond.isAfter(from)) << "base " << base;
        EXPECT_EQ(from.distance(from), 0);
    }
}

TEST(ModuloValueTest, ArgumentsAreReducedWithTheSignedRemainder)
{
    EXPECT_EQ(ModuloValue::fromArg(65535).getValue(), 0);
    EXPECT_EQ(ModuloValue::fromArg(65537).getValue(), 2);
    EXPECT_EQ(ModuloValue::fromArg(0xFFFFFFFFu).getValue(), -1);
}

TEST(RingBufferTest, HoldsOneLessThanItsCapacityAndWrapsInOrder)
{
    RingBuffer<EUDPPacket> ring(EUDP_RING_CAPACITY);
    ring.pop(); // harmless on an empty ring
    EXPECT_TRUE(ring.isEmpty());
    EUDPPacket packet(EUDP_CMD);
    for (uint i = 0; i < 999; ++i)
    {
        packet.setArg(i);
        ASSERT_TRUE(ring.push(packet)) << "push " << i;
    }
    EXPECT_TRUE(ring.isFull());
    packet.setArg(999);
    EXPECT_FALSE(ring.push(packet));
    EXPECT_EQ(ring.size(), 999u);
    EXPECT_EQ(ring.front().getArg(), 0u);

    // Around the end of the array several times: first in, first out.
    uint expected = 0;
    for (uint next = 999; next < 3500; ++next)
    {
        ASSERT_EQ(ring.front().getArg(), expected);
        ring.pop();
        ++expected;
        packet.setArg(next);
        ASSERT_TRUE(ring.push(packet));
        ASSERT_TRUE(ring.isFull());
    }
    EXPECT_EQ(ring.at(998).getArg(), 3499u);
    while (!ring.isEmpty())
    {
        ASSERT_EQ(ring.front().getArg(), expected++);
        ring.pop();
    }
    EXPECT_EQ(expected, 3500u);
}

} // namespace
