#pragma once

#include <QELNetworkKit/RunLoop.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <thread>

namespace qelnk {

/// A named thread that is ended by cancelling it: its body looks at the token once per pass, and cancelling wakes its
/// run loop.
///
/// Threads: cancel(), isCurrent(), isFinished() and join() may be called from any thread. Destroying it cancels it and,
/// but on the thread itself, waits for its end; on the thread itself it goes on by itself. An exception that leaves the
/// body is reported on the log.
class Thread {
 public:
  using Body = std::function<void(std::stop_token)>;

  /// Starts the thread; `name` is cut to the system's 15 characters. Its run loop takes tasks from now on, which run
  /// when the body turns it. Throws std::system_error when the system has no thread left.
  Thread(const std::string &name, Body body);
  ~Thread();
  Thread(const Thread &) = delete;
  Thread &operator=(const Thread &) = delete;

  void cancel();
  bool isCancelled() const { return stop_.stop_requested(); }
  bool isCurrent() const;
  bool isFinished() const;
  /// Waits for its end, at most `limit`, and returns whether it has come. The calling thread keeps its appointments
  /// meanwhile (see RunLoop::performAndWait()), so that threads may wait for each other. False on the thread itself.
  bool endsWithin(std::chrono::nanoseconds limit);
  /// Waits for its end; at once on the thread itself.
  void join();
  const std::shared_ptr<RunLoop> &runLoop() const { return runLoop_; }

 private:
  struct Shared;
  std::shared_ptr<Shared> shared_;
  std::stop_source stop_;
  std::shared_ptr<RunLoop> runLoop_;
  std::thread thread_;
};

}  // namespace qelnk
