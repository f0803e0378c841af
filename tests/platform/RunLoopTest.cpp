#include <QELNetworkKit/RunLoop.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <thread>

#include "platform/Semaphore.h"
#include "platform/Thread.h"
#include "support/TestSupport.h"

namespace qelnk {

using namespace std::chrono_literals;
using test::eventually;

namespace {

/// A thread that serves its loop until it is destroyed.
class LoopThread {
 public:
  RunLoop &operator*() const { return *thread_.runLoop(); }
  RunLoop *operator->() const { return thread_.runLoop().get(); }
  const std::shared_ptr<RunLoop> &loop() const { return thread_.runLoop(); }

 private:
  Thread thread_{"loop", [](std::stop_token) { RunLoop::current()->run(); }};
};

bool isReadable(int fd) {
  pollfd item{fd, POLLIN, 0};
  return poll(&item, 1, 0) == 1;
}

/// Sets a flag when its last copy goes.
std::shared_ptr<void> deathMark(std::atomic<bool> &dead) {
  return {nullptr, [&dead](void *) { dead = true; }};
}

}  // namespace

TEST(RunLoop, NestedTurnGoesOnWithTheLaterTasks) {
  const auto loop = RunLoop::current();
  std::string order;
  loop->perform([&] { order += "1"; });
  loop->perform([&] {
    order += "(";
    EXPECT_TRUE(loop->runOnce(0ns));
    order += ")";
  });
  loop->perform([&] { order += "2"; });
  loop->perform([&] { order += "3"; });
  EXPECT_TRUE(loop->runOnce(0ns));
  EXPECT_EQ(order, "1(23)");
  EXPECT_FALSE(loop->runOnce(0ns));
}

TEST(RunLoop, TaskThatQueuesItselfAgainDoesNotHoldATurn) {
  const auto loop = RunLoop::current();
  int runs = 0;
  std::function<void()> again = [&] {
    if (++runs < 1000) loop->perform(again);
  };
  loop->perform(again);
  loop->runOnce(0ns);
  EXPECT_EQ(runs, 1);
  EXPECT_TRUE(eventually([&] { return runs == 1000; }));
}

TEST(RunLoop, ExceptionOfATaskIsLoggedAndTheNextRuns) {
  const test::CapturedLog log;
  const auto loop = RunLoop::current();
  bool next = false;
  loop->perform([] { throw std::runtime_error("out of paper"); });
  loop->perform([] { throw 42; });
  loop->perform([&] { next = true; });
  loop->runOnce(0ns);
  EXPECT_TRUE(next);
  EXPECT_EQ(log.count("RunLoop task threw: out of paper"), 1u);
  EXPECT_EQ(log.count("RunLoop task threw"), 2u);
}

TEST(RunLoop, StopEndsTheInnermostRunAfterTheTaskUnderWay) {
  const auto loop = RunLoop::current();
  loop->stop();
  loop->run();  // at once

  std::string order;
  loop->perform([&] {
    loop->perform([&] {
      order += "inner ";
      loop->stop();
    });
    loop->run();
    order += "outer ";
    loop->stop();
  });
  loop->run();
  loop->perform([&] {
    loop->stop();
    order += "after ";
  });
  loop->perform([&] { order += "left"; });
  loop->run();
  EXPECT_EQ(order, "inner outer after ");
  EXPECT_TRUE(loop->runOnce(0ns));
  EXPECT_EQ(order, "inner outer after left");
}

TEST(RunLoop, WaitOfAnyLengthEndsWithTheFirstTask) {
  const auto loop = RunLoop::current();
  for (const auto limit : {std::chrono::nanoseconds(1min), std::chrono::nanoseconds::max()}) {
    for (int round = 0; round < 300; ++round) {
      std::thread other([&] { loop->perform([] {}); });
      EXPECT_TRUE(loop->runOnce(limit));
      other.join();
    }
  }
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(loop->runOnce(5ms));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 5ms);
}

TEST(RunLoop, TasksOfManyThreadsAllRunInTheOrderOfEach) {
  constexpr int threads = 4, tasks = 20000;
  const LoopThread target;
  std::array<int, threads> last{};
  std::atomic<int> done = 0, wrong = 0;
  std::vector<std::thread> producers;
  for (int t = 0; t < threads; ++t)
    producers.emplace_back([&, t] {
      for (int n = 1; n <= tasks; ++n)
        target->perform([&, t, n] {
          if (last[size_t(t)] + 1 != n) ++wrong;
          last[size_t(t)] = n;
          ++done;
        });
    });
  for (auto &producer : producers) producer.join();
  EXPECT_TRUE(eventually([&] { return done == threads * tasks; }));
  EXPECT_EQ(wrong, 0);
}

TEST(RunLoop, EndedThreadRefusesTasksAndDestroysWhatWaited) {
  std::atomic<bool> refusedDied = false, waitingDied = false, timerDied = false, ran = false;
  std::shared_ptr<RunLoop> loop;
  std::thread([&] {
    loop = RunLoop::current();
    loop->perform([&ran, mark = deathMark(waitingDied)] { ran = true; });
    loop->performAfter(1h, [mark = deathMark(timerDied)] {});
  }).join();
  EXPECT_TRUE(waitingDied);
  EXPECT_TRUE(timerDied);
  EXPECT_FALSE(loop->perform([&ran, mark = deathMark(refusedDied)] { ran = true; }));
  EXPECT_TRUE(refusedDied);
  EXPECT_FALSE(loop->performAndWait([&] { ran = true; }));
  loop->performAfter(0ns, [&] { ran = true; })->cancel();
  EXPECT_FALSE(loop->isCurrent());
  EXPECT_FALSE(ran);
}

TEST(RunLoop, PerformAndWaitRunsThereOrInline) {
  const LoopThread other;
  std::thread::id where;
  EXPECT_TRUE(other->performAndWait([&] {
    where = std::this_thread::get_id();
    EXPECT_TRUE(other->isCurrent());
    EXPECT_TRUE(other->performAndWait([&] { EXPECT_EQ(where, std::this_thread::get_id()); }));
  }));
  EXPECT_NE(where, std::this_thread::get_id());
  EXPECT_TRUE(RunLoop::current()->performAndWait([&] { where = std::this_thread::get_id(); }));
  EXPECT_EQ(where, std::this_thread::get_id());
}

TEST(RunLoop, ThreadsThatWaitForEachOtherGoOn) {
  const LoopThread a, b;
  std::atomic<int> ran = 0;
  for (int round = 0; round < 300; ++round) {
    // Each of the three waits for the next one, to and fro, and something is queued besides.
    const auto here = RunLoop::current();
    const auto call = [&](const auto &from, const auto &to, auto &&then) {
      from->perform([&, then] { EXPECT_TRUE(to->performAndWait([&, then] { ++ran, then(); })); });
    };
    call(a, b, [&] { EXPECT_TRUE(here->performAndWait([&] { ++ran; })); });
    call(b, a, [&] { EXPECT_TRUE(here->performAndWait([&] { ++ran; })); });
    EXPECT_TRUE(a->performAndWait([&] { EXPECT_TRUE(b->performAndWait([&] { ++ran; })); }));
    EXPECT_TRUE(eventually([&] { return ran == (round + 1) * 5; }));
  }
}

TEST(RunLoop, PerformAndWaitNeverWaitsForAThreadThatEnds) {
  for (int round = 0; round < 200; ++round) {
    std::shared_ptr<RunLoop> loop;
    Semaphore ready;
    std::thread ending([&] {
      loop = RunLoop::current();
      ready.signal();
      loop->runOnce(1ms);
    });
    ready.wait();
    int ran = 0, told = 0;
    while (loop->performAndWait([&] { ++ran; })) ++told;
    EXPECT_EQ(ran, told);
    ending.join();
  }
}

namespace {

/// Uses its thread's loop in the destructor of a thread-local object, which is after the loop's own end when the object
/// is the older one.
struct LateUser {
  std::atomic<int> *uses = nullptr;
  ~LateUser() {
    if (!uses) return;
    const auto loop = RunLoop::current();
    EXPECT_FALSE(loop->perform([] {}));
    EXPECT_FALSE(loop->runOnce(1ms));
    ++*uses;
  }
};
thread_local LateUser lateUser;

}  // namespace

TEST(RunLoop, LoopMayStillBeAskedForWhileItsThreadGoesDown) {
  std::atomic<int> uses = 0;
  std::thread([&] {
    lateUser.uses = &uses;
    RunLoop::current();
  }).join();
  EXPECT_EQ(uses, 1);
}

TEST(RunLoop, MainLoopIsTheMainThreadsWhoeverAsksFirst) {
  std::shared_ptr<RunLoop> seen;
  std::thread([&] {
    seen = RunLoop::main();
    EXPECT_FALSE(seen->isCurrent());
    EXPECT_NE(seen, RunLoop::current());
  }).join();
  EXPECT_EQ(seen, RunLoop::current());
  EXPECT_TRUE(seen->isCurrent());
}

TEST(RunLoop, TurningALoopOfAnotherThreadIsReportedAndDoesNothing) {
  const test::CapturedLog log;
  const LoopThread other;
  EXPECT_FALSE(other->runOnce(1min));
  other->run();
  EXPECT_EQ(log.count("RunLoop was turned on another thread"), 2u);
}

TEST(RunLoop, WakeDescriptorTellsOfTasksAndStopUntilTheyAreServed) {
  std::thread([] {
    const auto loop = RunLoop::current();
    loop->perform([] {});
    const int fd = loop->wakeDescriptor();
    EXPECT_TRUE(isReadable(fd)) << "of a task that was there before";
    loop->runOnce(0ns);
    EXPECT_FALSE(isReadable(fd));
    loop->performAfter(0ns, [] {});
    EXPECT_FALSE(isReadable(fd)) << "timers do not count";
    EXPECT_EQ(loop->untilNextTimer(1s), 0ns);
    loop->runOnce(0ns);
    for (int n = 0; n < 3; ++n) loop->perform([&] { loop->stop(); });
    EXPECT_TRUE(isReadable(fd));
    loop->run();
    EXPECT_TRUE(isReadable(fd)) << "two tasks are left";
    loop->runOnce(0ns);
    loop->runOnce(0ns);
    EXPECT_FALSE(isReadable(fd));
  }).join();
}

TEST(RunLoop, ThreadInAPollOfItsOwnMissesNoTask) {
  std::atomic<bool> over = false;
  std::shared_ptr<RunLoop> loop;
  Semaphore ready;
  std::atomic<int> ran = 0;
  std::thread poller([&] {
    loop = RunLoop::current();
    pollfd item{loop->wakeDescriptor(), POLLIN, 0};
    ready.signal();
    while (!over) {
      EXPECT_EQ(poll(&item, 1, 60000), 1) << "a task came without a wake";
      loop->runOnce(0ns);
    }
  });
  ready.wait();
  for (int n = 1; n <= 5000; ++n) {
    loop->perform([&] { ++ran; });
    if (n % 3 == 0) {
      while (ran < n) std::this_thread::yield();
    }
  }
  loop->perform([&] { over = true; });
  poller.join();
  EXPECT_EQ(ran, 5000);
}

}  // namespace qelnk
