#pragma once

#include <QELNetworkKit/QELNKSocket.h>
#include <QELNetworkKit/Value.h>

#include <optional>
#include <string>
#include <string_view>

#include "Arguments.h"

namespace tool {

/// The body encoding of a messaging endpoint as the user sees it: how a line of input becomes a message and how a
/// message becomes text.
class Body {
 public:
  /// The option that chooses it.
  static constexpr Option option{"body", "BODY", "json (default), msgpack, xml, string or data"};

  /// The body that the command line chooses; a usage Failure for an unknown name.
  static Body of(const Arguments &arguments);
  /// What the help of a command with this option says about lines.
  static std::string notes();

  QELNKMessageBody number() const { return number_; }

  /// The message of a line, checked to be one that this body can carry, or a Failure of Exit::malformed. None for a
  /// blank line where that is no text of its own.
  std::optional<qelnk::Value> message(std::string_view line) const;
  /// The same for a line of standard input, whose number the Failure tells.
  std::optional<qelnk::Value> message(std::string_view line, size_t number) const;
  /// A message as a line of text.
  std::string text(const qelnk::Value &message) const;
  /// A message as a plain JSON value for an event.
  qelnk::Value plain(const qelnk::Value &message) const;

 private:
  explicit Body(QELNKMessageBody number) : number_(number) {}
  qelnk::Value parse(std::string_view line) const;
  QELNKMessageBody number_;
};

}  // namespace tool
