#include <QELNetworkKit/RunLoop.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <thread>

#include "platform/Thread.h"
#include "support/TestSupport.h"

namespace qelnk {

using namespace std::chrono_literals;
using test::eventually;

namespace {

/// Two connected stream sockets.
class SocketPair {
 public:
  SocketPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends_.data()), 0); }
  ~SocketPair() {
    closeEnd(0);
    closeEnd(1);
  }
  int operator[](size_t end) const { return ends_[end]; }
  void put(char c = 'x') const { EXPECT_EQ(write(ends_[1], &c, 1), 1); }
  char take() const {
    char c = 0;
    EXPECT_EQ(read(ends_[0], &c, 1), 1);
    return c;
  }
  void closeEnd(size_t end) {
    if (ends_[end] >= 0) close(std::exchange(ends_[end], -1));
  }

 private:
  std::array<int, 2> ends_{-1, -1};
};

/// Every test has a loop that no other test has opened descriptors in.
class Watches : public testing::Test {
 protected:
  void SetUp() override { before_ = test::descriptorCount(); }
  void onLoopOfItsOwn(const std::function<void(RunLoop &)> &body) {
    std::thread([&] { body(*RunLoop::current()); }).join();
    EXPECT_EQ(test::descriptorCount(), before_);
  }

 private:
  size_t before_ = 0;
};

}  // namespace

TEST_F(Watches, TellWhileReadyUntilCancelled) {
  onLoopOfItsOwn([](RunLoop &loop) {
    SocketPair sockets;
    int calls = 0;
    const auto source = loop.watch(sockets[0], Readiness::readable, [&](Readiness ready) {
      EXPECT_EQ(ready, Readiness::readable);
      ++calls;
    });
    EXPECT_FALSE(loop.runOnce(1ms));
    sockets.put();
    EXPECT_TRUE(loop.runOnce(1min));
    EXPECT_TRUE(loop.runOnce(1min)) << "nothing has been read";
    EXPECT_EQ(calls, 2);
    sockets.take();
    EXPECT_FALSE(loop.runOnce(0ns));
    sockets.put();
    source->cancel();
    source->cancel();
    EXPECT_FALSE(loop.runOnce(0ns));
  });
}

TEST_F(Watches, ServeTasksAndTimersBesideDescriptors) {
  onLoopOfItsOwn([](RunLoop &loop) {
    SocketPair sockets;
    std::string order;
    const auto source = loop.watch(sockets[0], Readiness::readable, [&](Readiness) { order += sockets.take(); });
    loop.performAfter(0ns, [&] { order += "timer "; });
    loop.perform([&] { order += "task "; });
    sockets.put('d');
    EXPECT_TRUE(loop.runOnce(1min));
    EXPECT_EQ(order, "task timer d");
    loop.performAfter(2ms, [&] { order += " late"; });
    EXPECT_TRUE(loop.runOnce(1min));
    EXPECT_EQ(order, "task timer d late");
    for (int round = 0; round < 300; ++round) {
      std::thread other([&] { loop.perform([] {}); });
      EXPECT_TRUE(loop.runOnce(1min));
      other.join();
    }
  });
}

TEST_F(Watches, HangUpIsToldAsReadableAndFailed) {
  onLoopOfItsOwn([](RunLoop &loop) {
    std::array<int, 2> ends;
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    Readiness reader = Readiness::none, nothing = Readiness::none;
    loop.watch(ends[0], Readiness::readable, [&](Readiness ready) { reader = ready; });
    loop.watch(ends[0], Readiness::none, [&](Readiness ready) { nothing = ready; });
    close(ends[1]);
    EXPECT_TRUE(loop.runOnce(1min));
    EXPECT_EQ(reader, Readiness::readable | Readiness::failed);
    EXPECT_EQ(nothing, Readiness::failed);
    close(ends[0]);
  });
}

TEST_F(Watches, OneDescriptorMayBeWatchedTwice) {
  onLoopOfItsOwn([](RunLoop &loop) {
    SocketPair sockets;
    std::string told;
    const auto reader = loop.watch(sockets[0], Readiness::readable, [&](Readiness) { told += 'r'; });
    const auto writer = loop.watch(sockets[0], Readiness::writable, [&](Readiness) { told += 'w'; });
    loop.runOnce(0ns);
    EXPECT_EQ(told, "w");
    sockets.put();
    writer->cancel();
    loop.runOnce(0ns);
    EXPECT_EQ(told, "wr");
    reader->cancel();
    EXPECT_FALSE(loop.runOnce(0ns));
  });
}

TEST_F(Watches, CancelHoldsWithinABatchEvenIfTheNumberIsInUseAgain) {
  onLoopOfItsOwn([](RunLoop &loop) {
    std::array<SocketPair, 2> sockets;
    std::array<std::shared_ptr<LoopSource>, 2> sources;
    SocketPair fresh;
    std::string told;
    const auto ended = [&](size_t mine) {
      return [&, mine](Readiness) {  // cancels both, closes the other and puts a silent socket in its place
        const size_t other = 1 - mine;
        told += "first ";
        for (const auto &source : sources) source->cancel();
        const int number = sockets[other][0];
        sockets[other].closeEnd(0);
        ASSERT_EQ(dup2(fresh[0], number), number);
        sources[other] = loop.watch(number, Readiness::readable, [&](Readiness) { told += "wrong"; });
      };
    };
    for (size_t n : {0, 1}) {
      sources[n] = loop.watch(sockets[n][0], Readiness::readable, ended(n));
      sockets[n].put();
    }
    std::array<int, 2> numbers{sockets[0][0], sockets[1][0]};
    EXPECT_TRUE(loop.runOnce(0ns));
    EXPECT_FALSE(loop.runOnce(0ns));
    EXPECT_EQ(told, "first ");
    for (size_t n : {0, 1}) {
      sources[n]->cancel();
      if (sockets[n][0] < 0) close(numbers[n]);
    }
  });
}

TEST_F(Watches, EventsThatANestedTurnServedAreNotToldAgain) {
  onLoopOfItsOwn([](RunLoop &loop) {
    std::array<SocketPair, 3> sockets;
    int depth = 0, reads = 0;
    std::vector<std::shared_ptr<LoopSource>> sources;
    for (auto &pair : sockets) {
      pair.put();
      sources.push_back(loop.watch(pair[0], Readiness::readable, [&](Readiness) {
        pair.take();  // fails the test when there is nothing
        ++reads;
        if (++depth < 4) loop.runOnce(0ns);
      }));
    }
    loop.runOnce(0ns);
    EXPECT_EQ(reads, 3);
    for (const auto &source : sources) source->cancel();
  });
}

TEST_F(Watches, ThrowingHandlerIsLoggedAndRefusedDescriptorIsAnError) {
  const test::CapturedLog log;
  onLoopOfItsOwn([](RunLoop &loop) {
    SocketPair sockets;
    sockets.put();
    const auto source =
        loop.watch(sockets[0], Readiness::readable, [](Readiness) { throw std::runtime_error("no ink"); });
    EXPECT_TRUE(loop.runOnce(0ns));
    source->cancel();
    EXPECT_THROW(loop.watch(-1, Readiness::readable, [](Readiness) {}), std::system_error);
    const int file = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    EXPECT_THROW(loop.watch(file, Readiness::readable, [](Readiness) {}), std::system_error);
    close(file);
  });
  EXPECT_EQ(log.count("no ink"), 1u);
}

TEST_F(Watches, FirstOneGivenByAnotherThreadReachesALoopThatWaits) {
  for (int round = 0; round < 100; ++round) {
    const Thread thread("watches", [](std::stop_token) { RunLoop::current()->run(); });
    SocketPair sockets;
    std::atomic<int> calls = 0;
    if (round % 2) thread.runLoop()->performAndWait([] {});
    const auto source = thread.runLoop()->watch(sockets[0], Readiness::readable, [&](Readiness) { ++calls; });
    sockets.put();
    EXPECT_TRUE(eventually([&] { return calls > 0; }));
    EXPECT_TRUE(thread.runLoop()->performAndWait([&] { source->cancel(); }));
  }
}

TEST_F(Watches, CancelledFromAnotherThreadMayBeClosed) {
  const Thread thread("watches", [](std::stop_token) { RunLoop::current()->run(); });
  for (int round = 0; round < 200; ++round) {
    SocketPair sockets;
    std::shared_ptr<LoopSource> source;
    std::atomic<int> calls = 0;
    sockets.put();
    thread.runLoop()->performAndWait(
        [&] { source = RunLoop::current()->watch(sockets[0], Readiness::readable, [&](Readiness) { ++calls; }); });
    EXPECT_TRUE(round % 2 || eventually([&] { return calls > 0; }));
    source->cancel();
    sockets.closeEnd(0);
    thread.runLoop()->performAndWait([] {});
    const int before = calls;
    thread.runLoop()->performAndWait([] {});
    EXPECT_EQ(calls, before);
  }
}

}  // namespace qelnk
