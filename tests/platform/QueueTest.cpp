#include <QELNetworkKit/Queue.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "platform/Semaphore.h"
#include "support/TestSupport.h"

namespace qelnk {

using namespace std::chrono_literals;
using test::eventually;

TEST(SerialQueue, RunsTasksInOrderOnOneThreadOfItsOwn) {
  const auto queue = Queue::serial("com.example.queue.order");
  EXPECT_FALSE(queue->isCurrent());
  std::vector<int> order;
  std::thread::id thread;
  Semaphore done;
  for (int n = 0; n < 1000; ++n)
    queue->async([&, n] {
      EXPECT_TRUE(queue->isCurrent());
      if (n == 0) thread = std::this_thread::get_id();
      EXPECT_EQ(thread, std::this_thread::get_id());
      order.push_back(n);
    });
  queue->async([&] { done.signal(); });
  done.wait();
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  EXPECT_EQ(order.size(), 1000u);
  EXPECT_NE(thread, std::this_thread::get_id());
}

TEST(SerialQueue, OutlivesATaskThatThrowsOrStopsItsLoop) {
  const test::CapturedLog log;
  const auto queue = Queue::serial("throwing");
  std::atomic<int> ran = 0;
  queue->async([] { throw std::runtime_error("paper jam"); });
  queue->async([] { RunLoop::current()->stop(); });
  queue->async([&] { ++ran; });
  EXPECT_TRUE(eventually([&] { return ran == 1; }));
  queue->async([&] { ++ran; });
  EXPECT_TRUE(eventually([&] { return ran == 2; }));
  EXPECT_EQ(log.count("paper jam"), 1u);
}

TEST(SerialQueue, ServesTheDelayedTasksOfItsThread) {
  const auto queue = Queue::serial("delayed");
  std::atomic<bool> ran = false;
  queue->async([&] { RunLoop::current()->performAfter(1ms, [&] { ran = queue->isCurrent(); }); });
  EXPECT_TRUE(eventually([&] { return ran.load(); }));
}

TEST(SerialQueue, WhatWasQueuedStillRunsWhenTheLastReferenceGoes) {
  const size_t threads = test::threadCount();
  constexpr int queues = 1000, tasks = 5;
  std::atomic<int> ran = 0;
  for (int n = 0; n < queues; ++n) {
    auto queue = Queue::serial("dropped");
    if (n % 4 == 0) continue;  // never used
    for (int task = 0; task < tasks; ++task) queue->async([&ran] { ++ran; });
  }
  EXPECT_TRUE(eventually([&] { return ran == queues / 4 * 3 * tasks; }));
  EXPECT_TRUE(eventually([&] { return test::threadCount() <= threads; }));
}

TEST(SerialQueue, MayBeLetGoInItsOwnTask) {
  const size_t threads = test::threadCount();
  for (int round = 0; round < 100; ++round) {
    std::atomic<bool> given = false;
    Semaphore ran;
    auto queue = Queue::serial("own");
    queue->async([&] {
      while (!given) std::this_thread::yield();
      queue.reset();
      RunLoop::current()->runOnce(0ns);  // the end of the queue comes inside the task
    });
    queue->async([&] { ran.signal(); });
    given = true;
    ran.wait();
    EXPECT_TRUE(eventually([&] { return test::threadCount() <= threads; }));
  }
}

TEST(SerialQueue, WaitInsideATaskLetsTheNextOnesRun) {
  const auto queue = Queue::serial("waiting");
  Semaphore inner, outer;
  queue->async([&] {
    inner.wait();
    outer.signal();
  });
  queue->async([&] { inner.signal(); });
  outer.wait();
}

TEST(SerialQueue, SignalsOfTheHostAreNotHandledOnItsThread) {
  const auto queue = Queue::serial("com.example.signals");
  sigset_t mask;
  sigemptyset(&mask);
  std::string name(16, '\0');
  Semaphore done;
  queue->async([&] {
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    pthread_getname_np(pthread_self(), name.data(), name.size());
    done.signal();
  });
  done.wait();
  for (int blocked : {SIGTERM, SIGINT, SIGALRM, SIGCHLD, SIGUSR1}) EXPECT_TRUE(sigismember(&mask, blocked)) << blocked;
  EXPECT_FALSE(sigismember(&mask, SIGSEGV));
  EXPECT_STREQ(name.c_str(), "example.signals");
}

TEST(MainQueue, TasksOfOtherThreadsRunOnTheMainThread) {
  EXPECT_TRUE(Queue::main()->isCurrent());
  bool ran = false;
  std::thread([&] {
    EXPECT_FALSE(Queue::main()->isCurrent());
    Queue::main()->async([&] { ran = Queue::main()->isCurrent(); });
  }).join();
  EXPECT_FALSE(ran);
  EXPECT_TRUE(eventually([&] { return ran; }));
}

TEST(Semaphore, CountsAndServesTheLoopWhileItWaits) {
  Semaphore semaphore(2);
  semaphore.wait();
  EXPECT_TRUE(semaphore.tryWait());
  EXPECT_FALSE(semaphore.tryWait());
  Queue::main()->async([&] { Queue::main()->async([&] { semaphore.signal(); }); });
  semaphore.wait();
  EXPECT_FALSE(semaphore.tryWait());
}

TEST(Semaphore, WaitEndsAtOnceNotAtTheEndOfAStep) {
  const auto queue = Queue::serial("signals");
  const auto begin = std::chrono::steady_clock::now();
  for (int round = 0; round < 1000; ++round) {
    Semaphore semaphore;  // gone as soon as the wait is over
    queue->async([&] { semaphore.signal(); });
    semaphore.wait(1min);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);
}

TEST(Semaphore, EachSignalReleasesOneOfManyWaiters) {
  Semaphore semaphore;
  std::atomic<int> released = 0;
  std::vector<std::thread> waiters;
  for (int n = 0; n < 4; ++n)
    waiters.emplace_back([&] {
      for (int round = 0; round < 250; ++round) {
        semaphore.wait(1min);
        ++released;
      }
    });
  for (int n = 0; n < 1000; ++n) semaphore.signal();
  for (auto &waiter : waiters) waiter.join();
  EXPECT_EQ(released, 1000);
  EXPECT_FALSE(semaphore.tryWait());
}

}  // namespace qelnk
