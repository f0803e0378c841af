#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace sim {

/// Thrown for a command line that makes no sense; the text says why.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What the daemon's command line asks for, with the fault switches of the simulation.
struct Options {
  std::string project;
  std::string ffmpegPath;
  int port = 0;                ///< 0 has the system choose one, which is then printed
  std::optional<int> webPort;  ///< for WebSocket clients, likewise; none where they are not served

  std::chrono::milliseconds delay{0};  ///< each reply leaves that much later
  uint64_t dropReplies = 0;            ///< so many replies from the first on are lost
  uint64_t garbageEvery = 0;           ///< a frame that is no message goes before each such reply; 0 for never
  uint64_t exitAfter = 0;              ///< ends abruptly with that many requests answered; 0 for never

  /// Takes a command line apart. Switches in `environment`, parted by spaces, stand before it.
  static Options parse(std::vector<std::string> words, const char *environment);
};

extern const char usage[];

}  // namespace sim
