#include <weft/ParameterList.h>
#include <weft/ParameterValue.h>

#include "ByteOrder.h"

#include <weft/Constants.h>

#include <tavo/Assert.h>

#include <cstdint>
#include <cstring>
#include <iterator>
#include <sstream>

// ---- ParameterValue ----

ParameterValue::ParameterValue()
    : m_type(PARAM_TYPE_NONE), m_bValue(false), m_fValue(0.0f), m_iValue(0)
{
}

ParameterValue::ParameterValue(int value)
    : m_type(PARAM_TYPE_INT), m_bValue(false), m_fValue(0.0f), m_iValue(value)
{
}

ParameterValue::ParameterValue(bool value)
    : m_type(PARAM_TYPE_BOOL), m_bValue(value), m_fValue(0.0f), m_iValue(0)
{
}

ParameterValue::ParameterValue(float value)
    : m_type(PARAM_TYPE_FLOAT), m_bValue(false), m_fValue(value), m_iValue(0)
{
}

// A null pointer is taken as "no text" rather than a crash inside std::string:
// the caller still gets the string value it asked for.
ParameterValue::ParameterValue(const char* value)
    : m_type(PARAM_TYPE_STRING), m_bValue(false), m_fValue(0.0f),
      m_sValue(value != nullptr ? value : ""), m_iValue(0)
{
}

ParameterValue::ParameterValue(const std::string& value)
    : m_type(PARAM_TYPE_STRING), m_bValue(false), m_fValue(0.0f), m_sValue(value), m_iValue(0)
{
}

EParamType ParameterValue::getType() const
{
    return m_type;
}

bool ParameterValue::getIntValue(int& value) const
{
    if (m_type != PARAM_TYPE_INT)
    {
        return false;
    }
    value = m_iValue;
    return true;
}

bool ParameterValue::getBooleanValue(bool& value) const
{
    if (m_type != PARAM_TYPE_BOOL)
    {
        return false;
    }
    value = m_bValue;
    return true;
}

bool ParameterValue::getFloatValue(float& value) const
{
    if (m_type != PARAM_TYPE_FLOAT)
    {
        return false;
    }
    value = m_fValue;
    return true;
}

std::string ParameterValue::getAsString() const
{
    switch (m_type)
    {
    case PARAM_TYPE_STRING:
        return m_sValue;
    case PARAM_TYPE_BOOL:
        return m_bValue ? "ON" : "OFF";
    case PARAM_TYPE_INT:
    case PARAM_TYPE_FLOAT:
    {
        // A fresh stream each time, so no format setting made elsewhere leaks in.
        std::ostringstream text;
        if (m_type == PARAM_TYPE_INT)
        {
            text << m_iValue;
        }
        else
        {
            text << static_cast<double>(m_fValue);
        }
        return text.str();
    }
    default:
        return "INV";
    }
}

namespace
{

// Size of the value form for a type, tag included; 1 for a type without data.
std::size_t valueFormSize(EParamType type, const std::string& text)
{
    switch (type)
    {
    case PARAM_TYPE_INT:
    case PARAM_TYPE_FLOAT:
        return 5;
    case PARAM_TYPE_BOOL:
        return 2;
    case PARAM_TYPE_STRING:
        return text.size() + 2;
    default:
        return 1;
    }
}

bool holdsNul(const std::string& text)
{
    return text.find('\0') != std::string::npos;
}

} // namespace

std::size_t ParameterValue::getBinarySize() const
{
    return valueFormSize(m_type, m_sValue);
}

int ParameterValue::getBinaryValue(char* buffer, int size) const
{
    if (size <= 0)
    {
        return 0;
    }
    // The reader ends a string at its first NUL and would take the rest for the
    // next item, so such a string is refused rather than sent garbled.
    if (m_type == PARAM_TYPE_STRING && holdsNul(m_sValue))
    {
        return 0;
    }
    buffer[0] = static_cast<char>(static_cast<uint8>(m_type & 0xFF));
    const std::size_t needed = valueFormSize(m_type, m_sValue);
    if (needed > static_cast<std::size_t>(size))
    {
        return 0;
    }
    switch (m_type)
    {
    case PARAM_TYPE_INT:
        byteorder::writeLE32(buffer + 1, static_cast<std::uint32_t>(m_iValue));
        break;
    case PARAM_TYPE_FLOAT:
    {
        std::uint32_t bits = 0;
        static_assert(sizeof(bits) == sizeof(m_fValue), "float must be 32 bits wide");
        std::memcpy(&bits, &m_fValue, sizeof(bits));
        byteorder::writeLE32(buffer + 1, bits);
        break;
    }
    case PARAM_TYPE_BOOL:
        buffer[1] = m_bValue ? 1 : 0;
        break;
    case PARAM_TYPE_STRING:
        std::memcpy(buffer + 1, m_sValue.data(), m_sValue.size());
        buffer[1 + m_sValue.size()] = '\0';
        break;
    default:
        break;
    }
    return static_cast<int>(needed);
}

int ParameterValue::createFromBinary(char* buffer, int size)
{
    if (size <= 0)
    {
        return 0;
    }
    // The tag is read as a signed byte: 128 and above become negative codes.
    m_type = static_cast<EParamType>(static_cast<signed char>(buffer[0]));
    switch (m_type)
    {
    case PARAM_TYPE_INT:
        if (size < 5)
        {
            return 0;
        }
        m_iValue = static_cast<int>(byteorder::readLE32(buffer + 1));
        return 5;
    case PARAM_TYPE_FLOAT:
    {
        if (size < 5)
        {
            return 0;
        }
        const std::uint32_t bits = byteorder::readLE32(buffer + 1);
        std::memcpy(&m_fValue, &bits, sizeof(bits));
        return 5;
    }
    case PARAM_TYPE_BOOL:
        if (size < 2)
        {
            return 0;
        }
        m_bValue = buffer[1] != 0;
        return 2;
    case PARAM_TYPE_STRING:
    {
        const char* text = buffer + 1;
        const void* end = std::memchr(text, 0, static_cast<std::size_t>(size - 1));
        if (end == nullptr)
        {
            return 0;
        }
        const std::size_t length = static_cast<std::size_t>(static_cast<const char*>(end) - text);
        m_sValue.assign(text, length);
        TAVO_ASSERT(length + 2 <= static_cast<std::size_t>(size));
        return static_cast<int>(length + 2);
    }
    default:
        return 1;
    }
}

// ---- ParameterList ----

void ParameterList::addNumeric(const std::string& name, int value)
{
    m_params.insert_or_assign(name, ParameterValue(value));
}

void ParameterList::addString(const std::string& name, const std::string& value)
{
    m_params.insert_or_assign(name, ParameterValue(value));
}

void ParameterList::addFloat(const std::string& name, float value)
{
    m_params.insert_or_assign(name, ParameterValue(value));
}

void ParameterList::addBoolean(const std::string& name, bool value)
{
    m_params.insert_or_assign(name, ParameterValue(value));
}

ParameterValue* ParameterList::lookup(const std::string& name)
{
    if (m_params.empty())
    {
        return nullptr;
    }
    // operator[] adds the missing name holding an empty value, which stays.
    return &m_params[name];
}

bool ParameterList::getParam(const std::string& name, bool& value)
{
    ParameterValue* entry = lookup(name);
    return entry != nullptr && entry->getBooleanValue(value);
}

bool ParameterList::getParam(const std::string& name, int& value)
{
    ParameterValue* entry = lookup(name);
    return entry != nullptr && entry->getIntValue(value);
}

bool ParameterList::getParam(const std::string& name, std::string& value)
{
    ParameterValue* entry = lookup(name);
    if (entry == nullptr)
    {
        return false;
    }
    value = entry->getAsString();
    return true;
}

bool ParameterList::getParam(unsigned int index, std::string& name, std::string& value) const
{
    if (index >= m_params.size())
    {
        return false;
    }
    auto entry = std::next(m_params.begin(), static_cast<std::ptrdiff_t>(index));
    name = entry->first;
    value = entry->second.getAsString();
    return true;
}

void ParameterList::print(std::ostream& out) const
{
    for (const auto& [name, value] : m_params)
    {
        out << name << " = " << value.getAsString() << " ";
    }
}

std::size_t ParameterList::getBinarySize() const
{
    std::size_t size = 1;
    for (const auto& [name, value] : m_params)
    {
        size += name.size() + 1 + value.getBinarySize();
    }
    return size;
}

int ParameterList::getBinary(char* buffer, int size) const
{
    if (size <= 0)
    {
        return 0;
    }
    // The count travels in one byte: a longer list would be cut short by the
    // reader, so it is refused instead.
    if (m_params.size() > PARAM_LIST_MAX_ENTRIES)
    {
        return 0;
    }
    buffer[0] = static_cast<char>(m_params.size());
    int position = 1;
    for (const auto& [name, value] : m_params)
    {
        // A NUL inside a name would end it early on the reader's side.
        if (holdsNul(name))
        {
            return 0;
        }
        if (name.size() + 1 > static_cast<std::size_t>(size - position))
        {
            return 0;
        }
        std::memcpy(buffer + position, name.data(), name.size());
        position += static_cast<int>(name.size());
        buffer[position++] = '\0';
        const int written = value.getBinaryValue(buffer + position, size - position);
        if (written == 0)
        {
            return 0;
        }
        position += written;
    }
    TAVO_ASSERT(position <= size);
    return position;
}

int ParameterList::createFromBinary(char* buffer, int size)
{
    if (size <= 0)
    {
        return 0;
    }
    const unsigned int count = static_cast<uint8>(buffer[0]);
    int position = 1;
    for (unsigned int i = 0; i < count; ++i)
    {
        const char* name = buffer + position;
        const void* end = std::memchr(name, 0, static_cast<std::size_t>(size - position));
        if (end == nullptr)
        {
            return 0;
        }
        const int nameLength = static_cast<int>(static_cast<const char*>(end) - name);
        const int valueStart = position + nameLength + 1;
        ParameterValue value;
        const int consumed = value.createFromBinary(buffer + valueStart, size - valueStart);
        if (consumed == 0)
        {
            return 0;
        }
        m_params.insert_or_assign(std::string(name, static_cast<std::size_t>(nameLength)),
                                  std::move(value));
        position = valueStart + consumed;
        TAVO_ASSERT(position <= size);
    }
    return position;
}
