#include "MessageSize.h"

#include "ValueSyntax.h"

#include <weft/Constants.h>

namespace weftcli
{

namespace
{

// Long names are cut in messages, which must stay one readable line.
const std::size_t SHOWN_NAME = 40;

std::string shown(const std::string& name)
{
    return name.size() <= SHOWN_NAME ? quoted(name) : quoted(name.substr(0, SHOWN_NAME)) + "...";
}

bool holdsNul(const std::string& text)
{
    return text.find('\0') != std::string::npos;
}

} // namespace

std::size_t encodedSize(const ParameterValue& value)
{
    switch (value.getType())
    {
    case PARAM_TYPE_INT:
    case PARAM_TYPE_FLOAT:
        return 5;
    case PARAM_TYPE_BOOL:
        return 2;
    case PARAM_TYPE_STRING:
        return value.getAsString().size() + 2;
    case PARAM_TYPE_NONE:
        break;
    }
    return 1;
}

std::string whyItDoesNotFit(const std::string& verb, const std::string& name,
                            const ParameterValue* value, const ParameterList* list)
{
    const std::string request = "not sent: " + verb + " " + shown(name);
    if (holdsNul(name))
    {
        return request + ": the name holds a NUL byte, which a message cannot carry";
    }
    std::size_t total = name.size() + 1;
    std::string largest = "the name";
    std::size_t largestSize = total;
    const auto consider = [&](const std::string& what, std::size_t size)
    {
        total += size;
        if (size > largestSize)
        {
            largest = what;
            largestSize = size;
        }
    };
    if (value != nullptr)
    {
        if (value->getType() == PARAM_TYPE_STRING && holdsNul(value->getAsString()))
        {
            return request + ": the value holds a NUL byte, which a message cannot carry";
        }
        consider("the value", encodedSize(*value));
    }
    if (list != nullptr)
    {
        if (list->size() > PARAM_LIST_MAX_ENTRIES)
        {
            return request + ": " + std::to_string(list->size()) +
                   " parameters; a message carries at most " +
                   std::to_string(PARAM_LIST_MAX_ENTRIES);
        }
        total += 1; // the entry count
        for (const auto& [key, entry] : listEntries(*list))
        {
            if (holdsNul(key) ||
                (entry.getType() == PARAM_TYPE_STRING && holdsNul(entry.getAsString())))
            {
                return request + ": parameter " + shown(key) +
                       " holds a NUL byte, which a message cannot carry";
            }
            consider("parameter " + shown(key), key.size() + 1 + encodedSize(entry));
        }
    }
    if (total <= WEFT_MAX_PAYLOAD)
    {
        return "";
    }
    return request + " needs " + std::to_string(total) + " bytes (" + largest + " " +
           std::to_string(largestSize) + "); a message carries at most " +
           std::to_string(WEFT_MAX_PAYLOAD);
}

} // namespace weftcli
