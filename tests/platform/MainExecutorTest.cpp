#include <QELNetworkKit/Queue.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <condition_variable>
#include <deque>
#include <thread>

#include "platform/Semaphore.h"
#include "support/TestSupport.h"

namespace qelnk {

using namespace std::chrono_literals;

/// The loop of a host that knows nothing of run loops, on the main thread.
class HostLoop : public testing::Test {
 protected:
  void SetUp() override {
    RunLoop::setMainExecutor([this](Task task) { post(std::move(task)); });
  }
  void TearDown() override { RunLoop::setMainExecutor(nullptr); }

  void post(Task task) {
    const std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
    posts_++;
    arrived_.notify_one();
  }
  /// Serves what is posted, and nothing else, until `condition` holds.
  bool serveUntil(const std::function<bool()> &condition) {
    const auto end = std::chrono::steady_clock::now() + 10s;
    while (!condition()) {
      std::unique_lock lock(mutex_);
      if (!arrived_.wait_until(lock, end, [this] { return !tasks_.empty(); })) return false;
      const Task task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      task();
    }
    return true;
  }
  int posts() {
    const std::lock_guard lock(mutex_);
    return posts_;
  }

  const std::shared_ptr<RunLoop> loop = RunLoop::main();

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<Task> tasks_;
  int posts_ = 0;
};

TEST_F(HostLoop, GetsOneClosureForAllTheTasksThatWait) {
  int ran = 0;
  for (int n = 0; n < 100; ++n) Queue::main()->async([&] { ++ran; });
  EXPECT_EQ(posts(), 1);
  EXPECT_TRUE(serveUntil([&] { return ran == 100; }));
}

TEST_F(HostLoop, IsAskedAgainForWorkThatComesLater) {
  int ran = 0;
  std::function<void()> again = [&] {
    if (++ran < 50) Queue::main()->async(again);
  };
  Queue::main()->async(again);
  EXPECT_TRUE(serveUntil([&] { return ran == 50; }));
  std::atomic<int> fromThreads = 0;
  std::thread other([&] {
    for (int n = 0; n < 2000; ++n) {
      Queue::main()->async([&] { ++fromThreads; });
      if (n % 10 == 0) std::this_thread::yield();
    }
  });
  EXPECT_TRUE(serveUntil([&] { return fromThreads == 2000; }));
  other.join();
}

TEST_F(HostLoop, TimersAndDescriptorsReachIt) {
  int beats = 0, reads = 0;
  bool early = false;
  const int fd = eventfd(0, EFD_CLOEXEC);
  loop->performAfter(
      1h, [] {}, {}, this);
  const auto beat = loop->performAfter(
      1ms, [&] { ++beats; }, 1ms);
  loop->performAfter(100us, [&] { early = true; });
  const auto source = loop->watch(fd, Readiness::readable, [&](Readiness) {
    eventfd_t value;
    eventfd_read(fd, &value);
    ++reads;
  });
  EXPECT_TRUE(serveUntil([&] { return early && beats >= 5; }));
  for (int n = 1; n <= 20; ++n) {
    eventfd_write(fd, 1);
    EXPECT_TRUE(serveUntil([&] { return reads == n; }));
  }
  beat->cancel();
  source->cancel();
  loop->cancelPerforms(this);
  close(fd);
}

TEST_F(HostLoop, NestedInATaskServesWhatComesBehind) {
  bool behind = false, timer = false, isOver = false;
  Queue::main()->async([&] {
    Queue::main()->async([&] { behind = true; });
    loop->performAfter(1ms, [&] { timer = true; });
    EXPECT_TRUE(serveUntil([&] { return behind && timer; }));
    isOver = true;
  });
  EXPECT_TRUE(serveUntil([&] { return isOver; }));
}

TEST_F(HostLoop, TimersOnAClockMovedByHandReachIt) {
  const auto clock = std::make_shared<ManualClock>();
  loop->setClock(clock);
  bool fired = false;
  loop->performAfter(1h, [&] { fired = true; });
  std::thread([&] { clock->advance(1h); }).join();
  EXPECT_TRUE(serveUntil([&] { return fired; }));
  loop->setClock(Clock::system());
}

TEST_F(HostLoop, WaitOnTheMainThreadServesMainTasksItself) {
  const auto queue = Queue::serial("worker");
  for (int round = 0; round < 200; ++round) {
    bool inWait = false;
    Queue::main()->async([&] {  // in the host's own turn
      Semaphore replied;
      queue->async([&] { Queue::main()->async([&] { replied.signal(); }); });
      replied.wait(1min);
      inWait = true;
    });
    EXPECT_TRUE(serveUntil([&] { return inWait; }));
  }
  bool after = false;
  Queue::main()->async([&] { after = true; });
  EXPECT_TRUE(serveUntil([&] { return after; }));
}

TEST_F(HostLoop, ExecutorThatThrowsIsAskedAgain) {
  const test::CapturedLog log;
  bool first = false, second = false;
  RunLoop::setMainExecutor([](Task) { throw std::runtime_error("no such window"); });
  Queue::main()->async([&] { first = true; });
  EXPECT_TRUE(log.contains("RunLoop main executor threw: no such window"));
  RunLoop::setMainExecutor([this](Task task) { post(std::move(task)); });
  EXPECT_TRUE(serveUntil([&] { return first; })) << "work that waited is handed to a new executor";
  Queue::main()->async([&] { second = true; });
  EXPECT_TRUE(serveUntil([&] { return second; }));
}

TEST_F(HostLoop, IsAskedAgainWhenItDroppedTheClosure) {
  bool first = false, second = false;
  bool drop = true;
  RunLoop::setMainExecutor([&](Task task) {
    if (!drop) post(std::move(task));
  });
  Queue::main()->async([&] { first = true; });
  drop = false;
  Queue::main()->async([&] { second = true; });
  EXPECT_TRUE(serveUntil([&] { return first && second; }));
}

TEST_F(HostLoop, TakenBackExecutorIsNeitherCalledNorHeldAnyMore) {
  for (int round = 0; round < 50; ++round) {
    std::atomic<bool> entered = false, alive = true, wrong = false;
    const auto unserved = std::make_shared<std::vector<Task>>();  // goes with the executor, and with it the closure
    RunLoop::setMainExecutor([&, held = unserved](Task task) {
      entered = true;
      std::this_thread::yield();
      wrong = wrong || !alive;
      held->push_back(std::move(task));
    });
    std::thread other([] { Queue::main()->async([] {}); });
    while (!entered) std::this_thread::yield();
    RunLoop::setMainExecutor(nullptr);
    alive = false;
    other.join();
    EXPECT_FALSE(wrong);
    EXPECT_EQ(unserved.use_count(), 1);
  }
  bool ran = false;  // an executor may take itself back
  RunLoop::setMainExecutor([](auto &&) { RunLoop::setMainExecutor(nullptr); });
  Queue::main()->async([&] { ran = true; });
  EXPECT_TRUE(test::eventually([&] { return ran; }));
}

TEST_F(HostLoop, ClosureOnAnotherThreadIsReportedAndServesNothing) {
  const test::CapturedLog log;
  bool ran = false;
  RunLoop::setMainExecutor([](Task task) { std::thread(std::move(task)).join(); });
  Queue::main()->async([&] { ran = true; });
  EXPECT_TRUE(log.contains("another thread than the main one"));
  EXPECT_FALSE(ran);
  RunLoop::setMainExecutor(nullptr);
  EXPECT_TRUE(test::eventually([&] { return ran; })) << "without an executor the main loop is turned as before";
}

}  // namespace qelnk
