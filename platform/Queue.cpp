#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/Queue.h>

#include <atomic>
#include <system_error>

#include "platform/LogFormat.h"
#include "platform/RunLoopThread.h"

namespace qelnk {

namespace {

/// The end of a label tells more than its start ("com.example.app.responses").
std::string threadName(const std::string &label) {
  return label.size() <= 15 ? label : label.substr(label.size() - 15);
}

/// A queue is a loop whose thread belongs to nobody: queueing is performing, and the last task of all ends the thread.
class SerialQueue final : public Queue {
 public:
  explicit SerialQueue(std::string label) : label_(std::move(label)) {}

  ~SerialQueue() override {
    if (!started_) return;
    loop_->perform([finished = finished_] { *finished = true; });
  }

  void async(Task task) override {
    loop_->perform(std::move(task));
    if (started_) return;
    try {
      const Lock lock(starting_);
      if (!started_) start();
    } catch (const std::system_error &error) {  // the next async() tries again
      logError("Queue {} could not start its thread: {}", label_, error.what());
    }
  }

  bool isCurrent() const override { return loop_->isCurrent(); }
  const std::string &label() const override { return label_; }

 private:
  void start() QELNK_REQUIRES(starting_) {
    startThread(threadName(label_), [loop = loop_, finished = finished_] {
      RunLoopThread::adopt(loop);
      while (!*finished) loop->runOnce(std::chrono::nanoseconds::max());  // not run(): a task may call stop()
    }).detach();
    started_ = true;
  }

  const std::string label_;
  const std::shared_ptr<RunLoop> loop_ = RunLoopThread::make();
  const std::shared_ptr<bool> finished_ = std::make_shared<bool>(false);  // the thread's own
  Mutex starting_;
  std::atomic<bool> started_ = false;
};

class MainQueue final : public Queue {
 public:
  void async(Task task) override { RunLoop::main()->perform(std::move(task)); }
  bool isCurrent() const override { return RunLoop::main()->isCurrent(); }
  const std::string &label() const override { return label_; }

 private:
  const std::string label_ = "main";
};

}  // namespace

std::shared_ptr<Queue> Queue::serial(std::string label) { return std::make_shared<SerialQueue>(std::move(label)); }

const std::shared_ptr<Queue> &Queue::main() {
  static const auto &immortal = *new std::shared_ptr<Queue>(std::make_shared<MainQueue>());
  return immortal;
}

}  // namespace qelnk
