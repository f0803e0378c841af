#pragma once

#include <QELNetworkKit/Value.h>

#include <string>
#include <string_view>

namespace tool {

/// How values are written on the tool's command line, input and output: JSON, with three forms for what JSON lacks:
/// {"$data": BASE64} is a byte buffer, {"$double": "nan"} (or "inf", "-inf") a number, {"$map": [[KEY, VALUE], ...]} a
/// map of any keys. A map that happens to look like one of these is written as a "$map". An XML document is written as
/// its text. Depth costs no stack.

/// The value that a JSON text stands for; a Failure of Exit::malformed where it stands for none.
qelnk::Value parseValue(std::string_view text);
/// The same for one argument of a command line: text that is not JSON is taken as a string.
qelnk::Value parseArgument(std::string_view text);

/// The value whose plain JSON is the notation of `value`.
qelnk::Value notationOf(const qelnk::Value &value);
/// JSON on one line, of plain JSON values or in the notation; a Failure of Exit::malformed where there is none (a value
/// nested too deep).
std::string plainJSON(const qelnk::Value &value);
inline std::string textOf(const qelnk::Value &value) { return plainJSON(notationOf(value)); }

}  // namespace tool
