#include <QELNetworkKit/ZMQContext.h>
#include <QELNetworkKit/ZMQException.h>
#include <QELNetworkKit/ZMQSocket.h>

#include "messaging/zmq/SocketRegistry.h"
#include "platform/LogFormat.h"
#include "platform/RunLoopThread.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <future>
#include <new>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

void ZMQContext::getZMQVersion(int &major, int &minor, int &patch) { zmq_version(&major, &minor, &patch); }

int ZMQContext::pollWithItems(zmq_pollitem_t *items, int count, long timeout) {
  return zmq_poll(items, count, timeout);
}

static void *makeContext(int ioThreads) {
  void *context = zmq_ctx_new();
  if (context && zmq_ctx_set(context, ZMQ_IO_THREADS, ioThreads) != 0) {
    const int error = zmq_errno();
    zmq_ctx_term(context);
    errno = error;
    return nullptr;
  }
  return context;
}

ZMQContext::ZMQContext(int ioThreads) : context_(makeContext(ioThreads)), registry_(std::make_shared<Registry>()) {
  if (context_) return;
  const int error = zmq_errno();
  qelnk::logError("{}: *** Error creating ZMQContext: zmq_init: {}", "-[ZMQContext initWithIOThreads:]",
                  zmq_strerror(error));
  throw ZMQException(zmq_strerror(error), error);
}

ZMQContext::~ZMQContext() {
  try {
    closeSockets();
  } catch (const ZMQException &) {
    // Its log line is written; termination still has to be tried.
  }
  terminate();
}

// Whether so many threads can be started at once, and so many descriptors opened; if not, errno tells why.
static bool hasRoomFor(int threads, int descriptors) {
  std::vector<int> opened;
  const std::shared_ptr<void> closed(nullptr, [&](void *) {
    const int error = errno;
    for (const int descriptor : opened) close(descriptor);
    errno = error;
  });
  for (opened.reserve(size_t(descriptors)); descriptors > 0; --descriptors) {
    const int descriptor = eventfd(0, EFD_CLOEXEC);
    if (descriptor < 0) return false;
    opened.push_back(descriptor);
  }
  std::promise<void> over;
  const std::shared_future<void> until = over.get_future().share();
  std::vector<std::thread> started;
  int error = 0;
  try {
    for (started.reserve(size_t(threads)); threads > 0; --threads)
      started.push_back(qelnk::startThread("qelnk-room", [until] { until.wait(); }));
  } catch (const std::system_error &refused) {
    error = refused.code().value();
  } catch (const std::bad_alloc &) {
    error = ENOMEM;
  }
  over.set_value();
  for (std::thread &thread : started) thread.join();
  errno = error;
  return error == 0;
}

// ZeroMQ starts a context's threads with its first socket, each with two descriptors, and ends the process when it can
// not. So we look first whether there is room, the socket's own descriptor included.
void *ZMQContext::Registry::openSocket(void *context, int type) {
  const int threads = zmq_ctx_get(context, ZMQ_IO_THREADS) + 1;  // and the one that closes sockets
  if (!started && threads > 0 && !hasRoomFor(threads, 2 * threads + 1)) return nullptr;
  void *const socket = zmq_socket(context, type);
  started = started || socket;
  return socket;
}

std::shared_ptr<ZMQSocket> ZMQContext::socketWithType(int32_t type) { return makeSocket(type, false); }

std::shared_ptr<ZMQSocket> ZMQContext::makeSocket(int32_t type, bool ownedByThread) {
  keepMonitor(nullptr);  // closes those that have been stopped meanwhile
  auto socket = std::make_shared<ZMQSocket>(this, type);
  socket->ownedByThread_ = ownedByThread;  // before anybody else can find it
  const qelnk::Lock lock(registry_->mutex);
  registry_->sockets.insert(socket);
  return socket;
}

// Whether ZeroMQ has sent a monitor its last event.
static bool isStopped(const ZMQSocket &monitor) {
  std::array<uint8_t, 6> frame{};
  for (;;) {
    const int size = zmq_recv(monitor.socket(), frame.data(), frame.size(), ZMQ_DONTWAIT);
    if (size < 0) return zmq_errno() != EAGAIN;
    uint16_t event = 0;
    std::memcpy(&event, frame.data(), sizeof(event));
    if (size == int(frame.size()) && event == ZMQ_EVENT_MONITOR_STOPPED) return true;
  }
}

void ZMQContext::keepMonitor(const std::shared_ptr<ZMQSocket> &socket) {
  std::vector<std::shared_ptr<ZMQSocket>> stopped;
  {
    const qelnk::Lock lock(registry_->mutex);
    auto &kept = registry_->keptMonitors;
    if (socket) kept.push_back(socket);
    const auto end = std::partition(kept.begin(), kept.end(), [](const auto &monitor) { return !isStopped(*monitor); });
    stopped.assign(end, kept.end());
    kept.erase(end, kept.end());
  }
  for (const auto &monitor : stopped) monitor->close();
}

qelnk::Authenticator &ZMQContext::authenticator() {
  const qelnk::Lock lock(registry_->mutex);
  if (!registry_->authenticator)
    registry_->authenticator =
        std::make_unique<qelnk::Authenticator>(registry_->openSocket(context_.load(), ZMQ_ROUTER));
  return *registry_->authenticator;
}

std::set<std::shared_ptr<ZMQSocket>> ZMQContext::sockets() const {
  const qelnk::Lock lock(registry_->mutex);
  return registry_->sockets;
}

void ZMQContext::closeSockets() {
  for (const auto &socket : sockets()) {
    if (socket->ownedByThread_)
      socket->askedToClose_ = true;
    else
      socket->close();
  }
}

void ZMQContext::terminate() {
  qelnk::Lock lock(registry_->mutex);  // no socket is being made
  if (void *context = context_.exchange(nullptr)) {
    // Whoever waits in a call on a socket gets ETERM now and can close it; without this the term below would wait for
    // him and he for a message.
    zmq_ctx_shutdown(context);
    const auto kept = std::exchange(registry_->keptMonitors, {});
    auto authenticator = std::move(registry_->authenticator);
    lock.unlock();
    for (const auto &monitor : kept) monitor->close();
    authenticator.reset();
    while (zmq_ctx_term(context) != 0 && zmq_errno() == EINTR) {
    }
  }
  terminated_ = true;
}
