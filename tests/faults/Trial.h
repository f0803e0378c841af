#pragma once

#include <array>
#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "faults/Faults.h"

namespace qelnk::test {

/// One run of a scenario, in a process of its own: with a fault, or without.
class Trial {
 public:
  /// Thrown to leave a scenario whose host has been told that it cannot go on.
  struct GaveUp {};

  /// Whether nothing is to fail.
  bool isClean() const { return isClean_; }
  /// Turns the main run loop until `condition` holds. Where the fault has struck and the host was told, that may never
  /// be: then the scenario ends here, except where the object at hand is to recover of itself from such a fault.
  /// A fault that lasts goes away meanwhile.
  void reach(const char *what, const std::function<bool()> &condition);
  /// Something the library answered at once: false ends the scenario as told.
  void require(const char *what, bool ok);
  /// The host was told of a failure, otherwise than by an error's line on the log.
  void tell();
  bool wasTold() const;

  /// The steps whose failures end nothing, for what is in use tries again.
  Steps recoversFrom = 0;

 private:
  friend class Course;
  Trial(Steps failing, bool isClean) : isClean_(isClean), failing_(failing) {}
  [[noreturn]] void fail(const std::string &what);

  const bool isClean_;
  const Steps failing_;
};

/// What is tried with every fault. It lets go of all that it has made.
struct Scenario {
  const char *name;
  void (*run)(Trial &trial);
  /// Faults that it is not tried with, by a part of their names.
  std::vector<std::string_view> unfit = {};
  /// With a peer of the test's own in the same process, which a limit of descriptors would stop as well.
  bool hasPeer = false;
};

/// Runs a scenario twice without a fault. Returns what went wrong.
std::string tryOnce(const Scenario &scenario);
/// Tries a scenario with each fault at each step, a few at a time. Returns what went wrong, a line each.
std::string tryAll(const Scenario &scenario);
/// The same with each limit from "hardly any" to "enough", of descriptors and then of threads.
std::string tryLimits(const Scenario &scenario);

}  // namespace qelnk::test
