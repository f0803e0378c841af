#pragma once

#include <QELNetworkKit/ByteStream.h>
#include <QELNetworkKit/RunLoop.h>

#include <memory>
#include <stop_token>
#include <utility>

/// A thread that runs a run loop for the byte streams of legacy connections: the one that all connections share which
/// are not multi-threaded, or one of a connection's own.
///
/// Threads: every operation may be called from any thread. A thread that waits here for another one keeps running what
/// others wait for it to do (see qelnk::RunLoop::performAndWait()), so that two which close each other's streams go on.
class QELNK_EXPORT QELNKLegacyStreamThread {
 public:
  /// The shared one, started on first use. It is never cancelled.
  static const std::shared_ptr<QELNKLegacyStreamThread> &singleThreaded();
  /// A new one. Throws std::system_error when the system has no thread left.
  static std::shared_ptr<QELNKLegacyStreamThread> multiThreaded();

  /// Usually made by singleThreaded() or multiThreaded(). Throws std::system_error when the system has no thread left.
  explicit QELNKLegacyStreamThread(bool cancellable);
  /// Cancels it if that was not done.
  ~QELNKLegacyStreamThread();
  QELNKLegacyStreamThread(const QELNKLegacyStreamThread &) = delete;
  QELNKLegacyStreamThread &operator=(const QELNKLegacyStreamThread &) = delete;

  /// Schedules `stream` on the thread's run loop and opens it; does not wait. Nothing happens for null.
  void scheduleStream(const std::shared_ptr<qelnk::ByteStream> &stream);
  /// Takes `stream` off the run loop, takes its event target away and closes it; once it returns no event is told any
  /// more, nor still being told but on a thread that waits meanwhile. Nothing happens for null.
  void closeStream(const std::shared_ptr<qelnk::ByteStream> &stream);

  /// Runs `task` on the thread. Returns whether it was queued, or, waiting, whether it ran: false once the thread has
  /// ended.
  bool performSelectorOnTarget(qelnk::Task task, bool waitUntilDone);
  /// Calls an operation of `target`, which is kept until then, on the thread.
  template <class Target, class Class, class Result, class... Parameters, class... Objects>
  bool performSelectorOnTarget(std::shared_ptr<Target> target, Result (Class::*selector)(Parameters...),
                               bool waitUntilDone, Objects... withObjects) {
    return performSelectorOnTarget([target = std::move(target), selector,
                                    ... objects = std::move(withObjects)] { (void)((*target).*selector)(objects...); },
                                   waitUntilDone);
  }

  /// Ends the thread after what it was given before, and waits for its end, "Shutdown communication" on the log for
  /// every 100 ms of it. Returns at once for the shared thread, which goes on, and on the thread itself, which ends
  /// with the turn of its loop that is under way.
  void cancel();

  /// The loop that it turns.
  const std::shared_ptr<qelnk::RunLoop> &runLoop() const;
  /// Whether cancel() ends it: not so for the shared one.
  bool isCancellable() const { return cancellable_; }
  /// Whether the calling thread is this one.
  bool isCurrent() const;

 private:
  struct State;
  static void thread(const std::stop_token &token);
  static void _scheduleStream(qelnk::ByteStream &stream);
  static void _closeStream(qelnk::ByteStream &stream);
  void _cancel();

  const bool cancellable_;
  const std::unique_ptr<State> state_;
};
