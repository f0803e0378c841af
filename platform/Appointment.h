#pragma once

#include <QELNetworkKit/RunLoop.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "platform/Guard.h"

namespace qelnk {

/// What a thread waits on whose task is queued on another. The task holds it: a task that is destroyed without having
/// run ends the wait too.
class Rendezvous {
 public:
  void finish(bool ran) {
    const std::lock_guard lock(mutex_);
    if (!ran_) ran_ = ran;
    finished_.notify_all();
  }
  bool wait() {
    std::unique_lock lock(mutex_);
    finished_.wait(lock, [this] { return ran_.has_value(); });
    return *ran_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable finished_;
  std::optional<bool> ran_;
};

/// A task that somebody waits for.
class Appointment {
 public:
  Appointment(Task task, std::shared_ptr<Rendezvous> rendezvous)
      : task_(std::move(task)), rendezvous_(std::move(rendezvous)) {}
  ~Appointment() {
    task_ = nullptr;  // before the waiter goes on: it may refer to what is his
    rendezvous_->finish(false);
  }
  Appointment(const Appointment &) = delete;
  Appointment &operator=(const Appointment &) = delete;

  void keep() {
    runGuarded("RunLoop task", task_);
    task_ = nullptr;
    rendezvous_->finish(true);
  }

 private:
  Task task_;
  const std::shared_ptr<Rendezvous> rendezvous_;
};

}  // namespace qelnk
