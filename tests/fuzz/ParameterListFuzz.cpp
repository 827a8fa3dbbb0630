// Reads the fuzzer's bytes as one parameter list form, and builds a list
// from them: decoding merges into the list (a repeated name keeps its last
// value, entries read before a failure stay), the list then writes the
// canonical form of what it holds, and every list that encodes decodes back
// to itself.

#include "FuzzSupport.h"

#include <weft/Constants.h>

namespace reference = fuzz::reference;
using fuzz::decode;

namespace
{

void checkSameAs(const ParameterList& list, const reference::Entries& entries, const char* when)
{
    const Bytes form = fuzz::formOf(list);
    const Bytes wanted = reference::encode(entries);
    FUZZ_CHECK(list.size() == entries.size() && form == wanted,
               std::string(when) + ": the list holds " + fuzz::describe(list) + "\n  written " +
                   fuzz::hex(form) + "\n  wanted  " + fuzz::hex(wanted));
}

void checkDecoding(const uint8* data, std::size_t size)
{
    ParameterList list;
    const int consumed = decode(list, data, size);
    reference::Entries entries;
    const std::size_t expected = reference::list(data, size, entries);
    FUZZ_CHECK(consumed == static_cast<int>(expected),
               "consumed " + fuzz::str(consumed) + " of " + fuzz::hex(data, size));
    checkSameAs(list, entries, "decoded");

    // Decoding the same bytes again changes nothing.
    FUZZ_CHECK(decode(list, data, size) == consumed, "a second decoding consumed differently");
    checkSameAs(list, entries, "decoded twice");

    // Into a list that holds entries already: they stay unless replaced.
    ParameterList merged;
    merged.addNumeric("", 7);
    merged.addBoolean("m", true);
    reference::Entries mergedEntries{{"", Bytes{'I', 7, 0, 0, 0}}, {"m", Bytes{'B', 1}}};
    reference::list(data, size, mergedEntries);
    FUZZ_CHECK(decode(merged, data, size) == consumed, "decoding into a full list differs");
    checkSameAs(merged, mergedEntries, "merged");

    // What the list writes reads back as the same list.
    const Bytes form = fuzz::formOf(list);
    ParameterList again;
    FUZZ_CHECK(decode(again, form.data(), form.size()) == static_cast<int>(form.size()),
               "the list's own form " + fuzz::hex(form) + " does not read back whole");
    checkSameAs(again, entries, "read back");
}

void checkBuilt(fuzz::Input input)
{
    ParameterList list;
    reference::Entries entries;
    while (input.remaining() > 0)
    {
        const Bytes nameBytes = input.take(input.u8() % 16);
        const std::string name(nameBytes.begin(), nameBytes.end());
        Bytes form;
        const int kind = input.u8() % 5;
        switch (kind)
        {
        case 0:
        case 1:
        {
            std::uint32_t bits = input.u32();
            if (kind == 0)
            {
                list.addNumeric(name, static_cast<int>(bits));
            }
            else
            {
                // A signalling NaN is made quiet first: the 32-bit build's x87
                // float copies would quiet it anyway, and the bits must agree.
                if ((bits & 0x7F800000u) == 0x7F800000u && (bits & 0x007FFFFFu) != 0)
                {
                    bits |= 0x00400000u;
                }
                float number = 0.0f;
                std::memcpy(&number, &bits, sizeof(number));
                list.addFloat(name, number);
            }
            form = {static_cast<uint8>(kind == 0 ? 'I' : 'F')};
            for (int shift = 0; shift < 32; shift += 8)
            {
                form.push_back(static_cast<uint8>(bits >> shift));
            }
            break;
        }
        case 2:
        {
            const uint8 flag = input.u8() & 1;
            list.addBoolean(name, flag != 0);
            form = {'B', flag};
            break;
        }
        case 3:
        {
            const Bytes text = input.take(input.u8() % 32);
            list.addString(name, std::string(text.begin(), text.end()));
            form = {'S'};
            form.insert(form.end(), text.begin(), text.end());
            form.push_back(0);
            break;
        }
        default:
        {
            // A lookup of a missing name on a non-empty list adds it, empty.
            std::string text;
            const bool found = list.getParam(name, text);
            FUZZ_CHECK(found == !entries.empty(),
                       "lookup of [" + name + "] on " + fuzz::describe(list));
            FUZZ_CHECK(!found || entries.count(name) != 0 || text == "INV",
                       "an added name reads as [" + text + "]");
            if (!entries.empty())
            {
                entries.emplace(name, Bytes{'N'});
            }
            continue;
        }
        }
        entries[name] = form;
    }
    // A NUL inside a name or a string cannot be carried (the reader would end
    // it there), nor can more entries than the count byte holds.
    bool refused = entries.size() > PARAM_LIST_MAX_ENTRIES;
    for (const auto& [name, form] : entries)
    {
        refused =
            refused || name.find('\0') != std::string::npos ||
            (form[0] == 'S' && std::find(form.begin() + 1, form.end() - 1, 0) != form.end() - 1);
    }

    const Bytes form = fuzz::formOf(list);
    if (refused)
    {
        FUZZ_CHECK(form.empty(), "a list that cannot be carried was written as " + fuzz::hex(form));
        return;
    }
    checkSameAs(list, entries, "built");

    // Exactly the room it needs, and one byte less, from exact heap blocks.
    for (const std::size_t room : {form.size(), form.size() - 1})
    {
        std::unique_ptr<char[]> block(new char[room]);
        const int written = list.getBinary(block.get(), static_cast<int>(room));
        FUZZ_CHECK(written == (room == form.size() ? static_cast<int>(room) : 0),
                   "wrote " + fuzz::str(written) + " into " + fuzz::str(room) + " of " +
                       fuzz::str(form.size()));
    }

    ParameterList decoded;
    FUZZ_CHECK(decode(decoded, form.data(), form.size()) == static_cast<int>(form.size()),
               "the form " + fuzz::hex(form) + " does not read back whole");
    checkSameAs(decoded, entries, "built and read back");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    checkDecoding(data, size);
    checkBuilt(fuzz::Input(data, size));
    return 0;
}
