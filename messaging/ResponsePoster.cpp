#include "messaging/ResponsePoster.h"

#include "platform/Guard.h"

#include <utility>

namespace qelnk {

// Bounds how long one task keeps the queue from its other tasks.
static constexpr size_t largestBatch = 256;

void ResponsePoster::post(std::weak_ptr<QELNKSocket> client, std::shared_ptr<QELNKMessage> message,
                          QELNKMessage::ResponseBlock block) {
  std::unique_lock lock(batches_->mutex);
  if (batches_->open && batches_->open->calls.size() < largestBatch) {
    batches_->open->calls.push_back({std::move(message), std::move(block)});
    return;
  }
  const auto batch = std::make_shared<Batch>();
  batch->client = std::move(client);
  batch->calls.push_back({std::move(message), std::move(block)});
  batches_->open = batch;
  lock.unlock();
  const auto queue = queue_;  // it may go with the client as soon as it has the task
  queue->async([batches = batches_, batch] { run(*batches, batch); });
}

void ResponsePoster::seal() {
  const std::lock_guard lock(batches_->mutex);
  batches_->open.reset();
}

void ResponsePoster::run(Batches &batches, const std::shared_ptr<Batch> &batch) {
  std::vector<Call> calls;
  {
    const std::lock_guard lock(batches.mutex);
    if (batches.open == batch) batches.open.reset();
    calls.swap(batch->calls);
  }
  for (Call &entry : calls) {
    const Call call = std::move(entry);  // goes with this turn, and the client with it when that was its last holder
    const auto client = std::static_pointer_cast<QELNKClient>(batch->client.lock());
    if (!client) continue;
    runGuarded("QELNKClient response block", [&] { call.block(client, call.message); });
  }
}

}  // namespace qelnk
