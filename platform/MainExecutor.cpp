// The main loop in a host that runs a loop of its own. Whoever brings work asks the host at once; timers and watched
// descriptors have nobody to do so, so the service thread waits for the first of them and asks then. It asks once: the
// host's closure, when it has run, has it wait again.

#include <system_error>

#include "platform/Guard.h"
#include "platform/LogFormat.h"
#include "platform/RunLoopState.h"
#include "platform/RunLoopThread.h"

namespace qelnk {

/// How many calls of executors the calling thread is inside of.
static thread_local int executorsEntered = 0;

void RunLoop::State::setExecutor(Executor next) {
  auto executor = next ? std::make_shared<const Executor>(std::move(next)) : nullptr;
  News news;
  {
    Lock lock(mutex_);
    executor_.swap(executor);  // the old one goes after the lock
    // Once this returns the host may take down what the old one uses.
    while (executorsEntered == 0 && executorCalls_ != 0) executorLeft_.wait(lock);
    hostAsked_ = false;
    news = newsLocked();  // whatever has been waiting
  }
  bring(news);
  keepForHost();
}

/// What the closure that the host is handed holds: if it is dropped unserved, the host is asked again with the next
/// work, or in a second.
struct RunLoop::State::HostTurn {
  const std::shared_ptr<State> state;
  bool served = false;

  ~HostTurn() {
    if (served) return;
    {
      const Lock lock(state->mutex_);
      state->hostAsked_ = false;
    }
    runGuarded("RunLoop main executor", [this] {
      serviceLoop()->performAfter(std::chrono::seconds(1), [state = state] { state->keepForHost(); });
    });
  }
};

void RunLoop::State::askHost(const Executor &executor) {
  ++executorsEntered;
  runGuarded("RunLoop main executor", [&] {
    executor([turn = std::shared_ptr<HostTurn>(new HostTurn{shared_from_this()})] {
      turn->served = true;
      turn->state->serveForHost();
    });
  });
  --executorsEntered;
  const Lock lock(mutex_);
  if (--executorCalls_ == 0) executorLeft_.notifyAll();
}

void RunLoop::State::serveForHost() {
  {
    const Lock lock(mutex_);
    hostAsked_ = false;
  }
  if (!belongsHere()) return logError("RunLoop: the main executor ran its closure on another thread than the main one");
  turn(Time::zero(), false);
  keepForHost();
}

bool RunLoop::State::hostWatchIsStale() const {
  const auto deadline = executor_ ? timers_.earliest() : std::nullopt;
  return deadline != hostWatchDeadline_ || (executor_ && watches_.isOpen()) != hostWatchesDescriptors_;
}

void RunLoop::State::keepForHost() {
  {
    const Lock lock(mutex_);
    if (!hostWatchIsStale()) return;
  }
  runGuarded("RunLoop main executor",
             [&] { serviceLoop()->perform([state = shared_from_this()] { state->watchForHost(); }); });
}

void RunLoop::State::watchForHost() {
  for (const auto &source : std::exchange(hostWatch_, {})) source->cancel();
  std::optional<Time> delay;
  int descriptor = -1;
  {
    const Lock lock(mutex_);
    hostWatchDeadline_ = executor_ ? timers_.earliest() : std::nullopt;
    hostWatchesDescriptors_ = executor_ && watches_.isOpen();
    if (executor_) delay = untilDue();
    if (hostWatchesDescriptors_) descriptor = watches_.descriptor();
  }
  const auto ask = [state = shared_from_this()] { state->wakeHost(); };
  if (delay) hostWatch_.push_back(serviceLoop()->performAfter(*delay, ask));
  if (descriptor < 0) return;
  try {
    hostWatch_.push_back(serviceLoop()->watch(descriptor, Readiness::readable, [ask](Readiness) { ask(); }));
  } catch (const std::system_error &error) {  // out of descriptors, most likely; that passes
    logError("RunLoop cannot watch for the host yet: {}", error.what());
    hostWatch_.push_back(
        serviceLoop()->performAfter(std::chrono::seconds(1), [state = shared_from_this()] { state->watchForHost(); }));
  }
}

void RunLoop::State::wakeHost() {
  for (const auto &source : std::exchange(hostWatch_, {})) source->cancel();
  News news;
  {
    const Lock lock(mutex_);
    hostWatchDeadline_ = std::nullopt;
    hostWatchesDescriptors_ = false;
    news = newsLocked();
  }
  bring(news);
}

}  // namespace qelnk
