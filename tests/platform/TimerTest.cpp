#include <QELNetworkKit/RunLoop.h>
#include <gtest/gtest.h>

#include <thread>

#include "platform/Thread.h"
#include "support/TestSupport.h"

namespace qelnk {

using namespace std::chrono_literals;
using test::eventually;

/// A loop of its own thread's on a clock that the test moves.
class Timers : public testing::Test {
 protected:
  void SetUp() override { loop->setClock(clock); }
  void TearDown() override {
    loop->cancelPerforms(this);
    loop->setClock(Clock::system());
  }
  void advance(std::chrono::nanoseconds by) {
    clock->advance(by);
    loop->runOnce(0ns);
  }
  std::shared_ptr<LoopSource> after(std::chrono::nanoseconds delay, Task task, std::chrono::nanoseconds interval = {}) {
    return loop->performAfter(delay, std::move(task), interval, this);
  }
  Task note(std::string text) {
    return [this, text] { told += text; };
  }

  const std::shared_ptr<RunLoop> loop = RunLoop::current();
  const std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>(1h, 5.0);
  std::string told;
};

TEST_F(Timers, RunByDeadlineAndThenInTheOrderGiven) {
  after(3s, note("d"));
  after(2s, note("b"));
  after(2s, note("c"));
  after(-1s, note("a"));
  after(std::chrono::nanoseconds::max(), note("never"));
  advance(0s);
  EXPECT_EQ(told, "a");
  EXPECT_EQ(loop->untilNextTimer(1min), 1min) << "moved by hand: no real time";
  advance(2s);
  EXPECT_EQ(told, "abc");
  clock->advance(1s);
  EXPECT_EQ(loop->untilNextTimer(1min), 0s);
  loop->runOnce(0ns);
  EXPECT_EQ(told, "abcd");
  EXPECT_EQ(clock->wallTime(), 8.0);
}

TEST_F(Timers, ZeroDelayGivenInATimerWaitsForTheNextTurn) {
  std::function<void()> again = [&] {
    told += "x";
    after(0s, again);
  };
  after(0s, again);
  for (int turn = 0; turn < 3; ++turn) EXPECT_TRUE(loop->runOnce(0ns));
  EXPECT_EQ(told, "xxx");
}

TEST_F(Timers, IntervalKeepsItsBeatAndLeavesMissedOnesOut) {
  const auto source = after(1s, note("."), 2s);
  advance(1s);
  EXPECT_EQ(told, ".");
  advance(1900ms);
  EXPECT_EQ(told, ".");
  advance(100ms);
  EXPECT_EQ(told, "..");
  advance(11s);  // beats at 5, 7, 9, 11 and 13 s; it is 14 s
  EXPECT_EQ(told, "...");
  advance(1s);
  EXPECT_EQ(told, "....");
  source->cancel();
  advance(1h);
  EXPECT_EQ(told, "....");
}

TEST_F(Timers, CancelInsideTimersHolds) {
  std::shared_ptr<LoopSource> later, own;
  own = after(
      1s,
      [&] {
        told += "own";
        own->cancel();
        later->cancel();
      },
      1s);
  later = after(1s, note("later"));
  int mine = 0, others = 0;
  loop->performAfter(
      1s, [&] { loop->cancelPerforms(&mine); }, 1s, &mine);
  loop->performAfter(1s, note("mine"), {}, &mine);
  loop->performAfter(1s, note(" others"), {}, &others);
  loop->cancelPerforms(nullptr);
  advance(1s);
  advance(10s);
  EXPECT_EQ(told, "own others");
}

TEST_F(Timers, NestedTurnDoesNotEnterTheTimerThatTurns) {
  after(
      1s,
      [&] {
        told += "(";
        if (told.size() < 4) advance(1s);
        told += ")";
      },
      1s);
  after(2s, note("x"));
  advance(1s);
  EXPECT_EQ(told, "(x)");
}

TEST_F(Timers, ClosureGoesWithTheTimerThoughItsSourceIsKept) {
  const auto held = std::make_shared<int>(1);
  const auto over = after(0s, [held] {});
  const auto cancelled = after(1h, [held] {});
  loop->runOnce(0ns);
  EXPECT_EQ(held.use_count(), 2);
  cancelled->cancel();
  EXPECT_EQ(held.use_count(), 1);
}

TEST(Timer, MovingTheClockWakesAWaitingLoop) {
  const auto clock = std::make_shared<ManualClock>();
  std::atomic<int> fired = 0;
  const Thread thread("timers", [](std::stop_token) { RunLoop::current()->run(); });
  thread.runLoop()->setClock(clock);
  thread.runLoop()->performAfter(
      1s, [&] { ++fired; }, 1s);
  for (int beat = 1; beat <= 200; ++beat) {
    clock->advance(1s);
    ASSERT_TRUE(eventually([&] { return fired == beat; }));
  }
}

TEST(Timer, EarlierTimerFromAnotherThreadShortensTheWait) {
  std::atomic<int> fired = 0;
  const Thread thread("timers", [](std::stop_token) { RunLoop::current()->run(); });
  thread.runLoop()->performAfter(1h, [] {});
  for (int round = 1; round <= 50; ++round) {
    thread.runLoop()->performAfter(100us, [&] { ++fired; });
    ASSERT_TRUE(eventually([&] { return fired == round; }));
  }
}

TEST(Timer, RealDelayIsKept) {
  const auto loop = RunLoop::current();
  bool fired = false;
  const auto begin = std::chrono::steady_clock::now();
  loop->performAfter(20ms, [&] { fired = true; });
  while (!fired) loop->runOnce(1min);
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(took, 20ms);
  EXPECT_LT(took, 5s);
}

TEST(Timer, CancelledFromAnotherThreadWhileItFires) {
  const Thread thread("timers", [](std::stop_token) { RunLoop::current()->run(); });
  std::atomic<int> calls = 0;
  for (int round = 0; round < 300; ++round) {
    const auto source = thread.runLoop()->performAfter(
        0s, [&calls] { ++calls; }, 1us);
    if (round % 2) std::this_thread::yield();
    source->cancel();
    thread.runLoop()->performAndWait([] {});  // whatever was under way is over
    const int before = calls;
    thread.runLoop()->performAndWait([] {});
    EXPECT_EQ(calls, before);
  }
}

}  // namespace qelnk
