#include "platform/Appointment.h"

#include <algorithm>

namespace qelnk {

void MeetingPoint::announce(std::shared_ptr<Appointment> appointment) {
  const std::lock_guard lock(mutex_);
  announced_.push_back(std::move(appointment));
  news_.notify_all();
}

void MeetingPoint::strike(const Appointment *appointment) {
  std::shared_ptr<Appointment> struck;  // goes after the lock
  const std::lock_guard lock(mutex_);
  const auto at = std::find_if(announced_.begin(), announced_.end(), [&](auto &a) { return a.get() == appointment; });
  if (at == announced_.end()) return;
  struck = std::move(*at);
  announced_.erase(at);
}

void MeetingPoint::close() {
  std::deque<std::shared_ptr<Appointment>> givenUp;
  const std::lock_guard lock(mutex_);
  givenUp.swap(announced_);
}

bool MeetingPoint::wait(std::optional<Time> limit, const std::function<bool()> &over) {
  const auto end = std::chrono::steady_clock::now() + limit.value_or(Time::zero());
  const auto hasNews = [&] { return over() || !announced_.empty(); };
  std::unique_lock lock(mutex_);
  while (!over()) {
    if (limit ? !news_.wait_until(lock, end, hasNews) : (news_.wait(lock, hasNews), false)) return false;
    if (over()) break;
    const auto appointment = std::move(announced_.front());
    announced_.pop_front();
    lock.unlock();
    appointment->keep();
    lock.lock();
  }
  return true;
}

void MeetingPoint::tell(const std::function<void()> &change) {
  const std::lock_guard lock(mutex_);
  change();
  news_.notify_all();
}

}  // namespace qelnk
