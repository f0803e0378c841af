#pragma once

#include <QELNetworkKit/RunLoop.h>

#include <future>
#include <utility>

#include "platform/Guard.h"

namespace qelnk {

/// A task that another thread waits for. One that is destroyed without having been kept ends the wait too.
class Appointment {
 public:
  explicit Appointment(Task task) : task_(std::move(task)) {}
  ~Appointment() {
    if (!ended_) end(false);
  }
  Appointment(const Appointment &) = delete;
  Appointment &operator=(const Appointment &) = delete;

  /// For the one who waits: whether the task has run.
  std::future<bool> kept() { return kept_.get_future(); }

  void keep() {
    runGuarded("RunLoop task", task_);
    end(true);
  }

 private:
  void end(bool ran) {
    task_ = nullptr;  // before the waiter goes on: it may refer to what is his
    ended_ = true;
    kept_.set_value(ran);
  }

  Task task_;
  bool ended_ = false;
  std::promise<bool> kept_;
};

}  // namespace qelnk
