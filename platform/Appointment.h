#pragma once

#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/RunLoop.h>

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "platform/Guard.h"

namespace qelnk {

/// Where a thread waits for others. Meanwhile it keeps the appointments that others have with it, so that threads that
/// wait for each other all go on.
///
/// Threads: any, but for wait(), which is the point's own thread's.
class MeetingPoint {
 public:
  using Time = std::chrono::nanoseconds;

  /// The calling thread's: its loop's, or one of its own.
  static std::shared_ptr<MeetingPoint> here();

  /// Has `appointment` kept while this point's thread waits here; it may be kept in the thread's run loop before.
  void announce(std::shared_ptr<class Appointment> appointment);
  void strike(const class Appointment *appointment);
  /// Gives up what is announced.
  void close();

  /// Waits until `over`, which is asked under the lock, at most `limit` (none: for ever). Returns whether it is over.
  bool wait(std::optional<Time> limit, const std::function<bool()> &over);
  /// Makes a change that somebody may wait for here.
  void tell(const std::function<void()> &change);

 private:
  Mutex mutex_;
  Condition news_;
  std::deque<std::shared_ptr<class Appointment>> announced_ QELNK_GUARDED_BY(mutex_);
};

/// A task that another thread waits for. One that is destroyed without having been kept ends the wait too.
class Appointment {
 public:
  /// What the one who waits holds.
  struct Outcome {
    const std::shared_ptr<MeetingPoint> waiter = MeetingPoint::here();
    std::optional<bool> ran;  // told to the waiter

    bool wait() {
      waiter->wait(std::nullopt, [this] { return ran.has_value(); });
      return *ran;
    }
  };

  Appointment(Task task, std::shared_ptr<Outcome> outcome) : task_(std::move(task)), outcome_(std::move(outcome)) {}
  ~Appointment() {
    if (!begun_) end(false);
  }
  Appointment(const Appointment &) = delete;
  Appointment &operator=(const Appointment &) = delete;

  /// Runs the task, unless that has been begun before. On the thread that it is with.
  void keep() {
    if (std::exchange(begun_, true)) return;
    runGuarded("RunLoop task", task_);
    end(true);
  }

 private:
  void end(bool ran) {
    task_ = nullptr;  // before the waiter goes on: it may refer to what is his
    outcome_->waiter->tell([&] { outcome_->ran = ran; });
  }

  Task task_;
  bool begun_ = false;
  const std::shared_ptr<Outcome> outcome_;
};

}  // namespace qelnk
