#pragma once

// WEFT messages seen on the wire (weft relay --print), decoded with the
// library's own message and parameter classes into the tool's text and JSON
// forms: `update "level" 0.5`, {"event":"update","name":"level",...}.

#include "Json.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace weftcli
{

struct DecodedMessage
{
    // Empty for a message that decodes; otherwise what is wrong with it.
    std::string problem;
    std::string text;
    JsonObject json;
};

// One whole WEFT message, header first.
DecodedMessage decodeMessage(const uint8_t* data, std::size_t size);

// A TCP stream cut into its WEFT messages: each behind a two-byte
// little-endian length.
class StreamFramer
{
public:
    // Adds received bytes; the messages they complete come out of next().
    void add(const uint8_t* data, std::size_t size);
    // The next whole message, false when none is complete yet.
    bool next(std::vector<uint8_t>& message);

private:
    std::vector<uint8_t> m_pending;
    std::size_t m_start = 0;
};

} // namespace weftcli
