#pragma once

#include <QELNetworkKit/Error.h>
#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/Value.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>

class QELNKClient;
namespace qelnk {
class MessageList;
class Semaphore;
}  // namespace qelnk

/// One queued request and what became of it.
///
/// A message whose request is absent is an empty message: it is never sent, and its callback runs once every message
/// queued before it has finished.
///
/// It is queued once, on one client. Its callback leaves it when it finishes, so that what the callback holds goes with
/// the call.
///
/// Threads: the client's io thread writes it until it has finished; then, in its callback and after a synchronous call,
/// it belongs to the host. isFinished() may be asked from any thread at any time.
class QELNK_EXPORT QELNKMessage {
 public:
  /// Called once, on the context's response queue, when the message has finished: with its response, or with its error
  /// set.
  using ResponseBlock =
      std::function<void(const std::shared_ptr<QELNKClient> &client, const std::shared_ptr<QELNKMessage> &message)>;

  /// An empty message.
  explicit QELNKMessage(ResponseBlock responseBlock = nullptr) : responseBlock_(std::move(responseBlock)) {}
  /// A message with a request; `responseBlock` may be empty.
  QELNKMessage(qelnk::Value request, ResponseBlock responseBlock, bool responseless = false)
      : request_(std::move(request)), responseBlock_(std::move(responseBlock)), responseless_(responseless) {}

  /// What is sent; absent for an empty message.
  const std::optional<qelnk::Value> &request() const { return request_; }
  /// To be set before it is queued.
  void setRequest(std::optional<qelnk::Value> request) { request_ = std::move(request); }
  /// Whether there is nothing to send.
  bool isEmptyMessage() const { return !request_.has_value(); }

  /// The decoded reply; absent until one has been matched.
  const std::optional<qelnk::Value> &response() const { return response_; }
  void setResponse(std::optional<qelnk::Value> response) { response_ = std::move(response); }

  /// Why it ended without a response (domain "ZMQ", ETIMEDOUT after its deadline, ECANCELED when it was cancelled,
  /// ENOTCONN when the client disconnected), or the error of the last attempt to send it; unset after a clean send.
  const qelnk::Error &error() const { return error_; }
  void setError(qelnk::Error error) { error_ = std::move(error); }

  /// Whether all frames of the request went out.
  bool sent() const { return sent_; }
  void setSent(bool sent) { sent_ = sent; }
  /// Whether a caller waits until it has finished.
  bool sync() const { return sync_; }
  void setSync(bool sync) { sync_ = sync; }
  /// Whether it finishes as soon as it is sent.
  bool responseless() const { return responseless_; }
  void setResponseless(bool responseless) { responseless_ = responseless; }
  /// The callback; empty once the message has finished. To be set before it is queued.
  const ResponseBlock &responseBlock() const { return responseBlock_; }
  void setResponseBlock(ResponseBlock block) { responseBlock_ = std::move(block); }

  /// The longest it may take from being queued to its response; none unless set, which is to be done before it is
  /// queued. On a client that has not connected yet the deadline is looked at once it does.
  std::optional<std::chrono::nanoseconds> timeout() const { return timeout_; }
  void setTimeout(std::optional<std::chrono::nanoseconds> timeout) { timeout_ = timeout; }

  /// Whether it has its response or its final error.
  bool isFinished() const { return finished_.load(std::memory_order_acquire); }

 private:
  friend class QELNKClient;
  friend class qelnk::MessageList;

  /// Its place in the list of its client; the io thread's.
  struct Place {
    std::shared_ptr<QELNKMessage> self;  // while it is in the list
    QELNKMessage *previous = nullptr, *next = nullptr;
    QELNKMessage *previousNamesake = nullptr, *nextNamesake = nullptr;  // the indexed ones with the same identifier
    bool indexed = false, hasDeadline = false;
    std::multimap<std::chrono::nanoseconds, QELNKMessage *>::iterator deadline;
  };

  std::optional<qelnk::Value> request_, response_;
  qelnk::Error error_;
  ResponseBlock responseBlock_;
  std::optional<std::chrono::nanoseconds> timeout_, deadline_;
  std::optional<int64_t> identifier_;
  uint64_t connection_ = 0;  // of the client's, which it was queued on
  std::shared_ptr<qelnk::Semaphore> waiter_;
  bool sent_ = false, sync_ = false, responseless_ = false;
  std::atomic<bool> finished_{false};
  std::atomic<const QELNKClient *> client_{nullptr};  // the one that it was queued on
  Place place_;
};
