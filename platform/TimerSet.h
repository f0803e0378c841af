#pragma once

#include <QELNetworkKit/RunLoop.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace qelnk {

/// The timers of one run loop, by deadline and then by the order given.
///
/// Threads: every operation under the loop's lock. Actions are handed out to be run and destroyed without it.
class TimerSet {
 public:
  using Time = std::chrono::nanoseconds;

  struct Timer {
    std::shared_ptr<const Task> action;  // none once cancelled or over
    Time deadline{}, interval{};
    const void *target = nullptr;
    uint64_t order = 0;
  };
  using Actions = std::vector<std::shared_ptr<const Task>>;

  void add(const std::shared_ptr<Timer> &timer);
  std::optional<Time> earliest() const;
  /// What a timer added from now on has as its order, at the least.
  uint64_t nextOrder() const { return nextOrder_; }

  /// The first timer that is due at `now` and was added before `order`; the caller runs its action and gives it back.
  std::shared_ptr<Timer> takeDue(Time now, uint64_t order);
  /// Ends the run of a timer that was taken at `now`, whose action the caller still holds: one with an interval is due
  /// again at its next beat after `now`. Beats missed before are left out; one that fell into the run is not.
  void giveBack(const std::shared_ptr<Timer> &timer, Time now);

  std::shared_ptr<const Task> cancel(Timer &timer);
  Actions cancelTarget(const void *target);
  Actions cancelAll();

 private:
  template <class Predicate>
  Actions cancelIf(Predicate predicate);

  std::map<std::pair<Time, uint64_t>, std::shared_ptr<Timer>> waiting_;
  std::vector<std::shared_ptr<Timer>> running_;
  uint64_t nextOrder_ = 0;
};

}  // namespace qelnk
