#pragma once

#include <QELNetworkKit/RunLoop.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace qelnk {

/// What this floor does with run loops beyond their public operations.
struct RunLoopThread {
  /// A loop for a thread that is yet to start: tasks may be queued at once.
  static std::shared_ptr<RunLoop> make();

  /// Makes `loop` the calling thread's, which has none yet.
  static void adopt(const std::shared_ptr<RunLoop> &loop);

  /// Ends the calling thread's loop before the thread itself ends.
  static void end();

  /// See MeetingPoint::here().
  static std::shared_ptr<class MeetingPoint> meetingPoint();

  /// Ends the wait under way on `loop`, or the next one. Any thread.
  static void wake(const RunLoop &loop);
};

/// Starts a thread of the library's: named with the first 15 characters of `name`, with the signals that are sent to
/// the process blocked, because the host's threads handle those. Throws std::system_error when the system has no thread
/// left.
std::thread startThread(const std::string &name, std::function<void()> body);

/// The loop of the one thread that this floor keeps for its own watching, started on first use and never ended. What
/// runs there must not block.
const std::shared_ptr<RunLoop> &serviceLoop();

}  // namespace qelnk
