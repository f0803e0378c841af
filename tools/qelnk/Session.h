#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace qelnk {
class LoopSource;
}

namespace tool {

using Clock = std::chrono::steady_clock;
using Deadline = std::optional<Clock::time_point>;

/// The deadline that lies so many seconds ahead.
inline Clock::time_point after(double seconds) {
  return Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

/// The main thread's life: it turns the library's main run loop until something has come about, reads standard input
/// line by line meanwhile, and notices when the tool is asked to end (SIGINT, SIGTERM, or standard output that nobody
/// reads any more).
///
/// Threads: the main thread. One for the process.
class Session {
 public:
  Session();
  ~Session();
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  enum class Wait { done, timedOut, stopped };

  /// Serves the main run loop until `condition` holds, the deadline passes or the tool is asked to end. The condition
  /// is asked after each event; and every `glance` besides, for those that wake nobody, such as the end of a process.
  Wait waitUntil(const std::function<bool()> &condition, Deadline deadline = std::nullopt,
                 std::chrono::milliseconds glance = std::chrono::milliseconds(50));

  /// The next line of standard input without its end, serving the main run loop meanwhile; none once the input has
  /// ended, the tool is asked to end or `interrupted` holds. An input that cannot be read is a Failure.
  std::optional<std::string> readLine(const std::function<bool()> &interrupted = nullptr);
  /// Whether there is input that was not read yet, as far as is known without waiting.
  bool hasInput();
  /// Serves the main run loop until the tool is asked to end, or standard input has ended and it is not to stay.
  void serve(bool stay);
  /// The rest of standard input.
  std::string readAll();

  /// Whether the tool is asked to end.
  bool stopped() const;
  /// Has `handler` called from the main loop when a signal asks the tool to end.
  void onStop(std::function<void()> handler) { onStop_ = std::move(handler); }
  /// Has what comes now, the cleaning up, run on until it is asked to end once more.
  void acknowledgeStop();

  /// Tells that standard output failed with this system error: the tool is to end.
  void outputFailed(int errorNumber);
  int outputError() const { return outputError_; }

 private:
  void awaitInput();
  bool fill();

  std::shared_ptr<qelnk::LoopSource> signalWatch_;
  std::function<void()> onStop_;
  int acknowledged_ = 0;
  int outputError_ = 0;
  bool outputStops_ = false;
  std::string input_;
  size_t searched_ = 0;  // no line ends before this place of input_
  bool inputEnded_ = false;
};

}  // namespace tool
