#include <QELNetworkKit/Process.h>
#include <QELNetworkKit/Queue.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/LogFormat.h"
#include "platform/Semaphore.h"

namespace qelnk {

namespace {

/// Destroyed with the static objects of the program, after the main thread's loop has ended.
struct LateHost {
  std::shared_ptr<Queue> queue = Queue::serial("late");
  ~LateHost() {
    Semaphore done;
    queue->async([&] { done.signal(); });
    done.wait();
    Queue::main()->async([] {});
    if (RunLoop::main()->performAndWait([] {}) != RunLoop::main()->isCurrent()) std::abort();
    logError("still there");
  }
};

/// Leaves the program while its queues are at work and a child is about to be reported.
void exitAtWork() {
  static LateHost late;
  QLGetHandle().setSink([](LogLevel, std::string_view) {});
  std::atomic<int> started = 0;
  std::vector<std::shared_ptr<Queue>> queues;
  static std::function<void()> work = [] {
    logError("at work");
    RunLoop::current()->perform(work);
  };
  for (int n = 0; n < 4; ++n) {
    queues.push_back(Queue::serial("busy"));
    queues.back()->async(work);
    queues.back()->async([&] { ++started; });
  }
  Process::launch("/bin/true", {}, [](const auto &) { logError("ended"); });
  while (started != 4) RunLoop::current()->runOnce(std::chrono::milliseconds(1));
  std::exit(0);
}

}  // namespace

TEST(ExitDeathTest, ThreadsAtWorkDoNotDisturbTheEndOfTheProgram) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (int round = 0; round < 5; ++round) EXPECT_EXIT(exitAtWork(), testing::ExitedWithCode(0), "^$");
}

}  // namespace qelnk
