#pragma once

#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/RunLoop.h>

#include <vector>

namespace qelnk {

/// A counting semaphore whose waiter goes on serving its run loop.
///
/// Threads: any. Who has waited may destroy it at once, even while the signal() that ended the wait is returning.
class Semaphore {
 public:
  explicit Semaphore(int count = 0) : count_(count) {}

  /// Adds one and wakes the waiters' run loops, so that a wait ends at once.
  void signal();
  /// Takes one if there is one.
  bool tryWait();
  /// Takes one; until there is one turns the calling thread's run loop, at most `step` at a time.
  void wait(std::chrono::nanoseconds step = std::chrono::milliseconds(100));

 private:
  Mutex mutex_;
  int count_ QELNK_GUARDED_BY(mutex_);
  std::vector<std::weak_ptr<RunLoop>> waiters_ QELNK_GUARDED_BY(mutex_);
};

}  // namespace qelnk
