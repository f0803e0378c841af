#pragma once

#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/RunLoop.h>

#include <atomic>
#include <optional>
#include <span>
#include <vector>

#include "platform/Appointment.h"
#include "platform/TimerSet.h"
#include "platform/WatchSet.h"

namespace qelnk {

using Executor = std::function<void(Task)>;

/// What a run loop is made of, shared by its handles, its sources and whoever is about to wake it.
///
/// The loop's own thread waits on a condition variable, until something is watched: from then on it waits in the watch
/// set. A second descriptor, the wake descriptor, is made for whichever needs it first: the watch set, or a thread that
/// waits in a poll of its own. Nothing but the clock is called, and nothing of the host's destroyed, under the mutex.
struct QELNK_HIDDEN RunLoop::State : std::enable_shared_from_this<RunLoop::State> {
  using Time = std::chrono::nanoseconds;

  ~State();

  // Any thread.
  bool perform(Task task);
  bool performAndWait(Task task);
  std::shared_ptr<LoopSource> performAfter(Time delay, Task task, Time interval, const void *target);
  void cancel(TimerSet::Timer &timer);
  void cancelPerforms(const void *target);
  void cancel(WatchSet::Watch &watch);
  void stop();
  void wake();
  void end();
  std::shared_ptr<LoopSource> watch(int fd, Readiness events, WatchSet::Handler handler);
  void setExecutor(Executor next);
  bool belongsHere() const;

  // The loop's own thread.
  bool turn(Time limit, bool stoppable);
  void run();
  int exposeWakeDescriptor();
  Time untilNextTimer(Time limit) const;
  void setClock(std::shared_ptr<Clock> next);

  std::weak_ptr<RunLoop> self;
  std::shared_ptr<Clock> clock = Clock::system();
  const std::shared_ptr<MeetingPoint> meetings = std::make_shared<MeetingPoint>();

 private:
  /// What brings news to the loop's thread or to the host, to be done with the mutex given back, and in any case.
  struct News {
    bool notify = false;
    int descriptor = -1;
    std::shared_ptr<const Executor> executor;
  };
  News newsLocked() QELNK_REQUIRES(mutex_);
  void bring(const News &news) QELNK_EXCLUDES(mutex_);
  bool isDue() const QELNK_REQUIRES(mutex_);
  std::optional<Time> untilDue() const QELNK_REQUIRES(mutex_);

  // The loop's own thread, under the mutex.
  size_t waitingTasks() const QELNK_REQUIRES(mutex_) { return incoming_.size() + (ready_.size() - nextReady_); }
  bool hasWork() const QELNK_REQUIRES(mutex_) { return waitingTasks() != 0 || isDue(); }
  std::span<epoll_event> waitForWork(Lock<> &lock, Time limit, std::span<epoll_event> room) QELNK_REQUIRES(mutex_);
  std::span<epoll_event> sleep(Lock<> &lock, std::optional<Time> limit, std::span<epoll_event> room)
      QELNK_REQUIRES(mutex_);
  void openWakeDescriptor() QELNK_REQUIRES(mutex_);
  void drainWakeDescriptor() QELNK_REQUIRES(mutex_);

  bool mayTurn() const;
  bool serveTasks(uint64_t limit, bool stoppable);
  bool refill();
  bool serveTimers(Time now, uint64_t order, bool stoppable);
  bool serveWatches(std::span<epoll_event> events, uint64_t turn, bool stoppable);
  bool callWatch(const WatchSet::Call &call);
  bool mustStop(bool stoppable) const { return stoppable && stopping_.load(std::memory_order_relaxed); }

  struct HostTurn;
  void askHost(const Executor &executor) QELNK_EXCLUDES(mutex_);
  void serveForHost() QELNK_EXCLUDES(mutex_);
  bool hostWatchIsStale() const QELNK_REQUIRES(mutex_);
  void keepForHost() QELNK_EXCLUDES(mutex_);
  void watchForHost() QELNK_EXCLUDES(mutex_);
  void wakeHost() QELNK_EXCLUDES(mutex_);

  mutable Mutex mutex_;
  Condition wakeUp_;
  std::vector<Task> incoming_ QELNK_GUARDED_BY(mutex_);
  TimerSet timers_ QELNK_GUARDED_BY(mutex_);
  WatchSet watches_ QELNK_GUARDED_BY(mutex_);
  int wakeDescriptor_ QELNK_GUARDED_BY(mutex_) = -1;
  bool exposed_ QELNK_GUARDED_BY(mutex_) = false;    // somebody else polls the wake descriptor
  bool signalled_ QELNK_GUARDED_BY(mutex_) = false;  // it has been written, or is about to be
  bool sleeping_ QELNK_GUARDED_BY(mutex_) = false;
  bool woken_ QELNK_GUARDED_BY(mutex_) = false;  // no wait until the next turn
  bool ended_ QELNK_GUARDED_BY(mutex_) = false;
  bool attached_ QELNK_GUARDED_BY(mutex_) = false;  // the clock knows this loop
  bool movedByHand_ QELNK_GUARDED_BY(mutex_) = false;
  std::atomic<bool> stopping_ = false;

  // The loop's own thread: tasks taken out of `incoming_`, which a nested turn goes on with.
  std::vector<Task> ready_;
  size_t nextReady_ = 0;
  uint64_t taken_ = 0;
  uint64_t turns_ = 0;

  // The main loop in a host with a loop of its own.
  std::shared_ptr<const Executor> executor_ QELNK_GUARDED_BY(mutex_);
  int executorCalls_ QELNK_GUARDED_BY(mutex_) = 0;      // under way, or about to be
  Condition executorLeft_;                              // there are none any more
  bool hostAsked_ QELNK_GUARDED_BY(mutex_) = false;     // it has a closure that it has not run yet
  std::vector<std::shared_ptr<LoopSource>> hostWatch_;  // the service thread's, which asks the host at the next event
  std::optional<Time> hostWatchDeadline_ QELNK_GUARDED_BY(mutex_);  // what it waits for
  bool hostWatchesDescriptors_ QELNK_GUARDED_BY(mutex_) = false;
};

}  // namespace qelnk
