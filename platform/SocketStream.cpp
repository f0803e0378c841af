// Byte streams on a socket.

#include <QELNetworkKit/ByteStream.h>
#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/RunLoop.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "platform/Connector.h"
#include "platform/Guard.h"

namespace qelnk {

namespace {

// What is read from the system at a time, and how often for one event: then it is the turn of the thread's other
// streams.
constexpr size_t readAhead = 32768;
constexpr int readsForAnEvent = 8;
// How often room is told of in a row.
constexpr int spaceEventsInARow = 16;

std::error_code systemError(int number) { return {number, std::system_category()}; }

/// A connection and its two ends. The ends' streams hold it; run loops only refer to it.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  /// What the two directions have in common.
  struct End {
    std::shared_ptr<const ByteStream::EventTarget> target;
    std::shared_ptr<RunLoop> loop;
    std::shared_ptr<LoopSource> watch;
    bool asked = false;   // to open
    bool open = false;    // and the target was told so
    bool closed = false;  // no event any more
    bool told = false;    // of the end or of an error
  };

  Connection(std::string host, uint16_t port) : host_(std::move(host)), port_(port) {}
  explicit Connection(int socket) : port_(0) { take(socket); }
  ~Connection() {
    if (socket_ >= 0) ::close(socket_);
  }
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;

  void setTarget(End Connection::*which, ByteStream::EventTarget target);
  void schedule(End Connection::*which, const std::shared_ptr<RunLoop> &loop);
  void unschedule(End Connection::*which);
  void open(End Connection::*which);
  void close(End Connection::*which);
  std::error_code error() const;

  bool hasBytesAvailable();
  ssize_t read(std::span<uint8_t> room);
  ssize_t write(std::span<const uint8_t> bytes);

  End input QELNK_GUARDED_BY(mutex_), output QELNK_GUARDED_BY(mutex_);

 private:
  void take(int socket) QELNK_REQUIRES(mutex_);
  bool start(End Connection::*which) QELNK_REQUIRES(mutex_);
  void connect(const std::shared_ptr<RunLoop> &loop) QELNK_EXCLUDES(mutex_);
  void connected(int socket, std::error_code error);

  void post(End &end, void (Connection::*work)()) QELNK_REQUIRES(mutex_);
  void arm(End &end, Readiness events, void (Connection::*work)()) QELNK_REQUIRES(mutex_);
  bool isServedHere(const End &end) QELNK_EXCLUDES(mutex_);
  void disarm(End &end) QELNK_REQUIRES(mutex_);
  void begin(End &end) QELNK_REQUIRES(mutex_);
  void fail(std::error_code error) QELNK_REQUIRES(mutex_);
  void startReading() QELNK_REQUIRES(mutex_);
  void goOnReading() QELNK_REQUIRES(mutex_);
  void startWriting() QELNK_REQUIRES(mutex_);
  void goOnWriting() QELNK_REQUIRES(mutex_);
  void fill() QELNK_REQUIRES(mutex_);
  bool isRead() const QELNK_REQUIRES(mutex_) { return buffered_.empty(); }

  // On the loop's thread.
  void tell(End Connection::*which, StreamEvent event) QELNK_EXCLUDES(mutex_);
  void tellLast(End Connection::*which) QELNK_EXCLUDES(mutex_);
  void beginInput() QELNK_EXCLUDES(mutex_);
  void beginOutput() QELNK_EXCLUDES(mutex_);
  void tellInputLast() QELNK_EXCLUDES(mutex_) { tellLast(&Connection::input); }
  void tellOutputLast() QELNK_EXCLUDES(mutex_) { tellLast(&Connection::output); }
  void readable() QELNK_EXCLUDES(mutex_);
  void tellBytes() QELNK_EXCLUDES(mutex_);
  void writable() QELNK_EXCLUDES(mutex_);
  void tellSpace() QELNK_EXCLUDES(mutex_);

  const std::string host_;
  const uint16_t port_;
  mutable Mutex mutex_;
  int socket_ QELNK_GUARDED_BY(mutex_) = -1;
  std::error_code error_ QELNK_GUARDED_BY(mutex_);
  bool connecting_ QELNK_GUARDED_BY(mutex_) = false;
  std::shared_ptr<Connector> connector_ QELNK_GUARDED_BY(mutex_);

  std::unique_ptr<uint8_t[]> buffer_ QELNK_GUARDED_BY(mutex_);
  std::span<uint8_t> buffered_ QELNK_GUARDED_BY(mutex_);  // read from the system and not yet by the target
  bool ended_ QELNK_GUARDED_BY(mutex_) = false;           // the other side has sent all
  bool bytesPosted_ QELNK_GUARDED_BY(mutex_) = false;     // tellBytes() is to come
  bool tellingBytes_ QELNK_GUARDED_BY(mutex_) = false;
  bool wasRead_ QELNK_GUARDED_BY(mutex_) = false;  // since the last event was told
  int readsLeft_ QELNK_GUARDED_BY(mutex_) = 0;     // of those for an event

  bool spacePosted_ QELNK_GUARDED_BY(mutex_) = false;
  bool tellingSpace_ QELNK_GUARDED_BY(mutex_) = false;
  bool wasWritten_ QELNK_GUARDED_BY(mutex_) = false;  // since the last event was told
};

void Connection::take(int socket) {
  socket_ = socket;
  const int on = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // short messages go at once
  // Else a connection that only listens would outlive for ever a machine that was switched off.
  setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
}

void Connection::setTarget(End Connection::*which, ByteStream::EventTarget target) {
  auto next = target ? std::make_shared<const ByteStream::EventTarget>(std::move(target)) : nullptr;
  const Lock lock(mutex_);
  End &end = this->*which;
  end.target.swap(next);
}

void Connection::schedule(End Connection::*which, const std::shared_ptr<RunLoop> &loop) {
  {
    const Lock lock(mutex_);
    End &end = this->*which;
    if (end.loop == loop) return;
    disarm(end);
    end.loop = loop;
    if (!end.asked || !start(which)) return;
  }
  connect(loop);
}

void Connection::unschedule(End Connection::*which) {
  const Lock lock(mutex_);
  End &end = this->*which;
  disarm(end);
  end.loop = nullptr;
}

std::error_code Connection::error() const {
  const Lock lock(mutex_);
  return error_;
}

void Connection::open(End Connection::*which) {
  std::shared_ptr<RunLoop> loop;
  {
    const Lock lock(mutex_);
    if (std::exchange((this->*which).asked, true) || !start(which)) return;
    loop = (this->*which).loop;
  }
  connect(loop);
}

/// Begins with an end that is to be open and has a loop, or goes on with one that has got another loop. Returns whether
/// the connection is to be made first.
bool Connection::start(End Connection::*which) {
  End &end = this->*which;
  if (end.closed || !end.loop || end.told) return false;
  if (!end.open && socket_ < 0 && !error_) return !std::exchange(connecting_, true);
  if (!end.open || error_)
    begin(end);
  else
    which == &Connection::input ? startReading() : startWriting();
  return false;
}

void Connection::connect(const std::shared_ptr<RunLoop> &loop) {
  auto connector = Connector::start(host_, port_, loop, [weak = weak_from_this()](int socket, std::error_code error) {
    if (const auto self = weak.lock())
      self->connected(socket, error);
    else if (socket >= 0)
      ::close(socket);
  });
  const Lock lock(mutex_);
  if (!(input.closed && output.closed)) connector_.swap(connector);  // else it is let go, after the lock
}

void Connection::close(End Connection::*which) {
  std::shared_ptr<Connector> connector;
  std::shared_ptr<const ByteStream::EventTarget> target;  // goes after the lock
  Lock lock(mutex_);
  End &end = this->*which;
  if (std::exchange(end.closed, true)) return;
  disarm(end);
  target.swap(end.target);
  if (!input.closed || !output.closed) {
    if (which == &Connection::output && socket_ >= 0)
      shutdown(socket_, SHUT_WR);  // the other side hears of it behind all data
    return;
  }
  connector.swap(connector_);
  const int socket = std::exchange(socket_, -1);
  buffered_ = {};
  buffer_.reset();
  lock.unlock();
  if (connector) connector->cancel();
  if (socket >= 0) ::close(socket);
}

void Connection::connected(int socket, std::error_code error) {
  const Lock lock(mutex_);
  if (input.closed && output.closed) {
    if (socket >= 0) ::close(socket);
    return;
  }
  if (error)
    error_ = error;
  else
    take(socket);
  for (End *end : {&input, &output})
    if (end->asked) begin(*end);
}

// --- Events ---

void Connection::post(End &end, void (Connection::*work)()) {
  if (end.closed || !end.loop) return;
  end.loop->perform([weak = weak_from_this(), work, which = &end] {
    if (const auto self = weak.lock(); self && self->isServedHere(*which)) (*self.*work)();
  });
}

void Connection::arm(End &end, Readiness events, void (Connection::*work)()) {
  if (end.closed || end.watch || !end.loop || error_) return;
  try {
    end.watch = end.loop->watch(socket_, events, [weak = weak_from_this(), work, which = &end](Readiness) {
      if (const auto self = weak.lock(); self && self->isServedHere(*which)) (*self.*work)();
    });
  } catch (const std::system_error &refused) {  // out of descriptors or of watches
    fail(refused.code());
  }
}

/// What is left over on an earlier loop of the end's does nothing.
bool Connection::isServedHere(const End &end) {
  const Lock lock(mutex_);
  return end.loop && end.loop->isCurrent();
}

void Connection::disarm(End &end) {
  if (const auto watch = std::exchange(end.watch, nullptr)) watch->cancel();
}

void Connection::begin(End &end) {
  if (error_)
    post(end, &end == &input ? &Connection::tellInputLast : &Connection::tellOutputLast);
  else
    post(end, &end == &input ? &Connection::beginInput : &Connection::beginOutput);
}

void Connection::fail(std::error_code error) {
  if (!error_) error_ = error;
  for (End *end : {&input, &output}) {
    disarm(*end);
    if (end->asked) begin(*end);
  }
}

void Connection::tell(End Connection::*which, StreamEvent event) {
  Lock lock(mutex_);
  End &end = this->*which;
  if (end.closed || !end.loop || end.told) return;
  if (event == StreamEvent::opened && std::exchange(end.open, true)) return;
  if (event == StreamEvent::error || event == StreamEvent::end) end.told = true;
  const auto target = end.target;
  lock.unlock();
  if (target) runGuarded("ByteStream event target", [&] { (*target)(event); });
}

void Connection::tellLast(End Connection::*which) { tell(which, error() ? StreamEvent::error : StreamEvent::end); }

void Connection::beginInput() {
  tell(&Connection::input, StreamEvent::opened);
  const Lock lock(mutex_);
  arm(input, Readiness::readable, &Connection::readable);
}

void Connection::beginOutput() {
  tell(&Connection::output, StreamEvent::opened);
  tellSpace();
}

// --- Reading ---

/// Reads ahead from the system; nothing is buffered.
void Connection::fill() {
  if (socket_ < 0 || ended_ || error_) return;
  if (!buffer_) buffer_ = std::make_unique_for_overwrite<uint8_t[]>(readAhead);
  ssize_t count;
  do count = recv(socket_, buffer_.get(), readAhead, MSG_DONTWAIT);
  while (count < 0 && errno == EINTR);
  if (count > 0)
    buffered_ = {buffer_.get(), size_t(count)};
  else if (count == 0)
    ended_ = true;
  else if (errno != EAGAIN)
    fail(systemError(errno));
}

void Connection::readable() {
  {
    const Lock lock(mutex_);
    if (!input.watch) return;
    if (isRead()) fill();
  }
  tellBytes();
}

void Connection::tellBytes() {
  Lock lock(mutex_);
  bytesPosted_ = false;
  if (!isRead()) {
    const bool nested = std::exchange(tellingBytes_, true);
    readsLeft_ = readsForAnEvent;
    wasRead_ = false;
    lock.unlock();
    tell(&Connection::input, StreamEvent::bytesAvailable);
    lock.lock();
    tellingBytes_ = nested;
  }
  goOnReading();
}

/// Has the target hear of what there is to be read, on the loop that it is scheduled on now.
void Connection::startReading() {
  wasRead_ = true;
  bytesPosted_ = false;
  goOnReading();
}

/// Sees to it that the target hears of what is still to be read.
void Connection::goOnReading() {
  if (tellingBytes_ || input.closed || error_) return;
  if (isRead()) buffer_.reset();
  if (isRead() && ended_) {
    disarm(input);
    return post(input, &Connection::tellInputLast);
  }
  if (!wasRead_ && !isRead()) return disarm(input);  // nobody reads now; read() goes on
  if (isRead()) return arm(input, Readiness::readable, &Connection::readable);
  if (!std::exchange(bytesPosted_, true)) post(input, &Connection::tellBytes);
}

bool Connection::hasBytesAvailable() {
  const Lock lock(mutex_);
  if (!input.open || input.closed) return false;
  if (!isRead()) return true;
  if (ended_ || error_) return false;
  if (tellingBytes_ && input.loop && input.loop->isCurrent()) {
    if (readsLeft_-- > 0) fill();
    return !isRead();
  }
  int count = 0;
  return ioctl(socket_, FIONREAD, &count) == 0 && count > 0;
}

ssize_t Connection::read(std::span<uint8_t> room) {
  const Lock lock(mutex_);
  if (!input.open || input.closed) return -1;
  if (isRead()) fill();
  if (isRead()) return error_ ? -1 : 0;
  const size_t count = std::min(room.size(), buffered_.size());
  std::memcpy(room.data(), buffered_.data(), count);
  buffered_ = buffered_.subspan(count);
  wasRead_ = true;
  goOnReading();
  return ssize_t(count);
}

// --- Writing ---

ssize_t Connection::write(std::span<const uint8_t> bytes) {
  const Lock lock(mutex_);
  if (!output.open || output.closed || error_) return -1;
  if (bytes.empty() || output.watch) return 0;
  ssize_t count;
  do count = send(socket_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  while (count < 0 && errno == EINTR);
  if (count < 0 && errno != EAGAIN && errno != ENOBUFS) {
    fail(systemError(errno));
    return -1;
  }
  if (count < ssize_t(bytes.size()))
    arm(output, Readiness::writable, &Connection::writable);
  else
    goOnWriting();
  return std::max<ssize_t>(count, 0);
}

void Connection::writable() {
  {
    const Lock lock(mutex_);
    if (!output.watch) return;
    disarm(output);
  }
  tellSpace();
}

void Connection::tellSpace() {
  Lock lock(mutex_);
  spacePosted_ = false;
  if (tellingSpace_) return;  // the outer one goes on
  tellingSpace_ = true;
  int left = spaceEventsInARow;
  do {
    wasWritten_ = false;
    lock.unlock();
    tell(&Connection::output, StreamEvent::spaceAvailable);
    lock.lock();
  } while (wasWritten_ && !output.watch && --left > 0);
  tellingSpace_ = false;
  if (wasWritten_ && !output.watch) goOnWriting();
}

/// Has the target hear of room, on the loop that it is scheduled on now.
void Connection::startWriting() {
  spacePosted_ = false;
  goOnWriting();
}

/// Sees to it that the target hears of the room that there is after a write.
void Connection::goOnWriting() {
  wasWritten_ = true;
  if (!tellingSpace_ && !std::exchange(spacePosted_, true)) post(output, &Connection::tellSpace);
}

// --- The streams ---

template <class Interface, Connection::End Connection::*end>
class SocketStream : public Interface {
 public:
  explicit SocketStream(std::shared_ptr<Connection> connection) : connection_(std::move(connection)) {}
  ~SocketStream() override { connection_->close(end); }
  SocketStream(const SocketStream &) = delete;
  SocketStream &operator=(const SocketStream &) = delete;

  void setEventTarget(ByteStream::EventTarget target) override { connection_->setTarget(end, std::move(target)); }
  void schedule(const std::shared_ptr<RunLoop> &loop) override { connection_->schedule(end, loop); }
  void unschedule() override { connection_->unschedule(end); }
  void open() override { connection_->open(end); }
  void close() override { connection_->close(end); }
  std::error_code error() const override { return connection_->error(); }

 protected:
  const std::shared_ptr<Connection> connection_;
};

class SocketInput final : public SocketStream<InputStream, &Connection::input> {
 public:
  using SocketStream::SocketStream;
  bool hasBytesAvailable() override { return connection_->hasBytesAvailable(); }
  ssize_t read(std::span<uint8_t> room) override { return connection_->read(room); }
};

class SocketOutput final : public SocketStream<OutputStream, &Connection::output> {
 public:
  using SocketStream::SocketStream;
  ssize_t write(std::span<const uint8_t> bytes) override { return connection_->write(bytes); }
};

StreamPair pairOf(const std::shared_ptr<Connection> &connection) {
  return {std::make_shared<SocketInput>(connection), std::make_shared<SocketOutput>(connection)};
}

}  // namespace

StreamPair streamsToHost(const std::string &host, uint64_t port) {
  if (host.empty() || port == 0 || port > std::numeric_limits<uint16_t>::max()) return {};
  return pairOf(std::make_shared<Connection>(host, uint16_t(port)));
}

StreamPair streamsWithSocket(int socket) {
  return socket < 0 ? StreamPair() : pairOf(std::make_shared<Connection>(socket));
}

}  // namespace qelnk
