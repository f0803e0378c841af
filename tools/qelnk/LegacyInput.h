#pragma once

#include <QELNetworkKit/NetService.h>
#include <QELNetworkKit/Value.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <variant>

namespace tool {

/// What a line of input asks of a legacy connection: a string to write (heartbeats are strings too), a binary block, a
/// TXT record to set, or the end.
struct LegacyString {
  std::string text;
};
struct LegacyBinary {
  qelnk::Data data;
  std::string contentType;
  bool fenced = false;
};
struct LegacyTXT {
  qelnk::TXTRecordDictionary record;
};
struct LegacyDisconnect {};
using LegacyInput = std::variant<LegacyString, LegacyBinary, LegacyTXT, LegacyDisconnect>;

/// A line taken for what it is: a JSON object is a command, everything else a string. What cannot be written is a
/// Failure of Exit::malformed that tells the line's number.
LegacyInput legacyInput(std::string_view line, size_t number);
/// What the help says about lines.
std::string_view legacyInputNotes();

/// The type of a service that an option gives, or a Failure of Exit::usage.
std::string serviceType(const std::string &text);
/// Whether a TXT record can hold this.
bool fitsTXTRecord(const std::string &key, const std::optional<std::string> &value);

/// How much may be queued for a connection before no further line is read.
constexpr uint64_t longestLegacyQueue = uint64_t(16) << 20;

}  // namespace tool
