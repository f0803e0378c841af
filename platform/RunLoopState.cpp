#include "platform/RunLoopState.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include "platform/Appointment.h"
#include "platform/Guard.h"
#include "platform/LogFormat.h"

namespace qelnk {

using Time = std::chrono::nanoseconds;

namespace {

constexpr size_t keptCapacity = 4096;
constexpr Time longestInterval = Time::max() / 4;  // so that the next beat can be reckoned

void runTask(const Task &task) {
  runGuarded("RunLoop task", [&] { task(); });
}

/// `time + delay`, or the end of time.
Time later(Time time, Time delay) {
  if (delay <= Time::zero()) return time;
  return time > Time::max() - delay ? Time::max() : time + delay;
}

Time steadyNow() { return std::chrono::steady_clock::now().time_since_epoch(); }

/// A timer or a watch, as its owner holds it.
template <class Entry, class State>
class Source final : public LoopSource {
 public:
  Source(std::weak_ptr<State> state, std::shared_ptr<Entry> entry)
      : state_(std::move(state)), entry_(std::move(entry)) {}
  void cancel() override {
    if (const auto state = state_.lock()) state->cancel(*entry_);
  }

 private:
  const std::weak_ptr<State> state_;
  const std::shared_ptr<Entry> entry_;
};

}  // namespace

RunLoop::State::~State() {
  if (wakeDescriptor_ >= 0) close(wakeDescriptor_);
}

// --- Waking ---

RunLoop::State::News RunLoop::State::newsLocked() {
  News news;
  news.notify = sleeping_ && !watches_.isOpen();
  if ((exposed_ || (sleeping_ && watches_.isOpen())) && !signalled_) {
    signalled_ = true;
    news.descriptor = wakeDescriptor_;
  }
  sleeping_ = false;
  if (executor_ && !hostAsked_) {
    hostAsked_ = true;
    ++executorCalls_;
    news.executor = executor_;
  }
  return news;
}

void RunLoop::State::bring(const News &news) {
  if (news.notify) wakeUp_.notifyOne();
  if (news.descriptor >= 0) eventfd_write(news.descriptor, 1);
  if (news.executor) askHost(*news.executor);
}

void RunLoop::State::wake() {
  News news;
  {
    const Lock lock(mutex_);
    woken_ = true;
    news = newsLocked();
  }
  bring(news);
}

void RunLoop::State::stop() {
  stopping_ = true;
  wake();
}

void RunLoop::State::openWakeDescriptor() {
  if (wakeDescriptor_ >= 0) return;
  wakeDescriptor_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wakeDescriptor_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

/// Whoever set `signalled_` writes after giving the mutex back. While his write is still to come the flag stays, so
/// that it is taken out in a later turn.
void RunLoop::State::drainWakeDescriptor() {
  eventfd_t count;
  if (signalled_ && eventfd_read(wakeDescriptor_, &count) == 0) signalled_ = false;
}

int RunLoop::State::exposeWakeDescriptor() {
  const Lock lock(mutex_);
  openWakeDescriptor();
  if (!exposed_ && !signalled_ && (woken_ || waitingTasks() != 0)) {
    signalled_ = true;
    eventfd_write(wakeDescriptor_, 1);
  }
  exposed_ = true;
  return wakeDescriptor_;
}

// --- Requests ---

bool RunLoop::State::perform(Task task) {
  News news;
  {
    const Lock lock(mutex_);
    if (ended_) return false;
    incoming_.push_back(std::move(task));
    news = newsLocked();
  }
  bring(news);
  return true;
}

bool RunLoop::State::performAndWait(Task task) {
  if (belongsHere()) {
    runTask(task);
    return true;
  }
  const auto outcome = std::make_shared<Appointment::Outcome>();
  auto appointment = std::make_shared<Appointment>(std::move(task), outcome);
  meetings->announce(appointment);
  const bool queued = perform([appointment, meetings = meetings] {
    meetings->strike(appointment.get());
    appointment->keep();
  });
  if (!queued) meetings->strike(appointment.get());  // announced after the loop gave up what was
  appointment = nullptr;
  return outcome->wait();
}

void RunLoop::State::end() {
  std::vector<Task> incoming;
  TimerSet::Actions actions;
  std::vector<std::shared_ptr<const WatchSet::Handler>> handlers;
  const std::vector<Task> ready = std::exchange(ready_, {});
  nextReady_ = 0;
  {
    const Lock lock(mutex_);
    ended_ = true;
    incoming.swap(incoming_);
    actions = timers_.cancelAll();
    handlers = watches_.removeAll();
  }
  meetings->close();
}

bool RunLoop::State::refill() {
  ready_.clear();
  nextReady_ = 0;
  const Lock lock(mutex_);
  if (ready_.capacity() > keptCapacity && incoming_.size() < keptCapacity) ready_ = {};  // a burst is over
  ready_.swap(incoming_);
  return !ready_.empty();
}

bool RunLoop::State::serveTasks(uint64_t limit, bool stoppable) {
  bool ran = false;
  while (taken_ < limit && !mustStop(stoppable)) {
    if (nextReady_ == ready_.size() && !refill()) break;
    const Task task = std::move(ready_[nextReady_++]);
    ++taken_;
    runTask(task);
    ran = true;
  }
  return ran;
}

// --- Timers ---

std::shared_ptr<LoopSource> RunLoop::State::performAfter(Time delay, Task task, Time interval, const void *target) {
  const auto timer = std::make_shared<TimerSet::Timer>();
  timer->interval = std::min(interval, longestInterval);
  timer->target = target;
  auto action = std::make_shared<const Task>(std::move(task));
  std::shared_ptr<Clock> toAttach;
  News news;
  {
    const Lock lock(mutex_);
    if (!ended_) {
      const auto before = timers_.earliest();
      timer->action = std::move(action);
      timer->deadline = later(clock->now(), delay);
      timers_.add(timer);
      if (!std::exchange(attached_, true)) toAttach = clock;
      // A thread that waits, here or in a poll of its own, has to reckon anew.
      if ((!before || timer->deadline < *before) && !belongsHere()) {
        woken_ = true;
        news = newsLocked();
      }
    }
  }
  if (toAttach) toAttach->attach(self);
  bring(news);
  keepForHost();
  return std::make_shared<Source<TimerSet::Timer, State>>(weak_from_this(), timer);
}

void RunLoop::State::cancel(TimerSet::Timer &timer) {
  std::shared_ptr<const Task> action;
  const Lock lock(mutex_);
  action = timers_.cancel(timer);
}

void RunLoop::State::cancelPerforms(const void *target) {
  if (!target) return;  // nobody's
  TimerSet::Actions actions;
  const Lock lock(mutex_);
  actions = timers_.cancelTarget(target);
}

bool RunLoop::State::isDue() const {
  const auto earliest = timers_.earliest();
  return earliest && *earliest <= clock->now();
}

/// Real time until the first timer is due, if that is to be known.
std::optional<Time> RunLoop::State::untilDue() const {
  const auto earliest = timers_.earliest();
  if (!earliest) return std::nullopt;
  const Time now = clock->now();
  if (*earliest <= now) return Time::zero();
  return movedByHand_ ? std::nullopt : std::optional(*earliest - now);
}

Time RunLoop::State::untilNextTimer(Time limit) const {
  const Lock lock(mutex_);
  return std::min(limit, untilDue().value_or(limit));
}

void RunLoop::State::setClock(std::shared_ptr<Clock> next) {
  const Lock lock(mutex_);
  clock.swap(next);
  movedByHand_ = clock->isMovedByHand();
  attached_ = false;
}

bool RunLoop::State::serveTimers(Time now, uint64_t order, bool stoppable) {
  bool ran = false;
  while (!mustStop(stoppable)) {
    std::shared_ptr<TimerSet::Timer> timer;
    std::shared_ptr<const Task> action;
    {
      const Lock lock(mutex_);
      if (!(timer = timers_.takeDue(now, order))) break;
      action = timer->action;
    }
    runTask(*action);
    ran = true;
    const Lock lock(mutex_);
    timers_.giveBack(timer, now);
  }
  return ran;
}

// --- Descriptors ---

std::shared_ptr<LoopSource> RunLoop::State::watch(int fd, Readiness events, WatchSet::Handler handler) {
  auto watch = std::make_shared<WatchSet::Watch>();
  watch->fd = fd;
  watch->events = events;
  watch->handler = std::make_shared<const WatchSet::Handler>(std::move(handler));
  News news;
  std::exception_ptr failure;
  {
    const Lock lock(mutex_);
    try {
      openWakeDescriptor();
      if (!watches_.isOpen()) {
        if (sleeping_) {  // another thread's call: the loop has to leave its wait for the condition
          woken_ = true;
          news = newsLocked();
        }
        watches_.open(wakeDescriptor_);
      }
      watches_.add(watch);
    } catch (...) {
      failure = std::current_exception();
    }
  }
  bring(news);
  if (failure) std::rethrow_exception(failure);
  keepForHost();
  return std::make_shared<Source<WatchSet::Watch, State>>(weak_from_this(), std::move(watch));
}

void RunLoop::State::cancel(WatchSet::Watch &watch) {
  std::shared_ptr<const WatchSet::Handler> handler;
  const Lock lock(mutex_);
  handler = watches_.remove(watch);
}

bool RunLoop::State::callWatch(const WatchSet::Call &call) {
  std::shared_ptr<const WatchSet::Handler> handler;
  {
    const Lock lock(mutex_);
    handler = call.watch->handler;
  }
  if (handler) runGuarded("RunLoop descriptor handler", [&] { (*handler)(call.ready); });
  return handler != nullptr;
}

bool RunLoop::State::serveWatches(std::span<epoll_event> events, uint64_t turn, bool stoppable) {
  bool ran = false;
  for (const epoll_event &event : events) {
    std::vector<WatchSet::Call> calls;
    {
      const Lock lock(mutex_);
      calls = watches_.callsFor(event);
    }
    for (const WatchSet::Call &call : calls) {
      // After a nested turn the events are old; those that still hold are told again.
      if (turns_ != turn || mustStop(stoppable)) return ran;
      ran |= callWatch(call);
    }
  }
  return ran;
}

// --- Turning ---

std::span<epoll_event> RunLoop::State::sleep(Lock<> &lock, std::optional<Time> limit, std::span<epoll_event> room) {
  sleeping_ = limit != Time::zero();
  std::span<epoll_event> events;
  if (watches_.isOpen()) {
    const int descriptor = watches_.descriptor();
    mutex_.unlock();  // not through `lock`, which the analysis does not follow into here
    events = WatchSet::wait(descriptor, room, limit);
    mutex_.lock();
  } else if (limit) {
    wakeUp_.waitUntil(lock, std::chrono::steady_clock::time_point(later(steadyNow(), *limit)));
  } else {
    wakeUp_.wait(lock);
  }
  sleeping_ = false;
  drainWakeDescriptor();
  return events;
}

/// Waits, at most `limit`, until there is something to serve; what is watched is looked at in any case.
std::span<epoll_event> RunLoop::State::waitForWork(Lock<> &lock, Time limit, std::span<epoll_event> room) {
  drainWakeDescriptor();
  const Time end = limit > Time::zero() ? later(steadyNow(), limit) : Time::zero();
  for (;;) {
    std::optional<Time> wait = Time::zero();
    if (!woken_ && !hasWork() && limit > Time::zero()) {
      wait = untilDue();
      if (end != Time::max()) wait = std::min(wait.value_or(Time::max()), end - steadyNow());
    }
    const bool last = wait && *wait <= Time::zero();
    if (last && !watches_.isOpen()) return {};
    if (last) wait = Time::zero();
    const auto events = sleep(lock, wait, room);
    const bool onlyWoken = events.size() == 1 && events.front().data.u64 == 0;
    if (last || (!events.empty() && !onlyWoken) || woken_ || hasWork()) return events;
  }
}

/// Turning somebody else's loop is the host's mistake, and nothing comes of it. A loop whose thread is going down is
/// bound to no thread.
bool RunLoop::State::mayTurn() const {
  if (belongsHere()) return true;
  Lock lock(mutex_);
  const bool ended = ended_;
  lock.unlock();
  if (!ended) logError("RunLoop was turned on another thread than its own");
  return ended;
}

bool RunLoop::State::turn(Time limit, bool stoppable) {
  if (!mayTurn()) return false;
  std::array<epoll_event, 64> room;
  Lock lock(mutex_);
  const uint64_t turn = ++turns_;
  const auto events = waitForWork(lock, limit, room);
  woken_ = false;
  const uint64_t taskLimit = taken_ + waitingTasks();
  const uint64_t timerLimit = timers_.nextOrder();
  const std::optional<Time> now = timers_.earliest() ? std::optional(clock->now()) : std::nullopt;
  lock.unlock();
  bool ran = serveTasks(taskLimit, stoppable);
  if (now) ran |= serveTimers(*now, timerLimit, stoppable);
  return serveWatches(events, turn, stoppable) || ran;
}

void RunLoop::State::run() {
  if (!mayTurn()) return;
  while (!stopping_.exchange(false)) turn(Time::max(), true);
  News news;  // of the tasks left over
  {
    const Lock lock(mutex_);
    if (waitingTasks() != 0) news = newsLocked();
  }
  bring(news);
}

}  // namespace qelnk
