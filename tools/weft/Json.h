#pragma once

// JSON text for the tool's --json output: one object per event.

#include <weft/ParameterList.h>
#include <weft/ParameterValue.h>

#include <string>

namespace weftcli
{

// A JSON string: quotes, backslashes and control characters escaped, valid
// UTF-8 kept, each byte of invalid UTF-8 replaced by U+FFFD so that the line
// stays valid JSON whatever arrived from the network.
std::string jsonString(const std::string& text);

// A float as the shortest JSON number that reads back to the same float,
// always with a fraction or exponent so that readers see a float; null when
// it is not finite (JSON has no infinities).
std::string jsonFloat(float value);

// A value with its JSON type: number, true/false, string, or null for the
// empty value (and for a value of unknown type).
std::string jsonValue(const ParameterValue& value);

// A list as an object of its entries, in name order.
std::string jsonList(const ParameterList& list);

// Builds one object; fields keep the order they are added in.
class JsonObject
{
public:
    JsonObject& addString(const std::string& key, const std::string& text);
    JsonObject& addInt(const std::string& key, long long number);
    JsonObject& addBool(const std::string& key, bool flag);
    // "type" (see typeName) and "value" of a value.
    JsonObject& addTypedValue(const ParameterValue& value);
    // Already formatted JSON.
    JsonObject& addRaw(const std::string& key, const std::string& json);
    // The fields of another object, after these.
    JsonObject& addFields(const JsonObject& other);
    std::string str() const { return "{" + m_fields + "}"; }

private:
    std::string m_fields;
};

} // namespace weftcli
