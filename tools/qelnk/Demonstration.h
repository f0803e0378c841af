#pragma once

#include <functional>
#include <string>

#include "Command.h"

namespace tool {

/// A demonstration: every step waits for what it should bring about, and fails without it.
class Demonstration {
 protected:
  explicit Demonstration(Invocation &invocation)
      : session_(invocation.session), output_(invocation.output), timeout_(invocation.timeout) {}
  virtual ~Demonstration() = default;

  void step(const std::string &text);
  /// Waits until `condition` holds, which the step promised; a Failure where it does not.
  void expect(const std::string &what, const std::function<bool()> &condition);
  /// Why nothing can be expected any more; empty while something can.
  virtual std::string lost() const { return {}; }

  Session &session_;
  Output &output_;
  const double timeout_;  // seconds, for each step
};

}  // namespace tool
