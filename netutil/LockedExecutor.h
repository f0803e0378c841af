#pragma once

#include <boost/asio/io_context.hpp>
#include <memory>
#include <mutex>
#include <utility>

namespace qelnk {

/// Runs what an object's operations have to do on the io context's thread, and under the object's lock. So any thread
/// that holds the lock may begin an operation: what can be done at once then costs no change of threads.
class LockedExecutor {
 public:
  using Mutex = std::recursive_mutex;  // an operation may go on within the handler of another

  explicit LockedExecutor(boost::asio::io_context &context) : context_(&context) {}
  Mutex &mutex() const { return *mutex_; }

  // As Asio wants an executor.
  boost::asio::io_context &context() const noexcept { return *context_; }
  void on_work_started() const noexcept { context_->get_executor().on_work_started(); }
  void on_work_finished() const noexcept { context_->get_executor().on_work_finished(); }
  template <class Function, class Allocator>
  void dispatch(Function &&function, const Allocator &allocator) const {
    context_->get_executor().dispatch(locked(std::forward<Function>(function)), allocator);
  }
  template <class Function, class Allocator>
  void post(Function &&function, const Allocator &allocator) const {
    context_->get_executor().post(locked(std::forward<Function>(function)), allocator);
  }
  template <class Function, class Allocator>
  void defer(Function &&function, const Allocator &allocator) const {
    context_->get_executor().defer(locked(std::forward<Function>(function)), allocator);
  }
  friend bool operator==(const LockedExecutor &a, const LockedExecutor &b) noexcept { return a.mutex_ == b.mutex_; }
  friend bool operator!=(const LockedExecutor &a, const LockedExecutor &b) noexcept { return !(a == b); }

 private:
  /// Keeps the mutex until the lock is given back: the object may go in between.
  template <class Function>
  auto locked(Function &&function) const {
    return [mutex = mutex_, own = std::forward<Function>(function)]() mutable {
      const std::lock_guard lock(*mutex);
      own();
    };
  }

  boost::asio::io_context *context_;
  std::shared_ptr<Mutex> mutex_ = std::make_shared<Mutex>();
};

}  // namespace qelnk
