#include "AddressFilter.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace
{

TEST(AddressFilterTest, AnAddressIsTakenOnlyInsideANetworkOfItsFamily)
{
    // The networks allowed, an address and whether it is taken.
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"", "203.0.113.9", true}, // no filter: everyone
        {"10.0.0.0/8", "10.255.255.255", true},
        {"10.0.0.0/8", "11.0.0.0", false},
        {"192.168.1.128/25", "192.168.1.128", true}, // a prefix inside a byte
        {"192.168.1.128/25", "192.168.1.127", false},
        {"192.168.1.128/25", "192.168.1.192", true},
        {"10.0.0.5", "10.0.0.5", true}, // an address alone is /32
        {"10.0.0.5", "10.0.0.6", false},
        {"0.0.0.0/0", "198.51.100.1", true},
        {"0.0.0.0/0", "::1", false}, // the other family
        {"fd00::/8", "fd12:3456::1", true},
        {"fd00::/8", "fe80::1", false},
        {"::1/128", "::1", true},
        // An IPv4 client of a dual-stack listener is an IPv4 address.
        {"127.0.0.0/8", "::ffff:127.0.0.1", true},
        {"127.0.0.0/8", "::ffff:128.0.0.1", false},
        {"10.0.0.0/8,fd00::/8", "fd00::2", true}, // any of a list
        {"10.0.0.0/8", "not an address", false},
    };
    for (const auto& [allow, address, allowed] : cases)
    {
        weftcli::AddressFilter filter;
        std::string error;
        ASSERT_TRUE(filter.parse(allow, error)) << allow << ": " << error;
        EXPECT_EQ(filter.allows(address), allowed) << allow << " / " << address;
    }
}

TEST(AddressFilterTest, AnEntryThatIsNoNetworkIsRefusedWithWhatIsWrong)
{
    const char* bad[] = {"10.0.0/8",    "10.0.0.0/33",  "::/129",       "10.0.0.0/",
                         "10.0.0.0/-1", "10.0.0.0/8,,", "host.example", "10.0.0.0/1000"};
    for (const char* list : bad)
    {
        weftcli::AddressFilter filter;
        std::string error;
        EXPECT_FALSE(filter.parse(list, error)) << list;
        EXPECT_NE(error.find('\''), std::string::npos) << list << ": " << error;
    }
}

} // namespace
