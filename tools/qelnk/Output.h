#pragma once

#include <QELNetworkKit/Value.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace tool {

class Session;

/// Results on standard output, each line written as soon as it is there.
///
/// A write that fails is told to the session, which ends the command; what follows is dropped. Threads: the main
/// thread.
class Output {
 public:
  using Fields = std::initializer_list<std::pair<std::string_view, qelnk::Value>>;

  Output(Session &session, bool json);

  /// Whether results are events in JSON (--json) instead of text.
  bool json() const { return json_; }
  /// One JSON object on a line: "event" and the fields, whose values are plain JSON (see notationOf()).
  void event(std::string_view name, Fields fields = {});
  /// A line of text. On a terminal without what else one would obey in it.
  void line(std::string_view text);
  /// Bytes as they are.
  void bytes(std::string_view bytes);
  /// `text` in bold type, on a terminal that can.
  std::string bold(std::string_view text) const;

 private:
  Session &session_;
  bool json_;
  bool isTerminal_;
  bool colour_;
};

/// Writes a line to standard error. Any thread.
void tell(std::string_view line);
/// The same with "qelnk: " before it.
void complain(std::string_view text);

/// Has the lines of the library's log go to standard error, at and above "off", "error", "info" or "debug"; a Failure
/// for any other text. Where the user gave no level (none), it is "error" without the line that each pushed value
/// brings.
void setLogLevel(const std::string *level);

}  // namespace tool
