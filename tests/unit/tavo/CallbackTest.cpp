#include "support/Waiting.h"

#include <tavo/Callback.h>

#include <gtest/gtest.h>

namespace
{

struct Counter
{
    void fire() { fired.add(); }
    EventCounter fired;
};

TEST(CallbackTest, UnsetCallbackDoesNothing)
{
    tavo::Callback<Counter> callback;
    callback.call();
    Counter counter;
    callback.set(&counter, nullptr);
    callback.call();
    EXPECT_EQ(counter.fired.get(), 0);
    callback.set(&counter, &Counter::fire);
    callback.call();
    EXPECT_EQ(counter.fired.get(), 1);
}

} // namespace
