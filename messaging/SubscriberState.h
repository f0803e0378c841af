#pragma once

#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKSubscriber.h>

#include "messaging/CallPoster.h"
#include "messaging/HeldBlock.h"
#include "platform/Guard.h"

#include <atomic>
#include <memory>
#include <string>
#include <vector>

/// What a subscriber's threads share.
struct QELNK_HIDDEN QELNKSubscriber::State {
  /// A message on its way to the callback.
  struct Delivery {
    qelnk::Value message;
    size_t bytes;

    using Lease = qelnk::HeldBlock<MessageBlock>::Lease;
    size_t cost() const { return bytes; }
    void operator()(const std::shared_ptr<QELNKSubscriber> &subscriber, Lease &lease) const {
      if (const MessageBlock *block = subscriber->state_->messageBlock.current(lease))
        qelnk::runGuarded("QELNKSubscriber message block", [&] { (*block)(subscriber, message); });
    }
  };

  explicit State(const std::shared_ptr<qelnk::Queue> &queue) : deliveries(queue) {}

  qelnk::HeldBlock<ConnectedBlock> connectedBlock;
  qelnk::HeldBlock<MessageBlock> messageBlock;
  qelnk::Mutex mutex;
  std::vector<qelnk::Data> filters QELNK_GUARDED_BY(mutex);
  std::string host QELNK_GUARDED_BY(mutex);
  int32_t port QELNK_GUARDED_BY(mutex) = 0;
  PendingLimit limit QELNK_GUARDED_BY(mutex);

  // One connectToHost() at a time, but for one that is made by who waits for the calling thread while that waits.
  qelnk::RecursiveMutex connecting;
  std::atomic<uint64_t> connection{0};  // its number
  std::atomic<bool> stopping{false};    // the connection is to end, or has ended
  std::atomic<bool> abandoned{false};   // nobody waits for the io thread's last line
  std::atomic<uint64_t> dropped{0};
  qelnk::CallPoster<QELNKSubscriber, Delivery> deliveries;
};
