#pragma once

#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/Mutex.h>

#include <chrono>
#include <memory>
#include <vector>

namespace qelnk {

class RunLoop;

/// A source of time. Everything in the library that waits for a deadline asks a clock, so that a test can drive it.
///
/// Threads: every operation may be called from any thread.
class QELNK_EXPORT Clock {
 public:
  virtual ~Clock() = default;

  /// Time since an arbitrary start; never goes back.
  virtual std::chrono::nanoseconds now() const = 0;

  /// Wall-clock time in seconds since 1970-01-01 00:00 UTC; may jump when the system's clock is set.
  virtual double wallTime() const = 0;

  /// Whether time stands still here until somebody moves it: real waits do not bring a deadline nearer.
  virtual bool isMovedByHand() const { return false; }

  /// Tells a clock that `loop` has timers on it. A clock that is moved by hand wakes such loops when it moves.
  virtual void attach(const std::weak_ptr<RunLoop> &loop);

  /// The system's clock; one for the process.
  static const std::shared_ptr<Clock> &system();
};

/// A clock that stands still until it is moved.
class QELNK_EXPORT ManualClock final : public Clock {
 public:
  /// Starts at `start`, with `wallTime` seconds since 1970.
  explicit ManualClock(std::chrono::nanoseconds start = std::chrono::nanoseconds::zero(), double wallTime = 0);

  std::chrono::nanoseconds now() const override;
  double wallTime() const override;
  bool isMovedByHand() const override { return true; }
  void attach(const std::weak_ptr<RunLoop> &loop) override;

  /// Moves both times forward and wakes the loops that have timers here. Returns before their timers have run.
  void advance(std::chrono::nanoseconds by);

  /// Sets the wall-clock time alone, back or forward.
  void setWallTime(double seconds);

 private:
  mutable Mutex mutex_;
  std::chrono::nanoseconds now_ QELNK_GUARDED_BY(mutex_);
  double wallTime_ QELNK_GUARDED_BY(mutex_);
  std::vector<std::weak_ptr<RunLoop>> loops_ QELNK_GUARDED_BY(mutex_);
};

}  // namespace qelnk
