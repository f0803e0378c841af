#include <QELNetworkKit/QELNKLegacyStream.h>
#include <arpa/inet.h>
#include <fmt/format.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "encoding/Text.h"
#include "legacy/LegacyStreamState.h"
#include "platform/LogFormat.h"

using qelnk::ByteStream;
using qelnk::Data;
using qelnk::IncomingMessages;
using qelnk::InputStream;
using qelnk::logDefault;
using qelnk::logError;
using qelnk::OutputStream;
using qelnk::StreamEvent;
using qelnk::Value;

namespace {

std::atomic<uint64_t> theLoggingMask{0};

bool logs(QELNKLegacyStream::Logging group) { return theLoggingMask.load(std::memory_order_relaxed) & group; }

// Of longer strings and writes the log has the beginning.
constexpr size_t longestLogged = 256;
constexpr int chunksAtOnce = 256;
// How many messages are taken out of what was read before they are told.
constexpr size_t messagesAtOnce = 64;

/// The first characters of a text, so many at most; it may be none in UTF-8.
std::string_view beginning(std::string_view text) {
  text = text.substr(0, 4 * longestLogged);
  size_t length = 0;
  for (size_t characters = 0; length < text.size(); ++length)
    if ((uint8_t(text[length]) & 0xC0) != 0x80 && characters++ == longestLogged) break;
  return text.substr(0, length);
}

void logIncomingString(std::string_view string) {
  if (const auto start = beginning(string); start.size() < string.size())
    logDefault("Incoming string (long): {} ...", start);
  else
    logDefault("Incoming string {}", string);
}

void logOutgoingBytes(std::string_view bytes) {
  if (bytes.size() > longestLogged)
    logDefault("Outgoing stream bytes (long): {} ...", bytes.substr(0, longestLogged));
  else
    logDefault("Outgoing stream bytes: {}", bytes.substr(0, bytes.find('\0')));
}

Value optionsWith(std::initializer_list<std::pair<Value, Value>> entries) { return Value::map(entries); }

}  // namespace

QELNKLegacyStreamDelegate::~QELNKLegacyStreamDelegate() = default;

void QELNKLegacyStreamDelegate::networkStream(const std::shared_ptr<QELNKLegacyStream> &, const Data &,
                                              const std::string &) {}

// --- Options ---

Value QELNKLegacyStream::defaultPlayoutOptions() {
  return optionsWith({{"writeSize", 4096},
                      {"multiThreaded", false},
                      {"delegateOnMainThread", true},
                      {"testFullyConfigured", 511},
                      {"compareFullyConfigured", 255}});
}

Value QELNKLegacyStream::defaultPlayoutOptionsForAppID(const std::string &appID) {
  Value options = defaultPlayoutOptions();
  options.set("appID", appID);
  return options;
}

Value QELNKLegacyStream::defaultIngestOptions() {
  return optionsWith({{"writeSize", 8192},
                      {"multiThreaded", true},
                      {"delegateOnMainThread", false},
                      {"testFullyConfigured", 511},
                      {"compareFullyConfigured", 255},
                      {"appID", ingestAppID()}});
}

std::string QELNKLegacyStream::ingestAppID() { return "com.kestrova.ingest"; }
std::string QELNKLegacyStream::playoutAppID() { return "com.kestrova.playout"; }
std::string QELNKLegacyStream::playerAppID() { return "com.kestrova.player"; }
std::string QELNKLegacyStream::liveAppID() { return "com.kestrova.live"; }
std::string QELNKLegacyStream::connectAppID() { return "com.kestrova.connect"; }

uint64_t QELNKLegacyStream::loggingMask() { return theLoggingMask; }
void QELNKLegacyStream::setLoggingMask(uint64_t mask) { theLoggingMask = mask; }

Value QELNKLegacyStream::options() const { return state_->locked(&State::options); }

void QELNKLegacyStream::setOptions(const Value &options) {
  const auto number = [&](std::string_view key) {
    const Value *value = options.find(key);
    return value && value->isNumber() ? value : nullptr;
  };
  const auto flag = [&](std::string_view key) {
    const Value *value = options.find(key);
    return value && value->isBool() ? std::optional(value->boolValue()) : std::nullopt;
  };
  const qelnk::Lock lock(state_->mutex);
  if (const auto *size = number("writeSize")) state_->maximumWriteSize = size->unsignedValue();
  if (const auto own = flag("multiThreaded")) {
    const bool hasIt = state_->thread && state_->thread->isCancellable() == *own;
    if (!hasIt) try {
        auto thread = *own ? QELNKLegacyStreamThread::multiThreaded() : QELNKLegacyStreamThread::singleThreaded();
        const auto before = std::exchange(state_->thread, std::move(thread));
        if (before && before->isCancellable()) state_->replacedThreads.push_back(before);
      } catch (const std::system_error &error) {
        logError("QELNKLegacyStream could not start a thread: {}", error.what());
      }
  }
  if (const auto onMainThread = flag("delegateOnMainThread")) state_->callDelegateOnMainThread = *onMainThread;
  if (const auto *mask = number("testFullyConfigured"); mask && mask->isInteger())
    state_->testFullyConfigured = mask->unsignedValue();
  if (const auto *value = number("compareFullyConfigured"); value && value->isInteger())
    state_->compareFullyConfigured = value->unsignedValue();
  if (const Value *appID = options.find("appID"); appID && appID->isString()) state_->appID = appID->string();
  const Value *longestString = number("maximumStringLength"), *longestBlock = number("maximumBinaryLength");
  if (longestString) state_->limits.string = longestString->unsignedValue();
  if (longestBlock) state_->limits.binary = longestBlock->unsignedValue();
  if (const auto *length = number("maximumOutgoingLength")) state_->maximumOutgoingLength = length->unsignedValue();
  if (const auto *timeout = number("handshakeTimeout"))
    state_->handshakeTimeout = qelnk::nanosecondsFrom(timeout->doubleValue());
  state_->options = options;
}

// --- Life ---

constinit thread_local const QELNKLegacyStream::State::Ending *QELNKLegacyStream::State::Ending::current = nullptr;
constinit thread_local QELNKLegacyStream::State::ReadPass *QELNKLegacyStream::State::ReadPass::current = nullptr;

QELNKLegacyStream::QELNKLegacyStream() : state_(std::make_unique<State>()) {}
QELNKLegacyStream::~QELNKLegacyStream() = default;

std::shared_ptr<void> QELNKLegacyStream::hold(QELNKLegacyStream *stream) {
  std::shared_ptr<void> held(static_cast<void *>(stream), [stream](void *) {
    stream->dealloc();
    delete stream;
  });
  stream->state_->held = std::shared_ptr<QELNKLegacyStream>(held, stream);
  return held;
}

std::shared_ptr<QELNKLegacyStream> QELNKLegacyStream::held() const { return state_->held.lock(); }

std::shared_ptr<QELNKLegacyStream> QELNKLegacyStream::create(const Value &options) {
  auto stream = own(new QELNKLegacyStream);
  stream->setOptions(options);
  return stream;
}

std::shared_ptr<QELNKLegacyStream> QELNKLegacyStream::networkStreamWithInputStream(
    std::shared_ptr<InputStream> inputStream, std::shared_ptr<OutputStream> outputStream, const Value &options) {
  auto stream = create(options);
  stream->setInputStream(std::move(inputStream), std::move(outputStream));
  return stream;
}

void QELNKLegacyStream::dealloc() {
  _disconnect();
  for (const auto &thread : state_->locked(&State::replacedThreads)) thread->cancel();
  if (const auto thread = this->thread()) thread->cancel();
}

void QELNKLegacyStream::setInputStream(std::shared_ptr<InputStream> inputStream,
                                       std::shared_ptr<OutputStream> outputStream) {
  begin(inputStream, outputStream);
}

/// Begins a connection, and returns its number.
uint64_t QELNKLegacyStream::begin(const std::shared_ptr<InputStream> &inputStream,
                                  const std::shared_ptr<OutputStream> &outputStream) {
  std::shared_ptr<ByteStream> droppedInput, droppedOutput;  // go after the lock
  uint64_t connection = 0;
  {
    const qelnk::Lock lock(state_->mutex);
    const qelnk::Lock reading(state_->readMutex);
    state_->dropConnection();
    state_->incoming.setLimits(state_->limits);
    state_->handledCloseError = false;  // of this connection nothing has been handled
    state_->connectionError.clear();
    droppedInput = std::exchange(state_->input, inputStream);
    droppedOutput = std::exchange(state_->output, outputStream);
    state_->connectionThread = state_->thread;
    connection = state_->connections;
  }
  scheduleStream(inputStream);
  scheduleStream(outputStream);
  if (inputStream || outputStream) state_->awaitHandshake();
  return connection;
}

/// Where there is to be one in time.
void QELNKLegacyStream::State::awaitHandshake() {
  const qelnk::Lock lock(mutex);
  if (handshakeTimeout <= std::chrono::nanoseconds::zero() || !connectionThread) return;
  handshakeTimer =
      connectionThread->runLoop()->performAfter(handshakeTimeout, [weak = held, connection = uint64_t(connections)] {
        const auto self = weak.lock();
        if (self && !self->isReady()) self->state_->endConnection(connection, "its handshake has taken too long");
      });
}

/// Nobody waits for it any more. The timers of connections that come and go would pile up else.
void QELNKLegacyStream::State::endHandshake() {
  if (const auto timer = std::exchange(handshakeTimer, nullptr)) timer->cancel();
}

/// On the stream's thread: a connection that is still there, and has not ended by itself.
void QELNKLegacyStream::State::endConnection(uint64_t connection, const std::string &reason) {
  const auto self = held.lock();
  if (!self || !self->inputStream() || !takesEnd(connection)) return;
  logError("QELNKLegacyStream ends the connection: {}", reason);
  self->terminate(connection);
}

/// Of a connection that has opened nothing has been handled.
void QELNKLegacyStream::State::opened(uint64_t connection) {
  const qelnk::Lock lock(mutex);
  if (connections == connection) handledCloseError = false;
}

/// Whether the end of a connection is the caller's to deal with: it is still there, and nobody else has.
bool QELNKLegacyStream::State::takesEnd(uint64_t connection) {
  const qelnk::Lock lock(mutex);
  return connections == connection && !handledCloseError.exchange(true);
}

void QELNKLegacyStream::scheduleStream(const std::shared_ptr<ByteStream> &stream) {
  if (!stream) return;
  stream->setEventTarget([self = state_->held, from = std::weak_ptr(stream)](StreamEvent event) {
    const auto target = self.lock();
    const auto source = from.lock();
    if (target && source) target->stream(source, event);
  });
  if (const auto thread = state_->servingThread()) thread->scheduleStream(stream);
}

std::nullptr_t QELNKLegacyStream::closeStream(const std::shared_ptr<ByteStream> &stream) {
  State::close(state_->servingThread(), stream);
  return nullptr;
}

void QELNKLegacyStream::State::close(const std::shared_ptr<QELNKLegacyStreamThread> &on,
                                     const std::shared_ptr<ByteStream> &stream) {
  if (!stream) return;
  if (on) return on->closeStream(stream);
  stream->setEventTarget(nullptr);  // it has never been scheduled
  stream->close();
}

void QELNKLegacyStream::disconnect() {
  const auto self = held();  // a delegate that is called while this waits may drop the last reference
  _disconnect();
}

void QELNKLegacyStream::_disconnect() { endConnection(std::nullopt); }

bool QELNKLegacyStream::endConnection(std::optional<uint64_t> connection) {
  State::Connection ended;
  {
    const qelnk::Lock lock(state_->mutex);
    if (connection && *connection != state_->connections) return false;
    ended = state_->takeConnection();
  }
  state_->close(ended);
  return true;
}

QELNKLegacyStream::State::Connection QELNKLegacyStream::State::takeConnection() {
  const qelnk::Lock reading(readMutex);
  dropConnection();
  return {.input = std::exchange(input, nullptr),
          .output = std::exchange(output, nullptr),
          .thread = std::exchange(connectionThread, nullptr)};
}

void QELNKLegacyStream::State::close(const Connection &connection) {
  logDefault("Disconnect streams");
  close(connection.thread, connection.input);
  close(connection.thread, connection.output);
  const qelnk::Lock lock(mutex);
  if (!input && !output) status = 0;  // what an event that was under way has set
}

/// The thread of the connection, or of the next one.
std::shared_ptr<QELNKLegacyStreamThread> QELNKLegacyStream::State::servingThread() const {
  const qelnk::Lock lock(mutex);
  return connectionThread ? connectionThread : thread;
}

void QELNKLegacyStream::State::dropConnection() {
  ++connections;
  endHandshake();
  incoming.clear();
  droppedLength += outgoing.size() - std::exchange(handshakeLeft, 0);  // nobody but us asked for that
  outgoing.clear();
  status = 0;
  missedSpaceEvent = flushScheduled = isOverflowing = false;
}

// --- Writing ---

/// Queues the bytes, or `shared` by reference, which are the same.
bool QELNKLegacyStream::queue(const void *bytes, size_t length, const Data *shared, bool terminated,
                              bool ignoringStatus) {
  const qelnk::Lock lock(state_->mutex);
  if (!bytes || state_->handledCloseError || (!ignoringStatus && (!isReady() || state_->overflows()))) return false;
  const std::span<const uint8_t> span(static_cast<const uint8_t *>(bytes), length);
  if (logs(logOutgoing)) logOutgoingBytes({static_cast<const char *>(bytes), length});
  State::Appending appending(state_->outgoing);
  if (shared)
    state_->outgoing.append(*shared);
  else
    state_->outgoing.append(span);
  constexpr uint8_t terminator = 0;
  if (terminated) state_->outgoing.append({&terminator, 1});
  appending.succeeded();
  if (!state_->missedSpaceEvent || !state_->connectionThread) return true;
  if (logs(logFlushes))
    logDefault("Flushed output in write bytes, missed space event = {:d}", state_->missedSpaceEvent);
  // One request does for all that is queued until it is served: it writes, and so brings space events for the rest.
  if (!state_->flushScheduled) state_->flushScheduled = state_->requestFlush();
  return true;
}

/// Whether more waits than the options allow. The connection ends then: its peer does not read.
bool QELNKLegacyStream::State::overflows() {
  if (maximumOutgoingLength == 0 || outgoing.size() <= maximumOutgoingLength) return false;
  if (isOverflowing || !connectionThread) return true;
  isOverflowing = connectionThread->performSelectorOnTarget(
      [weak = held, connection = uint64_t(connections)] {
        if (const auto self = weak.lock())
          self->state_->endConnection(connection, "more waits to be written than the options allow");
      },
      false);
  return true;
}

/// Returns whether the connection's thread will flush.
bool QELNKLegacyStream::State::requestFlush() {
  if (auto *together = FlushesTogether::here()) {
    together->add(connectionThread, held);
    return true;
  }
  return connectionThread->performSelectorOnTarget([weak = held] { flushAsRequested(weak); }, false);
}

void QELNKLegacyStream::State::flushAsRequested(const std::weak_ptr<QELNKLegacyStream> &stream) {
  if (const auto self = stream.lock()) self->flushOutput();
}

constinit thread_local QELNKLegacyStream::State::FlushesTogether *QELNKLegacyStream::State::FlushesTogether::current =
    nullptr;

void QELNKLegacyStream::State::FlushesTogether::add(const std::shared_ptr<QELNKLegacyStreamThread> &thread,
                                                    const std::weak_ptr<QELNKLegacyStream> &stream) {
  if (thread != thread_ || streams_.size() == atOnce) request();
  thread_ = thread;
  streams_.push_back(stream);
}

void QELNKLegacyStream::State::FlushesTogether::request() {
  if (streams_.empty()) return;
  // A thread that has ended had let go of all its streams.
  try {
    thread_->performSelectorOnTarget(
        [streams = streams_] {
          for (const auto &stream : streams) qelnk::runGuarded("QELNKLegacyStream", [&] { flushAsRequested(stream); });
        },
        false);
  } catch (const std::bad_alloc &) {
    logError("QELNKLegacyStream has no memory to have written; the next write will try again");
    for (const auto &stream : streams_)
      if (const auto self = stream.lock()) {
        const qelnk::Lock lock(self->state_->mutex);
        self->state_->flushScheduled = false;
      }
  }
  streams_.clear();
}

bool QELNKLegacyStream::writeBytes(const void *bytes, size_t length, bool appendingZeroTerminator,
                                   bool ignoringStatus) {
  return queue(bytes, length, nullptr, appendingZeroTerminator, ignoringStatus);
}

bool QELNKLegacyStream::isWritable(const std::string &string) {
  const bool writable = string.find('\0') == std::string::npos && qelnk::detail::isUTF8(string);
  if (!writable) logError("QELNKLegacyStream cannot write a string that holds a zero byte or is not UTF-8");
  return writable;
}

bool QELNKLegacyStream::writeString(const std::string &string) {
  return isWritable(string) && queue(string.c_str(), string.size() + 1, nullptr, false, false);
}

bool QELNKLegacyStream::writeData(const Data &data) {
  return queue(data.empty() ? "" : static_cast<const void *>(data.data()), data.size(), &data, true, false);
}

bool QELNKLegacyStream::writeBinaryData(const Data &data, const std::string &contentType, bool fenced) {
  const qelnk::Lock lock(state_->mutex);
  if (fenced && state_->dataFence != 0) {
    logDefault("Data fence: dropping binary data with content {} and length {}", contentType, data.size());
    return false;
  }
  if (data.size() > INT32_MAX) {
    logError("QELNKLegacyStream cannot write {} bytes as one binary block", data.size());
    return false;
  }
  State::Appending appending(state_->outgoing);
  if (!writeString(fmt::format("!bin! {} {}", data.size(), contentType)) || !writeData(data)) return false;
  appending.succeeded();
  if (fenced) state_->dataFence = state_->outgoing.size();
  return true;
}

bool QELNKLegacyStream::flushOutput() { return state_->flush(nullptr); }

/// With the stream that has told of space, what comes of it is noted before anybody can queue more.
bool QELNKLegacyStream::State::flush(const ByteStream *withSpace) {
  const qelnk::Lock flushing(flushMutex);
  qelnk::Lock lock(mutex);
  if (withSpace && withSpace != output.get()) return false;  // of an earlier connection
  if (!withSpace) flushScheduled = false;
  const auto result = [&](bool flushed) QELNK_REQUIRES(mutex) {
    if (withSpace) missedSpaceEvent = !flushed;
    return flushed;
  };
  if (outgoing.empty()) return result(false);
  qelnk::OutgoingBytes::Piece piece;
  try {
    piece = outgoing.first(maximumWriteSize);
  } catch (const std::bad_alloc &) {
    logError("QELNKLegacyStream has no memory to write from; it will try again");
    return result(false);
  }
  const auto to = output;
  const uint64_t connection = connections;
  lock.unlock();
  if (logs(logFlushedBytes)) logDefault("Flushing {} bytes to output stream", piece.bytes.size());
  const ssize_t written = to ? to->write(piece.bytes) : 0;
  if (written < 0) logDefault("Network write error, will try again!");
  if (written > 0 && logs(logFlushedBytes)) logDefault("Flushed {} bytes to output stream", written);
  lock.lock();
  if (connections != connection) return true;  // of the new one nothing is known yet
  if (written < 0) status = 0;
  if (written > 0) {
    outgoing.removeFirst(size_t(written));
    dataFence -= std::min(dataFence, uint64_t(written));
    handshakeLeft -= std::min(handshakeLeft, uint64_t(written));
  }
  return result(written != 0);
}

uint64_t QELNKLegacyStream::outgoingLength() const {
  const qelnk::Lock lock(state_->mutex);
  return state_->outgoing.size();
}

void QELNKLegacyStream::queueHandshake() {
  constexpr std::string_view handshake("handshake\0", 10);
  const qelnk::Lock lock(state_->mutex);
  if (state_->appID.empty()) logError("QELNKLegacyStream has no application ID for its handshake");
  writeBytes(handshake.data(), handshake.size(), false, true);
  for (const std::string &message : {hostMessage(), ipv4Message(), "appID " + state_->appID})
    writeBytes(message.data(), message.size(), true, true);
  state_->handshakeLeft = state_->outgoing.size();
}

// --- Status ---

uint64_t QELNKLegacyStream::streamStatus() const { return state_->status; }
bool QELNKLegacyStream::isReady() const { return state_->status & ready; }

void QELNKLegacyStream::setStatus(uint64_t bit, bool condition) { setStatus(bit, condition, std::nullopt); }

/// Nothing where there is another connection than the one that it is about, if one is given.
void QELNKLegacyStream::setStatus(uint64_t bit, bool condition, std::optional<uint64_t> connection) {
  if (logs(logStatus)) logDefault("Set stream status {} with condition {:d}", bit, condition);
  if (!condition || (state_->status & bit)) return;
  std::shared_ptr<ByteStream> input, output;
  {
    const qelnk::Lock lock(state_->mutex);
    auto &status = state_->status;
    if ((status & bit) || (connection && *connection != state_->connections)) return;
    status |= bit;
    if ((status & (outputOpen | hasSpace | sentHandshake)) == (outputOpen | hasSpace)) {
      status |= sentHandshake;
      queueHandshake();
    }
    if ((state_->testFullyConfigured & status) != state_->compareFullyConfigured || isReady()) return;
    status |= ready;
    state_->endHandshake();
    input = state_->input;
    output = state_->output;
  }
  logDefault("Stream is ready, informing delegate");
  configureSocketForStream(input);
  configureSocketForStream(output);
  informDelegateStreamIsReady();
}

// --- Events ---

void QELNKLegacyStream::stream(const std::shared_ptr<ByteStream> &stream, StreamEvent event) {
  const auto self = held();
  bool isInput = false, isOutput = false;
  uint64_t connection = 0;
  {
    const qelnk::Lock lock(state_->mutex);
    isInput = stream && stream == state_->input;
    isOutput = stream && stream == state_->output;
    connection = state_->connections;
  }
  if (stream && !isInput && !isOutput) return;  // of a connection that was dropped meanwhile
  switch (event) {
    case StreamEvent::none:
      logDefault("NSStreamEventNone");
      break;
    case StreamEvent::opened:
      state_->opened(connection);
      setStatus(inputOpen, isInput, connection);
      setStatus(outputOpen, isOutput, connection);
      break;
    case StreamEvent::bytesAvailable:
      if (isInput) readIncoming(std::static_pointer_cast<InputStream>(stream));
      break;
    case StreamEvent::spaceAvailable: {
      setStatus(hasSpace, isOutput, connection);
      if (!isOutput) break;
      const bool flushed = state_->flush(stream.get());
      if (logs(logFlushes)) logDefault("Flushed output in space available, missed space event = {:d}", !flushed);
      break;
    }
    case StreamEvent::error: {
      if (!state_->takesEnd(connection)) break;
      const std::error_code error = stream ? stream->error() : std::error_code();
      {
        const qelnk::Lock lock(state_->mutex);
        if (state_->connections != connection) break;
        state_->connectionError = error;
      }
      const State::Ending ending(*this, connection);
      if (error == std::errc::connection_refused) return informDelegateConnectionRefused();
      if (error == std::errc::address_not_available) return handleAddressNotAvailableForStream(stream);
      logDefault("NSStreamEventErrorOccurred: {}", error.message());
      terminate(connection);
      break;
    }
    case StreamEvent::end:
      if (!state_->takesEnd(connection)) break;
      logDefault("NSStreamEventEndEncountered");
      terminate(connection);
      break;
  }
}

/// Tells that the connection has ended, and ends it; not one that has been made before this, or by the delegate.
void QELNKLegacyStream::terminate(uint64_t connection) {
  if (state_->connections != connection) return;
  const State::Ending ending(*this, connection);
  informDelegateStreamWasTerminated();
  endConnection(connection);
}

void QELNKLegacyStream::readIncoming(const std::shared_ptr<InputStream> &input) {
  if (state_->reading.exchange(true)) return;
  const auto &deliveries = state_->deliveries;
  bool failed = false;
  qelnk::runGuarded("QELNKLegacyStream", [&] { failed = !state_->readAll(*this, *input); });
  if (failed) {
    const qelnk::Lock lock(state_->mutex);
    if (state_->input == input) state_->status = 0;
    return;  // still reading, so that nothing more is read here
  }
  const bool stopped = state_->stoppedReading;
  state_->reading = false;
  if (stopped) {
    deliveries->readingPaused = true;
    deliveries->resumeIfFew(state_->held);
  }
  // Whoever connected again meanwhile was told that a read pass is running.
  if (const auto now = inputStream(); now && now != input) State::resumeReading(state_->held);
}

/// Reads what there is, unless too much waits for the main thread; after a while it is the turn of the thread's other
/// streams. Returns false when reading failed.
bool QELNKLegacyStream::State::readAll(QELNKLegacyStream &stream, InputStream &from) {
  const ReadPass pass(stream);
  const uint64_t connection = connections;
  if (stream.inputStream().get() != &from) return true;
  std::array<uint8_t, IncomingMessages::chunkSize> chunk;
  Messages messages;
  int chunksLeft = chunksAtOnce;
  while (!(stoppedReading = deliveries->areMany()) && from.hasBytesAvailable()) {
    if (stream.weak_from_this().expired()) return true;  // nobody is there to be told
    if (chunksLeft-- == 0) {
      resumeReading(held);
      return true;
    }
    const ssize_t count = from.read(chunk);
    if (count < 0) return false;
    try {
      {
        const qelnk::Lock lock(readMutex);
        if (connections != connection) return true;
        incoming.append({chunk.data(), size_t(count)});
      }
      while (receiveSome(stream, messages)) {
      }
    } catch (const std::bad_alloc &) {
      logError("QELNKLegacyStream ends the connection: no memory for what was received");
      if (takesEnd(connection)) stream.terminate(connection);
    }
  }
  return true;
}

void QELNKLegacyStream::State::resumeReading(const std::weak_ptr<QELNKLegacyStream> &weak) {
  const auto stream = weak.lock();
  if (const auto owner = stream ? stream->state_->servingThread() : nullptr)
    owner->performSelectorOnTarget(
        [held = stream->state_->held] {
          const auto self = held.lock();
          if (const auto from = self ? self->inputStream() : nullptr) self->stream(from, StreamEvent::bytesAvailable);
        },
        false);
}

/// Deals with the next messages of what has been read, for which `messages` is room; whether there may be more.
bool QELNKLegacyStream::State::receiveSome(QELNKLegacyStream &stream, Messages &messages) {
  const uint64_t connection = connections;
  size_t count = 0;
  bool goesOn = true;
  {
    const qelnk::Lock lock(readMutex);
    while (goesOn && count < messagesAtOnce) {
      if (count == messages.size()) messages.emplace_back();
      if (!(goesOn = incoming.next(messages[count]))) break;
      // What the log says of a header or a block is about what is buffered then.
      const auto kind = messages[count++].kind;
      if (kind == IncomingMessages::Kind::binaryHeader || kind == IncomingMessages::Kind::binary) break;
    }
  }
  for (size_t i = 0; i < count && connections == connection; ++i) receive(stream, connection, messages[i]);
  return goesOn && connections == connection;
}

void QELNKLegacyStream::State::receive(QELNKLegacyStream &stream, uint64_t connection, Messages::value_type &message) {
  using Kind = IncomingMessages::Kind;
  const auto remember = [&](std::optional<std::string> State::*field, std::optional<std::string> text) {
    const qelnk::Lock lock(mutex);
    (*this).*field = std::move(text);
  };
  if (logs(logIncoming) && message.kind != Kind::binary) logIncomingString(message.string);
  switch (message.kind) {
    case Kind::handshake:
      stream.setStatus(receivedHandshake, true, connection);
      break;
    case Kind::host:
      remember(&State::peerHostName, std::string(message.text()));
      stream.setStatus(receivedHost, true, connection);
      break;
    case Kind::ipv4:
      remember(&State::peerIPv4Address,
               message.text().empty() ? std::nullopt : std::optional(std::string(message.text())));
      stream.setStatus(receivedIPv4, true, connection);
      break;
    case Kind::appID:
      remember(&State::peerAppID, std::string(message.text()));
      stream.setStatus(receivedAppID, true, connection);
      break;
    case Kind::heartbeat:
      stream.informDelegateOfHeartbeatAtTimecode(QELProjectTimecode::timecodeWithString(message.text()),
                                                 message.information());
      break;
    case Kind::binaryHeader:
      if (const uint64_t pending = incomingState().first;
          (pending == 0 || pending > INT32_MAX) && mistakesHere().headers.again())
        logError("QELNKLegacyStream binary header announces no length: {} ({} so far)",
                 qelnk::printable(beginning(message.string)), mistakes.headers.count());
      break;
    case Kind::string:
      stream.informDelegateOfReceivedString(message.string);
      break;
    case Kind::binary: {
      const Data data = std::exchange(message.data, {});
      if (logs(logIncoming))
        logDefault("Received for {} binary data bytes, incoming buffer length {}", data.size(),
                   data.size() + incomingState().second);
      stream.informDelegateOfReceivedBinaryData(data, message.string);
      break;
    }
    case Kind::invalidText:
      if (mistakesHere().texts.again())
        logError("QELNKLegacyStream dropped a string of {} bytes that is not UTF-8 ({} so far)", message.string.size(),
                 mistakes.texts.count());
      break;
    case Kind::stringTooLong:
    case Kind::binaryTooLong:
      logError("QELNKLegacyStream ends the connection: a {} is longer than the options allow",
               message.kind == Kind::stringTooLong ? "string" : "binary block");
      if (takesEnd(connection)) stream.terminate(connection);
      break;
  }
}

/// Those of this connection.
QELNKLegacyStream::State::Mistakes &QELNKLegacyStream::State::mistakesHere() {
  if (const uint64_t here = connections; mistakes.connection != here) mistakes = {here, {}, {}};
  return mistakes;
}

/// The length of the block that is being received, and how many bytes are buffered.
std::pair<uint64_t, uint64_t> QELNKLegacyStream::State::incomingState() {
  const qelnk::Lock lock(readMutex);
  return {incoming.binaryDataPending(), incoming.buffered()};
}

// --- Telling ---

void QELNKLegacyStream::dispatchToMainThreadAsync(bool async, qelnk::Task block) {
  const auto main = qelnk::RunLoop::main();
  if (async)
    main->perform(std::move(block));
  else
    main->performAndWait(std::move(block));
}

void QELNKLegacyStream::informDelegateOfReceivedString(const std::string &string) {
  State::inform(
      *this, true, string.size(),
      [](const auto &stream, const auto &delegate, const auto &text) { delegate->networkStream(stream, text); },
      string);
}

void QELNKLegacyStream::informDelegateOfReceivedBinaryData(const Data &data, const std::string &contentType) {
  State::inform(
      *this, true, data.size() + contentType.size(),
      [](const auto &stream, const auto &delegate, const Data &block, const auto &type) {
        delegate->networkStream(stream, block, type);
      },
      data, contentType);
}

void QELNKLegacyStream::informDelegateOfHeartbeatAtTimecode(const QELProjectTimecode &timecode,
                                                            const std::optional<std::string> &extendedInformation) {
  State::inform(
      *this, true, timecode.XMLRepresentation().size() + (extendedInformation ? extendedInformation->size() : 0),
      [](const auto &stream, const auto &delegate, const auto &at, const auto &information) {
        delegate->networkStream(stream, at, information);
      },
      timecode, extendedInformation);
}

void QELNKLegacyStream::informDelegateStreamIsReady() {
  State::inform(*this, false, 0, [](const auto &stream, const auto &delegate) {
    if (stream->isReady()) delegate->networkStreamIsReady(stream);  // it may have been disconnected meanwhile
  });
}

void QELNKLegacyStream::informDelegateStreamWasTerminated() {
  State::inform(*this, false, 0,
                [](const auto &stream, const auto &delegate) { delegate->networkStreamWasTerminated(stream); });
}

void QELNKLegacyStream::informDelegateConnectionRefused() {}
void QELNKLegacyStream::configureSocketForStream(const std::shared_ptr<ByteStream> &) {}

void QELNKLegacyStream::handleAddressNotAvailableForStream(const std::shared_ptr<ByteStream> &stream) {
  logDefault("NSStreamEventErrorOccurred: {}", (stream ? stream->error() : std::error_code()).message());
  informDelegateStreamWasTerminated();
}

// --- Properties ---

uint64_t QELNKLegacyStream::droppedLength() const { return state_->locked(&State::droppedLength); }
std::error_code QELNKLegacyStream::connectionError() const { return state_->locked(&State::connectionError); }
uint64_t QELNKLegacyStream::maximumWriteSize() const { return state_->locked(&State::maximumWriteSize); }

void QELNKLegacyStream::setMaximumWriteSize(uint64_t size) {
  const qelnk::Lock lock(state_->mutex);
  state_->maximumWriteSize = size;
}

bool QELNKLegacyStream::callDelegateOnMainThread() const { return state_->callDelegateOnMainThread; }
void QELNKLegacyStream::setCallDelegateOnMainThread(bool flag) { state_->callDelegateOnMainThread = flag; }

std::shared_ptr<QELNKLegacyStreamDelegate> QELNKLegacyStream::delegate() const {
  return state_->locked(&State::delegate).lock();
}

void QELNKLegacyStream::setDelegate(std::weak_ptr<QELNKLegacyStreamDelegate> delegate) {
  const qelnk::Lock lock(state_->mutex);
  state_->delegate.swap(delegate);
  ++state_->delegateVersion;
}

std::any QELNKLegacyStream::context() const { return state_->locked(&State::context); }

void QELNKLegacyStream::setContext(std::any context) {
  const qelnk::Lock lock(state_->mutex);
  state_->context.swap(context);
}

std::string QELNKLegacyStream::appID() const { return state_->locked(&State::appID); }
std::shared_ptr<QELNKLegacyStreamThread> QELNKLegacyStream::thread() const { return state_->locked(&State::thread); }
std::shared_ptr<InputStream> QELNKLegacyStream::inputStream() const { return state_->locked(&State::input); }
std::shared_ptr<OutputStream> QELNKLegacyStream::outputStream() const { return state_->locked(&State::output); }

// --- The peer ---

namespace {

sockaddr_in6 socketAddressOf(const std::array<uint8_t, 28> &bytes) {
  sockaddr_in6 address;
  static_assert(sizeof address == sizeof bytes);
  std::memcpy(&address, bytes.data(), sizeof address);
  return address;
}

}  // namespace

std::optional<std::string> QELNKLegacyStream::peerAddress() const {
  const sockaddr_in6 address = socketAddressOf(state_->locked(&State::peerAddress));
  if (address.sin6_family != AF_INET6 && address.sin6_family != AF_INET) return std::nullopt;
  std::array<char, INET6_ADDRSTRLEN> text{};
  const auto *generic = reinterpret_cast<const sockaddr *>(&address);
  const void *const bytes = address.sin6_family == AF_INET6 ? static_cast<const void *>(&address.sin6_addr)
                                                            : &reinterpret_cast<const sockaddr_in *>(generic)->sin_addr;
  return inet_ntop(address.sin6_family, bytes, text.data(), text.size());
}

std::optional<std::string> QELNKLegacyStream::peerIPv4Address() const {
  if (auto announced = state_->locked(&State::peerIPv4Address)) return announced;
  return socketAddressOf(state_->locked(&State::peerAddress)).sin6_family == AF_INET ? peerAddress() : std::nullopt;
}

uint16_t QELNKLegacyStream::peerPort() const {
  return socketAddressOf(state_->locked(&State::peerAddress)).sin6_port;  // at the same place for IPv4
}

std::optional<std::string> QELNKLegacyStream::peerHostName() const { return state_->locked(&State::peerHostName); }
std::optional<std::string> QELNKLegacyStream::peerAppID() const { return state_->locked(&State::peerAppID); }

void QELNKLegacyStream::setPeerAddressFromData(const Data &address) {
  const qelnk::Lock lock(state_->mutex);
  if (address.size() == state_->peerAddress.size())
    std::copy(address.begin(), address.end(), state_->peerAddress.begin());
}

std::string QELNKLegacyStream::description() const {
  return fmt::format("QELNKLegacyStream {}", static_cast<const void *>(this));
}
