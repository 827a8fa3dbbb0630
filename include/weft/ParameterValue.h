#pragma once

#include <weft/Export.h>

#include <cstddef>
#include <string>

// Type code of a parameter value: the ASCII code of its tag letter. Any int is
// a valid value: a decoded value keeps whatever tag it arrived with.
enum EParamType : int
{
    PARAM_TYPE_BOOL = 66,   // 'B'
    PARAM_TYPE_FLOAT = 70,  // 'F'
    PARAM_TYPE_INT = 73,    // 'I'
    PARAM_TYPE_NONE = 78,   // 'N': no data
    PARAM_TYPE_STRING = 83, // 'S'
};

// One typed value: nothing, a 32-bit integer, a boolean, a 32-bit float or a
// string. Typed getters refuse a value of another type; no conversion is made.
class WEFT_EXPORT ParameterValue
{
public:
    ParameterValue();
    ParameterValue(int value);
    ParameterValue(bool value);
    ParameterValue(float value);
    // A null pointer makes an empty string value.
    ParameterValue(const char* value);
    ParameterValue(const std::string& value);

    // The type code; a value decoded from an unknown tag keeps that tag.
    EParamType getType() const;
    bool getIntValue(int& value) const;
    bool getBooleanValue(bool& value) const;
    bool getFloatValue(float& value) const;
    // "ON"/"OFF", decimal integers, floats as a default stream writes them,
    // the string itself, or "INV" for a value without data.
    std::string getAsString() const;

    // Writes the binary form into at most `size` bytes: the count written, or
    // 0 when it does not fit (or a string holds a NUL byte, which the form
    // cannot carry).
    int getBinaryValue(char* buffer, int size) const;
    // Bytes the binary form takes: its tag and its data.
    std::size_t getBinarySize() const;
    // Reads one binary form from the first `size` bytes: the count consumed,
    // or 0 when the bytes are truncated or malformed.
    int createFromBinary(char* buffer, int size);

private:
    EParamType m_type;
    bool m_bValue;
    float m_fValue;
    std::string m_sValue;
    int m_iValue;
};
