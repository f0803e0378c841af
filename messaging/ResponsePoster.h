#pragma once

#include <QELNetworkKit/QELNKClient.h>
#include <QELNetworkKit/Queue.h>

#include <memory>
#include <mutex>
#include <vector>

namespace qelnk {

/// Brings finished messages to their callbacks on a queue, in order. Those that finish while the queue is busy share
/// one task, which costs less than one each; a callback that turns the queue's loop lets the next ones run meanwhile.
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
    std::weak_ptr<Queue> queue;
    std::vector<Call> calls;  // this and the rest are guarded by the mutex of its Batches
    size_t next = 0;          // the first that has not begun
    size_t tasks = 0;         // how many of its tasks wait in the queue
  };
  struct Batches {
    std::mutex mutex;
    std::shared_ptr<Batch> open;  // the one that takes more
  };
  static void schedule(const std::shared_ptr<Batches> &batches, std::shared_ptr<Batch> batch);
  static void make(Call call, const std::weak_ptr<QELNKSocket> &holder);
  static void run(const std::shared_ptr<Batches> &batches, const std::shared_ptr<Batch> &batch);

  const std::shared_ptr<Queue> queue_;
  const std::shared_ptr<Batches> batches_;
};

}  // namespace qelnk
