#include <weft/EUDPPacket.h>
#include <weft/RingBuffer.h>

#include <gtest/gtest.h>

namespace
{

TEST(RingBufferTest, HoldsOneLessThanItsCapacityAndStaysFirstInFirstOutAcrossItsEnd)
{
    RingBuffer<EUDPPacket> ring(EUDP_RING_CAPACITY);
    ring.pop(); // harmless on an empty ring
    EUDPPacket packet(EUDP_CMD);
    uint pushed = 0;
    while (ring.push(packet))
    {
        packet.setArg(++pushed);
    }
    EXPECT_EQ(pushed, 999u);
    EXPECT_TRUE(ring.isFull());
    EXPECT_EQ(ring.front().getArg(), 0u);
    for (uint expected = 0; expected < 3500; ++expected) // around the array several times
    {
        ASSERT_EQ(ring.front().getArg(), expected);
        ring.pop();
        ASSERT_TRUE(ring.push(packet));
        packet.setArg(++pushed);
    }
    while (!ring.isEmpty())
    {
        ring.pop();
    }
    EXPECT_EQ(ring.size(), 0u);
}

} // namespace
