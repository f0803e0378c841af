#pragma once

#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/QELNKKORVALClient.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tool {

/// A protocol client that also tells what the plain one keeps to itself: how many requests the daemon has answered,
/// what it refused, and each pushed value with no later one in its place.
///
/// Threads: any.
class DaemonClient : public QELNKKORVALClient {
 public:
  /// Called on the main thread for each push to a known port.
  using PushHandler =
      std::function<void(const std::shared_ptr<QELNKOrlinWorkflow> &workflow,
                         const std::shared_ptr<QELNKOrlinPort> &port, const std::optional<qelnk::Value> &value)>;

  static std::shared_ptr<DaemonClient> create();

  /// Number of requests that have been answered.
  uint64_t answered() const;
  /// Why the daemon did not do what it was asked since the last call; none where it did.
  std::optional<std::string> takeRefusal();
  void setPushHandler(PushHandler handler);

 protected:
  explicit DaemonClient(std::shared_ptr<QELNKContext> context) : QELNKKORVALClient(std::move(context)) {}
  friend class ::QELNKSocket;

  std::shared_ptr<QELNKMessage> messageForResponse(const qelnk::Value &response) override;
  /// None for an empty message, so that no push is taken for its answer, and lost.
  std::optional<int64_t> identifierForMessage(const QELNKMessage &message) const override;

 private:
  void takeAnswer(const QELNKMessage &message, const qelnk::Value &response);
  void takePush(const qelnk::Value &push);

  mutable qelnk::Mutex mutex_;
  uint64_t answered_ QELNK_GUARDED_BY(mutex_) = 0;
  std::optional<std::string> refusal_ QELNK_GUARDED_BY(mutex_);
  PushHandler pushHandler_ QELNK_GUARDED_BY(mutex_);
  size_t waitingPushes_ QELNK_GUARDED_BY(mutex_) = 0;
  bool leavesOut_ QELNK_GUARDED_BY(mutex_) = false;  // the user has been told
};

}  // namespace tool
