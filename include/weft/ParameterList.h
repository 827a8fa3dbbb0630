#pragma once

#include <weft/Export.h>
#include <weft/ParameterValue.h>

#include <map>
#include <ostream>
#include <string>

// Named parameter values, ordered by name (bytewise).
class WEFT_EXPORT ParameterList
{
public:
    // Each adder stores a new value under `name`, replacing any value there.
    void addNumeric(const std::string& name, int value);
    void addString(const std::string& name, const std::string& value);
    void addFloat(const std::string& name, float value);
    void addBoolean(const std::string& name, bool value);

    // Lookups by name. On a non-empty list, a missing name is first added
    // holding an empty value.
    bool getParam(const std::string& name, bool& value);
    bool getParam(const std::string& name, int& value);
    // Any kind, as text.
    bool getParam(const std::string& name, std::string& value);
    // Lookup by position in name order.
    bool getParam(unsigned int index, std::string& name, std::string& value) const;

    // Writes "name = text " for every entry.
    void print(std::ostream& out) const;

    // Binary form: a count byte, then each name, a NUL and its value's form.
    // 0 when it does not fit, or cannot be carried (more than 255 entries, a
    // name or string holding a NUL byte).
    int getBinary(char* buffer, int size) const;
    // Bytes the binary form takes: the count byte, the names and the values.
    std::size_t getBinarySize() const;
    // Merges one binary form into the list: the count consumed, or 0 when the
    // bytes are truncated or malformed (entries read before stay).
    int createFromBinary(char* buffer, int size);

    std::size_t size() const { return m_params.size(); }

private:
    // Finds `name`, adding an empty value first on a non-empty list; null on
    // an empty list.
    ParameterValue* lookup(const std::string& name);

    std::map<std::string, ParameterValue> m_params;
};
