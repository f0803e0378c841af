#pragma once

#include <QELNetworkKit/QELNKSocket.h>
#include <QELNetworkKit/Queue.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <mutex>
#include <utility>

namespace qelnk {

/// Brings an endpoint's calls to a queue, in order. Those that are posted while the queue is busy share one task, which
/// costs less than one each; a call that turns the queue's loop lets the next ones run meanwhile.
///
/// `Call` is called with the endpoint, and says by its cost() how much of a limit it takes. An endpoint that has gone
/// gets no further call. Threads: any.
template <class Call>
class CallPoster {
 public:
  /// What may wait: so many calls, and so much of their cost. The newest call always may.
  struct Limit {
    size_t calls = std::numeric_limits<size_t>::max(), cost = std::numeric_limits<size_t>::max();
  };

  explicit CallPoster(const std::shared_ptr<Queue> &queue) : shared_(std::make_shared<Shared>()) {
    shared_->queue = queue;
  }

  /// Has `call` made. Where that exceeds the limit, the oldest ones go without having been made; returns how many.
  size_t post(std::weak_ptr<QELNKSocket> endpoint, Call call, Limit limit = {}) {
    std::unique_lock lock(shared_->mutex);
    shared_->cost += call.cost();
    shared_->calls.push_back(std::move(call));
    const size_t dropped = shared_->drop(limit);
    auto batch = shared_->open;
    if (!batch) {
      batch = shared_->open = std::make_shared<Batch>();
      batch->endpoint = std::move(endpoint);
    }
    batch->end = shared_->first + shared_->calls.size();
    // One task makes all the calls. A second one finds what is left should a call turn the queue's loop.
    if (batch->tasks == 2) return dropped;
    ++batch->tasks;
    lock.unlock();
    schedule(shared_, std::move(batch));
    return dropped;
  }

  /// Lets no later call share the task of an earlier one: between them something else is posted to the queue.
  void seal() {
    const std::lock_guard lock(shared_->mutex);
    if (const auto batch = std::exchange(shared_->open, nullptr)) batch->sealed = true;
  }

  /// Drops what waits.
  void clear() {
    std::deque<Call> dropped;  // goes after the lock
    const std::lock_guard lock(shared_->mutex);
    shared_->first += shared_->calls.size();
    shared_->cost = 0;
    dropped.swap(shared_->calls);
  }

  /// How many calls wait.
  size_t waiting() const {
    const std::lock_guard lock(shared_->mutex);
    return shared_->calls.size();
  }

 private:
  // How many calls one task makes before it lets the queue's other tasks have their turn.
  static constexpr size_t callsOfATask = 256;

  struct Batch {
    std::weak_ptr<QELNKSocket> endpoint;
    uint64_t end = 0;  // the number of the call behind its last; this and the rest are guarded by Shared's mutex
    bool sealed = false;
    size_t tasks = 0;  // how many of its tasks wait in the queue
  };
  struct Shared {
    std::weak_ptr<Queue> queue;  // it may go with the endpoint
    std::mutex mutex;
    std::deque<Call> calls;  // that have not begun
    uint64_t first = 0;      // the number of the first of them
    size_t cost = 0;
    std::shared_ptr<Batch> open;  // the one that takes more

    Call take() {
      Call call = std::move(calls.front());
      calls.pop_front();
      ++first;
      cost -= call.cost();
      return call;
    }
    size_t drop(const Limit &limit) {
      size_t dropped = 0;
      for (; calls.size() > 1 && (calls.size() > limit.calls || cost > limit.cost); ++dropped) take();
      return dropped;
    }
  };

  static void schedule(const std::shared_ptr<Shared> &shared, std::shared_ptr<Batch> batch) {
    if (const auto queue = shared->queue.lock())
      queue->async([shared, batch = std::move(batch)] { run(shared, batch); });
  }

  // What the call held goes with it, and the endpoint too when that was its last holder.
  static void make(Call call, const std::weak_ptr<QELNKSocket> &holder) {
    if (const auto endpoint = holder.lock()) call(endpoint);
  }

  static void run(const std::shared_ptr<Shared> &shared, const std::shared_ptr<Batch> &batch) {
    std::unique_lock lock(shared->mutex);
    --batch->tasks;
    // What is left is made by another task, unless something waits in the queue that is to come behind it.
    for (size_t made = 0; shared->first < batch->end && (made < callsOfATask || batch->sealed); ++made) {
      Call call = shared->take();
      const bool taskNeeded = batch->tasks == 0 && shared->first < batch->end;
      batch->tasks += taskNeeded;
      lock.unlock();
      if (taskNeeded) schedule(shared, batch);
      make(std::move(call), batch->endpoint);
      lock.lock();
    }
  }

  const std::shared_ptr<Shared> shared_;
};

}  // namespace qelnk
