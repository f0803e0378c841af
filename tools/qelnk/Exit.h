#pragma once

#include <stdexcept>
#include <string>

namespace tool {

/// How a command ends, as its exit code.
enum class Exit : int { done = 0, failed = 1, usage = 64, malformed = 65, unanswered = 69, system = 71 };

/// Thrown to end a command (in the shell of `qelnk daemon`, a line). The text goes to standard error; an empty one
/// ends it quietly.
class Failure : public std::runtime_error {
 public:
  Failure(Exit exit, const std::string &text) : std::runtime_error(text), exit_(exit) {}
  Exit exit() const { return exit_; }

 private:
  Exit exit_;
};

}  // namespace tool
