#include "messaging/ResponsePoster.h"

#include "platform/Guard.h"

#include <utility>

namespace qelnk {

// Bounds how long one task keeps the queue from its other tasks.
static constexpr size_t largestBatch = 256;

void ResponsePoster::post(std::weak_ptr<QELNKSocket> client, std::shared_ptr<QELNKMessage> message,
                          QELNKMessage::ResponseBlock block) {
  std::unique_lock lock(batches_->mutex);
  auto batch = batches_->open;
  if (!batch || batch->calls.size() == largestBatch) {
    batch = batches_->open = std::make_shared<Batch>();
    batch->client = std::move(client);
    batch->queue = queue_;
  }
  batch->calls.push_back({std::move(message), std::move(block)});
  // One task makes all the calls. A second one finds what is left should a call turn the queue's loop.
  if (batch->calls.size() > 2) return;
  ++batch->tasks;
  lock.unlock();
  schedule(batches_, std::move(batch));
}

void ResponsePoster::seal() {
  const std::lock_guard lock(batches_->mutex);
  batches_->open.reset();
}

void ResponsePoster::schedule(const std::shared_ptr<Batches> &batches, std::shared_ptr<Batch> batch) {
  if (const auto queue = batch->queue.lock())  // it may go with the client as soon as it has the task
    queue->async([batches, batch = std::move(batch)] { run(batches, batch); });
}

// What the call held goes with it, and the client too when that was its last holder.
void ResponsePoster::make(const Call call, const std::weak_ptr<QELNKSocket> &holder) {
  if (const auto client = std::static_pointer_cast<QELNKClient>(holder.lock()))
    runGuarded("QELNKClient response block", [&] { call.block(client, call.message); });
}

void ResponsePoster::run(const std::shared_ptr<Batches> &batches, const std::shared_ptr<Batch> &batch) {
  std::unique_lock lock(batches->mutex);
  if (batches->open == batch) batches->open.reset();
  --batch->tasks;
  while (batch->next < batch->calls.size()) {
    Call call = std::move(batch->calls[batch->next++]);
    const bool taskNeeded = batch->tasks == 0 && batch->next < batch->calls.size();
    batch->tasks += taskNeeded;
    lock.unlock();
    if (taskNeeded) schedule(batches, batch);
    make(std::move(call), batch->client);
    lock.lock();
  }
}

}  // namespace qelnk
