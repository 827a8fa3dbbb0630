#include "SocketAddress.h"

#include <tavo/HostAddress.h>
#include <tavo/TcpSocket.h>
#include <tavo/UdpSocket.h>

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

namespace
{

TEST(HostAddressTest, TextAndNamesOfBothFamiliesParsePrintAndGoThroughSocketAddressesAndBack)
{
    using tavo::HostAddress;
    constexpr auto ANY = tavo::ADDRESS_FAMILY_ANY, V4 = tavo::ADDRESS_FAMILY_IPV4,
                   V6 = tavo::ADDRESS_FAMILY_IPV6;
    EXPECT_EQ(HostAddress("10.1.2.3").getAddress(), 0x0A010203u);
    EXPECT_EQ(HostAddress().getAddress(), 0u);
    EXPECT_EQ(HostAddress().getAddressString(), "0.0.0.0");
    EXPECT_EQ(HostAddress(""), HostAddress());
    EXPECT_EQ(HostAddress(static_cast<const char*>(nullptr)), HostAddress());
    EXPECT_EQ(HostAddress("localhost"), HostAddress::loopback());
    // Text, the family asked for, the address printed alone and before a
    // port (nullptr: no address of that family, or none at all).
    const std::tuple<const char*, tavo::EAddressFamily, const char*, const char*> rows[] = {
        {"10.1.2.3", V4, "10.1.2.3", "10.1.2.3:7420"},
        {"localhost", ANY, "127.0.0.1", "127.0.0.1:7420"},
        {"0.0.0.1", ANY, "0.0.0.1", "0.0.0.1:7420"},
        {"::1", ANY, "::1", "[::1]:7420"},
        {"[::1]", V6, "::1", "[::1]:7420"},
        {"", V6, "::", "[::]:7420"},
        // How a dual-stack socket sees an IPv4 peer: as that IPv4 address.
        {"::ffff:127.0.0.1", ANY, "127.0.0.1", "127.0.0.1:7420"},
        {"fe80::1%lo", ANY, "fe80::1%lo", "[fe80::1%lo]:7420"},
        {"::1", V4, nullptr, nullptr},
        {"[2001:db8::1", ANY, nullptr, nullptr},
        {"::ffff:10.1.2.3", V6, nullptr, nullptr},
        {"[10.1.2.3]", ANY, nullptr, nullptr},
        {"no-such-host.invalid", ANY, nullptr, nullptr},
    };
    std::vector<HostAddress> seen;
    for (const auto& [text, family, plain, withPort] : rows)
    {
        SCOPED_TRACE(std::string(text) + " family " + std::to_string(family));
        const HostAddress address(text, family);
        ASSERT_EQ(address.isValid(), plain != nullptr);
        // Invalid text is kept for messages, and no socket takes it for 0.
        EXPECT_EQ(address.getAddressString(), plain != nullptr ? plain : text);
        if (plain == nullptr)
        {
            const uint8 byte = 1;
            EXPECT_NE(address, HostAddress());
            EXPECT_FALSE(tavo::UdpSocket().bind(address, 0) ||
                         tavo::TcpSocket().connect(address, 9));
            EXPECT_LT(tavo::UdpSocket().sendTo(&byte, 1, address, 9), 0);
            continue;
        }
        EXPECT_EQ(address.getEndpointString(7420), withPort);
        EXPECT_EQ(HostAddress(plain), address);
        // An IPv4 address fits both kinds of socket, an IPv6 one only its own.
        for (const int socketFamily : {AF_INET, AF_INET6})
        {
            sockaddr_storage system{};
            HostAddress back;
            uint16 port = 0;
            const socklen_t length = tavo::toSocketAddress(address, 7420, socketFamily, system);
            ASSERT_EQ(length == 0, socketFamily == AF_INET && address.isIpv6());
            EXPECT_EQ(tavo::fromSocketAddress(system, back, port), length != 0);
            EXPECT_TRUE(length == 0 || (back == address && port == 7420)) << socketFamily;
        }
        // Peers are map keys: equal only where the text is, in a strict order.
        for (const HostAddress& other : seen)
        {
            EXPECT_EQ(address == other, other.getAddressString() == plain)
                << other.getAddressString();
            EXPECT_EQ((address < other) + (other < address) + (address == other), 1);
        }
        seen.push_back(address);
    }
}

} // namespace
