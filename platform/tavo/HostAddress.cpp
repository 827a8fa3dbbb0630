#include <tavo/HostAddress.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

namespace tavo
{

HostAddress::HostAddress() : m_address(0), m_valid(true) {}

HostAddress::HostAddress(uint32_t address) : m_address(address), m_valid(true) {}

HostAddress::HostAddress(const std::string& text) : m_address(0), m_valid(true)
{
    resolve(text);
}

HostAddress::HostAddress(const char* text) : m_address(0), m_valid(true)
{
    resolve(text != nullptr ? std::string(text) : std::string());
}

void HostAddress::resolve(const std::string& text)
{
    if (text.empty())
    {
        return;
    }
    in_addr parsed{};
    if (::inet_pton(AF_INET, text.c_str(), &parsed) == 1)
    {
        m_address = ntohl(parsed.s_addr);
        return;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* found = nullptr;
    if (::getaddrinfo(text.c_str(), nullptr, &hints, &found) == 0 && found != nullptr)
    {
        sockaddr_in address{};
        std::memcpy(&address, found->ai_addr, sizeof(address));
        m_address = ntohl(address.sin_addr.s_addr);
        ::freeaddrinfo(found);
        return;
    }
    if (found != nullptr)
    {
        ::freeaddrinfo(found);
    }
    m_valid = false;
    m_unresolved = text;
}

std::string HostAddress::getAddressString() const
{
    if (!m_valid)
    {
        return m_unresolved;
    }
    in_addr address{};
    address.s_addr = htonl(m_address);
    char text[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &address, text, sizeof(text));
    return text;
}

bool HostAddress::operator==(const HostAddress& other) const
{
    return m_valid == other.m_valid && m_address == other.m_address &&
           m_unresolved == other.m_unresolved;
}

HostAddress HostAddress::loopback()
{
    return HostAddress(static_cast<uint32_t>(INADDR_LOOPBACK));
}

} // namespace tavo
