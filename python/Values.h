#pragma once

#include <weft/ParameterList.h>
#include <weft/ParameterValue.h>

#include <pybind11/pybind11.h>

#include <string>

// Conversions between Python objects and weft values, with the GIL held.
// Values are int (32-bit), float (32-bit), bool, str and None; parameter
// lists are dicts keyed by str. Text travels as UTF-8; bytes that are not
// UTF-8 arrive as lone surrogates ("surrogateescape") and go back unchanged.
namespace weftpy
{

namespace py = pybind11;

// `what` names the argument in the error: "a name", "a string value".
std::string toText(py::handle object, const char* what);
py::str fromText(const std::string& text);

ParameterValue toValue(py::handle object);
py::object fromValue(const ParameterValue& value);

// A name alone in a message (subscribe, unsubscribe).
std::string toName(py::handle object);
// Throws ValueError unless `name` and `value` fit one message.
void checkRoom(const std::string& name, const ParameterValue& value);
// The parameters of a call to `function`, checked to fit one message with it.
ParameterList toList(const std::string& function, const py::dict& params);
py::dict fromList(const ParameterList& list);

} // namespace weftpy
