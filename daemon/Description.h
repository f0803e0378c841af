#pragma once

#include <QELNetworkKit/Value.h>

#include <optional>
#include <string>

namespace qelnk {

/// The string under `key` of a description that the daemon gave, or none where it is not there or no string.
inline std::optional<std::string> stringIn(const Value &description, const char *key) {
  const Value &value = description[key];
  if (!value.isString()) return std::nullopt;
  return std::string(value.string());
}

/// A name or identifier that may be missing, as a value of a request: null where it is.
inline Value valueOf(const std::optional<std::string> &text) { return text ? Value(*text) : Value(); }

}  // namespace qelnk
