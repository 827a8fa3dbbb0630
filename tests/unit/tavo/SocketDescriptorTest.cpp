#include <tavo/SocketDescriptor.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>

#include <memory>

namespace
{

TEST(SocketDescriptorTest, ADescriptorInUseIsReleasedOnlyByItsLastUser)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(fd, 0);
    auto descriptor = std::make_unique<tavo::SocketDescriptor>(fd);
    const int used = descriptor->acquire();
    EXPECT_EQ(used, fd);
    descriptor->close();
    EXPECT_EQ(descriptor->acquire(), -1);
    // Still open for the call in progress: the number cannot be reused yet.
    EXPECT_EQ(::fcntl(fd, F_GETFD), 0) << "descriptor closed under its user";
    descriptor->release();
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
}

} // namespace
