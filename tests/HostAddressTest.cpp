// Addresses of both families as text, as values and as socket addresses.

#include "SocketAddress.h"

#include <tavo/HostAddress.h>
#include <tavo/UdpSocket.h>

#include <gtest/gtest.h>

#include <net/if.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace
{

using tavo::HostAddress;

struct Parsed
{
    const char* text;
    tavo::EAddressFamily family;
    // Empty when the text is not an address of that family.
    std::string plain;
    std::string withPort; // with port 7420
};

constexpr auto ANY = tavo::ADDRESS_FAMILY_ANY;
constexpr auto V4 = tavo::ADDRESS_FAMILY_IPV4;
constexpr auto V6 = tavo::ADDRESS_FAMILY_IPV6;

const Parsed PARSED[] = {
    {"10.1.2.3", ANY, "10.1.2.3", "10.1.2.3:7420"},
    {"10.1.2.3", V4, "10.1.2.3", "10.1.2.3:7420"},
    {"::1", ANY, "::1", "[::1]:7420"},
    {"[::1]", ANY, "::1", "[::1]:7420"},
    {"[::1]", V6, "::1", "[::1]:7420"},
    {"2001:DB8:0:0:0:0:0:01", ANY, "2001:db8::1", "[2001:db8::1]:7420"},
    {"::", ANY, "::", "[::]:7420"},
    {"", V6, "::", "[::]:7420"},
    {"", ANY, "0.0.0.0", "0.0.0.0:7420"},
    // How a dual-stack socket sees an IPv4 peer: that peer, as IPv4.
    {"::ffff:127.0.0.1", ANY, "127.0.0.1", "127.0.0.1:7420"},
    {"[::ffff:10.1.2.3]", V4, "10.1.2.3", "10.1.2.3:7420"},
    {"fe80::1%lo", ANY, "fe80::1%lo", "[fe80::1%lo]:7420"},
    {"localhost", V4, "127.0.0.1", "127.0.0.1:7420"},
    // Refused: the other family than asked for, or brackets round IPv4.
    {"::1", V4, "", ""},
    {"10.1.2.3", V6, "", ""},
    {"::ffff:10.1.2.3", V6, "", ""},
    {"[10.1.2.3]", ANY, "", ""},
    {"[::1]", V4, "", ""},
};

TEST(HostAddressTest, NumericTextOfBothFamiliesParsesAndPrintsPlainAndBeforeAPort)
{
    for (const Parsed& row : PARSED)
    {
        SCOPED_TRACE(std::string("'") + row.text + "' family " + std::to_string(row.family));
        const HostAddress address(row.text, row.family);
        ASSERT_EQ(address.isValid(), !row.plain.empty());
        if (!address.isValid())
        {
            // The text stays for messages, and no socket binds to it (the
            // address 0 of some family would take it).
            EXPECT_EQ(address.getAddressString(), row.text);
            EXPECT_NE(address, HostAddress());
            tavo::UdpSocket socket;
            EXPECT_FALSE(socket.bind(address, 0));
            continue;
        }
        EXPECT_EQ(address.getAddressString(), row.plain);
        EXPECT_EQ(address.getEndpointString(7420), row.withPort);
        EXPECT_EQ(address.isIpv6(), row.withPort[0] == '[');
        // The printed text reads back as the same address.
        EXPECT_EQ(HostAddress(address.getAddressString()), address);

        // Through the system's socket addresses and back: an IPv4 address
        // fits both kinds of socket, an IPv6 one only its own.
        for (const int family : {AF_INET, AF_INET6})
        {
            sockaddr_storage system{};
            const socklen_t length = tavo::toSocketAddress(address, 7420, family, system);
            ASSERT_EQ(length == 0, family == AF_INET && address.isIpv6()) << family;
            if (length == 0)
            {
                continue;
            }
            EXPECT_EQ(system.ss_family, family);
            HostAddress back;
            uint16 port = 0;
            ASSERT_TRUE(tavo::fromSocketAddress(system, back, port));
            EXPECT_EQ(back, address);
            EXPECT_EQ(port, 7420);
        }
    }
}

TEST(HostAddressTest, EqualityAndOrderTellEveryAddressApartAndKeyAMap)
{
    // Each group is one address written several ways; no two groups are equal.
    const std::vector<std::vector<HostAddress>> groups = {
        {HostAddress("127.0.0.1"), HostAddress::loopback(), HostAddress("::ffff:127.0.0.1"),
         HostAddress(0x7F000001u)},
        {HostAddress("::1"), HostAddress("[::1]"), HostAddress::loopbackIpv6(),
         HostAddress::fromIpv6({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1})},
        {HostAddress(), HostAddress("0.0.0.0")},
        {HostAddress("::")},
        {HostAddress("fe80::1")},
        {HostAddress("fe80::1%lo"),
         HostAddress::fromIpv6(HostAddress("fe80::1").getIpv6Bytes(), ::if_nametoindex("lo"))},
        // Same number, other family: 0.0.0.1 and ::1 share their last bytes.
        {HostAddress(1u)},
        {HostAddress("::1", V4)},
        {HostAddress("10.0.0.1", V6)},
    };
    std::map<HostAddress, std::size_t> keyed;
    for (std::size_t g = 0; g < groups.size(); ++g)
    {
        for (const HostAddress& address : groups[g])
        {
            SCOPED_TRACE(address.getAddressString());
            keyed.emplace(address, g);
            EXPECT_EQ(keyed.at(address), g);
            EXPECT_EQ(address, groups[g][0]);
            for (std::size_t other = 0; other < groups.size(); ++other)
            {
                const HostAddress& them = groups[other][0];
                EXPECT_EQ(address == them, other == g) << them.getAddressString();
                // A strict order: exactly one of <, > or equal.
                EXPECT_EQ((address < them) + (them < address) + (address == them), 1)
                    << them.getAddressString();
            }
        }
    }
    EXPECT_EQ(keyed.size(), groups.size());
}

} // namespace
