// Byte streams in memory.

#include <QELNetworkKit/ByteStream.h>
#include <QELNetworkKit/RunLoop.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/Guard.h"

namespace qelnk {

namespace {

std::error_code brokenPipe() { return {EPIPE, std::system_category()}; }

class MemoryInput;
class MemoryOutput;

/// The bytes on their way from one output to one input.
struct Pipe {
  explicit Pipe(size_t room) : capacity(room) {}
  const size_t capacity;
  std::mutex mutex;  // guards all below
  std::vector<uint8_t> bytes;
  bool ended = false;    // the writer has closed
  bool refused = false;  // the reader has closed
  std::weak_ptr<MemoryInput> input;
  std::weak_ptr<MemoryOutput> output;
};

/// What both directions do alike.
template <class Interface, class Self>
class MemoryStream : public Interface, public std::enable_shared_from_this<Self> {
 public:
  explicit MemoryStream(std::shared_ptr<Pipe> pipe) : pipe_(std::move(pipe)) {}

  void setEventTarget(ByteStream::EventTarget target) final {
    auto next = target ? std::make_shared<const ByteStream::EventTarget>(std::move(target)) : nullptr;
    const std::lock_guard lock(mutex_);
    target_.swap(next);
  }
  void schedule(const std::shared_ptr<RunLoop> &loop) final {
    const std::lock_guard lock(mutex_);
    loop_ = loop;
  }
  void unschedule() final { schedule(nullptr); }
  std::error_code error() const final {
    const std::lock_guard lock(mutex_);
    return error_;
  }
  void close() override {
    std::shared_ptr<const ByteStream::EventTarget> target;
    const std::lock_guard lock(mutex_);
    closed_ = true;
    target.swap(target_);
  }

  /// Has `event` told, unless one of its kind is still to be told.
  void post(StreamEvent event) {
    const std::lock_guard lock(mutex_);
    postLocked(event);
  }

 protected:
  /// From here on there are events, "opened" before any other: the peer's thread may post one at once, and nothing can
  /// be read before.
  void ask() {
    const std::lock_guard lock(mutex_);
    asked_ = true;
    postLocked(StreamEvent::opened);
  }
  bool isOpen() const {
    const std::lock_guard lock(mutex_);
    return open_ && !closed_;
  }
  void fail(std::error_code error) {
    {
      const std::lock_guard lock(mutex_);
      error_ = error;
    }
    post(StreamEvent::error);
  }

  const std::shared_ptr<Pipe> pipe_;

 private:
  void postLocked(StreamEvent event) {
    const unsigned bit = 1u << unsigned(event);
    if (!asked_ || closed_ || !loop_ || (posted_ & bit)) return;
    posted_ |= bit;
    loop_->perform([weak = this->weak_from_this(), event] {
      if (const auto self = weak.lock()) self->tell(event);
    });
  }

  void tell(StreamEvent event) {
    std::unique_lock lock(mutex_);
    posted_ &= ~(1u << unsigned(event));
    if (closed_ || !loop_ || told_) return;
    if (event == StreamEvent::opened) open_ = true;
    told_ = event == StreamEvent::error || event == StreamEvent::end;
    const auto target = target_;
    lock.unlock();
    if (target) runGuarded("ByteStream event target", [&] { (*target)(event); });
  }

  mutable std::mutex mutex_;  // guards all below
  std::shared_ptr<const ByteStream::EventTarget> target_;
  std::shared_ptr<RunLoop> loop_;
  std::error_code error_;
  bool asked_ = false, open_ = false, closed_ = false, told_ = false;
  unsigned posted_ = 0;
};

class MemoryOutput final : public MemoryStream<OutputStream, MemoryOutput> {
 public:
  using MemoryStream::MemoryStream;
  ~MemoryOutput() override { close(); }
  void open() override;
  void close() override;
  ssize_t write(std::span<const uint8_t> bytes) override;
};

class MemoryInput final : public MemoryStream<InputStream, MemoryInput> {
 public:
  using MemoryStream::MemoryStream;
  ~MemoryInput() override { close(); }
  void open() override;
  void close() override;
  bool hasBytesAvailable() override;
  ssize_t read(std::span<uint8_t> room) override;
};

void MemoryOutput::open() {
  ask();
  post(StreamEvent::spaceAvailable);
}

void MemoryOutput::close() {
  MemoryStream::close();
  std::unique_lock lock(pipe_->mutex);
  pipe_->ended = true;
  const auto input = pipe_->input.lock();
  const bool drained = pipe_->bytes.empty();
  lock.unlock();
  if (input && drained) input->post(StreamEvent::end);
}

ssize_t MemoryOutput::write(std::span<const uint8_t> bytes) {
  if (!isOpen()) return -1;
  std::unique_lock lock(pipe_->mutex);
  if (pipe_->refused) {
    lock.unlock();
    fail(brokenPipe());
    return -1;
  }
  const size_t count = std::min(bytes.size(), pipe_->capacity - pipe_->bytes.size());
  pipe_->bytes.insert(pipe_->bytes.end(), bytes.begin(), bytes.begin() + ptrdiff_t(count));
  const bool hasRoom = pipe_->bytes.size() < pipe_->capacity;
  const auto input = pipe_->input.lock();
  lock.unlock();
  if (count == 0) return 0;
  if (input) input->post(StreamEvent::bytesAvailable);
  if (hasRoom) post(StreamEvent::spaceAvailable);
  return ssize_t(count);
}

void MemoryInput::open() {
  ask();
  std::unique_lock lock(pipe_->mutex);
  const bool empty = pipe_->bytes.empty(), ended = pipe_->ended;
  lock.unlock();
  if (!empty) post(StreamEvent::bytesAvailable);
  if (empty && ended) post(StreamEvent::end);
}

void MemoryInput::close() {
  MemoryStream::close();
  std::unique_lock lock(pipe_->mutex);
  pipe_->refused = true;
  const auto output = pipe_->output.lock();
  lock.unlock();
  if (output) output->post(StreamEvent::spaceAvailable);  // whoever writes then hears of it
}

bool MemoryInput::hasBytesAvailable() {
  if (!isOpen()) return false;
  const std::lock_guard lock(pipe_->mutex);
  return !pipe_->bytes.empty();
}

ssize_t MemoryInput::read(std::span<uint8_t> room) {
  if (!isOpen()) return -1;
  std::unique_lock lock(pipe_->mutex);
  const bool wasFull = pipe_->bytes.size() == pipe_->capacity;
  const size_t count = std::min(room.size(), pipe_->bytes.size());
  if (count == 0) return 0;
  std::memcpy(room.data(), pipe_->bytes.data(), count);
  pipe_->bytes.erase(pipe_->bytes.begin(), pipe_->bytes.begin() + ptrdiff_t(count));
  const bool empty = pipe_->bytes.empty(), ended = pipe_->ended;
  const auto output = pipe_->output.lock();
  lock.unlock();
  if (!empty) post(StreamEvent::bytesAvailable);
  if (empty && ended) post(StreamEvent::end);
  if (output && wasFull) output->post(StreamEvent::spaceAvailable);
  return ssize_t(count);
}

StreamPair pairOf(const std::shared_ptr<Pipe> &in, const std::shared_ptr<Pipe> &out) {
  const auto input = std::make_shared<MemoryInput>(in);
  const auto output = std::make_shared<MemoryOutput>(out);
  in->input = input;
  out->output = output;
  return {input, output};
}

}  // namespace

std::pair<StreamPair, StreamPair> streamsInMemory(size_t capacity) {
  const auto there = std::make_shared<Pipe>(std::max<size_t>(capacity, 1));
  const auto back = std::make_shared<Pipe>(there->capacity);
  return {pairOf(there, back), pairOf(back, there)};
}

}  // namespace qelnk
