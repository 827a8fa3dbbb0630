#include "Values.h"

#include "Runtime.h"

#include <weft/Constants.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstring>
#include <vector>

namespace weftpy
{

namespace
{

std::string typeName(py::handle object)
{
    return Py_TYPE(object.ptr())->tp_name;
}

[[noreturn]] void tooLong()
{
    throw py::value_error("too long for one message: a name with its value or parameters takes at "
                          "most " +
                          std::to_string(WEFT_MAX_PAYLOAD) + " bytes");
}

} // namespace

std::string toText(py::handle object, const char* what)
{
    if (!PyUnicode_Check(object.ptr()))
    {
        throw py::type_error(std::string(what) + " must be str, not " + typeName(object));
    }
    const py::bytes bytes = py::reinterpret_steal<py::bytes>(
        PyUnicode_AsEncodedString(object.ptr(), "utf-8", "surrogateescape"));
    if (!bytes)
    {
        throw py::error_already_set();
    }
    std::string text = bytes;
    if (text.find('\0') != std::string::npos)
    {
        throw py::value_error(std::string(what) + " cannot hold a NUL character");
    }
    return text;
}

py::str fromText(const std::string& text)
{
    PyObject* decoded =
        PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogateescape");
    if (decoded == nullptr)
    {
        throw py::error_already_set();
    }
    return py::reinterpret_steal<py::str>(decoded);
}

ParameterValue toValue(py::handle object)
{
    PyObject* o = object.ptr();
    if (o == Py_None)
    {
        return ParameterValue();
    }
    if (PyBool_Check(o))
    {
        return ParameterValue(o == Py_True);
    }
    if (PyFloat_Check(o))
    {
        const double number = PyFloat_AS_DOUBLE(o);
        // Beyond the largest float the conversion has no result.
        if (std::isfinite(number) && std::fabs(number) > FLT_MAX)
        {
            raise(PyExc_OverflowError,
                  "weft floats are 32-bit: " + py::repr(object).cast<std::string>() +
                      " is out of range");
        }
        return ParameterValue(static_cast<float>(number));
    }
    if (PyIndex_Check(o))
    {
        const py::object number = py::reinterpret_steal<py::object>(PyNumber_Index(o));
        if (!number)
        {
            throw py::error_already_set();
        }
        int overflow = 0;
        const long long value = PyLong_AsLongLongAndOverflow(number.ptr(), &overflow);
        if (value == -1 && PyErr_Occurred() != nullptr)
        {
            throw py::error_already_set();
        }
        if (overflow != 0 || value < INT_MIN || value > INT_MAX)
        {
            raise(PyExc_OverflowError,
                  "weft integers are 32-bit: " + py::repr(object).cast<std::string>() +
                      " is out of range");
        }
        return ParameterValue(static_cast<int>(value));
    }
    if (PyUnicode_Check(o))
    {
        return ParameterValue(toText(object, "a string value"));
    }
    throw py::type_error("a weft value is int, float, bool, str or None, not " + typeName(object));
}

py::object fromValue(const ParameterValue& value)
{
    switch (value.getType())
    {
    case PARAM_TYPE_INT:
    {
        int number = 0;
        value.getIntValue(number);
        return py::int_(number);
    }
    case PARAM_TYPE_BOOL:
    {
        bool flag = false;
        value.getBooleanValue(flag);
        return py::bool_(flag);
    }
    case PARAM_TYPE_FLOAT:
    {
        float number = 0;
        value.getFloatValue(number);
        return py::float_(static_cast<double>(number));
    }
    case PARAM_TYPE_STRING:
        return fromText(value.getAsString());
    default:
        // The empty value, and unknown tags, which carry no data.
        return py::none();
    }
}

std::string toName(py::handle object)
{
    std::string name = toText(object, "a name");
    if (name.size() + 1 > WEFT_MAX_PAYLOAD)
    {
        tooLong();
    }
    return name;
}

void checkRoom(const std::string& name, const ParameterValue& value)
{
    std::vector<char> form(WEFT_MAX_PAYLOAD);
    const std::size_t room =
        WEFT_MAX_PAYLOAD - std::min<std::size_t>(name.size() + 1, WEFT_MAX_PAYLOAD);
    if (room == 0 || value.getBinaryValue(form.data(), static_cast<int>(room)) == 0)
    {
        tooLong();
    }
}

// The list is built from its binary form: the list has no adder for the
// empty value, and writing the form measures it against the room left in the
// message after the function's name.
ParameterList toList(const std::string& function, const py::dict& params)
{
    if (params.size() > PARAM_LIST_MAX_ENTRIES)
    {
        throw py::value_error("a call carries at most " + std::to_string(PARAM_LIST_MAX_ENTRIES) +
                              " parameters, not " + std::to_string(params.size()));
    }
    if (function.size() + 2 > WEFT_MAX_PAYLOAD)
    {
        tooLong();
    }
    std::vector<char> form(WEFT_MAX_PAYLOAD - function.size() - 1);
    form[0] = static_cast<char>(params.size());
    std::size_t used = 1;
    for (const auto& item : params)
    {
        const std::string name = toText(item.first, "a parameter name");
        const ParameterValue value = toValue(item.second);
        if (used + name.size() + 1 > form.size())
        {
            tooLong();
        }
        std::memcpy(form.data() + used, name.data(), name.size());
        used += name.size();
        form[used++] = '\0';
        const int written =
            value.getBinaryValue(form.data() + used, static_cast<int>(form.size() - used));
        if (written == 0)
        {
            tooLong();
        }
        used += static_cast<std::size_t>(written);
    }
    ParameterList list;
    if (list.createFromBinary(form.data(), static_cast<int>(used)) != static_cast<int>(used))
    {
        throw std::logic_error("a parameter list did not read back from its own form");
    }
    return list;
}

// Read back from the binary form: the list reads a float by name only as text.
py::dict fromList(const ParameterList& list)
{
    std::vector<char> form(WEFT_MAX_PACKET_SIZE);
    int size = 0;
    while ((size = list.getBinary(form.data(), static_cast<int>(form.size()))) == 0)
    {
        // A list from the wire fits one message; this is for any other.
        if (form.size() >= TCP_MAX_MESSAGE_SIZE)
        {
            throw std::length_error("a parameter list too large to read");
        }
        form.resize(form.size() * 2);
    }
    py::dict result;
    int position = 1;
    for (std::size_t entry = 0; entry < list.size(); ++entry)
    {
        const char* start = form.data() + position;
        const std::size_t length = std::strlen(start);
        const std::string name(start, length);
        position += static_cast<int>(length) + 1;
        ParameterValue value;
        const int read = value.createFromBinary(form.data() + position, size - position);
        if (read == 0)
        {
            throw std::logic_error("a parameter list did not read back from its own form");
        }
        position += read;
        result[fromText(name)] = fromValue(value);
    }
    return result;
}

} // namespace weftpy
