#include "platform/Thread.h"

#include <gtest/gtest.h>
#include <poll.h>

#include "platform/Semaphore.h"
#include "support/TestSupport.h"

namespace qelnk {

using namespace std::chrono_literals;
using test::eventually;

TEST(Thread, CancelEndsEveryKindOfWait) {
  const std::vector<Thread::Body> bodies{[](std::stop_token token) {
                                           while (!token.stop_requested()) RunLoop::current()->runOnce(1min);
                                         },
                                         [](std::stop_token) { RunLoop::current()->run(); },
                                         [](std::stop_token token) {
                                           const auto loop = RunLoop::current();
                                           pollfd item{loop->wakeDescriptor(), POLLIN, 0};
                                           while (!token.stop_requested()) {
                                             poll(&item, 1, 60000);
                                             loop->runOnce(0ns);
                                           }
                                         }};
  for (int round = 0; round < 100; ++round)
    for (const auto &body : bodies) {
      Thread thread("a name longer than fifteen", body);
      if (round % 2) thread.runLoop()->performAndWait([] {});
      thread.cancel();
      EXPECT_TRUE(thread.isCancelled());
      thread.join();
      thread.join();
      EXPECT_TRUE(thread.isFinished());
      EXPECT_FALSE(thread.runLoop()->perform([] {}));
    }
}

TEST(Thread, JoinedByMany) {
  Thread thread("joined", [](std::stop_token) { RunLoop::current()->run(); });
  std::vector<std::thread> others;
  std::atomic<int> joined = 0;
  for (int n = 0; n < 4; ++n)
    others.emplace_back([&] {
      thread.join();
      EXPECT_TRUE(thread.isFinished());
      ++joined;
    });
  EXPECT_FALSE(thread.isFinished());
  EXPECT_EQ(joined, 0);
  thread.cancel();
  for (auto &other : others) other.join();
}

TEST(Thread, DestroyedOnItselfGoesOnByItself) {
  for (int round = 0; round < 100; ++round) {
    std::atomic<bool> ended = false;
    auto thread = std::make_shared<std::unique_ptr<Thread>>();
    Semaphore made;
    *thread = std::make_unique<Thread>("self", [&](std::stop_token token) {
      made.wait();
      EXPECT_TRUE((*thread)->isCurrent());
      (*thread)->join();
      thread->reset();
      EXPECT_TRUE(token.stop_requested());
      ended = true;
    });
    EXPECT_FALSE((*thread)->isCurrent());
    made.signal();
    EXPECT_TRUE(eventually([&] { return ended.load(); }));
  }
}

TEST(Thread, ExceptionOfItsBodyIsLogged) {
  const test::CapturedLog log;
  Thread("QELNKTest io thread", [](std::stop_token) { throw std::runtime_error("torn"); }).join();
  EXPECT_EQ(log.count("QELNKTest io thread threw: torn"), 1u);
}

}  // namespace qelnk
