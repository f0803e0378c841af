#pragma once

#include <mutex>
#include <thread>

namespace qelnk {

/// A re-entrant mutex for what is held for some nanoseconds only, but often: a thread that finds it taken looks again a
/// few times before it sleeps, since to sleep and to be woken costs both sides a hundred times as much.
///
/// Threads: any.
class SpinningMutex {
 public:
  void lock() {
    constexpr int attempts = 32;
    for (int i = 0; i < attempts; ++i) {
      if (mutex_.try_lock()) return;
      std::this_thread::yield();
    }
    mutex_.lock();
  }
  bool try_lock() { return mutex_.try_lock(); }
  void unlock() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

}  // namespace qelnk
