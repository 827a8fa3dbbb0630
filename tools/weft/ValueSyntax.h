#pragma once

// The one value syntax of the weft tool, on the command line and on stdin,
// and the text forms it prints.
//
// A value is typed with a one-letter prefix (i:5, f:0.5, b:on, s:text, n: for
// the empty value) or inferred: a whole number is an integer, a decimal
// number a float, on/off/true/false a boolean, anything else a string.

#include <weft/ParameterList.h>
#include <weft/ParameterValue.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace weftcli
{

// Parses one value; false with a message in `error` when the text cannot be
// that value (a typed prefix that does not fit, a number out of range).
bool parseValue(const std::string& text, ParameterValue& value, std::string& error);

// Parses call parameters NAME=VALUE into `list` (later names replace earlier
// ones). A list cannot carry the empty value, so n: is refused here.
bool parseParameters(const std::vector<std::string>& words, ParameterList& list,
                     std::string& error);

// Splits a command line into words at blanks. "..." groups a word and takes
// \" \\ \n \t escapes; '...' groups without escapes; a line whose first word
// starts with # is a comment and has no words.
bool splitWords(const std::string& line, std::vector<std::string>& words, std::string& error);

// Splits HOST[:PORT]; the port stays as given when the text has none. An
// IPv6 address takes a port in brackets ([::1]:7420); bare (::1), it has none.
bool parseHostPort(const std::string& text, std::string& host, unsigned short& port,
                   std::string& error);
// The same split, the port left as text: `hasPort` false when there is none.
bool splitHostPort(const std::string& text, std::string& host, std::string& portText, bool& hasPort,
                   std::string& error);
// HOST:PORT, with an IPv6 address in brackets: the form parseHostPort reads.
std::string joinHostPort(const std::string& host, unsigned short port);

// A port number, 1 to 65535 (0 too with `allowZero`: "pick a free one"). Every
// option and argument that takes a port says the same thing when it is wrong.
bool parsePort(const std::string& text, bool allowZero, unsigned short& port, std::string& error);

// A time: a number of seconds (2, 0.5) or a number with a unit (20ms, 1.5s,
// 500us); more than 0 unless `allowZero`. Every time option says the same
// thing when it is wrong.
bool parseDuration(const std::string& text, bool allowZero, std::chrono::microseconds& duration,
                   std::string& error);

// A share from 0% to 100%, with or without the % sign (5%, 0.5, 100);
// `rate` is 0 to 1.
bool parsePercent(const std::string& text, double& rate, std::string& error);

// The entries of a list with their types, in name order.
std::vector<std::pair<std::string, ParameterValue>> listEntries(const ParameterList& list);

// "int", "float", "bool", "string", "empty", or "unknown" for a value that
// arrived with a tag this library does not know.
const char* typeName(const ParameterValue& value);

// The library's text form of a value, with control characters escaped so
// that one event stays one line; a string in double quotes, so that the
// string "42" and the integer 42 look different.
std::string valueText(const ParameterValue& value);

// "name=text name=text ..." in name order.
std::string listText(const ParameterList& list);

// A name in double quotes, with quotes, backslashes and control characters
// escaped.
std::string quoted(const std::string& text);

} // namespace weftcli
