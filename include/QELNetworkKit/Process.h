#pragma once

#include <QELNetworkKit/Export.h>

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace qelnk {

/// Thrown when a child process cannot be started. The text names the executable and the reason.
class QELNK_EXPORT ProcessError : public std::runtime_error {
 public:
  /// Names the executable and the reason in its text.
  ProcessError(const std::string &executable, int errorNumber);
  /// The system's error number, for example ENOENT.
  int errorNumber() const { return errorNumber_; }

 private:
  int errorNumber_;
};

/// A child process.
///
/// The child inherits standard input, output and error, the environment and the working directory, and no other
/// descriptor. Its end is noticed without a signal handler; when the host reaps it first, or ignores SIGCHLD, its
/// status is unknown. Letting a Process go neither ends nor forgets the child: the handler is still called, and the
/// child is reaped.
///
/// Threads: any.
class QELNK_EXPORT Process {
 public:
  /// How a child ended: an exit code, or the signal that ended it.
  struct Status {
    /// The exit code, or the number of the signal.
    int code = 0;
    /// Whether a signal ended it.
    bool signalled = false;
  };
  /// Called once, on a thread of the library's, when the child has ended. It must not block for long.
  using TerminationHandler = std::function<void(const std::shared_ptr<Process> &)>;

  /// Starts `executable` (a path) with `arguments`. Throws ProcessError.
  static std::shared_ptr<Process> launch(const std::string &executable, const std::vector<std::string> &arguments,
                                         TerminationHandler onExit = nullptr);

  virtual ~Process() = default;
  /// The child's process ID, after its end too.
  virtual pid_t pid() const = 0;
  /// Whether its end has not been noticed yet.
  virtual bool isRunning() const = 0;
  /// How the child ended; none while it runs, or when somebody else took the status.
  virtual std::optional<Status> status() const = 0;
  /// Returns once the child has ended; its termination handler may still be running.
  virtual void waitUntilExit() = 0;
  /// Sends a signal. Returns false when the child has ended.
  virtual bool signal(int number) = 0;
};

}  // namespace qelnk
