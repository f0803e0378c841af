#pragma once

#include <QELNetworkKit/Error.h>
#include <QELNetworkKit/Export.h>

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace qelnk {

/// What the JSON reader and writer accept at the top level.
enum class JSONTopLevel : uint8_t {
  container,  ///< a list or a map alone, as message bodies have it
  any         ///< any value
};

/// JSON text (UTF-8, compact) of a value tree; doubles are written so that reading gives the same double, and always
/// with a fraction or an exponent. Refused, with an error of domain "JSON" and nothing written: a byte buffer, an XML
/// document, NaN or an infinity, a key that is no string, a string that is not UTF-8, a top-level value other than
/// `top` allows. Any thread.
QELNK_EXPORT std::optional<Data> jsonData(const Value &value, Error *error = nullptr,
                                          JSONTopLevel top = JSONTopLevel::container);

/// The value tree of a JSON text. Integers become signed 64-bit numbers, or unsigned ones when they need it; numbers
/// with a fraction or an exponent become doubles, exact to the last bit; maps keep the order of their keys, and of a
/// repeated key the last value. Malformed text, an integer that fits neither form, or nesting beyond 1024: none, with
/// an error of domain "JSON".
QELNK_EXPORT std::optional<Value> jsonObject(std::span<const uint8_t> bytes, Error *error = nullptr,
                                             JSONTopLevel top = JSONTopLevel::container);
QELNK_EXPORT std::optional<Value> jsonObject(std::string_view text, Error *error = nullptr,
                                             JSONTopLevel top = JSONTopLevel::container);

}  // namespace qelnk
