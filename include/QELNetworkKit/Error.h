#pragma once

#include <QELNetworkKit/Value.h>

#include <cstdint>
#include <string>

namespace qelnk {

/// Why an operation failed: a domain, a code that means something within it, and a text for people.
///
/// Operations that can fail take a last parameter `Error *error = nullptr` and write it on failure only.
struct QELNK_EXPORT Error {
  /// "ZMQ" (codes are system and ZeroMQ error numbers), "MPMessagePack", "JSON", "XML" or another class's own.
  std::string domain;
  /// Its meaning depends on the domain.
  int64_t code = 0;
  /// For people and logs, in English; not for comparing.
  std::string description;
  /// More about the failure under keys that the operation names; null when there is nothing.
  Value userInfo;

  /// Whether an error is set. A set error always has a domain.
  explicit operator bool() const { return !domain.empty(); }
  /// Equal when all four parts are.
  bool operator==(const Error &) const = default;
};

}  // namespace qelnk
