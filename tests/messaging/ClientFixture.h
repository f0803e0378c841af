#pragma once

#include <QELNetworkKit/Clock.h>
#include <QELNetworkKit/QELNKClient.h>
#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/RunLoop.h>
#include <gtest/gtest.h>
#include <zmq.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "messaging/Peer.h"
#include "support/TestSupport.h"

namespace qelnk::test {

/// A client whose hooks are the test's.
class HookedClient : public QELNKClient {
 public:
  explicit HookedClient(std::shared_ptr<QELNKContext> context) : QELNKClient(std::move(context)) {}
  ~HookedClient() override {
    if (onDestroy) onDestroy();
  }
  int32_t socketType() const override { return type; }
  void onConnected() override {
    {
      const std::lock_guard lock(mutex_);
      loop_ = RunLoop::current();
    }
    if (connectedHook) connectedHook(*this);
    QELNKClient::onConnected();
  }
  std::shared_ptr<QELNKMessage> messageForResponse(const Value &response) override {
    if (responseHook) responseHook(*this, response);
    if (!byIdentifier) return QELNKClient::messageForResponse(response);
    return messageWithIdentifier(response["id"].integerValue());
  }
  std::optional<int64_t> identifierForMessage(const QELNKMessage &message) const override {
    return message.request() ? (*message.request())["id"].integerValue() : 0;
  }
  /// Runs `task` on the io thread, once there is one.
  void onIOThread(Task task) {
    std::shared_ptr<RunLoop> loop;
    ASSERT_TRUE(eventually([&] {
      const std::lock_guard lock(mutex_);
      return (loop = loop_) != nullptr;
    }));
    loop->perform(std::move(task));
  }
  using QELNKClient::connectionOf;
  using QELNKClient::endConnection;
  using QELNKClient::finishMessage;
  using QELNKClient::takeAwaiting;

  int32_t type = ZMQ_DEALER;
  bool byIdentifier = true;
  std::function<void(HookedClient &)> connectedHook;
  std::function<void(HookedClient &, const Value &)> responseHook;
  std::function<void()> onDestroy;

 private:
  std::mutex mutex_;
  std::shared_ptr<RunLoop> loop_;
};

inline std::shared_ptr<HookedClient> makeHooked() {
  return QELNKSocket::make<HookedClient>(QELNKContext::contextWithBackgroundQueue());
}

inline Value request(int64_t id) { return Value::map({{"id", id}}); }

/// What callbacks report, in order.
class Results {
 public:
  struct Result {
    int64_t id;     // of the request; -1 for an empty message
    int64_t error;  // 0 with a response
    bool operator==(const Result &) const = default;
  };
  /// A callback that adds its message's result; it may come when this is gone.
  QELNKMessage::ResponseBlock block() {
    return [shared = shared_](const std::shared_ptr<QELNKClient> &, const std::shared_ptr<QELNKMessage> &message) {
      EXPECT_TRUE(message->isFinished());
      const std::lock_guard lock(shared->mutex);
      shared->results.push_back({message->request() ? (*message->request())["id"].integerValue() : -1,
                                 message->response() ? 0 : message->error().code});
    };
  }
  std::vector<Result> all() const {
    const std::lock_guard lock(shared_->mutex);
    return shared_->results;
  }
  size_t count() const { return all().size(); }

 private:
  struct Shared {
    std::mutex mutex;
    std::vector<Result> results;
  };
  const std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
};

inline void PrintTo(const Results::Result &result, std::ostream *out) { *out << result.id << ":" << result.error; }

}  // namespace qelnk::test
