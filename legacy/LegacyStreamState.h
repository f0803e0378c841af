#pragma once

#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/QELNKLegacyStream.h>
#include <QELNetworkKit/RunLoop.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

#include "legacy/IncomingMessages.h"
#include "legacy/OutgoingBytes.h"
#include "platform/Guard.h"
#include "platform/LogFormat.h"
#include "platform/SpinningMutex.h"

namespace qelnk {

/// A delay among the options: none for what is negative, and the longest for what is no number.
inline std::chrono::nanoseconds nanosecondsFrom(double seconds) {
  constexpr double longest = 1e9;
  const double bounded = std::isfinite(seconds) ? std::clamp(seconds, 0.0, longest) : longest;
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(bounded));
}

}  // namespace qelnk

/// What a legacy stream is made of. Whoever writes, and the thread that reads, have cache lines of their own.
struct QELNK_HIDDEN alignas(64) QELNKLegacyStream::State {
  std::weak_ptr<QELNKLegacyStream> held;
  std::atomic<uint64_t> status{0};
  std::atomic<bool> handledCloseError{false};
  std::atomic<bool> reading{false};
  std::atomic<bool> callDelegateOnMainThread{false};

  /// Taken for each write to the connection, before the next: so that whoever queues does not wait for the system.
  qelnk::Mutex flushMutex;

  /// The stream's lock, re-entrant: for what is queued and all that is small. No delegate is called under it.
  mutable qelnk::SpinningMutex mutex;
  qelnk::OutgoingBytes outgoing QELNK_GUARDED_BY(mutex);
  uint64_t dataFence QELNK_GUARDED_BY(mutex) = 0;
  uint64_t handshakeLeft QELNK_GUARDED_BY(mutex) = 0;  // of what is queued, at its beginning
  uint64_t droppedLength QELNK_GUARDED_BY(mutex) = 0;
  std::error_code connectionError QELNK_GUARDED_BY(mutex);
  uint64_t maximumWriteSize QELNK_GUARDED_BY(mutex) = 0;
  bool missedSpaceEvent QELNK_GUARDED_BY(mutex) = false;
  bool flushScheduled QELNK_GUARDED_BY(mutex) = false;
  uint64_t maximumOutgoingLength QELNK_GUARDED_BY(mutex) = 0;
  bool isOverflowing QELNK_GUARDED_BY(mutex) = false;
  std::chrono::nanoseconds handshakeTimeout QELNK_GUARDED_BY(mutex){};
  std::shared_ptr<qelnk::LoopSource> handshakeTimer QELNK_GUARDED_BY(mutex);  // until it is ready or has ended
  uint64_t testFullyConfigured QELNK_GUARDED_BY(mutex) = 0, compareFullyConfigured QELNK_GUARDED_BY(mutex) = 0;
  qelnk::Value options QELNK_GUARDED_BY(mutex);
  qelnk::IncomingMessages::Limits limits QELNK_GUARDED_BY(mutex);
  std::string appID QELNK_GUARDED_BY(mutex);
  std::weak_ptr<QELNKLegacyStreamDelegate> delegate QELNK_GUARDED_BY(mutex);
  std::atomic<uint64_t> delegateVersion{1};
  std::any context QELNK_GUARDED_BY(mutex);
  std::shared_ptr<qelnk::InputStream> input QELNK_GUARDED_BY(mutex);
  std::shared_ptr<qelnk::OutputStream> output QELNK_GUARDED_BY(mutex);
  std::shared_ptr<QELNKLegacyStreamThread> thread QELNK_GUARDED_BY(mutex);
  // The one that serves `input` and `output`.
  std::shared_ptr<QELNKLegacyStreamThread> connectionThread QELNK_GUARDED_BY(mutex);
  // Threads of its own that it had before: something may still wait on their run loops.
  std::vector<std::shared_ptr<QELNKLegacyStreamThread>> replacedThreads QELNK_GUARDED_BY(mutex);
  std::array<uint8_t, 28> peerAddress QELNK_GUARDED_BY(mutex){};
  std::optional<std::string> peerHostName QELNK_GUARDED_BY(mutex), peerIPv4Address QELNK_GUARDED_BY(mutex);
  std::optional<std::string> peerAppID QELNK_GUARDED_BY(mutex);

  /// What has been read; of its own, so that writing and reading do not wait for each other. Behind `mutex`, if both.
  alignas(64) qelnk::Mutex readMutex;
  qelnk::IncomingMessages incoming QELNK_GUARDED_BY(readMutex);
  std::atomic<uint64_t> connections{0};  // counts them: what was taken out of `incoming` may be an earlier one's

  /// What waits for the main thread, in order. While it is much, nothing is read.
  struct Deliveries {
    static constexpr uint64_t manyCalls = 1024, manyBytes = uint64_t(16) << 20;
    std::atomic<uint64_t> calls{0}, bytes{0};
    std::atomic<bool> readingPaused{false};
    bool areMany() const { return calls >= manyCalls || bytes >= manyBytes; }
    bool areFew() const { return calls <= manyCalls / 2 && bytes <= manyBytes / 2; }
    /// For each one makeNext() is to be queued to the main thread.
    void add(uint64_t size, qelnk::Task call) {
      const qelnk::Lock lock(mutex);
      waiting.emplace_back(size, std::move(call));
      ++calls;
      bytes += size;
    }
    /// Makes the oldest call, if there is one. On the main thread.
    void makeNext(const std::weak_ptr<QELNKLegacyStream> &stream) {
      std::pair<uint64_t, qelnk::Task> next;
      {
        const qelnk::Lock lock(mutex);
        if (waiting.empty()) return;
        next = std::move(waiting.front());
        waiting.pop_front();
      }
      next.second();
      --calls;
      bytes -= next.first;
      resumeIfFew(stream);
    }
    /// Makes all that wait now.
    void makeAll(const std::weak_ptr<QELNKLegacyStream> &stream) {
      for (uint64_t left = calls; left > 0; --left) makeNext(stream);
    }
    void resumeIfFew(const std::weak_ptr<QELNKLegacyStream> &stream) {
      if (readingPaused && areFew() && readingPaused.exchange(false)) resumeReading(stream);
    }

   private:
    qelnk::Mutex mutex;
    std::deque<std::pair<uint64_t, qelnk::Task>> waiting QELNK_GUARDED_BY(mutex);
  };
  const std::shared_ptr<Deliveries> deliveries = std::make_shared<Deliveries>();

  bool stoppedReading = false;  // in the last read pass, because of what waits

  /// What a peer sends that is told on the log alone; the reading thread's, of one connection.
  struct Mistakes {
    uint64_t connection = 0;
    qelnk::Recurrence texts, headers;
  };
  Mistakes mistakes;
  Mistakes &mistakesHere();

  std::shared_ptr<QELNKLegacyStreamThread> servingThread() const;
  static void close(const std::shared_ptr<QELNKLegacyStreamThread> &on,
                    const std::shared_ptr<qelnk::ByteStream> &stream);
  /// What a connection leaves, to be closed when no lock is held.
  struct Connection {
    std::shared_ptr<qelnk::ByteStream> input, output;
    std::shared_ptr<QELNKLegacyStreamThread> thread;
  };
  Connection takeConnection() QELNK_REQUIRES(mutex);
  void close(const Connection &connection);
  void dropConnection() QELNK_REQUIRES(mutex, readMutex);
  /// Takes back what was queued since it was made, unless all of it could be: a message goes out whole or not at all.
  class Appending {
   public:
    explicit Appending(qelnk::OutgoingBytes &bytes) : bytes_(bytes), before_(bytes.size()) {}
    ~Appending() {
      if (!succeeded_) bytes_.truncate(before_);
    }
    Appending(const Appending &) = delete;
    Appending &operator=(const Appending &) = delete;
    void succeeded() { succeeded_ = true; }

   private:
    qelnk::OutgoingBytes &bytes_;
    const size_t before_;
    bool succeeded_ = false;
  };

  bool flush(const qelnk::ByteStream *withSpace);
  bool requestFlush() QELNK_REQUIRES(mutex);
  bool overflows() QELNK_REQUIRES(mutex);
  void awaitHandshake();
  void endHandshake() QELNK_REQUIRES(mutex);
  void endConnection(uint64_t connection, const std::string &reason);
  void opened(uint64_t connection);
  bool takesEnd(uint64_t connection);
  static void flushAsRequested(const std::weak_ptr<QELNKLegacyStream> &stream);
  bool readAll(QELNKLegacyStream &stream, qelnk::InputStream &from);

  using Messages = std::vector<qelnk::IncomingMessages::Message>;
  bool receiveSome(QELNKLegacyStream &stream, Messages &messages);
  void receive(QELNKLegacyStream &stream, uint64_t connection, Messages::value_type &message);
  std::pair<uint64_t, uint64_t> incomingState();

  template <class Field>
  Field locked(Field State::*field) const {
    const qelnk::Lock lock(mutex);
    return this->*field;
  }

  /// The calling thread deals with the end of a connection: the hooks that it calls end no other.
  class Ending {
   public:
    Ending(const QELNKLegacyStream &stream, uint64_t connection)
        : stream_(stream), connection_(connection), outer_(std::exchange(current, this)) {}
    ~Ending() { current = outer_; }
    Ending(const Ending &) = delete;
    Ending &operator=(const Ending &) = delete;

    /// Which one of a stream's; none where it does not.
    static std::optional<uint64_t> of(const QELNKLegacyStream &stream) {
      for (const Ending *ending = current; ending; ending = ending->outer_)
        if (&ending->stream_ == &stream) return ending->connection_;
      return std::nullopt;
    }

   private:
    static constinit thread_local const Ending *current;
    const QELNKLegacyStream &stream_;
    const uint64_t connection_;
    const Ending *const outer_;
  };

  /// While there is one on the calling thread, flushes that it requests are put together: a thread of streams is asked
  /// for many at a time. Else it would be woken for each, and fall asleep again before the next.
  class FlushesTogether {
   public:
    FlushesTogether() : outer_(std::exchange(current, this)) {}
    ~FlushesTogether() {
      request();
      current = outer_;
    }
    FlushesTogether(const FlushesTogether &) = delete;
    FlushesTogether &operator=(const FlushesTogether &) = delete;

    static FlushesTogether *here() { return current; }
    void add(const std::shared_ptr<QELNKLegacyStreamThread> &thread, const std::weak_ptr<QELNKLegacyStream> &stream);

   private:
    void request();
    static constexpr size_t atOnce = 64;
    static constinit thread_local FlushesTogether *current;
    std::shared_ptr<QELNKLegacyStreamThread> thread_;
    std::vector<std::weak_ptr<QELNKLegacyStream>> streams_;  // of that thread
    FlushesTogether *const outer_;
  };

  /// A read pass under way on the calling thread. From one call of the delegate to the next it holds the stream as long
  /// as the host does.
  class ReadPass {
   public:
    explicit ReadPass(QELNKLegacyStream &stream) : source_(stream), outer_(std::exchange(current, this)) {}
    ~ReadPass() {
      current = outer_;
      letGo();
    }
    ReadPass(const ReadPass &) = delete;
    ReadPass &operator=(const ReadPass &) = delete;

    static ReadPass *of(const QELNKLegacyStream &stream) {
      return current && &current->source_ == &stream ? current : nullptr;
    }
    const std::shared_ptr<QELNKLegacyStream> &stream() {
      if (stream_.use_count() < 2) {
        stream_.reset();
        stream_ = source_.weak_from_this().lock();
      }
      return stream_;
    }
    /// The delegate, held from one call to the next only while the host does so, too. Passes on several threads may
    /// hold it for several of its streams, and must not keep it for each other.
    const std::shared_ptr<QELNKLegacyStreamDelegate> &delegate() {
      const uint64_t version = source_.state_->delegateVersion;
      if (version == version_ && delegate_.use_count() > delegatesHeld) return delegate_;
      letGo();
      if (version != version_) weakly_ = source_.state_->locked(&State::delegate);
      version_ = version;
      delegate_ = weakly_.lock();
      if (delegate_) ++delegatesHeld;
      return delegate_;
    }
    /// Behind each call.
    void letGoUnlessShared() {
      if (delegate_.use_count() <= delegatesHeld) letGo();
    }

   private:
    static constinit thread_local ReadPass *current;
    QELNKLegacyStream &source_;
    std::shared_ptr<QELNKLegacyStream> stream_;
    void letGo() {
      const auto delegate = std::move(delegate_);  // which may end here
      if (delegate) --delegatesHeld;
    }
    static inline std::atomic<long> delegatesHeld{0};  // by all passes of the process
    std::weak_ptr<QELNKLegacyStreamDelegate> weakly_;
    std::shared_ptr<QELNKLegacyStreamDelegate> delegate_;
    uint64_t version_ = 0;
    ReadPass *const outer_;

   public:
    bool isCalling = false;  // and what it holds is in use
  };

  /// Makes `call(stream, delegate, arguments...)` where the delegate of `stream` is to be called. One that is queued to
  /// the main thread is dropped once the host has let go of the stream; `bytes` is what it keeps waiting.
  template <class Call, class... Arguments>
  static void inform(QELNKLegacyStream &stream, bool queued, uint64_t bytes, Call call, const Arguments &...arguments) {
    if (!stream.callDelegateOnMainThread()) {
      if (auto *pass = ReadPass::of(stream); pass && !pass->isCalling) {
        pass->isCalling = true;
        make(pass->stream(), pass->delegate(), call, arguments...);
        pass->letGoUnlessShared();
        pass->isCalling = false;
        return;
      }
      const auto self = stream.weak_from_this().lock();
      return make(self, stream.delegate(), call, arguments...);
    }
    auto weak = stream.weak_from_this();
    auto delivery = [weak, call = std::move(call), ... arguments = Arguments(arguments)] {
      if (const auto self = weak.lock()) make(self, self->delegate(), call, arguments...);
    };
    const auto &deliveries = stream.state_->deliveries;
    if (queued) {
      deliveries->add(bytes, std::move(delivery));
      dispatchToMainThreadAsync(true, [deliveries, weak] { deliveries->makeNext(weak); });
    } else {
      // A main thread that waits for this one makes this call before all that is queued: what was heard earlier goes
      // first.
      dispatchToMainThreadAsync(false, [deliveries, weak, delivery] {
        deliveries->makeAll(weak);
        delivery();
      });
    }
  }
  static void resumeReading(const std::weak_ptr<QELNKLegacyStream> &stream);

 private:
  template <class Call, class... Arguments>
  static void make(const std::shared_ptr<QELNKLegacyStream> &stream,
                   const std::shared_ptr<QELNKLegacyStreamDelegate> &delegate, const Call &call,
                   const Arguments &...arguments) {
    if (stream && delegate)
      qelnk::runGuarded("QELNKLegacyStream delegate", [&] { call(stream, delegate, arguments...); });
  }
};
