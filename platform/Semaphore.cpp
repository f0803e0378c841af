#include "platform/Semaphore.h"

#include <algorithm>

#include "platform/RunLoopThread.h"

namespace qelnk {

void Semaphore::signal() {
  std::vector<std::shared_ptr<RunLoop>> loops;
  {
    const Lock lock(mutex_);
    ++count_;
    for (const auto &waiter : waiters_)
      if (auto loop = waiter.lock()) loops.push_back(std::move(loop));
  }
  // From here on a waiter that has taken its one may destroy the semaphore.
  for (const auto &loop : loops) RunLoopThread::wake(*loop);
}

bool Semaphore::tryWait() {
  const Lock lock(mutex_);
  if (count_ <= 0) return false;
  --count_;
  return true;
}

void Semaphore::wait(std::chrono::nanoseconds step) {
  if (tryWait()) return;
  const auto loop = RunLoop::current();
  {
    const Lock lock(mutex_);
    waiters_.push_back(loop);
  }
  while (!tryWait()) loop->runOnce(step);
  const Lock lock(mutex_);
  waiters_.erase(
      std::find_if(waiters_.begin(), waiters_.end(), [&](const auto &waiter) { return waiter.lock() == loop; }));
}

}  // namespace qelnk
