#pragma once

#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/RunLoop.h>

#include <memory>
#include <string>

namespace qelnk {

/// A serial queue: runs the tasks given to it one at a time, in the order given, on one thread.
///
/// Threads: async() and isCurrent() may be called from any thread. A background queue starts its thread with the first
/// task; when the last reference goes, what was queued still runs, then the thread ends by itself: nobody waits for it,
/// so a queue may be let go anywhere, inside one of its own tasks too. A task that throws is reported on the log, and
/// the next one runs. A task that turns its thread's run loop, as every synchronous call of the library does, lets the
/// tasks behind it run meanwhile.
class QELNK_EXPORT Queue {
 public:
  /// A queue of its own on a background thread. `label` names the thread (reverse-DNS form by custom).
  static std::shared_ptr<Queue> serial(std::string label);

  /// The process's main queue: its tasks run on the main thread, in the turns of RunLoop::main() or through the
  /// executor that the host gave to RunLoop::setMainExecutor().
  static const std::shared_ptr<Queue> &main();

  virtual ~Queue() = default;

  /// Queues `task` and returns at once.
  virtual void async(Task task) = 0;

  /// Whether the calling thread is the one that runs this queue's tasks.
  virtual bool isCurrent() const = 0;

  /// The name that it was given; "main" for the main queue.
  virtual const std::string &label() const = 0;
};

}  // namespace qelnk
