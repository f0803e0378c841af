#pragma once

#include <QELNetworkKit/Clock.h>
#include <QELNetworkKit/Export.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace qelnk {

/// A piece of work handed from one thread to another. It is destroyed on the thread that ran it, or where it was
/// refused or cancelled.
using Task = std::function<void()>;

/// What a file descriptor is watched for; the values may be added up.
enum class Readiness : uint32_t { none = 0, readable = 1, writable = 2, failed = 4 };
/// Both.
constexpr Readiness operator|(Readiness a, Readiness b) { return Readiness(uint32_t(a) | uint32_t(b)); }
/// Whether they have something in common.
constexpr bool operator&(Readiness a, Readiness b) { return (uint32_t(a) & uint32_t(b)) != 0; }

/// A timer or a watch of a run loop. Letting the last reference go does not end it; cancel() does.
///
/// Threads: any. Once cancel() has returned on the loop's own thread the handler is not called again; from another
/// thread a call that has already begun may still be under way.
class QELNK_EXPORT LoopSource {
 public:
  virtual ~LoopSource() = default;
  /// Ends it; twice is harmless.
  virtual void cancel() = 0;
};

/// A run loop: serves the requests, timers and descriptor events of one thread, in order.
///
/// Threads: each thread has one, made on first use, which ends with its thread; whoever holds a reference longer than
/// that gets `false` from perform(). perform(), performAndWait(), performAfter(), cancelPerforms(), watch(), stop() and
/// isCurrent() may be called from any thread; everything else belongs to the loop's own thread. A task runs with no
/// lock held and may do anything, turning the loop again included.
class QELNK_EXPORT RunLoop {
 public:
  /// The calling thread's loop.
  static std::shared_ptr<RunLoop> current();

  /// The loop of the process's main thread. The main queue's tasks run there.
  static std::shared_ptr<RunLoop> main();

  ~RunLoop();
  RunLoop(const RunLoop &) = delete;
  RunLoop &operator=(const RunLoop &) = delete;

  /// Queues `task` and returns at once. Tasks of one thread run in the order queued. Returns false, and destroys the
  /// task here, when the loop's thread has ended.
  bool perform(Task task);

  /// Runs `task` on the loop's thread and returns once it has run: inline when this is that thread already. Returns
  /// false when the thread ended before the task's turn; it never waits for a thread that is gone. While it waits it
  /// runs what other threads give to the calling thread's loop by performAndWait(), so that threads which wait for each
  /// other all go on.
  bool performAndWait(Task task);

  /// Runs `task` on the loop's thread after `delay` on the loop's clock, then every `interval` when that is positive;
  /// beats that were missed are left out. `target` names whom it is for, so that cancelPerforms() can find it. Delays
  /// of zero run in the order given.
  std::shared_ptr<LoopSource> performAfter(std::chrono::nanoseconds delay, Task task,
                                           std::chrono::nanoseconds interval = {}, const void *target = nullptr);

  /// Cancels each delayed task that was given `target`.
  void cancelPerforms(const void *target);

  /// Calls `handler` with what is ready each time the loop turns while `fd` is ready for some of `events`
  /// (level-triggered; `failed` is always told; a hang-up counts as readable too). The descriptor stays the caller's,
  /// who cancels before closing it. Throws std::system_error when the system refuses to watch it.
  std::shared_ptr<LoopSource> watch(int fd, Readiness events, std::function<void(Readiness)> handler);

  /// Serves what is ready; with nothing ready waits for the first event, at most `limit` of real time (zero: does not
  /// wait). Returns whether anything ran.
  bool runOnce(std::chrono::nanoseconds limit);

  /// Serves events until stop(). A stop() given before run() ends it at once.
  void run();

  /// Ends the innermost run() of this loop after the task under way.
  void stop();

  /// Whether this is the calling thread's loop.
  bool isCurrent() const;

  /// A descriptor that is readable while a task waits or stop() was called, for threads that wait in a poll of their
  /// own. Owned by the loop. Timers do not make it readable: ask untilNextTimer().
  int wakeDescriptor();

  /// Real time until the first timer is due (zero when one is), at most `limit`. Timers on a clock that is moved by
  /// hand do not count until they are due.
  std::chrono::nanoseconds untilNextTimer(std::chrono::nanoseconds limit) const;

  /// The clock of this loop's timers; the system's unless set. Set it before the first timer.
  const std::shared_ptr<Clock> &clock() const;
  void setClock(std::shared_ptr<Clock> clock);

  /// For the main loop of a host that runs a loop of its own (GTK, Qt, a game loop): `executor` is handed a closure,
  /// from any thread, each time work arrives or a timer is due, and must queue it, to be run on the main thread soon.
  /// A synchronous call made on the main thread serves the main loop by itself meanwhile. An empty function takes it
  /// back: once that has returned the old one is not called any more, so it must not be waiting for the caller.
  static void setMainExecutor(std::function<void(Task)> executor);

 private:
  RunLoop();
  struct State;
  std::shared_ptr<State> state_;
  friend struct RunLoopThread;
};

}  // namespace qelnk
