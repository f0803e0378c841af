#include "messaging/IOThread.h"

#include <QELNetworkKit/Mutex.h>

#include "platform/Guard.h"

#include <chrono>

struct QELNKSocket::IOThread::Shared {
  qelnk::Mutex mutex;
  bool ended QELNK_GUARDED_BY(mutex) = false;  // the thread does not use the endpoint any longer
  // What the thread is to destroy at its end, with its own handle, which would wait for it on any other thread.
  QELNKSocket *abandoned QELNK_GUARDED_BY(mutex) = nullptr;
  std::shared_ptr<IOThread> self QELNK_GUARDED_BY(mutex);
};

namespace {

struct Current {
  bool isIOThread = false;
  const QELNKSocket *endpoint = nullptr;
  std::stop_token stop;
};
thread_local Current current;

}  // namespace

QELNKSocket::IOThread::IOThread(const std::string &name, QELNKSocket *endpoint)
    : shared_(std::make_shared<Shared>()), thread_(name, [shared = shared_, endpoint](std::stop_token stop) {
        current = {true, endpoint, std::move(stop)};
        run(*shared, endpoint);
      }) {}

void QELNKSocket::IOThread::run(Shared &shared, QELNKSocket *endpoint) {
  qelnk::runGuarded("QELNKSocket io thread", [&] { endpoint->ioThread(); });
  endpoint->closeSocket();
  current.endpoint = nullptr;
  qelnk::Lock lock(shared.mutex);
  shared.ended = true;
  const auto self = std::move(shared.self);
  const QELNKSocket *const abandoned = shared.abandoned;
  lock.unlock();
  delete abandoned;
}

bool QELNKSocket::IOThread::join(bool waitsForNobody) {
  if (current.isIOThread && !waitsForNobody) return false;
  // What the thread waits for may wait for the calling one: its appointments are kept meanwhile.
  while (!thread_.isCurrent() && !thread_.endsWithin(std::chrono::seconds(1))) {
  }
  thread_.join();
  return true;
}

bool QELNKSocket::IOThread::end(std::shared_ptr<IOThread> thread, QELNKSocket *endpoint) {
  thread->cancel();
  if (current.isIOThread) {
    const auto shared = thread->shared_;
    const qelnk::Lock lock(shared->mutex);
    if (!shared->ended) {
      shared->abandoned = endpoint;
      shared->self = std::move(thread);
      return false;
    }
  }
  thread->thread_.join();
  return true;
}

const QELNKSocket *QELNKSocket::IOThread::currentEndpoint() { return current.endpoint; }
bool QELNKSocket::IOThread::isCurrentCancelled() { return current.stop.stop_requested(); }
