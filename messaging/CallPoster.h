#pragma once

#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/QELNKSocket.h>
#include <QELNetworkKit/Queue.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <span>
#include <utility>
#include <vector>

namespace qelnk {

/// Brings an endpoint's calls to a queue, in order. Those that are posted while the queue is busy share one task, which
/// costs less than one each; a call that turns the queue's loop lets the next ones run meanwhile.
///
/// `Call` is called with the endpoint and with a Call::Lease, which the calls that are made in a row share; its cost()
/// is what it takes of a limit. An endpoint that nobody holds any more gets no further call. Threads: any.
template <class Endpoint, class Call>
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
    return post(std::move(endpoint), std::span(&call, 1), limit);
  }
  /// The same for several, which are moved from.
  size_t post(std::weak_ptr<QELNKSocket> endpoint, std::span<Call> calls, Limit limit = {}) {
    if (calls.empty()) return 0;
    Lock lock(shared_->mutex);
    size_t dropped = 0;
    for (Call &call : calls) {
      shared_->cost += call.cost();
      shared_->calls.push_back(std::move(call));
      dropped += shared_->drop(limit);
    }
    auto batch = shared_->open;
    if (!batch) {
      batch = shared_->open = std::make_shared<Batch>();
      batch->endpoint = std::move(endpoint);
    }
    batch->end = shared_->first + shared_->calls.size();
    // One task makes all the calls. A second one finds what is left should a call turn the queue's loop.
    const int needed = std::min(calls.size() > 1 ? 2 : 1, 2 - batch->tasks);
    if (needed > 0) batch->tasks += needed;
    lock.unlock();
    for (int i = 0; i < needed; ++i) schedule(shared_, batch);
    return dropped;
  }

  /// Lets no later call share the task of an earlier one: between them something else is posted to the queue.
  void seal() {
    const Lock lock(shared_->mutex);
    if (const auto batch = std::exchange(shared_->open, nullptr)) batch->sealed = true;
  }

  /// Drops what waits.
  void clear() {
    std::deque<Call> dropped;  // goes after the lock
    const Lock lock(shared_->mutex);
    shared_->first += shared_->calls.size();
    shared_->clearedUpTo = shared_->first;
    shared_->cost = 0;
    dropped.swap(shared_->calls);
  }

  /// How many calls wait.
  size_t waiting() const {
    const Lock lock(shared_->mutex);
    return shared_->calls.size() + shared_->takenLeft;
  }

 private:
  // How many calls are taken at a time: those are not dropped any more.
  static constexpr size_t callsTaken = 32;
  // After how many a task lets the queue's other tasks have their turn.
  static constexpr size_t callsOfATask = 256;

  struct Batch {
    std::weak_ptr<QELNKSocket> endpoint;
    uint64_t end = 0;  // the number of the call behind its last; this and the next are guarded by Shared's mutex
    bool sealed = false;
    std::atomic<int> tasks = 0;  // how many of its tasks wait in the queue
  };
  struct Shared {
    std::weak_ptr<Queue> queue;  // it may go with the endpoint
    Mutex mutex;
    std::deque<Call> calls QELNK_GUARDED_BY(mutex);
    uint64_t first QELNK_GUARDED_BY(mutex) = 0;  // the number of the first of them
    size_t cost QELNK_GUARDED_BY(mutex) = 0;
    std::shared_ptr<Batch> open QELNK_GUARDED_BY(mutex);  // the one that takes more

    // What a task has taken and is about to call; the queue's own, and of its nested tasks.
    std::vector<Call> taken;
    size_t next = 0;
    uint64_t takenFirst = 0;  // the number of taken[0]
    long holds = 0;           // how many tasks, one inside the other, hold the endpoint
    std::atomic<size_t> takenLeft{0};
    std::atomic<uint64_t> clearedUpTo{0};

    size_t drop(const Limit &limit) QELNK_REQUIRES(mutex) {
      size_t dropped = 0;
      for (; calls.size() > 1 && (calls.size() + takenLeft > limit.calls || cost > limit.cost); ++dropped) {
        cost -= calls.front().cost();
        calls.pop_front();
        ++first;
      }
      return dropped;
    }
    void take(size_t count) QELNK_REQUIRES(mutex) {
      taken.clear();
      next = 0;
      takenFirst = first;
      for (; taken.size() < count; calls.pop_front()) {
        cost -= calls.front().cost();
        taken.push_back(std::move(calls.front()));
      }
      first += count;
      takenLeft = count;
    }
  };

  static void schedule(const std::shared_ptr<Shared> &shared, std::shared_ptr<Batch> batch) {
    if (const auto queue = shared->queue.lock())
      queue->async([shared, batch = std::move(batch)] { run(shared, batch); });
  }

  // Holds the endpoint while its calls are being made. Once nobody else does it lets go.
  class Hold {
   public:
    Hold(Shared &shared, const std::weak_ptr<QELNKSocket> &endpoint)
        : endpoint_(std::static_pointer_cast<Endpoint>(endpoint.lock())), holds_(shared.holds) {
      holds_ += endpoint_ != nullptr;
    }
    ~Hold() { letGo(); }
    Hold(const Hold &) = delete;
    Hold &operator=(const Hold &) = delete;

    const std::shared_ptr<Endpoint> &endpoint() {
      if (endpoint_ && endpoint_.use_count() <= holds_) letGo();
      return endpoint_;
    }

   private:
    void letGo() {
      holds_ -= endpoint_ != nullptr;
      endpoint_.reset();
    }
    std::shared_ptr<Endpoint> endpoint_;
    long &holds_;
  };

  static void run(const std::shared_ptr<Shared> &shared, const std::shared_ptr<Batch> &batch) {
    --batch->tasks;
    Hold hold(*shared, batch->endpoint);
    typename Call::Lease lease;
    for (size_t made = 0; refill(shared, batch, made >= callsOfATask); ++made) {
      if (shared->next == shared->taken.size()) continue;  // a queue that does not queue has made them meanwhile
      const bool isCleared = shared->takenFirst + shared->next < shared->clearedUpTo;
      const Call call = std::move(shared->taken[shared->next++]);  // what it held goes with it
      shared->takenLeft.store(shared->taken.size() - shared->next, std::memory_order_relaxed);
      if (isCleared) continue;
      if (const auto &endpoint = hold.endpoint()) call(endpoint, lease);
    }
  }

  // Sees to it that there is a call to make now, and, while there are more, that a task waits in the queue for them.
  // Returns false when this task's turn is over: all have been made, or there were many and nothing waits in the queue
  // that is to come behind them.
  static bool refill(const std::shared_ptr<Shared> &shared, const std::shared_ptr<Batch> &batch, bool enough) {
    size_t left = shared->taken.size() - shared->next;  // the one to make now, and those behind it
    if (left == 0) left = take(*shared, *batch, enough);
    const bool over = left != 0 && shared->taken.empty();
    if (left > (over ? 0 : 1) && batch->tasks == 0) {
      ++batch->tasks;
      schedule(shared, batch);
    }
    // Something may have been posted in between, before the task that was scheduled here.
    if (over) take(*shared, *batch, enough);
    return !shared->taken.empty();
  }

  // Takes some calls, unless it is enough for this task's turn. Returns how many there were.
  static size_t take(Shared &shared, const Batch &batch, bool enough) {
    const Lock lock(shared.mutex);
    const size_t left = shared.first < batch.end ? size_t(batch.end - shared.first) : 0;
    shared.take(enough && !batch.sealed ? 0 : std::min(left, callsTaken));
    return left;
  }

  const std::shared_ptr<Shared> shared_;
};

}  // namespace qelnk
