#pragma once

// The host look-up that -4/-6 steer, with a message a user can act on.

#include <tavo/HostAddress.h>

#include <string>

namespace weftcli
{

// `host` as an address of `family`; false, with `error` saying why, when it
// has none.
inline bool resolveHost(const std::string& host, tavo::EAddressFamily family,
                        tavo::HostAddress& address, std::string& error)
{
    address = tavo::HostAddress(host, family);
    if (address.isValid())
    {
        return true;
    }
    const tavo::HostAddress other(host);
    const char* wanted = family == tavo::ADDRESS_FAMILY_IPV4 ? "IPv4" : "IPv6";
    if (family != tavo::ADDRESS_FAMILY_ANY && other.isValid())
    {
        // An address of the other family, or a name that has only such.
        error = other.getAddressString() == host
                    ? "'" + host + "' is not an " + wanted + " address (-" + wanted[3] + ")"
                    : "'" + host + "' has no " + wanted + " address";
    }
    else
    {
        error = "unknown host '" + host + "'";
    }
    return false;
}

} // namespace weftcli
