#include "platform/Appointment.h"

#include <algorithm>

namespace qelnk {

void MeetingPoint::announce(std::shared_ptr<Appointment> appointment) {
  const Lock lock(mutex_);
  announced_.push_back(std::move(appointment));
  news_.notifyAll();
}

void MeetingPoint::strike(const Appointment *appointment) {
  std::shared_ptr<Appointment> struck;  // goes after the lock
  const Lock lock(mutex_);
  const auto at = std::find_if(announced_.begin(), announced_.end(), [&](auto &a) { return a.get() == appointment; });
  if (at == announced_.end()) return;
  struck = std::move(*at);
  announced_.erase(at);
}

void MeetingPoint::close() {
  std::deque<std::shared_ptr<Appointment>> givenUp;
  const Lock lock(mutex_);
  givenUp.swap(announced_);
}

bool MeetingPoint::wait(std::optional<Time> limit, const std::function<bool()> &over) {
  const auto end = std::chrono::steady_clock::now() + limit.value_or(Time::zero());
  Lock lock(mutex_);
  while (!over()) {
    if (announced_.empty()) {
      if (!limit)
        news_.wait(lock);
      else if (!news_.waitUntil(lock, end) && announced_.empty())
        return over();
      continue;
    }
    const auto appointment = std::move(announced_.front());
    announced_.pop_front();
    lock.unlock();
    appointment->keep();
    lock.lock();
  }
  return true;
}

void MeetingPoint::tell(const std::function<void()> &change) {
  const Lock lock(mutex_);
  change();
  news_.notifyAll();
}

}  // namespace qelnk
