#pragma once

#include <QELNetworkKit/QELNKLegacyStream.h>
#include <QELNetworkKit/RunLoop.h>

#include <array>
#include <atomic>
#include <mutex>

#include "legacy/IncomingMessages.h"
#include "legacy/OutgoingBytes.h"
#include "platform/Guard.h"

/// What a legacy stream is made of.
struct QELNKLegacyStream::State {
  std::atomic<uint64_t> status{0};
  std::atomic<bool> handledCloseError{false};
  std::atomic<bool> reading{false};
  std::atomic<bool> callDelegateOnMainThread{false};

  /// The stream's lock, re-entrant: guards what is written and all that is small. No delegate is called under it.
  mutable std::recursive_mutex mutex;
  qelnk::OutgoingBytes outgoing;
  uint64_t dataFence = 0;
  uint64_t maximumWriteSize = 0;
  bool missedSpaceEvent = false;
  bool flushScheduled = false;
  uint64_t testFullyConfigured = 0, compareFullyConfigured = 0;
  qelnk::Value options;
  qelnk::IncomingMessages::Limits limits;
  std::string appID;
  std::weak_ptr<QELNKLegacyStreamDelegate> delegate;
  std::any context;
  std::shared_ptr<qelnk::InputStream> input;
  std::shared_ptr<qelnk::OutputStream> output;
  std::shared_ptr<QELNKLegacyStreamThread> thread;
  std::array<uint8_t, 28> peerAddress{};
  std::optional<std::string> peerHostName, peerIPv4Address, peerAppID;

  /// What has been read; of its own, so that writing and reading do not wait for each other.
  std::mutex readMutex;
  qelnk::IncomingMessages incoming;

  /// What waits for the main thread. While it is much, nothing is read.
  struct Deliveries {
    static constexpr uint64_t manyCalls = 1024, manyBytes = uint64_t(16) << 20;
    std::atomic<uint64_t> calls{0}, bytes{0};
    std::atomic<bool> readingPaused{false};
    bool areMany() const { return calls >= manyCalls || bytes >= manyBytes; }
    bool areFew() const { return calls <= manyCalls / 2 && bytes <= manyBytes / 2; }
  };
  const std::shared_ptr<Deliveries> deliveries = std::make_shared<Deliveries>();

  template <class Field>
  Field locked(const Field &field) const {
    const std::lock_guard lock(mutex);
    return field;
  }

  /// Makes `call(stream, delegate)` where `stream`'s delegate is to be called. One that is queued to the main thread is
  /// dropped once the stream is gone; `bytes` is what it keeps waiting.
  template <class Call>
  static void inform(QELNKLegacyStream &stream, bool queued, uint64_t bytes, Call call) {
    if (!stream.callDelegateOnMainThread()) return make(stream.weak_from_this(), call);
    const auto &deliveries = stream.state_->deliveries;
    auto delivery = [weak = stream.weak_from_this(), call = std::move(call), deliveries, queued, bytes] {
      make(weak, call);
      if (!queued) return;
      --deliveries->calls;
      deliveries->bytes -= bytes;
      if (deliveries->areFew() && deliveries->readingPaused.exchange(false))
        if (const auto self = weak.lock()) self->state_->resumeReading(self);
    };
    if (queued) {
      ++deliveries->calls;
      deliveries->bytes += bytes;
    }
    dispatchToMainThreadAsync(queued, std::move(delivery));
  }
  void resumeReading(const std::shared_ptr<QELNKLegacyStream> &stream);

 private:
  template <class Call>
  static void make(const std::weak_ptr<QELNKLegacyStream> &weak, const Call &call) {
    const auto stream = weak.lock();
    const auto delegate = stream ? stream->delegate() : nullptr;
    if (delegate) qelnk::runGuarded("QELNKLegacyStream delegate", [&] { call(stream, delegate); });
  }
};
