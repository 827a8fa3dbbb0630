#include <weft/ModuloValue.h>

#include <gtest/gtest.h>

namespace
{

TEST(ModuloValueTest, NumbersWrapAfter65534AndOrderFlipsBeyondHalfTheNumberSpace)
{
    ModuloValue last(65534);
    ModuloValue next = last;
    next.increment();
    EXPECT_EQ(next.getValue(), 0);
    EXPECT_EQ(next.distance(last), 1);
    EXPECT_EQ(last.distance(next), -1);
    EXPECT_EQ(ModuloValue(5).distance(ModuloValue(-1)), 6); // -1: no number yet
    for (int base : {0, 100, 40000, 65534})
    {
        const ModuloValue from(base);
        EXPECT_EQ(ModuloValue((base + 32767) % 65535).distance(from), 32767) << base;
        EXPECT_EQ(ModuloValue((base + 32768) % 65535).distance(from), -32767) << base;
        EXPECT_FALSE(ModuloValue((base + 32768) % 65535).isAfter(from)) << base;
    }
    // Arguments are reduced with the signed remainder.
    EXPECT_EQ(ModuloValue::fromArg(65537).getValue(), 2);
    EXPECT_EQ(ModuloValue::fromArg(0xFFFFFFFFu).getValue(), -1);
}

} // namespace
