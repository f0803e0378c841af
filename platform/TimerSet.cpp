#include "platform/TimerSet.h"

namespace qelnk {

void TimerSet::add(const std::shared_ptr<Timer> &timer) {
  timer->order = nextOrder_++;
  waiting_.emplace(std::pair(timer->deadline, timer->order), timer);
}

std::optional<TimerSet::Time> TimerSet::earliest() const {
  return waiting_.empty() ? std::nullopt : std::optional(waiting_.begin()->first.first);
}

std::shared_ptr<TimerSet::Timer> TimerSet::takeDue(Time now, uint64_t order) {
  if (waiting_.empty() || waiting_.begin()->first.first > now || waiting_.begin()->first.second >= order)
    return nullptr;
  auto timer = waiting_.extract(waiting_.begin()).mapped();
  return running_.emplace_back(std::move(timer));
}

void TimerSet::giveBack(const std::shared_ptr<Timer> &timer, Time now) {
  std::erase(running_, timer);
  if (timer->interval <= Time::zero()) timer->action = nullptr;
  if (!timer->action) return;
  timer->deadline += timer->interval;
  if (timer->deadline <= now) timer->deadline += ((now - timer->deadline) / timer->interval + 1) * timer->interval;
  add(timer);
}

std::shared_ptr<const Task> TimerSet::cancel(Timer &timer) {
  waiting_.erase({timer.deadline, timer.order});
  return std::exchange(timer.action, nullptr);
}

template <class Predicate>
TimerSet::Actions TimerSet::cancelIf(Predicate predicate) {
  Actions actions;
  for (const auto &timer : running_)
    if (predicate(*timer)) actions.push_back(std::exchange(timer->action, nullptr));
  for (auto at = waiting_.begin(); at != waiting_.end();) {
    if (!predicate(*at->second)) {
      ++at;
      continue;
    }
    actions.push_back(std::exchange(at->second->action, nullptr));
    at = waiting_.erase(at);
  }
  return actions;
}

TimerSet::Actions TimerSet::cancelTarget(const void *target) {
  return cancelIf([=](const Timer &timer) { return timer.target == target; });
}

TimerSet::Actions TimerSet::cancelAll() {
  return cancelIf([](const Timer &) { return true; });
}

}  // namespace qelnk
