#pragma once

#include <QELNetworkKit/QELNKClient.h>
#include <QELNetworkKit/Queue.h>

#include <memory>
#include <mutex>
#include <vector>

namespace qelnk {

/// Brings finished messages to their callbacks on a queue, in order. Those that finish while the queue is busy share
/// one task, which costs less than one each.
///
/// A client that has gone gets no further call. Threads: any.
class ResponsePoster {
 public:
  explicit ResponsePoster(std::shared_ptr<Queue> queue)
      : queue_(std::move(queue)), batches_(std::make_shared<Batches>()) {}

  /// Has `block` called with the client and the message.
  void post(std::weak_ptr<QELNKSocket> client, std::shared_ptr<QELNKMessage> message,
            QELNKMessage::ResponseBlock block);
  /// Lets no later message share the task of an earlier one: between them something else is posted to the queue.
  void seal();

 private:
  struct Call {
    std::shared_ptr<QELNKMessage> message;
    QELNKMessage::ResponseBlock block;
  };
  struct Batch {
    std::weak_ptr<QELNKSocket> client;
    std::vector<Call> calls;  // guarded by the mutex of its Batches until the task takes it
  };
  struct Batches {
    std::mutex mutex;
    std::shared_ptr<Batch> open;  // the one that takes more
  };
  static void run(Batches &batches, const std::shared_ptr<Batch> &batch);

  const std::shared_ptr<Queue> queue_;
  const std::shared_ptr<Batches> batches_;
};

}  // namespace qelnk
