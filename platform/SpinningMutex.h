#pragma once

#include <QELNetworkKit/Mutex.h>

#include <mutex>
#include <thread>

namespace qelnk {

/// A re-entrant mutex for what is held for some nanoseconds only, but often: a thread that finds it taken looks again a
/// few times before it sleeps, since to sleep and to be woken costs both sides a hundred times as much.
///
/// Threads: any.
class QELNK_CAPABILITY("mutex") SpinningMutex {
 public:
  void lock() QELNK_ACQUIRE() {
    constexpr int attempts = 32;
    for (int i = 0; i < attempts; ++i) {
      if (mutex_.try_lock()) return;
      std::this_thread::yield();
    }
    mutex_.lock();
  }
  bool try_lock() QELNK_TRY_ACQUIRE(true) { return mutex_.try_lock(); }
  void unlock() QELNK_RELEASE() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

}  // namespace qelnk
