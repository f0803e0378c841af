#include <QELNetworkKit/RunLoop.h>
#include <unistd.h>

#include "platform/LogFormat.h"
#include "platform/RunLoopState.h"
#include "platform/RunLoopThread.h"

namespace qelnk {

namespace {

// Without destructors, so that they can be asked to the thread's very end.
thread_local const void *boundState = nullptr;
thread_local bool threadIsOver = false;

bool onMainThread() { return gettid() == getpid(); }

/// The calling thread's hold on its loop.
struct Binding {
  std::shared_ptr<RunLoop> loop;
  ~Binding() {
    threadIsOver = true;
    RunLoopThread::end();
  }
};
thread_local Binding binding;

}  // namespace

RunLoop::RunLoop() : state_(std::make_shared<State>()) {}

RunLoop::~RunLoop() { state_->end(); }

std::shared_ptr<RunLoop> RunLoopThread::make() {
  std::shared_ptr<RunLoop> loop(new RunLoop);
  loop->state_->self = loop;
  return loop;
}

void RunLoopThread::adopt(const std::shared_ptr<RunLoop> &loop) {
  binding.loop = loop;
  boundState = loop->state_.get();
}

void RunLoopThread::end() {
  const auto loop = std::move(binding.loop);
  binding.loop = nullptr;
  if (loop) loop->state_->end();
  boundState = nullptr;
}

std::shared_ptr<MeetingPoint> RunLoopThread::meetingPoint() {
  if (!threadIsOver && onMainThread()) RunLoop::current();
  return boundState && binding.loop ? binding.loop->state_->meetings : std::make_shared<MeetingPoint>();
}

std::shared_ptr<MeetingPoint> MeetingPoint::here() { return RunLoopThread::meetingPoint(); }

void RunLoopThread::wake(const RunLoop &loop) { loop.state_->wake(); }

std::shared_ptr<RunLoop> RunLoop::main() {
  static const auto &immortal = *new std::shared_ptr<RunLoop>(RunLoopThread::make());
  return immortal;
}

std::shared_ptr<RunLoop> RunLoop::current() {
  if (threadIsOver) {  // a loop that only waits: nobody would serve what it is given
    auto loop = onMainThread() ? main() : RunLoopThread::make();
    loop->state_->end();
    return loop;
  }
  if (!binding.loop) RunLoopThread::adopt(onMainThread() ? main() : RunLoopThread::make());
  return binding.loop;
}

bool RunLoop::State::belongsHere() const {
  if (!boundState && !threadIsOver && onMainThread()) current();
  return boundState == this;
}

bool RunLoop::perform(Task task) { return state_->perform(std::move(task)); }
bool RunLoop::performAndWait(Task task) { return state_->performAndWait(std::move(task)); }
std::shared_ptr<LoopSource> RunLoop::performAfter(std::chrono::nanoseconds delay, Task task,
                                                  std::chrono::nanoseconds interval, const void *target) {
  return state_->performAfter(delay, std::move(task), interval, target);
}
void RunLoop::cancelPerforms(const void *target) { state_->cancelPerforms(target); }
std::shared_ptr<LoopSource> RunLoop::watch(int fd, Readiness events, std::function<void(Readiness)> handler) {
  return state_->watch(fd, events, std::move(handler));
}
bool RunLoop::runOnce(std::chrono::nanoseconds limit) { return state_->turn(limit, false); }
void RunLoop::run() { state_->run(); }
void RunLoop::stop() { state_->stop(); }
bool RunLoop::isCurrent() const { return state_->belongsHere(); }
int RunLoop::wakeDescriptor() { return state_->exposeWakeDescriptor(); }
std::chrono::nanoseconds RunLoop::untilNextTimer(std::chrono::nanoseconds limit) const {
  return state_->untilNextTimer(limit);
}
const std::shared_ptr<Clock> &RunLoop::clock() const { return state_->clock; }
void RunLoop::setClock(std::shared_ptr<Clock> clock) { state_->setClock(std::move(clock)); }
void RunLoop::setMainExecutor(std::function<void(Task)> executor) { main()->state_->setExecutor(std::move(executor)); }

const std::shared_ptr<RunLoop> &serviceLoop() {
  static const auto &immortal = *new std::shared_ptr<RunLoop>([] {
    auto loop = RunLoopThread::make();
    startThread("qelnk-service", [loop] {
      RunLoopThread::adopt(loop);
      for (;;) loop->runOnce(std::chrono::nanoseconds::max());
    }).detach();
    return loop;
  }());
  return immortal;
}

}  // namespace qelnk
