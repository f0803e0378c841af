#pragma once

#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/QELNKClient.h>
#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/RunLoop.h>

#include "messaging/CallPoster.h"
#include "platform/Guard.h"
#include "platform/Semaphore.h"

#include <atomic>
#include <string>
#include <vector>

/// What a client's threads share.
struct QELNK_HIDDEN QELNKClient::State {
  enum class Phase : uint8_t {
    idle,      // not connected yet: messages gather in the inbox
    running,   // the io thread takes them
    stopping,  // it will finish what is still handed in
    ended      // nobody takes them: they finish where they are handed in
  };
  /// What other threads ask the io thread for: to queue a message, or to cancel it.
  struct Order {
    std::shared_ptr<QELNKMessage> message;
    bool cancel = false;
  };

  /// A finished message on its way to its callback.
  struct Response {
    std::shared_ptr<QELNKMessage> message;
    ResponseBlock block;

    struct Lease {};
    static size_t cost() { return 0; }
    void operator()(const std::shared_ptr<QELNKClient> &client, Lease &) const {
      qelnk::runGuarded("QELNKClient response block", [&] { block(client, message); });
    }
  };

  explicit State(const std::shared_ptr<qelnk::Queue> &queue) : responses(queue) {}

  mutable qelnk::Mutex mutex;
  std::atomic<Phase> phase = Phase::idle;  // set with the mutex held, read without it too
  std::vector<Order> inbox QELNK_GUARDED_BY(mutex);
  std::shared_ptr<qelnk::RunLoop> runLoop QELNK_GUARDED_BY(mutex);  // the io thread's, while it runs
  ConnectedBlock connectedBlock QELNK_GUARDED_BY(mutex);
  std::shared_ptr<qelnk::Semaphore> connected QELNK_GUARDED_BY(mutex);  // for who waits for the connection
  std::optional<std::chrono::nanoseconds> requestTimeout QELNK_GUARDED_BY(mutex);
  std::string host QELNK_GUARDED_BY(mutex);
  int32_t port QELNK_GUARDED_BY(mutex) = 0;

  // The io thread waits, or is about to: set with the mutex held and the inbox empty. Whoever fills the inbox clears it
  // and wakes the thread, so that a busy thread is never woken.
  std::atomic<bool> asleep{false};
  std::atomic<bool> cancelling{false};  // the inbox may hold a cancellation
  std::atomic<bool> syncRequests{false}, executing{false};
  std::atomic<size_t> pending{0};
  // Its number: counted, with the mutex held, as the phase becomes `ended` and as it leaves that.
  std::atomic<uint64_t> connection{0};
  qelnk::CallPoster<QELNKClient, Response> responses;
  Loop *loop = nullptr;  // the io thread's, while it runs
};
