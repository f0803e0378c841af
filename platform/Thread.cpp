#include "platform/Thread.h"

#include <QELNetworkKit/Mutex.h>

#include <pthread.h>
#include <signal.h>

#include <initializer_list>
#include <vector>

#include "platform/Appointment.h"
#include "platform/Guard.h"
#include "platform/RunLoopThread.h"

namespace qelnk {

namespace {

/// Blocks, in the calling thread, what a new thread is to have blocked. A fault's own signals stay open, so that the
/// host's crash reporter sees them.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t blocked;
    sigfillset(&blocked);
    for (int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) sigdelset(&blocked, fault);
    pthread_sigmask(SIG_SETMASK, &blocked, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked &) = delete;
  SignalsBlocked &operator=(const SignalsBlocked &) = delete;

 private:
  sigset_t before_;
};

/// The Thread::Shared of the calling thread. Has no destructor, so it can be asked to the thread's very end.
thread_local const void *runningThread = nullptr;

}  // namespace

std::thread startThread(const std::string &name, std::function<void()> body) {
  const SignalsBlocked blocked;
  return std::thread([name = name.substr(0, 15), body = std::move(body)] {
    pthread_setname_np(pthread_self(), name.c_str());
    body();
  });
}

struct Thread::Shared {
  std::atomic<bool> finished = false;
  Mutex joining;
  Mutex waiting;
  std::vector<std::shared_ptr<MeetingPoint>> waiters QELNK_GUARDED_BY(waiting);

  void finish() {
    Lock lock(waiting);
    finished = true;
    const auto told = std::move(waiters);
    lock.unlock();
    for (const auto &waiter : told) waiter->tell([] {});
  }
};

Thread::Thread(const std::string &name, Body body)
    : shared_(std::make_shared<Shared>()), runLoop_(RunLoopThread::make()) {
  thread_ = startThread(
      name, [name, body = std::move(body), shared = shared_, loop = runLoop_, token = stop_.get_token()]() mutable {
        runningThread = shared.get();
        RunLoopThread::adopt(loop);
        runGuarded(name, [&] { body(token); });
        body = nullptr;
        RunLoopThread::end();
        shared->finish();
      });
}

Thread::~Thread() {
  cancel();
  if (isCurrent())
    thread_.detach();
  else
    join();
}

void Thread::cancel() {
  stop_.request_stop();
  runLoop_->stop();
}

bool Thread::isCurrent() const { return runningThread == shared_.get(); }

bool Thread::isFinished() const { return shared_->finished; }

bool Thread::endsWithin(std::chrono::nanoseconds limit) {
  if (isCurrent()) return false;
  const auto here = MeetingPoint::here();
  {
    const Lock lock(shared_->waiting);
    if (shared_->finished) return true;
    shared_->waiters.push_back(here);
  }
  return here->wait(limit, [this] { return shared_->finished.load(); });
}

void Thread::join() {
  if (isCurrent()) return;
  const Lock lock(shared_->joining);
  if (thread_.joinable()) thread_.join();
}

}  // namespace qelnk
