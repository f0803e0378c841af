#include <QELNetworkKit/Clock.h>
#include <QELNetworkKit/RunLoop.h>

#include "platform/RunLoopThread.h"

namespace qelnk {

namespace {

class SystemClock final : public Clock {
 public:
  std::chrono::nanoseconds now() const override { return std::chrono::steady_clock::now().time_since_epoch(); }
  double wallTime() const override {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  }
};

bool sameLoop(const std::weak_ptr<RunLoop> &a, const std::weak_ptr<RunLoop> &b) {
  return !a.owner_before(b) && !b.owner_before(a);
}

}  // namespace

void Clock::attach(const std::weak_ptr<RunLoop> &) {}

const std::shared_ptr<Clock> &Clock::system() {
  static const auto &immortal = *new std::shared_ptr<Clock>(std::make_shared<SystemClock>());
  return immortal;
}

ManualClock::ManualClock(std::chrono::nanoseconds start, double wallTime) : now_(start), wallTime_(wallTime) {}

std::chrono::nanoseconds ManualClock::now() const {
  const Lock lock(mutex_);
  return now_;
}

double ManualClock::wallTime() const {
  const Lock lock(mutex_);
  return wallTime_;
}

void ManualClock::attach(const std::weak_ptr<RunLoop> &loop) {
  const Lock lock(mutex_);
  std::erase_if(loops_, [&](const auto &known) { return known.expired() || sameLoop(known, loop); });
  loops_.push_back(loop);
}

void ManualClock::advance(std::chrono::nanoseconds by) {
  std::vector<std::weak_ptr<RunLoop>> loops;
  {
    const Lock lock(mutex_);
    now_ += by;
    wallTime_ += std::chrono::duration<double>(by).count();
    loops = loops_;
  }
  for (const auto &known : loops)  // with the lock given back: a loop asks the time under its own
    if (const auto loop = known.lock()) RunLoopThread::wake(*loop);
}

void ManualClock::setWallTime(double seconds) {
  const Lock lock(mutex_);
  wallTime_ = seconds;
}

}  // namespace qelnk
