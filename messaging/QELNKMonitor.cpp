#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/QELNKMonitor.h>
#include <QELNetworkKit/RunLoop.h>
#include <QELNetworkKit/ZMQException.h>
#include <QELNetworkKit/ZMQSocket.h>

#include "messaging/ErrorText.h"
#include "messaging/SocketPoll.h"
#include "platform/Guard.h"

#include <cerrno>
#include <cstring>
#include <deque>
#include <future>
#include <system_error>
#include <utility>

using qelnk::describe;
using qelnk::logError;

namespace {

// How many events are kept for a host that does not ask for them.
constexpr size_t mostEvents = 65536;

qelnk::Mutex settingUp;  // one monitor of the process at a time is set up
int32_t nextIndex QELNK_GUARDED_BY(settingUp) = 0;

constexpr struct {
  uint32_t mask;
  std::string_view name;
} eventNames[] = {{1, "Connected"},      {2, "Connect Delayed"}, {4, "Connect Retried"},   {8, "Listening"},
                  {16, "Bind Failed"},   {32, "Accepted"},       {64, "Accept Failed"},    {128, "Close"},
                  {256, "Close Failed"}, {512, "Disconnected"},  {1024, "Monitor Stopped"}};

}  // namespace

struct QELNK_HIDDEN QELNKMonitor::State {
  // One connectToSocket() at a time, but for one that is made by who waits for the calling thread while that waits.
  qelnk::RecursiveMutex connecting;

  qelnk::Mutex mutex;
  qelnk::Condition changed;
  std::deque<uint16_t> events QELNK_GUARDED_BY(mutex);
  bool connected QELNK_GUARDED_BY(mutex) = false;
  uint64_t connection QELNK_GUARDED_BY(mutex) = 0;  // its number
  bool dropping QELNK_GUARDED_BY(mutex) = false;    // the host has been told

  // What is handed to the io thread at its start, and its own then.
  std::string endpoint;
  uint32_t mask = 0;
  std::shared_ptr<ZMQSocket> watched;
  std::promise<int> watching;  // what ZeroMQ answered
  qelnk::SocketPoll poll;
};

std::shared_ptr<QELNKMonitor> QELNKMonitor::create(std::shared_ptr<QELNKContext> context) {
  return make<QELNKMonitor>(std::move(context));
}

QELNKMonitor::QELNKMonitor(std::shared_ptr<QELNKContext> context)
    : QELNKSocket(std::move(context)), state_(std::make_unique<State>()) {
  setMessageBody(QELNKMessageBodyMultipart);
}

QELNKMonitor::~QELNKMonitor() = default;

int32_t QELNKMonitor::socketType() const { return ZMQ_PAIR; }

// Connecting.

void QELNKMonitor::connectToSocket(const std::shared_ptr<QELNKSocket> &socket, uint32_t events) {
  const auto self = weak_from_this().lock();  // the socket block may drop the last reference before this is over
  if (onMessageThread()) return logError("QELNKMonitor cannot connect on its own io thread");
  const qelnk::Lock lock(state_->connecting);
  setConnected(false);
  const auto last = thread();
  cancelThread(last);
  joinThread(last, true);
  if (hasThread()) return logError("QELNKMonitor was connected again meanwhile");
  if (!socket || socket->endPoint().empty())
    return logError("QELNKMonitor cannot connect to a socket without an end-point");
  if (socket->context() != context()) return logError("QELNKMonitor cannot connect to a socket of another context");
  const qelnk::Lock setUp(settingUp);
  state_->endpoint = fmt::format("inproc://monitor.{}", nextIndex++);
  state_->mask = events;
  state_->watched = socket->socket();
  state_->watching = {};
  auto watching = state_->watching.get_future();
  setConnected(true);
  try {
    startThread("qelnk-monitor");
  } catch (const std::system_error &error) {
    setConnected(false);
    return logError("QELNKMonitor could not connect: {}", error.what());
  }
  if (const int result = watching.get(); result != 0)
    logError("QELNKMonitor received error {} from zmq_socket_monitor", qelnk::describeNumber(result));
}

void QELNKMonitor::disconnect() {
  setConnected(false);
  QELNKSocket::disconnect();
}

bool QELNKMonitor::isConnected() const {
  const qelnk::Lock lock(state_->mutex);
  return state_->connected;
}

void QELNKMonitor::setConnected(bool connected) {
  {
    const qelnk::Lock lock(state_->mutex);
    ++state_->connection;
    state_->connected = connected;
    state_->dropping = false;
    state_->events.clear();
  }
  state_->changed.notifyAll();
}

// The io thread.

void QELNKMonitor::ioThread() {
  const int result = watch();
  const bool watching = result == 0;
  if (!watching) setConnected(false);
  state_->watching.set_value(result);
  if (watching) {
    bool stopped = false;
    qelnk::runGuarded("QELNKMonitor io thread", [&] { stopped = readEvents(); });
    {
      const qelnk::Lock lock(state_->mutex);
      state_->connected = false;  // what has been read can still be asked for
    }
    state_->changed.notifyAll();
    // ZeroMQ's own thread would wait for ever to hand over an event to a socket that has closed, and a watched one that
    // is closing itself cannot be told to stop.
    state_->watched->stopMonitor(state_->endpoint);
    if (!stopped) leaveSocketToContext();
  }
  state_->watched.reset();
}

// Begins to watch. Returns what zmq_socket_monitor() returned, or -1.
int QELNKMonitor::watch() {
  if (!state_->watched) return -1;
  try {
    const auto pair = openSocket(state_->endpoint);
    pair->setInt(0, ZMQ_RCVHWM);  // ZeroMQ's own thread must never have to wait for this one
    state_->poll = qelnk::SocketPoll(pair->socket(), *qelnk::RunLoop::current());
    const int result = state_->watched->monitor(state_->endpoint, state_->mask | QELNKMonitorEventMonitorStopped);
    if (result == 0) pair->connectToEndpoint(state_->endpoint);
    return result;
  } catch (const ZMQException &) {  // its reason is on the log
  } catch (const std::exception &error) {
    logError("QELNKMonitor could not connect: {}", error.what());
  }
  return -1;
}

// Returns false once the monitor is to end, true once the watched socket has sent its last event.
bool QELNKMonitor::readEvents() {
  constexpr std::chrono::seconds longestWait{1};
  // How many events are read before the run loop has its turn.
  constexpr int drainBound = 256;
  QELNKFrames frames;
  while (!isCancelled() && isConnected()) {
    int error = pollSocket(state_->poll, longestWait) < 0 ? zmq_errno() : 0;
    if (isAskedToClose()) break;
    for (int count = 0; error == 0 && count < drainBound && !isCancelled(); ++count) {
      error = receiveFrames(rawSocket(), frames, ZMQ_DONTWAIT, true);
      if (error != 0) break;
      const uint16_t event = eventOf(frames);
      if (event != QELNKMonitorEventMonitorStopped || (state_->mask & event)) add(event);
      if (event == QELNKMonitorEventMonitorStopped) return true;
    }
    if (error == 0 || error == EAGAIN || error == EINTR) continue;
    tellReceiveError(error);
    break;
  }
  return false;
}

void QELNKMonitor::add(uint16_t event) {
  bool isFirstDropped = false;
  {
    const qelnk::Lock lock(state_->mutex);
    if (!state_->connected) return;
    if (state_->events.size() == mostEvents) {
      state_->events.pop_front();
      isFirstDropped = !std::exchange(state_->dropping, true);
    }
    state_->events.push_back(event);
  }
  state_->changed.notifyOne();
  if (isFirstDropped) logError("QELNKMonitor drops events, for nobody asks for them");
}

// Reading.

uint16_t QELNKMonitor::events() {
  qelnk::Lock lock(state_->mutex);
  if (!state_->connected && state_->events.empty()) {
    lock.unlock();
    return receiveEvent();
  }
  const uint64_t connection = state_->connection;
  while (state_->connection == connection && state_->events.empty() && state_->connected) state_->changed.wait(lock);
  if (state_->connection != connection || state_->events.empty()) return 0;
  const uint16_t event = state_->events.front();
  state_->events.pop_front();
  state_->dropping = state_->dropping && !state_->events.empty();
  return event;
}

// The next event of a socket that the host has set, on the calling thread.
uint16_t QELNKMonitor::receiveEvent() {
  const auto socket = socketWithoutThread();
  if (!socket) return 0;
  QELNKFrames frames;
  const int error = receiveFrames(socket->socket(), frames, 0, true);
  if (error == 0) return eventOf(frames);
  tellReceiveError(error);
  return 0;
}

void QELNKMonitor::tellReceiveError(int number) {
  logError("QELNKMonitor error {} while receiving data", describe(qelnk::zmqError(number)));
}

// The first frame holds the number and a value that goes with it, the second the endpoint, which may be empty.
uint16_t QELNKMonitor::eventOf(const QELNKFrames &frames) {
  uint16_t event = 0;
  if (frames.size() == 2 && frames[0].size() == sizeof(uint16_t) + sizeof(uint32_t))
    std::memcpy(&event, frames[0].data(), sizeof(event));
  else
    logError("QELNKMonitor received invalid message");
  return event;
}

// Names.

std::string QELNKMonitor::eventsToString(uint32_t events) {
  std::string text;
  for (const auto &[mask, name] : eventNames) addEventString(name, events, mask, text);
  return text;
}

void QELNKMonitor::addEventString(std::string_view name, uint32_t events, uint32_t mask, std::string &to) {
  if (!(events & mask)) return;
  if (!to.empty()) to += ", ";
  to += name;
}
