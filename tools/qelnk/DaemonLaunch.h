#pragma once

#include <cstdint>
#include <string>

namespace tool {

/// The daemon's bundle that goes with this program: the simulated one that is built beside it, else the installed one.
std::string defaultBundle();

/// A TCP port that nobody has at this moment: `wanted`, or for 0 one that the system chooses. A Failure where it cannot
/// be had.
int64_t freePort(int64_t wanted = 0);

/// For its lifetime, gives a child process that is started other standard streams than the tool's own: no input, and
/// its output on standard error, so that results and input lines stay the tool's. A daemon that is to stay gets no
/// stream of the tool's at all: whoever waits for the end of the tool's output must not wait for the daemon.
class LentStreams {
 public:
  enum class Child { ends, stays };
  explicit LentStreams(Child child);
  ~LentStreams();
  LentStreams(const LentStreams &) = delete;
  LentStreams &operator=(const LentStreams &) = delete;

 private:
  int saved_[3];
};

}  // namespace tool
