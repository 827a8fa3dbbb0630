#pragma once

// Whether a request fits in one WEFT message, checked before it is sent so
// that nothing leaves cut short: the sizes are those of the wire encoding
// (a name and its NUL, then the value's or the list's binary form).

#include <weft/ParameterList.h>
#include <weft/ParameterValue.h>

#include <string>

namespace weftcli
{

// The encoded size of a value: a tag byte and its data.
std::size_t encodedSize(const ParameterValue& value);

// Why the request `verb` (subscribe, update, call ...) on `name`, with at
// most one of `value` and `list`, cannot be sent; empty when it fits.
std::string whyItDoesNotFit(const std::string& verb, const std::string& name,
                            const ParameterValue* value = nullptr,
                            const ParameterList* list = nullptr);

} // namespace weftcli
