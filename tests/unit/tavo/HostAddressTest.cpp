#include <tavo/HostAddress.h>
#include <tavo/TcpSocket.h>
#include <tavo/UdpSocket.h>

#include <gtest/gtest.h>

namespace
{

TEST(HostAddressTest, ParsesDottedTextAndHostNamesAndTakesNoTextForAddressZero)
{
    const tavo::HostAddress dotted("10.1.2.3");
    EXPECT_TRUE(dotted.isValid());
    EXPECT_EQ(dotted.getAddress(), 0x0A010203u);
    EXPECT_EQ(dotted.getAddressString(), "10.1.2.3");
    EXPECT_EQ(tavo::HostAddress("localhost").getAddressString(), "127.0.0.1");
    EXPECT_EQ(tavo::HostAddress("localhost"), tavo::HostAddress::loopback());

    EXPECT_EQ(tavo::HostAddress().getAddress(), 0u);
    EXPECT_EQ(tavo::HostAddress().getAddressString(), "0.0.0.0");
    EXPECT_EQ(tavo::HostAddress(""), tavo::HostAddress());
    EXPECT_EQ(tavo::HostAddress(static_cast<const char*>(nullptr)), tavo::HostAddress());
}

TEST(HostAddressTest, UnresolvableNameIsInvalidAndKeepsItsText)
{
    const tavo::HostAddress unknown("no-such-host.invalid");
    EXPECT_FALSE(unknown.isValid());
    EXPECT_EQ(unknown.getAddressString(), "no-such-host.invalid");
    EXPECT_NE(unknown, tavo::HostAddress());
    tavo::UdpSocket socket;
    const uint8 byte = 1;
    EXPECT_LT(socket.sendTo(&byte, 1, unknown, 9), 0);
    tavo::TcpSocket tcp;
    EXPECT_FALSE(tcp.connect(unknown, 9));
}

} // namespace
