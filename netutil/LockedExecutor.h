#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/Guard.h"

namespace qelnk {

/// Runs what an object's operations have to do under the object's lock: on the io context's thread, or on any thread
/// that holds the lock to begin an operation, for as much of it as can be done at once. That costs no change of
/// threads.
class LockedExecutor {
 public:
  explicit LockedExecutor(boost::asio::io_context &context) : shared_(std::make_shared<Shared>(context)) {}

  /// Does something under the lock, on any thread, and what is there to be done behind it.
  template <class Function>
  auto locked(const Function &function) const {
    const Section section(shared_, Thread::any);
    return function();
  }

  /// Has something done on the io context's thread, in order, without the lock; where that thread has it, as soon as it
  /// gives it back. The caller holds the lock.
  template <class Function>
  void afterwards(Function &&function) const {
    shared_->afterwards.push_back(step(std::forward<Function>(function)));
  }

  // As Asio wants an executor.
  boost::asio::io_context &context() const noexcept { return shared_->context; }
  void on_work_started() const noexcept { shared_->context.get_executor().on_work_started(); }
  void on_work_finished() const noexcept { shared_->context.get_executor().on_work_finished(); }
  template <class Function, class Allocator>
  void dispatch(Function &&function, const Allocator &allocator) const {
    if (shared_->isHeldHere())
      std::decay_t<Function>(std::forward<Function>(function))();
    else
      shared_->context.get_executor().dispatch(handler(std::forward<Function>(function)), allocator);
  }
  template <class Function, class Allocator>
  void post(Function &&function, const Allocator &allocator) const {
    if (shared_->isHeldHere())
      shared_->next.push_back(step(std::forward<Function>(function)));
    else
      shared_->context.get_executor().post(handler(std::forward<Function>(function)), allocator);
  }
  template <class Function, class Allocator>
  void defer(Function &&function, const Allocator &allocator) const {
    post(std::forward<Function>(function), allocator);
  }
  friend bool operator==(const LockedExecutor &a, const LockedExecutor &b) noexcept { return a.shared_ == b.shared_; }
  friend bool operator!=(const LockedExecutor &a, const LockedExecutor &b) noexcept { return !(a == b); }

 private:
  struct Step {
    virtual ~Step() = default;
    virtual void run() = 0;
    void runGuardedly() {
      runGuarded("A WebSocket", [this] { run(); });
    }
  };
  template <class Function>
  struct StepOf final : Step {
    explicit StepOf(Function own) : function(std::move(own)) {}
    void run() override { function(); }
    Function function;
  };
  template <class Function>
  static std::unique_ptr<Step> step(Function &&function) {
    return std::make_unique<StepOf<std::decay_t<Function>>>(std::forward<Function>(function));
  }

  struct Shared {
    explicit Shared(boost::asio::io_context &own) : context(own) {}
    bool isHeldHere() const { return holder.load(std::memory_order_relaxed) == std::this_thread::get_id(); }

    boost::asio::io_context &context;
    std::mutex mutex;  // not of the analysed kind: whether a step runs under it is known at run time only
    std::atomic<std::thread::id> holder{};
    std::deque<std::unique_ptr<Step>> next;         // under the lock
    std::vector<std::unique_ptr<Step>> afterwards;  // without it
  };

  enum class Thread { io, any };
  class Section {
   public:
    Section(std::shared_ptr<Shared> shared, Thread thread)
        : shared_(std::move(shared)), thread_(thread), lock_(shared_->mutex) {
      shared_->holder.store(std::this_thread::get_id(), std::memory_order_relaxed);
    }
    ~Section() {
      doNext();
      // The io thread alone does these, in order, whoever left them.
      std::vector<std::unique_ptr<Step>> afterwards;
      if (thread_ == Thread::io)
        afterwards.swap(shared_->afterwards);
      else if (!shared_->afterwards.empty())
        visitIOThread();
      shared_->holder.store({}, std::memory_order_relaxed);
      lock_.unlock();
      for (const auto &step : afterwards) step->runGuardedly();
    }
    Section(const Section &) = delete;
    Section &operator=(const Section &) = delete;

   private:
    void doNext() {
      // Not for ever: others wait for the lock, and for the io thread.
      for (int left = 16; left > 0 && !shared_->next.empty(); --left) {
        const auto step = std::move(shared_->next.front());
        shared_->next.pop_front();
        step->runGuardedly();
      }
      if (!shared_->next.empty()) visitIOThread();
    }
    void visitIOThread() {
      boost::asio::post(shared_->context, [shared = shared_] { Section(shared, Thread::io); });
    }

    const std::shared_ptr<Shared> shared_;
    const Thread thread_;
    std::unique_lock<std::mutex> lock_;
  };

  /// Keeps what is shared until all is done: the object may go in between.
  template <class Function>
  auto handler(Function &&function) const {
    return [shared = shared_, own = std::decay_t<Function>(std::forward<Function>(function))]() mutable {
      const Section section(shared, Thread::io);
      own();
    };
  }

  std::shared_ptr<Shared> shared_;
};

}  // namespace qelnk
