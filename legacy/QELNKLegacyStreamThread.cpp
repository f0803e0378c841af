#include <QELNetworkKit/QELNKLegacyStreamThread.h>

#include <chrono>

#include "platform/LogFormat.h"
#include "platform/Thread.h"

using qelnk::ByteStream;
using qelnk::RunLoop;

namespace {

constexpr std::chrono::milliseconds shutdownReport{100};

}  // namespace

struct QELNK_HIDDEN QELNKLegacyStreamThread::State {
  qelnk::Thread thread{"qelnk-stream", QELNKLegacyStreamThread::thread};
};

QELNKLegacyStreamThread::QELNKLegacyStreamThread(bool cancellable)
    : cancellable_(cancellable), state_(std::make_unique<State>()) {}

QELNKLegacyStreamThread::~QELNKLegacyStreamThread() { cancel(); }

const std::shared_ptr<QELNKLegacyStreamThread> &QELNKLegacyStreamThread::singleThreaded() {
  // Never destroyed: connections may outlive every other static object.
  static const auto &shared = *new auto(std::make_shared<QELNKLegacyStreamThread>(false));
  return shared;
}

std::shared_ptr<QELNKLegacyStreamThread> QELNKLegacyStreamThread::multiThreaded() {
  return std::make_shared<QELNKLegacyStreamThread>(true);
}

void QELNKLegacyStreamThread::thread(const std::stop_token &token) {
  const auto loop = RunLoop::current();
  // Not run(): what stops that may be meant for one of a delegate's, inside a task.
  while (!token.stop_requested()) loop->runOnce(std::chrono::nanoseconds::max());
}

void QELNKLegacyStreamThread::scheduleStream(const std::shared_ptr<ByteStream> &stream) {
  if (!stream) return;
  // Without holding the stream: one that its owner has let go meanwhile is not opened.
  runLoop()->perform([weak = std::weak_ptr(stream)] {
    if (const auto scheduled = weak.lock()) _scheduleStream(*scheduled);
  });
}

void QELNKLegacyStreamThread::_scheduleStream(ByteStream &stream) {
  stream.schedule(RunLoop::current());
  stream.open();
}

void QELNKLegacyStreamThread::closeStream(const std::shared_ptr<ByteStream> &stream) {
  if (!stream) return;
  const auto close = [&] { _closeStream(*stream); };
  if (!runLoop()->performAndWait(close)) close();  // the thread has ended, so nobody else uses it
}

void QELNKLegacyStreamThread::_closeStream(ByteStream &stream) {
  stream.unschedule();
  stream.setEventTarget(nullptr);
  stream.close();
}

bool QELNKLegacyStreamThread::performSelectorOnTarget(qelnk::Task task, bool waitUntilDone) {
  return waitUntilDone ? runLoop()->performAndWait(std::move(task)) : runLoop()->perform(std::move(task));
}

void QELNKLegacyStreamThread::cancel() {
  if (!cancellable_) return;
  if (isCurrent()) return _cancel();
  runLoop()->perform([this] { _cancel(); });  // behind what was asked for before
  while (!state_->thread.endsWithin(shutdownReport)) qelnk::logDefault("Shutdown communication");
}

void QELNKLegacyStreamThread::_cancel() { state_->thread.cancel(); }

const std::shared_ptr<RunLoop> &QELNKLegacyStreamThread::runLoop() const { return state_->thread.runLoop(); }

bool QELNKLegacyStreamThread::isCurrent() const { return state_->thread.isCurrent(); }
