// Reads the fuzzer's bytes as one parameter value form, and builds a value
// from them: every form that decodes re-encodes to the bytes it consumed,
// and every value that encodes decodes back to itself.

#include "FuzzSupport.h"

namespace
{

void checkDecoding(const uint8* data, std::size_t size)
{
    ParameterValue value;
    const int consumed = fuzz::decode(value, data, size);
    // The tag becomes the type at once, as a signed byte, whatever follows.
    FUZZ_CHECK(size == 0 || value.getType() == static_cast<signed char>(data[0]),
               "type " + fuzz::str(value.getType()) + " from tag " + fuzz::str(data[0]));
    value.getAsString();

    std::size_t expected = 0;
    const std::optional<Bytes> canonical = fuzz::reference::value(data, size, expected);
    FUZZ_CHECK(consumed == (canonical ? static_cast<int>(expected) : 0),
               "consumed " + fuzz::str(consumed) + " of " + fuzz::hex(data, size));
    if (!canonical)
    {
        return;
    }
    // Into exactly the room it needs: the bytes consumed, a boolean's as 0 or 1.
    std::unique_ptr<char[]> out(new char[expected]);
    const int written = value.getBinaryValue(out.get(), static_cast<int>(expected));
    const Bytes rewritten(out.get(), out.get() + std::max(written, 0));
    FUZZ_CHECK(written == consumed && rewritten == *canonical,
               "wrote " + fuzz::hex(rewritten) + " for " + fuzz::hex(*canonical));
    // One byte less is refused, and nothing is written past the room.
    if (expected > 1)
    {
        std::unique_ptr<char[]> shortOut(new char[expected - 1]);
        const int refused = value.getBinaryValue(shortOut.get(), static_cast<int>(expected - 1));
        FUZZ_CHECK(refused == 0, "wrote " + fuzz::str(refused) + " bytes into " +
                                     fuzz::str(expected - 1) + " for " + fuzz::describe(value));
    }
    FUZZ_CHECK(value.getBinaryValue(out.get(), 0) == 0, "wrote into no room");

    ParameterValue again;
    FUZZ_CHECK(fuzz::decode(again, canonical->data(), canonical->size()) == consumed &&
                   fuzz::sameValue(value, again),
               fuzz::describe(value) + " came back as " + fuzz::describe(again));
}

void checkBuilt(fuzz::Input input)
{
    ParameterValue built;
    std::size_t size = 1;
    bool refused = false;
    switch (input.u8() % 5)
    {
    case 0:
        built = ParameterValue(static_cast<int>(input.u32()));
        size = 5;
        break;
    case 1:
    {
        const std::uint32_t bits = input.u32();
        float number = 0.0f;
        std::memcpy(&number, &bits, sizeof(number));
        built = ParameterValue(number);
        size = 5;
        break;
    }
    case 2:
        built = ParameterValue((input.u8() & 1) != 0);
        size = 2;
        break;
    case 3:
    {
        const Bytes rest = input.rest();
        built = ParameterValue(std::string(rest.begin(), rest.end()));
        size = rest.size() + 2;
        // The form ends a string at its first NUL, so such a string is refused.
        refused = std::find(rest.begin(), rest.end(), 0) != rest.end();
        break;
    }
    default:
        break;
    }

    const Bytes form = fuzz::valueForm(built);
    FUZZ_CHECK(form.size() == (refused ? 0 : size),
               "wrote " + fuzz::hex(form) + " for " + fuzz::describe(built));
    if (refused)
    {
        return;
    }
    ParameterValue decoded;
    const int consumed = fuzz::decode(decoded, form.data(), form.size());
    FUZZ_CHECK(consumed == static_cast<int>(size) && fuzz::sameValue(built, decoded),
               fuzz::describe(built) + " came back as " + fuzz::describe(decoded) + " consuming " +
                   fuzz::str(consumed));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    checkDecoding(data, size);
    checkBuilt(fuzz::Input(data, size));
    return 0;
}
