#include <QELNetworkKit/QELNKLegacyStream.h>
#include <arpa/inet.h>
#include <fmt/format.h>
#include <simdjson.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <new>
#include <utility>

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

/// The first characters of a text, so many at most.
std::string_view beginning(std::string_view text) {
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

Value QELNKLegacyStream::options() const { return state_->locked(state_->options); }

void QELNKLegacyStream::setOptions(const Value &options) {
  std::shared_ptr<QELNKLegacyStreamThread> replaced;  // goes after the lock
  const auto number = [&](std::string_view key) {
    const Value *value = options.find(key);
    return value && value->isNumber() ? value : nullptr;
  };
  const auto flag = [&](std::string_view key) {
    const Value *value = options.find(key);
    return value && value->isBool() ? std::optional(value->boolValue()) : std::nullopt;
  };
  const std::lock_guard lock(state_->mutex);
  if (const auto *size = number("writeSize")) state_->maximumWriteSize = size->unsignedValue();
  if (const auto own = flag("multiThreaded")) {
    const bool hasIt = state_->thread && state_->thread->isCancellable() == *own;
    if (!hasIt && !state_->input && !state_->output) try {
        replaced = std::exchange(state_->thread, *own ? QELNKLegacyStreamThread::multiThreaded()
                                                      : QELNKLegacyStreamThread::singleThreaded());
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
  state_->options = options;
}

// --- Life ---

QELNKLegacyStream::QELNKLegacyStream() : state_(std::make_unique<State>()) {}
QELNKLegacyStream::~QELNKLegacyStream() = default;

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
  if (const auto thread = this->thread()) thread->cancel();
}

void QELNKLegacyStream::setInputStream(std::shared_ptr<InputStream> inputStream,
                                       std::shared_ptr<OutputStream> outputStream) {
  std::shared_ptr<ByteStream> droppedInput, droppedOutput;  // go after the lock
  {
    const std::scoped_lock lock(state_->mutex, state_->readMutex);
    state_->outgoing.clear();
    state_->incoming.clear();
    state_->incoming.setLimits(state_->limits);
    state_->missedSpaceEvent = false;
    droppedInput = std::exchange(state_->input, inputStream);
    droppedOutput = std::exchange(state_->output, outputStream);
  }
  scheduleStream(inputStream);
  scheduleStream(outputStream);
}

void QELNKLegacyStream::scheduleStream(const std::shared_ptr<ByteStream> &stream) {
  if (!stream) return;
  stream->setEventTarget([self = weak_from_this(), from = std::weak_ptr(stream)](StreamEvent event) {
    const auto target = self.lock();
    const auto source = from.lock();
    if (target && source) target->stream(source, event);
  });
  if (const auto thread = this->thread()) thread->scheduleStream(stream);
}

std::nullptr_t QELNKLegacyStream::closeStream(const std::shared_ptr<ByteStream> &stream) {
  if (!stream) return nullptr;
  if (const auto thread = this->thread()) {
    thread->closeStream(stream);
  } else {  // it has never been scheduled
    stream->setEventTarget(nullptr);
    stream->close();
  }
  return nullptr;
}

void QELNKLegacyStream::disconnect() { _disconnect(); }

void QELNKLegacyStream::_disconnect() {
  logDefault("Disconnect streams");
  std::shared_ptr<ByteStream> input, output;
  {
    const std::lock_guard lock(state_->mutex);
    input = std::exchange(state_->input, nullptr);
    output = std::exchange(state_->output, nullptr);
  }
  closeStream(input);
  closeStream(output);
  const std::scoped_lock lock(state_->mutex, state_->readMutex);
  if (state_->input || state_->output) return;  // connected again meanwhile
  state_->incoming.clear();
  state_->outgoing.clear();
  state_->status = 0;
}

// --- Writing ---

/// Queues the bytes, or `shared` by reference, which are the same.
bool QELNKLegacyStream::queue(const void *bytes, size_t length, const Data *shared, bool terminated,
                              bool ignoringStatus) {
  const std::lock_guard lock(state_->mutex);
  if (!bytes || state_->handledCloseError || (!ignoringStatus && !isReady())) return false;
  const std::span<const uint8_t> span(static_cast<const uint8_t *>(bytes), length);
  if (logs(logOutgoing)) logOutgoingBytes({static_cast<const char *>(bytes), length});
  if (shared)
    state_->outgoing.append(*shared);
  else
    state_->outgoing.append(span);
  constexpr uint8_t terminator = 0;
  if (terminated) state_->outgoing.append({&terminator, 1});
  if (!state_->missedSpaceEvent || !state_->thread) return true;
  if (logs(logFlushes))
    logDefault("Flushed output in write bytes, missed space event = {:d}", state_->missedSpaceEvent);
  // One request does for all that is queued until it is served: it writes, and so brings space events for the rest.
  if (!state_->flushScheduled)
    state_->flushScheduled = state_->thread->performSelectorOnTarget(
        [weak = weak_from_this()] {
          const auto self = weak.lock();
          if (!self) return;
          const std::lock_guard flushLock(self->state_->mutex);
          self->state_->flushScheduled = false;
          self->flushOutput();
        },
        false);
  return true;
}

bool QELNKLegacyStream::writeBytes(const void *bytes, size_t length, bool appendingZeroTerminator,
                                   bool ignoringStatus) {
  return queue(bytes, length, nullptr, appendingZeroTerminator, ignoringStatus);
}

bool QELNKLegacyStream::isWritable(const std::string &string) {
  const bool writable = string.find('\0') == std::string::npos && simdjson::validate_utf8(string);
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
  const std::lock_guard lock(state_->mutex);
  if (fenced && state_->dataFence != 0) {
    logDefault("Data fence: dropping binary data with content {} and length {}", contentType, data.size());
    return false;
  }
  if (data.size() > INT32_MAX) {
    logError("QELNKLegacyStream cannot write {} bytes as one binary block", data.size());
    return false;
  }
  if (!writeString(fmt::format("!bin! {} {}", data.size(), contentType)) || !writeData(data)) return false;
  if (fenced) state_->dataFence = state_->outgoing.size();
  return true;
}

bool QELNKLegacyStream::flushOutput() {
  const std::lock_guard lock(state_->mutex);
  if (state_->outgoing.empty()) return false;
  const auto bytes = state_->outgoing.first(state_->maximumWriteSize);
  if (logs(logFlushedBytes)) logDefault("Flushing {} bytes to output stream", bytes.size());
  const ssize_t written = state_->output ? state_->output->write(bytes) : 0;
  if (written < 0) {
    logDefault("Network write error, will try again!");
    state_->status = 0;
    return true;
  }
  if (written == 0) return false;
  state_->outgoing.removeFirst(size_t(written));
  if (logs(logFlushedBytes)) logDefault("Flushed {} bytes to output stream", written);
  state_->dataFence -= std::min(state_->dataFence, uint64_t(written));
  return true;
}

uint64_t QELNKLegacyStream::outgoingLength() const {
  const std::lock_guard lock(state_->mutex);
  return state_->outgoing.size();
}

void QELNKLegacyStream::queueHandshake() {
  constexpr std::string_view handshake("handshake\0", 10);
  if (state_->appID.empty()) logError("{} has no application ID for its handshake", description());
  writeBytes(handshake.data(), handshake.size(), false, true);
  for (const std::string &message : {hostMessage(), ipv4Message(), "appID " + state_->appID})
    writeBytes(message.data(), message.size(), true, true);
}

// --- Status ---

uint64_t QELNKLegacyStream::streamStatus() const { return state_->status; }
bool QELNKLegacyStream::isReady() const { return state_->status & ready; }

void QELNKLegacyStream::setStatus(uint64_t bit, bool condition) {
  if (logs(logStatus)) logDefault("Set stream status {} with condition {:d}", bit, condition);
  std::shared_ptr<ByteStream> input, output;
  {
    const std::lock_guard lock(state_->mutex);
    auto &status = state_->status;
    if (!condition || (status & bit)) return;
    status |= bit;
    if ((status & (outputOpen | hasSpace | sentHandshake)) == (outputOpen | hasSpace)) {
      status |= sentHandshake;
      queueHandshake();
    }
    if ((state_->testFullyConfigured & status) != state_->compareFullyConfigured || isReady()) return;
    status |= ready;
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
  const auto self = shared_from_this();
  const auto input = inputStream();
  const auto output = outputStream();
  const bool isInput = stream && stream == input, isOutput = stream && stream == output;
  if (stream && !isInput && !isOutput) return;  // of a connection that was dropped meanwhile
  switch (event) {
    case StreamEvent::none:
      logDefault("NSStreamEventNone");
      break;
    case StreamEvent::opened:
      state_->handledCloseError = false;
      setStatus(inputOpen, isInput);
      setStatus(outputOpen, isOutput);
      break;
    case StreamEvent::bytesAvailable:
      if (isInput) readIncoming(input);
      break;
    case StreamEvent::spaceAvailable: {
      setStatus(hasSpace, isOutput);
      if (!isOutput) break;
      const std::lock_guard lock(state_->mutex);
      if (state_->output != output) break;
      state_->missedSpaceEvent = !flushOutput();
      if (logs(logFlushes))
        logDefault("Flushed output in space available, missed space event = {:d}", state_->missedSpaceEvent);
      break;
    }
    case StreamEvent::error: {
      if (state_->handledCloseError.exchange(true)) break;
      const std::error_code error = stream ? stream->error() : std::error_code();
      if (error == std::errc::connection_refused) return informDelegateConnectionRefused();
      if (error == std::errc::address_not_available) return handleAddressNotAvailableForStream(stream);
      logDefault("NSStreamEventErrorOccurred: {}", error.message());
      terminate();
      break;
    }
    case StreamEvent::end:
      if (state_->handledCloseError.exchange(true)) break;
      logDefault("NSStreamEventEndEncountered");
      terminate();
      break;
  }
}

/// Tells that the connection has ended, and ends it; not one that the delegate has made meanwhile.
void QELNKLegacyStream::terminate() {
  const auto input = inputStream();
  informDelegateStreamWasTerminated();
  if (const auto now = inputStream(); !now || now == input) _disconnect();
}

void QELNKLegacyStream::readIncoming(const std::shared_ptr<InputStream> &input) {
  if (state_->reading.exchange(true)) return;
  std::array<uint8_t, IncomingMessages::chunkSize> chunk;
  const auto &deliveries = state_->deliveries;
  while (!deliveries->areMany() && input->hasBytesAvailable()) {
    const ssize_t count = input->read(chunk);
    if (count < 0) {
      state_->status = 0;
      return;  // still reading, so that nothing more is read here
    }
    try {
      {
        const std::lock_guard lock(state_->readMutex);
        state_->incoming.append({chunk.data(), size_t(count)});
      }
      while (receiveNext()) {
      }
    } catch (const std::bad_alloc &) {
      logError("QELNKLegacyStream ends the connection: no memory for what was received");
      if (!state_->handledCloseError.exchange(true)) terminate();
    }
  }
  state_->reading = false;
  if (deliveries->areMany()) {
    deliveries->readingPaused = true;
    if (deliveries->areFew() && deliveries->readingPaused.exchange(false)) state_->resumeReading(shared_from_this());
  }
  // Whoever connected again meanwhile was told that a read pass is running.
  if (const auto now = inputStream(); now && now != input) state_->resumeReading(shared_from_this());
}

void QELNKLegacyStream::State::resumeReading(const std::shared_ptr<QELNKLegacyStream> &stream) {
  if (const auto owner = stream->thread())
    owner->performSelectorOnTarget(
        [weak = std::weak_ptr(stream)] {
          const auto self = weak.lock();
          if (const auto from = self ? self->inputStream() : nullptr) self->stream(from, StreamEvent::bytesAvailable);
        },
        false);
}

/// Deals with the next message of what has been read; whether there was one.
bool QELNKLegacyStream::receiveNext() {
  using Kind = IncomingMessages::Kind;
  std::optional<IncomingMessages::Message> message;
  uint64_t pending = 0, buffered = 0;
  {
    const std::lock_guard lock(state_->readMutex);
    message = state_->incoming.next();
    pending = state_->incoming.binaryDataPending();
    buffered = state_->incoming.buffered();
  }
  if (!message) return false;
  if (logs(logIncoming)) {
    if (message->kind == Kind::binary)
      logDefault("Received for {} binary data bytes, incoming buffer length {}", message->data.size(),
                 message->data.size() + buffered);
    else
      logIncomingString(message->string);
  }
  const auto remember = [&](std::optional<std::string> State::*field, std::optional<std::string> text) {
    const std::lock_guard lock(state_->mutex);
    (*state_).*field = std::move(text);
  };
  switch (message->kind) {
    case Kind::handshake:
      setStatus(receivedHandshake, true);
      break;
    case Kind::host:
      remember(&State::peerHostName, message->text);
      setStatus(receivedHost, true);
      break;
    case Kind::ipv4:
      remember(&State::peerIPv4Address, message->text.empty() ? std::nullopt : std::optional(message->text));
      setStatus(receivedIPv4, true);
      break;
    case Kind::appID:
      remember(&State::peerAppID, message->text);
      setStatus(receivedAppID, true);
      break;
    case Kind::heartbeat:
      informDelegateOfHeartbeatAtTimecode(QELProjectTimecode::timecodeWithString(message->text), message->information);
      break;
    case Kind::binaryHeader:
      if (pending == 0 || pending > INT32_MAX)
        logError("QELNKLegacyStream binary header announces no length: {}", beginning(message->string));
      break;
    case Kind::string:
      informDelegateOfReceivedString(message->string);
      break;
    case Kind::binary:
      informDelegateOfReceivedBinaryData(message->data, message->contentType);
      break;
    case Kind::invalidText:
      logError("QELNKLegacyStream dropped a string of {} bytes that is not UTF-8", message->string.size());
      break;
    case Kind::stringTooLong:
    case Kind::binaryTooLong:
      logError("QELNKLegacyStream ends the connection: a {} is longer than the options allow",
               message->kind == Kind::stringTooLong ? "string" : "binary block");
      if (!state_->handledCloseError.exchange(true)) terminate();
      return false;
  }
  return true;
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
  State::inform(*this, true, string.size(),
                [string](const auto &stream, const auto &delegate) { delegate->networkStream(stream, string); });
}

void QELNKLegacyStream::informDelegateOfReceivedBinaryData(const Data &data, const std::string &contentType) {
  State::inform(*this, true, data.size(), [data, contentType](const auto &stream, const auto &delegate) {
    delegate->networkStream(stream, data, contentType);
  });
}

void QELNKLegacyStream::informDelegateOfHeartbeatAtTimecode(const QELProjectTimecode &timecode,
                                                            const std::optional<std::string> &extendedInformation) {
  State::inform(*this, true, 0, [timecode, extendedInformation](const auto &stream, const auto &delegate) {
    delegate->networkStream(stream, timecode, extendedInformation);
  });
}

void QELNKLegacyStream::informDelegateStreamIsReady() {
  State::inform(*this, false, 0,
                [](const auto &stream, const auto &delegate) { delegate->networkStreamIsReady(stream); });
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

uint64_t QELNKLegacyStream::maximumWriteSize() const { return state_->locked(state_->maximumWriteSize); }

void QELNKLegacyStream::setMaximumWriteSize(uint64_t size) {
  const std::lock_guard lock(state_->mutex);
  state_->maximumWriteSize = size;
}

bool QELNKLegacyStream::callDelegateOnMainThread() const { return state_->callDelegateOnMainThread; }
void QELNKLegacyStream::setCallDelegateOnMainThread(bool flag) { state_->callDelegateOnMainThread = flag; }

std::shared_ptr<QELNKLegacyStreamDelegate> QELNKLegacyStream::delegate() const {
  return state_->locked(state_->delegate).lock();
}

void QELNKLegacyStream::setDelegate(std::weak_ptr<QELNKLegacyStreamDelegate> delegate) {
  const std::lock_guard lock(state_->mutex);
  state_->delegate.swap(delegate);
}

std::any QELNKLegacyStream::context() const { return state_->locked(state_->context); }

void QELNKLegacyStream::setContext(std::any context) {
  const std::lock_guard lock(state_->mutex);
  state_->context.swap(context);
}

std::string QELNKLegacyStream::appID() const { return state_->locked(state_->appID); }
std::shared_ptr<QELNKLegacyStreamThread> QELNKLegacyStream::thread() const { return state_->locked(state_->thread); }
std::shared_ptr<InputStream> QELNKLegacyStream::inputStream() const { return state_->locked(state_->input); }
std::shared_ptr<OutputStream> QELNKLegacyStream::outputStream() const { return state_->locked(state_->output); }

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
  const sockaddr_in6 address = socketAddressOf(state_->locked(state_->peerAddress));
  if (address.sin6_family != AF_INET6 && address.sin6_family != AF_INET) return std::nullopt;
  std::array<char, INET6_ADDRSTRLEN> text{};
  const auto *generic = reinterpret_cast<const sockaddr *>(&address);
  const void *const bytes = address.sin6_family == AF_INET6
                                ? static_cast<const void *>(&address.sin6_addr)
                                : &reinterpret_cast<const sockaddr_in *>(generic)->sin_addr;
  return inet_ntop(address.sin6_family, bytes, text.data(), text.size());
}

std::optional<std::string> QELNKLegacyStream::peerIPv4Address() const {
  if (auto announced = state_->locked(state_->peerIPv4Address)) return announced;
  return socketAddressOf(state_->locked(state_->peerAddress)).sin6_family == AF_INET ? peerAddress() : std::nullopt;
}

uint16_t QELNKLegacyStream::peerPort() const {
  return socketAddressOf(state_->locked(state_->peerAddress)).sin6_port;  // at the same place for IPv4
}

std::optional<std::string> QELNKLegacyStream::peerHostName() const { return state_->locked(state_->peerHostName); }
std::optional<std::string> QELNKLegacyStream::peerAppID() const { return state_->locked(state_->peerAppID); }

void QELNKLegacyStream::setPeerAddressFromData(const Data &address) {
  const std::lock_guard lock(state_->mutex);
  if (address.size() == state_->peerAddress.size())
    std::copy(address.begin(), address.end(), state_->peerAddress.begin());
}

std::string QELNKLegacyStream::description() const {
  return fmt::format("QELNKLegacyStream {}", static_cast<const void *>(this));
}
