#pragma once

/// @file
/// The library's mutexes, with words that say what each guards. Clang's thread-safety analysis takes what is guarded
/// and used without its mutex for an error; to other compilers the words mean nothing.

#include <chrono>
#include <condition_variable>
#include <mutex>

#ifdef __clang__
/// One of the attributes below, where the compiler knows them.
#define QELNK_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
/// Nothing: the compiler does not know the attributes below.
#define QELNK_THREAD_SAFETY(attribute)
#endif

/// A class whose objects are locked and unlocked; `name` is what the compiler calls them.
#define QELNK_CAPABILITY(name) QELNK_THREAD_SAFETY(capability(name))
/// A class whose objects hold what their constructor has locked, until they end.
#define QELNK_SCOPED_CAPABILITY QELNK_THREAD_SAFETY(scoped_lockable)
/// A variable that is used with this mutex held only.
#define QELNK_GUARDED_BY(mutex) QELNK_THREAD_SAFETY(guarded_by(mutex))
/// A pointer whose object is used with this mutex held only.
#define QELNK_PT_GUARDED_BY(mutex) QELNK_THREAD_SAFETY(pt_guarded_by(mutex))
/// A function that is called with these held.
#define QELNK_REQUIRES(...) QELNK_THREAD_SAFETY(requires_capability(__VA_ARGS__))
/// A function that takes these itself, so that its caller must not hold them.
#define QELNK_EXCLUDES(...) QELNK_THREAD_SAFETY(locks_excluded(__VA_ARGS__))
/// A function that locks these, or its own object.
#define QELNK_ACQUIRE(...) QELNK_THREAD_SAFETY(acquire_capability(__VA_ARGS__))
/// A function that locks its own object where it returns `result`.
#define QELNK_TRY_ACQUIRE(result) QELNK_THREAD_SAFETY(try_acquire_capability(result))
/// A function that unlocks these, or its own object.
#define QELNK_RELEASE(...) QELNK_THREAD_SAFETY(release_capability(__VA_ARGS__))

namespace qelnk {

/// One of the standard library's mutexes, of the same size and cost, as the analysis knows it.
///
/// Threads: any.
template <class Native>
class QELNK_CAPABILITY("mutex") BasicMutex {
 public:
  /// Unlocked.
  BasicMutex() = default;
  BasicMutex(const BasicMutex &) = delete;
  BasicMutex &operator=(const BasicMutex &) = delete;

  /// Waits until it is free, and takes it.
  void lock() QELNK_ACQUIRE() { native_.lock(); }
  /// Takes it if it is free; whether it was.
  bool try_lock() QELNK_TRY_ACQUIRE(true) { return native_.try_lock(); }
  /// Gives it back.
  void unlock() QELNK_RELEASE() { native_.unlock(); }

 private:
  friend class Condition;
  Native native_;
};

/// A mutex that a thread takes once at a time.
using Mutex = BasicMutex<std::mutex>;
/// A mutex that a thread which holds it may take again.
using RecursiveMutex = BasicMutex<std::recursive_mutex>;

/// Holds a mutex to its own end. It may be unlocked before, and locked again.
///
/// Threads: the one that made it.
template <class Lockable = Mutex>
class QELNK_SCOPED_CAPABILITY Lock {
 public:
  /// Locks the mutex.
  explicit Lock(Lockable &mutex) QELNK_ACQUIRE(mutex) : mutex_(mutex) { mutex.lock(); }
  /// Unlocks the mutex, unless that has been done.
  ~Lock() QELNK_RELEASE() {
    if (isHeld_) mutex_.unlock();
  }
  Lock(const Lock &) = delete;
  Lock &operator=(const Lock &) = delete;

  /// Locks the mutex again.
  void lock() QELNK_ACQUIRE() {
    mutex_.lock();
    isHeld_ = true;
  }
  /// Unlocks the mutex before the end.
  void unlock() QELNK_RELEASE() {
    isHeld_ = false;
    mutex_.unlock();
  }

 private:
  friend class Condition;
  Lockable &mutex_;
  bool isHeld_ = true;
};
/// Of the kind of the mutex that it is given.
template <class Lockable>
Lock(Lockable &) -> Lock<Lockable>;

/// What threads wait for until another has changed what a mutex guards. A wait may end without that, so it is made in a
/// loop that asks, in the function that holds the lock, where the analysis sees it:
///
///     while (!isThere) changed.wait(lock);
///
/// Threads: any.
class Condition {
 public:
  /// Gives the mutex back, waits to be notified, and takes the mutex again.
  void wait(Lock<> &lock) {
    Adopted native(lock.mutex_.native_);
    native_.wait(native);
  }
  /// The same until `deadline` at the latest; false once that has passed.
  template <class Clock, class Duration>
  bool waitUntil(Lock<> &lock, std::chrono::time_point<Clock, Duration> deadline) {
    Adopted native(lock.mutex_.native_);
    return native_.wait_until(native, deadline) == std::cv_status::no_timeout;
  }
  /// Ends one thread's wait.
  void notifyOne() noexcept { native_.notify_one(); }
  /// Ends all waits.
  void notifyAll() noexcept { native_.notify_all(); }

 private:
  /// The lock in the form that the standard library waits with. It stays the caller's.
  struct Adopted : std::unique_lock<std::mutex> {
    explicit Adopted(std::mutex &mutex) : std::unique_lock<std::mutex>(mutex, std::adopt_lock) {}
    ~Adopted() { release(); }
    Adopted(const Adopted &) = delete;
    Adopted &operator=(const Adopted &) = delete;
  };
  std::condition_variable native_;
};

}  // namespace qelnk
