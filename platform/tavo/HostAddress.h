#pragma once

#include <tavo/Export.h>
#include <tavo/Types.h>

#include <string>

namespace tavo
{

// An IPv4 host address. The default address is the special address 0
// (0.0.0.0: "any" when binding). An address built from a name that cannot be
// resolved is invalid: sockets refuse to send to it or connect to it, and it
// keeps the name for display.
class TAVO_EXPORT HostAddress
{
public:
    HostAddress();
    // From a number in host byte order (0x7F000001 is 127.0.0.1).
    explicit HostAddress(uint32_t address);
    // From dotted IPv4 text or a host name such as localhost; the empty text
    // is the special address 0.
    explicit HostAddress(const std::string& text);
    explicit HostAddress(const char* text);

    bool isValid() const { return m_valid; }
    // The address in host byte order; 0 for an invalid address.
    uint32_t getAddress() const { return m_address; }
    // Dotted form ("127.0.0.1"); for an invalid address, the text it was built from.
    std::string getAddressString() const;

    bool operator==(const HostAddress& other) const;
    bool operator!=(const HostAddress& other) const { return !(*this == other); }

    static HostAddress loopback();

private:
    void resolve(const std::string& text);

    uint32_t m_address;
    bool m_valid;
    std::string m_unresolved;
};

} // namespace tavo
