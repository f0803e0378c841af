#include <QELNetworkKit/QELNKLegacySerializer.h>
#include <QELNetworkKit/QELNKLegacyStreamThread.h>
#include <gtest/gtest.h>

#include <future>

#include "legacy/Observers.h"
#include "legacy/RawPeer.h"
#include "support/TestSupport.h"

using namespace qelnk;
using namespace qelnk::test;
using namespace std::chrono_literals;

TEST(LegacyStreamThread, RunsWhatItIsGivenUntilItIsCancelled) {
  const size_t threads = threadCount();
  const auto thread = QELNKLegacyStreamThread::multiThreaded();
  std::vector<int> ran;
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(thread->performSelectorOnTarget([&, i] { ran.push_back(i); }, false));
  thread->performSelectorOnTarget([&] { ran.push_back(3); }, true);
  EXPECT_EQ(ran, (std::vector<int>{0, 1, 2, 3}));
  thread->scheduleStream(nullptr);
  thread->closeStream(nullptr);
  // What was asked for before the end is still done.
  EXPECT_TRUE(thread->performSelectorOnTarget([&] { ran.push_back(4); }, false));
  thread->cancel();
  EXPECT_EQ(ran.size(), 5u);
  EXPECT_FALSE(thread->performSelectorOnTarget([] {}, true));
  EXPECT_FALSE(thread->performSelectorOnTarget([] {}, false));
  thread->cancel();
  EXPECT_TRUE(eventually([&] { return threadCount() <= threads; }));
}

TEST(LegacyStreamThread, TheSharedOneGoesOn) {
  const auto shared = QELNKLegacyStreamThread::singleThreaded();
  EXPECT_EQ(shared, QELNKLegacyStreamThread::singleThreaded());
  shared->cancel();
  EXPECT_TRUE(shared->performSelectorOnTarget([] {}, true));
}

TEST(LegacyStreamThread, TellsHowLongItsEndTakes) {
  const CapturedLog log;
  const auto thread = QELNKLegacyStreamThread::multiThreaded();
  std::promise<void> begun;
  std::atomic<bool> ended = false;
  thread->performSelectorOnTarget(
      [&] {
        begun.set_value();
        while (log.count("Shutdown communication") < 2) std::this_thread::yield();
        ended = true;
      },
      false);
  begun.get_future().wait();
  thread->cancel();
  EXPECT_TRUE(ended);
}

// A task may turn the loop itself, and what is to end the thread stops that first.
TEST(LegacyStreamThread, EndsOutOfANestedRun) {
  const auto thread = QELNKLegacyStreamThread::multiThreaded();
  std::promise<void> begun;
  thread->performSelectorOnTarget(
      [&] {
        begun.set_value();
        RunLoop::current()->run();
      },
      false);
  begun.get_future().wait();
  thread->cancel();
  EXPECT_FALSE(thread->performSelectorOnTarget([] {}, false));
}

// Each of two threads closes a stream of the other's, and both wait for the main thread, which closes one of theirs.
TEST(LegacyStreamThread, ThreadsCloseEachOthersStreams) {
  for (int round = 0; round < 100; ++round) {
    const auto a = QELNKLegacyStreamThread::multiThreaded(), b = QELNKLegacyStreamThread::multiThreaded();
    const auto [one, two] = streamsInMemory();
    const std::shared_ptr<ByteStream> streams[] = {one.input, one.output, two.input, two.output};
    a->scheduleStream(streams[0]);
    b->scheduleStream(streams[1]);
    std::atomic<int> done = 0;
    const auto closeAndReport = [&](const auto &other, const auto &stream) {
      other->closeStream(stream);
      RunLoop::main()->performAndWait([&] { ++done; });
    };
    a->performSelectorOnTarget([&] { closeAndReport(b, streams[1]); }, false);
    b->performSelectorOnTarget([&] { closeAndReport(a, streams[0]); }, false);
    a->closeStream(streams[2]);
    b->closeStream(streams[3]);
    EXPECT_TRUE(eventually([&] { return done == 2; }));
    a->cancel();
    b->cancel();
  }
}

TEST(LegacySerializer, WritesInOrderUntilItIsCancelled) {
  auto [ours, theirs] = streamsInMemory();
  const auto stream = QELNKLegacyStream::networkStreamWithInputStream(
      ours.input, ours.output, with(QELNKLegacyStream::defaultIngestOptions(), "appID", "test"));
  RawPeer peer(theirs);
  peer.send(handshakeBytes("peer", "", "app"));
  ASSERT_TRUE(eventually([&] { return stream->isReady() && peer.received().ends_with(zeroed("appID test")); }));
  const size_t before = peer.received().size();
  std::string expected;
  QELNKLegacySerializer serializer(stream);
  for (int i = 0; i < 1000; ++i) {
    i % 2 ? serializer.writeString(std::to_string(i)) : serializer.writeData(Data(std::to_string(i)));
    expected += zeroed(std::to_string(i));
  }
  serializer.cancel();  // behind them
  serializer.writeString("dropped");
  EXPECT_TRUE(stream->writeString("end"));
  EXPECT_TRUE(eventually([&] { return peer.received().substr(before) == expected + zeroed("end"); }));
  serializer.cancel();
  EXPECT_EQ(serializer.stream(), stream);
}
