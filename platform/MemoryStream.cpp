// Byte streams in memory.

#include <QELNetworkKit/ByteStream.h>
#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/RunLoop.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
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
  Mutex mutex;
  std::vector<uint8_t> bytes QELNK_GUARDED_BY(mutex);
  size_t taken QELNK_GUARDED_BY(mutex) = 0;      // of them, at the beginning
  bool ended QELNK_GUARDED_BY(mutex) = false;    // the writer has closed
  bool refused QELNK_GUARDED_BY(mutex) = false;  // the reader has closed
  std::weak_ptr<MemoryInput> input QELNK_GUARDED_BY(mutex);
  std::weak_ptr<MemoryOutput> output QELNK_GUARDED_BY(mutex);

  size_t size() const QELNK_REQUIRES(mutex) { return bytes.size() - taken; }
  /// Now and then what was taken goes: moving the rest at each would cost its square.
  void take(size_t count) QELNK_REQUIRES(mutex) {
    taken += count;
    if (taken < bytes.size() / 2) return;
    bytes.erase(bytes.begin(), bytes.begin() + ptrdiff_t(taken));
    taken = 0;
  }
  void setInput(const std::shared_ptr<MemoryInput> &end) {
    const Lock lock(mutex);
    input = end;
  }
  void setOutput(const std::shared_ptr<MemoryOutput> &end) {
    const Lock lock(mutex);
    output = end;
  }
};

/// What both directions do alike.
template <class Interface, class Self>
class MemoryStream : public Interface, public std::enable_shared_from_this<Self> {
 public:
  explicit MemoryStream(std::shared_ptr<Pipe> pipe) : pipe_(std::move(pipe)) {}

  void setEventTarget(ByteStream::EventTarget target) final {
    auto next = target ? std::make_shared<const ByteStream::EventTarget>(std::move(target)) : nullptr;
    const Lock lock(mutex_);
    target_.swap(next);
  }
  void schedule(const std::shared_ptr<RunLoop> &loop) final {
    {
      const Lock lock(mutex_);
      if (loop_ == loop) return;
      loop_ = loop;
      posted_ = 0;
      if (!asked_ || !loop) return;
      if (!open_) postLocked(StreamEvent::opened);
      if (error_) postLocked(StreamEvent::error);
    }
    postState();
  }
  void unschedule() final { schedule(nullptr); }
  std::error_code error() const final {
    const Lock lock(mutex_);
    return error_;
  }
  void close() override {
    std::shared_ptr<const ByteStream::EventTarget> target;
    const Lock lock(mutex_);
    closed_ = true;
    target.swap(target_);
  }

  /// Has `event` told, unless one of its kind is still to be told.
  void post(StreamEvent event) QELNK_EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    postLocked(event);
  }

 protected:
  /// Posts what the pipe has to tell now.
  virtual void postState() QELNK_EXCLUDES(mutex_) = 0;
  /// From here on there are events, "opened" before any other: the peer's thread may post one at once, and nothing can
  /// be read before.
  void ask() {
    {
      const Lock lock(mutex_);
      asked_ = true;
      postLocked(StreamEvent::opened);
    }
    postState();
  }
  bool isOpen() const {
    const Lock lock(mutex_);
    return open_ && !closed_;
  }
  void fail(std::error_code error) QELNK_EXCLUDES(mutex_) {
    {
      const Lock lock(mutex_);
      error_ = error;
    }
    post(StreamEvent::error);
  }

  const std::shared_ptr<Pipe> pipe_;

 private:
  void postLocked(StreamEvent event) QELNK_REQUIRES(mutex_) {
    const unsigned bit = 1u << unsigned(event);
    if (!asked_ || closed_ || !loop_ || (posted_ & bit)) return;
    posted_ |= bit;
    loop_->perform([weak = this->weak_from_this(), event] {
      if (const auto self = weak.lock()) self->tell(event);
    });
  }

  void tell(StreamEvent event) QELNK_EXCLUDES(mutex_) {
    Lock lock(mutex_);
    posted_ &= ~(1u << unsigned(event));
    if (closed_ || !loop_ || !loop_->isCurrent() || told_) return;  // it may be on an earlier loop
    if (event == StreamEvent::opened && std::exchange(open_, true)) return;
    told_ = event == StreamEvent::error || event == StreamEvent::end;
    const auto target = target_;
    lock.unlock();
    if (target) runGuarded("ByteStream event target", [&] { (*target)(event); });
  }

  mutable Mutex mutex_;
  std::shared_ptr<const ByteStream::EventTarget> target_ QELNK_GUARDED_BY(mutex_);
  std::shared_ptr<RunLoop> loop_ QELNK_GUARDED_BY(mutex_);
  std::error_code error_ QELNK_GUARDED_BY(mutex_);
  bool asked_ QELNK_GUARDED_BY(mutex_) = false, open_ QELNK_GUARDED_BY(mutex_) = false;
  bool closed_ QELNK_GUARDED_BY(mutex_) = false, told_ QELNK_GUARDED_BY(mutex_) = false;
  unsigned posted_ QELNK_GUARDED_BY(mutex_) = 0;
};

class MemoryOutput final : public MemoryStream<OutputStream, MemoryOutput> {
 public:
  using MemoryStream::MemoryStream;
  ~MemoryOutput() override { close(); }
  void open() override;
  void close() override;
  ssize_t write(std::span<const uint8_t> bytes) override;

 private:
  void postState() override;
};

class MemoryInput final : public MemoryStream<InputStream, MemoryInput> {
 public:
  using MemoryStream::MemoryStream;
  ~MemoryInput() override { close(); }
  void open() override;
  void close() override;
  bool hasBytesAvailable() override;
  ssize_t read(std::span<uint8_t> room) override;

 private:
  void postState() override;
};

void MemoryOutput::open() { ask(); }

void MemoryOutput::postState() {
  Lock lock(pipe_->mutex);
  const bool hasRoom = pipe_->size() < pipe_->capacity || pipe_->refused;
  lock.unlock();
  if (hasRoom) post(StreamEvent::spaceAvailable);
}

void MemoryOutput::close() {
  MemoryStream::close();
  Lock lock(pipe_->mutex);
  pipe_->ended = true;
  const auto input = pipe_->input.lock();
  const bool drained = pipe_->size() == 0;
  lock.unlock();
  if (input && drained) input->post(StreamEvent::end);
}

ssize_t MemoryOutput::write(std::span<const uint8_t> bytes) {
  if (!isOpen()) return -1;
  Lock lock(pipe_->mutex);
  if (pipe_->refused) {
    lock.unlock();
    fail(brokenPipe());
    return -1;
  }
  const size_t count = std::min(bytes.size(), pipe_->capacity - pipe_->size());
  pipe_->bytes.insert(pipe_->bytes.end(), bytes.begin(), bytes.begin() + ptrdiff_t(count));
  const bool hasRoom = pipe_->size() < pipe_->capacity;
  const auto input = pipe_->input.lock();
  lock.unlock();
  if (count == 0) return 0;
  if (input) input->post(StreamEvent::bytesAvailable);
  if (hasRoom) post(StreamEvent::spaceAvailable);
  return ssize_t(count);
}

void MemoryInput::open() { ask(); }

void MemoryInput::postState() {
  Lock lock(pipe_->mutex);
  const bool empty = pipe_->size() == 0, ended = pipe_->ended;
  lock.unlock();
  if (!empty) post(StreamEvent::bytesAvailable);
  if (empty && ended) post(StreamEvent::end);
}

void MemoryInput::close() {
  MemoryStream::close();
  Lock lock(pipe_->mutex);
  pipe_->refused = true;
  const auto output = pipe_->output.lock();
  lock.unlock();
  if (output) output->post(StreamEvent::spaceAvailable);  // whoever writes then hears of it
}

bool MemoryInput::hasBytesAvailable() {
  if (!isOpen()) return false;
  const Lock lock(pipe_->mutex);
  return pipe_->size() != 0;
}

ssize_t MemoryInput::read(std::span<uint8_t> room) {
  if (!isOpen()) return -1;
  Lock lock(pipe_->mutex);
  const bool wasFull = pipe_->size() == pipe_->capacity;
  const size_t count = std::min(room.size(), pipe_->size());
  if (count == 0) return 0;
  std::memcpy(room.data(), pipe_->bytes.data() + pipe_->taken, count);
  pipe_->take(count);
  const bool empty = pipe_->size() == 0, ended = pipe_->ended;
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
  in->setInput(input);
  out->setOutput(output);
  return {input, output};
}

}  // namespace

std::pair<StreamPair, StreamPair> streamsInMemory(size_t capacity) {
  const auto there = std::make_shared<Pipe>(std::max<size_t>(capacity, 1));
  const auto back = std::make_shared<Pipe>(there->capacity);
  return {pairOf(there, back), pairOf(back, there)};
}

}  // namespace qelnk
