#include <QELNetworkKit/ByteStream.h>
#include <QELNetworkKit/RunLoop.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include "platform/Thread.h"
#include "support/AvahiNetwork.h"
#include "support/OwnNetwork.h"
#include "support/TestSupport.h"

namespace qelnk::test {

using namespace std::chrono_literals;

namespace {

/// Two ends of a connection, by sockets or in memory.
std::pair<StreamPair, StreamPair> connection(bool bySockets) {
  int sockets[2];
  if (!bySockets) return streamsInMemory();
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
  return {streamsWithSocket(sockets[0]), streamsWithSocket(sockets[1])};
}

void write(OutputStream &stream, std::string_view text) {
  EXPECT_EQ(stream.write({reinterpret_cast<const uint8_t *>(text.data()), text.size()}), ssize_t(text.size()));
}

}  // namespace

TEST(ByteStream, GoesOnOnAnotherLoop) {
  for (const bool bySockets : {true, false}) {
    auto [ours, theirs] = connection(bySockets);
    Thread other("other", [](std::stop_token stop) {
      while (!stop.stop_requested()) RunLoop::current()->runOnce(100ms);
    });
    std::mutex mutex;
    std::string told;  // a letter for each event, small ones on the main thread; and what was read
    const auto record = [&](StreamEvent event) {
      const char letter = "-OBSXE"[int(event)];
      const std::lock_guard lock(mutex);
      told += char(RunLoop::main()->isCurrent() ? std::tolower(letter) : letter);
      uint8_t room[10];
      for (ssize_t count; event == StreamEvent::bytesAvailable && (count = ours.input->read(room)) > 0;)
        told.append(reinterpret_cast<const char *>(room), size_t(count));
    };
    const auto all = [&] {
      const std::lock_guard lock(mutex);
      return told;
    };
    ours.input->setEventTarget(record);
    ours.input->open();  // on no loop yet
    for (const auto &end :
         {std::static_pointer_cast<ByteStream>(ours.output), std::static_pointer_cast<ByteStream>(theirs.input),
          std::static_pointer_cast<ByteStream>(theirs.output)}) {
      end->schedule(RunLoop::main());
      end->open();
    }
    ours.input->schedule(RunLoop::main());
    ours.input->schedule(RunLoop::main());
    ASSERT_TRUE(eventually([&] { return all() == "o" && theirs.output->write({}) == 0; })) << all();
    write(*theirs.output, "one");
    ASSERT_TRUE(eventually([&] { return all() == "obone"; })) << all();

    write(*theirs.output, "two");  // an event of which may be on its way to the main loop
    ours.input->unschedule();
    RunLoop::main()->runOnce(20ms);
    EXPECT_EQ(all(), "obone");
    ours.input->schedule(other.runLoop());
    ASSERT_TRUE(eventually([&] { return all() == "oboneBtwo"; })) << all();
    ours.input->schedule(RunLoop::main());  // at once from one to the other
    write(*theirs.output, "six");
    ASSERT_TRUE(eventually([&] { return all() == "oboneBtwobsix"; })) << all();
    theirs.output->close();
    theirs.input->close();
    EXPECT_TRUE(eventually([&] { return std::tolower(all().back()) == 'e' || all().back() == 'X'; })) << all();
    ours.input->close();
    ours.output->close();
  }
}

// The kernel may give a socket the very port that it is to connect to, where nobody listens.
TEST(ByteStream, NeverConnectsToItself) {
  if (const auto missing = AvahiNetwork::missing(); !missing.empty()) GTEST_SKIP() << missing;
  withOwnNetwork([] {
    run("ip link set lo up && echo 40000 40001 > /proc/sys/net/ipv4/ip_local_port_range");
    const auto streams = streamsToHost("127.0.0.1", 40000);
    bool opened = false;
    streams.input->setEventTarget([&](StreamEvent event) { opened |= event == StreamEvent::opened; });
    streams.input->schedule(RunLoop::current());
    streams.input->open();
    EXPECT_TRUE(eventually([&] { return streams.input->error() == std::errc::connection_refused; }));
    EXPECT_FALSE(opened);
  });
}

}  // namespace qelnk::test
