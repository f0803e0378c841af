#include <QELNetworkKit/QELNKLegacyService.h>
#include <QELNetworkKit/QELNKLegacyStream.h>
#include <QELNetworkKit/RunLoop.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>

#include "legacy/Observers.h"
#include "legacy/RawPeer.h"
#include "support/TestSupport.h"

using namespace qelnk;
using namespace qelnk::test;
using namespace std::string_literals;

namespace {

using Texts = std::vector<std::string>;

std::string ownHandshake(const std::string &appID) {
  return handshakeBytes(QELNKLegacyService::defaultPublishingName(), QELNKLegacyStream::localHostIPv4(), appID);
}

/// A stream and its peer by hand.
struct Wired {
  explicit Wired(Transport transport, const Value &options) {
    auto [ours, theirs] = connectedStreams(transport);
    stream = QELNKLegacyStream::create(options);
    stream->setDelegate(observer);
    stream->setInputStream(ours.input, ours.output);
    peer = std::make_unique<RawPeer>(theirs);
  }
  void shakeHands() {
    peer->send(handshakeBytes("peer", "10.1.2.3", "app"));
    ASSERT_TRUE(eventually([&] { return observer->has("ready"); }));
    ASSERT_TRUE(eventually([&] { return peer->received() == ownHandshake("test"); }));
  }
  std::string receivedSinceHandshake() const { return peer->received().substr(ownHandshake("test").size()); }

  std::shared_ptr<StreamObserver> observer = std::make_shared<StreamObserver>();
  std::unique_ptr<RawPeer> peer;
  std::shared_ptr<QELNKLegacyStream> stream;
};

Value playout() { return QELNKLegacyStream::defaultPlayoutOptionsForAppID("test"); }
Value ingest() { return with(QELNKLegacyStream::defaultIngestOptions(), "appID", "test"); }

/// A byte stream that fails at its n-th step: an event is an error, a read or write gives -1.
struct Fault {
  std::atomic<int> left;
  bool strikes() { return left-- == 0; }
};
template <class Interface>
class Faulty : public Interface {
 public:
  Faulty(std::shared_ptr<Interface> inner, std::shared_ptr<Fault> fault)
      : inner_(std::move(inner)), fault_(std::move(fault)) {}
  void setEventTarget(ByteStream::EventTarget target) override {
    if (!target) return inner_->setEventTarget(nullptr);
    inner_->setEventTarget([fault = fault_, target = std::move(target)](StreamEvent event) {
      target(fault->strikes() ? StreamEvent::error : event);
    });
  }
  void schedule(const std::shared_ptr<RunLoop> &loop) override { inner_->schedule(loop); }
  void unschedule() override { inner_->unschedule(); }
  void open() override { inner_->open(); }
  void close() override { inner_->close(); }
  std::error_code error() const override { return std::make_error_code(std::errc::connection_reset); }

 protected:
  const std::shared_ptr<Interface> inner_;
  const std::shared_ptr<Fault> fault_;
};
class FaultyInput final : public Faulty<InputStream> {
 public:
  using Faulty::Faulty;
  bool hasBytesAvailable() override { return inner_->hasBytesAvailable(); }
  ssize_t read(std::span<uint8_t> room) override { return fault_->strikes() ? -1 : inner_->read(room); }
};
class FaultyOutput final : public Faulty<OutputStream> {
 public:
  using Faulty::Faulty;
  ssize_t write(std::span<const uint8_t> bytes) override { return fault_->strikes() ? -1 : inner_->write(bytes); }
};

}  // namespace

class LegacyStream : public testing::TestWithParam<std::tuple<Transport, bool>> {
 protected:
  Transport transport() const { return std::get<0>(GetParam()); }
  Value options() const { return std::get<1>(GetParam()) ? ingest() : playout(); }
};
INSTANTIATE_TEST_SUITE_P(, LegacyStream,
                         testing::Combine(testing::Values(Transport::memory, Transport::tcp), testing::Bool()),
                         [](const auto &info) {
                           return (std::get<0>(info.param) == Transport::memory ? "Memory"s : "TCP"s) +
                                  (std::get<1>(info.param) ? "Ingest" : "Playout");
                         });

TEST_P(LegacyStream, SpeaksTheProtocol) {
  Wired wired(transport(), options());
  // The handshake goes out by itself, and nothing else before the peer's is complete.
  ASSERT_TRUE(eventually([&] { return wired.peer->received() == ownHandshake("test"); }));
  EXPECT_FALSE(wired.stream->writeString("early"));
  EXPECT_FALSE(wired.stream->isReady());
  const std::string theirs = handshakeBytes("peer", "10.1.2.3", "app");
  for (const char byte : theirs.substr(0, theirs.size() - 1)) wired.peer->send({&byte, 1});
  EXPECT_TRUE(eventually([&] { return wired.stream->streamStatus() == 127; }));
  wired.peer->send("\0"s);
  ASSERT_TRUE(eventually([&] { return wired.observer->has("ready"); }));
  EXPECT_EQ(wired.stream->streamStatus(), 511u);
  EXPECT_EQ(wired.stream->peerHostName(), "peer");
  EXPECT_EQ(wired.stream->peerIPv4Address(), "10.1.2.3");
  EXPECT_EQ(wired.stream->peerAppID(), "app");

  EXPECT_TRUE(wired.stream->writeString("ABCD"));
  EXPECT_TRUE(wired.stream->writeString(""));
  EXPECT_FALSE(wired.stream->writeString("A\0B"s));
  EXPECT_FALSE(wired.stream->writeString("\xff"));
  EXPECT_TRUE(wired.stream->writeData(Data("raw")));
  EXPECT_TRUE(wired.stream->writeBinaryData(Data("\1\2\3"), "T", false));
  EXPECT_TRUE(wired.stream->writeBytes("xy", 2, false, false));
  EXPECT_FALSE(wired.stream->writeBytes(nullptr, 2, false, false));
  const std::string large(300000, '\5');
  EXPECT_TRUE(wired.stream->writeBinaryData(Data(large), "image/raw; large", true));
  const std::string expected = "ABCD\0\0raw\0!bin! 3 T\0\1\2\3\0xy"s + block(large, "image/raw; large");
  EXPECT_TRUE(eventually([&] { return wired.receivedSinceHandshake().size() >= expected.size(); }));
  EXPECT_EQ(wired.receivedSinceHandshake(), expected);
  EXPECT_TRUE(eventually([&] { return wired.stream->outgoingLength() == 0; }));  // noted once the write has returned

  wired.peer->send(zeroed("one") + zeroed("two") + "\0"s + block(large, "a b") +
                   zeroed("heartbeat 10:00:00:00 25 on air") + zeroed("\xff") + zeroed("handshake") + zeroed("last"));
  EXPECT_TRUE(eventually([&] { return wired.observer->has("string last"); }));
  EXPECT_EQ(wired.observer->all(), (Texts{"ready", "string one", "string two", "binary a b 300000",
                                          "heartbeat 10:00:00:00 25 | on air", "string last"}));
  wired.peer->close();
  EXPECT_TRUE(eventually([&] { return wired.observer->has("terminated"); }));
  EXPECT_TRUE(eventually([&] { return wired.stream->inputStream() == nullptr; }));
  EXPECT_EQ(wired.stream->streamStatus(), 0u);
  EXPECT_FALSE(wired.stream->writeString("late"));
}

TEST_P(LegacyStream, FencedBlocksAreDroppedWhileOneIsUnderWay) {
  Wired wired(transport(), options());
  wired.shakeHands();
  wired.peer->setReading(false);
  const CapturedLog log;
  const Data preview(std::string(300000, 'p'));  // more than the connection holds
  EXPECT_TRUE(wired.stream->writeBinaryData(preview, "preview", true));
  EXPECT_FALSE(wired.stream->writeBinaryData(preview, "preview", true));
  EXPECT_TRUE(log.contains("Data fence: dropping binary data with content preview and length 300000"));
  EXPECT_TRUE(wired.stream->writeBinaryData(Data("x"), "unfenced", false));
  wired.peer->setReading(true);
  const size_t size = block(preview.text(), "preview").size() + block("x", "unfenced").size();
  EXPECT_TRUE(eventually([&] { return wired.receivedSinceHandshake().size() == size; }));
  EXPECT_TRUE(eventually([&] { return wired.stream->writeBinaryData(Data("y"), "preview", true); }));
  EXPECT_TRUE(eventually([&] { return wired.receivedSinceHandshake().ends_with(block("y", "preview")); }));
}

TEST_P(LegacyStream, BeginsAnewWithNewStreams) {
  Wired wired(transport(), options());
  for (int round = 0; round < 20; ++round) {
    wired.shakeHands();
    wired.peer->send("half a string");
    if (round % 2)
      wired.stream->disconnect();
    else
      wired.peer->close();
    EXPECT_TRUE(eventually([&] { return wired.stream->inputStream() == nullptr; }));
    wired.observer = std::make_shared<StreamObserver>();
    wired.stream->setDelegate(wired.observer);
    auto [ours, theirs] = connectedStreams(transport());
    wired.stream->setInputStream(ours.input, ours.output);
    wired.peer = std::make_unique<RawPeer>(theirs);
  }
}

TEST_P(LegacyStream, MayBeDroppedInAnyCallback) {
  const size_t threads = threadCount(), descriptors = descriptorCount();
  for (const std::string callback : {"ready", "string x", "binary b 1", "heartbeat h", "terminated"}) {
    Wired wired(transport(), options());
    const std::weak_ptr<QELNKLegacyStream> weak = wired.stream;
    std::atomic<bool> dropping = false, dropped = false;
    wired.observer->onTold([&](const std::string &text) {
      EXPECT_FALSE(dropping) << text << " after the end";
      if (text != callback) return;
      dropping = true;
      wired.stream.reset();
      dropped = true;
    });
    wired.peer->send(handshakeBytes("peer", "10.1.2.3", "app") + zeroed("x") + block("1", "b") + zeroed("heartbeat h"));
    if (callback == "terminated") {
      EXPECT_TRUE(eventually([&] { return wired.observer->has("heartbeat h"); }));
      wired.peer->close();
    }
    EXPECT_TRUE(eventually([&] { return dropped && weak.expired() && threadCount() <= threads + 1; })) << callback;
  }
  EXPECT_TRUE(eventually([&] { return descriptorCount() <= descriptors + 4; }));  // of the shared thread
}

TEST_P(LegacyStream, FailsCleanlyAtEveryStep) {
  bool done = false;
  for (int step = 0; !done; ++step) {
    ASSERT_LT(step, 500);
    const auto fault = std::make_shared<Fault>();
    fault->left = step;
    auto [ours, theirs] = connectedStreams(transport());
    const auto observer = std::make_shared<StreamObserver>();
    const auto stream = QELNKLegacyStream::create(options());
    stream->setDelegate(observer);
    stream->setInputStream(std::make_shared<FaultyInput>(ours.input, fault),
                           std::make_shared<FaultyOutput>(ours.output, fault));
    RawPeer peer(theirs);
    peer.send(handshakeBytes("peer", "10.1.2.3", "app") + zeroed("one") + block("12", "b") + zeroed("two"));
    const auto isOver = [&] { return fault->left < 0 || observer->has("string two"); };
    EXPECT_TRUE(eventually(isOver)) << step;
    done = fault->left >= 0;
    EXPECT_LE(observer->count("ready"), 1u);
    EXPECT_LE(observer->count("terminated"), 1u);
    // Whatever failed, it can be ended, and nothing comes after that.
    stream->disconnect();
    EXPECT_EQ(stream->streamStatus(), 0u);
  }
}

// What disconnect() waits for may call a delegate, which drops the last reference.
TEST(LegacyStreamEnds, ByTheDelegateThatDisconnectWaitsFor) {
  auto [ours, theirs] = connectedStreams(Transport::memory);
  const auto observer = std::make_shared<StreamObserver>();
  auto stream = QELNKLegacyStream::create(with(playout(), "delegateOnMainThread", true));
  stream->setDelegate(observer);
  stream->setInputStream(ours.input, ours.output);
  RawPeer peer(theirs);
  peer.send(handshakeBytes("peer", "10.1.2.3", "app"));
  ASSERT_TRUE(eventually([&] { return observer->has("ready"); }));
  observer->onTold([&](const std::string &) { stream.reset(); });
  peer.close();
  // Without turning the main loop, for which the stream's thread waits with the end.
  while (stream->writeString("x")) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  QELNKLegacyStream &held = *stream;
  held.disconnect();
  EXPECT_TRUE(eventually([&] { return observer->has("terminated"); }));
  EXPECT_FALSE(stream);
}

TEST(LegacyStreamEnds, AnErrorOfTheLastConnectionEndsNotTheNext) {
  struct Replaced final : Faulty<InputStream> {
    using Faulty::Faulty;
    bool hasBytesAvailable() override { return false; }
    ssize_t read(std::span<uint8_t>) override { return 0; }
    std::error_code error() const override {
      std::thread(replace).join();
      return Faulty::error();
    }
    std::function<void()> replace;
  };
  auto [failing, ignored] = connectedStreams(Transport::memory);
  auto [ours, theirs] = connectedStreams(Transport::memory);
  const auto observer = std::make_shared<StreamObserver>();
  const auto stream = QELNKLegacyStream::create(playout());
  stream->setDelegate(observer);
  const auto fault = std::make_shared<Fault>();
  fault->left = 0;
  const auto replaced = std::make_shared<Replaced>(failing.input, fault);
  std::atomic<bool> isReplaced = false;
  replaced->replace = [&, next = ours] {
    stream->setInputStream(next.input, next.output);
    isReplaced = true;
  };
  stream->setInputStream(replaced, failing.output);
  EXPECT_TRUE(eventually([&] { return isReplaced.load(); }));
  RawPeer peer(theirs);
  peer.send(handshakeBytes("peer", "10.1.2.3", "app"));
  EXPECT_TRUE(eventually([&] { return observer->has("ready"); }));
  EXPECT_EQ(observer->all(), Texts{"ready"});
  stream->disconnect();
}

TEST(LegacyStreamBadInput, DoesNoHarm) {
  const CapturedLog log;
  const auto run = [&](const std::string &bytes, const Value &options) {
    auto wired = std::make_unique<Wired>(Transport::tcp, options);
    wired->shakeHands();
    wired->peer->send(bytes);
    return wired;
  };
  {
    const auto wired = run(zeroed("!bin! -5 T") + std::string(100000, '\0') + zeroed("lost"), ingest());
    EXPECT_TRUE(eventually([&] { return log.contains("binary header announces no length: !bin! -5 T"); }));
    EXPECT_TRUE(wired->stream->writeString("still there"));
    EXPECT_TRUE(eventually([&] { return wired->receivedSinceHandshake() == zeroed("still there"); }));
    EXPECT_EQ(wired->observer->all(), Texts{"ready"});
  }
  {
    const auto wired = run(zeroed("\xc3\x28") + zeroed("fine"), ingest());
    EXPECT_TRUE(eventually([&] { return wired->observer->has("string fine"); }));
    EXPECT_TRUE(log.contains("dropped a string of 2 bytes that is not UTF-8 (1 so far)"));
  }
  {  // Who sends a thousand does not fill the log, nor writes lines of its own there.
    std::string many;
    for (int i = 0; i < 1000; ++i) many += zeroed("\xc3\x28!") + zeroed("!bin! x\ny z");
    const auto wired = run(many + zeroed("fine"), ingest());
    EXPECT_TRUE(eventually([&] { return wired->observer->has("string fine"); }));
    EXPECT_EQ(log.count("dropped a string of 3 bytes"), 4u);
    EXPECT_EQ(log.count("announces no length: !bin! x?y z"), 4u);
  }
  const Value bounded = with(with(ingest(), "maximumStringLength", 1000), "maximumBinaryLength", 2000);
  for (const std::string &bytes :
       {std::string(1001, 'x'), zeroed(std::string(1001, 'x')), zeroed("!bin! 2001 T"), zeroed("!bin! -1 T")}) {
    const auto wired = run(zeroed(std::string(1000, 'y')) + block(std::string(2000, 'z'), "T") + bytes, bounded);
    EXPECT_TRUE(eventually([&] { return wired->observer->has("terminated"); }));
    EXPECT_TRUE(wired->observer->has("binary T 2000"));
    EXPECT_TRUE(eventually([&] { return wired->peer->hasEnded(); }));
  }
  EXPECT_EQ(log.count("QELNKLegacyStream ends the connection: a string is longer than the options allow"), 2u);
  EXPECT_EQ(log.count("QELNKLegacyStream ends the connection: a binary block is longer than the options allow"), 2u);
}

// The main thread is slow, or does nothing at all for a while: then the peer has to wait.
TEST(LegacyStreamBadInput, AFloodWaitsForTheMainThread) {
  struct Counter final : QELNKLegacyStreamDelegate {
    using Stream = std::shared_ptr<QELNKLegacyStream>;
    void networkStream(const Stream &, const std::string &) override { ++told; }
    void networkStream(const Stream &, const Data &, const std::string &) override { ++told; }
    void networkStream(const Stream &, const QELProjectTimecode &, const std::optional<std::string> &) override {
      ++told;
    }
    void networkStreamIsReady(const Stream &) override { isReady = true; }
    void networkStreamWasTerminated(const Stream &) override {}
    size_t told = 0;
    bool isReady = false;
  };
  int sockets[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
  const auto counter = std::make_shared<Counter>();
  const auto stream = QELNKLegacyStream::create(playout());
  stream->setDelegate(counter);
  const auto ours = streamsWithSocket(sockets[0]);
  stream->setInputStream(ours.input, ours.output);
  const auto write = [&](std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t count = send(sockets[1], bytes.data(), bytes.size(), MSG_NOSIGNAL);
      ASSERT_GT(count, 0);
      bytes.remove_prefix(size_t(count));
    }
  };
  write(handshakeBytes("peer", "", "app"));
  ASSERT_TRUE(eventually([&] { return counter->isReady; }));
  // Many calls, or many bytes, in whichever part of a message they are.
  const std::string text(200, 'f'), mebibyte(1 << 20, 'f');
  for (const auto &[message, count] : {std::pair(zeroed(text), size_t(20'000)),
                                       {zeroed("heartbeat " + mebibyte), size_t(40)},
                                       {block("x", mebibyte), size_t(40)}}) {
    counter->told = 0;
    std::atomic<bool> isSent{false};
    std::thread sender([&, &message = message, count = count] {
      for (size_t i = 0; i < count; ++i) write(message);
      isSent = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_FALSE(isSent);
    EXPECT_TRUE(eventually([&] { return counter->told == count; }));
    sender.join();
  }
  stream->disconnect();
  close(sockets[1]);
}

TEST(LegacyStreamOptions, DecideWhatItDoes) {
  {  // Without a size nothing is ever written.
    Value options = Value::map();
    for (const std::string_view key :
         {"multiThreaded", "delegateOnMainThread", "testFullyConfigured", "compareFullyConfigured", "appID"})
      options.set(key, *ingest().find(key));
    Wired wired(Transport::memory, options);
    wired.peer->send(handshakeBytes("peer", "", "app"));
    EXPECT_TRUE(eventually([&] { return wired.observer->has("ready"); }));
    EXPECT_EQ(wired.stream->outgoingLength(), ownHandshake("test").size());
    EXPECT_EQ(wired.peer->received(), "");
    wired.stream->setMaximumWriteSize(10);
    EXPECT_TRUE(wired.stream->flushOutput());
    EXPECT_TRUE(eventually([&] { return wired.peer->received() == ownHandshake("test"); }));
  }
  {  // Without a word on threads it has none.
    auto [ours, theirs] = streamsInMemory();
    const auto stream = QELNKLegacyStream::networkStreamWithInputStream(ours.input, ours.output, Value::map());
    RawPeer peer(theirs);
    EXPECT_EQ(stream->thread(), nullptr);
    peer.send("x");
    EXPECT_EQ(stream->streamStatus(), 0u);
    stream->disconnect();
    EXPECT_TRUE(eventually([&] { return peer.hasEnded(); }));
  }
  // Values of another kind change nothing.
  const auto stream = QELNKLegacyStream::create(ingest());
  const auto thread = stream->thread();
  Value wrong = Value::map();
  for (const std::string_view key : {"writeSize", "multiThreaded", "delegateOnMainThread", "appID"})
    wrong.set(key, Value::list());
  stream->setOptions(wrong);
  EXPECT_EQ(stream->maximumWriteSize(), 8192u);
  EXPECT_EQ(stream->thread(), thread);
  EXPECT_FALSE(stream->callDelegateOnMainThread());
  EXPECT_EQ(stream->appID(), "test");
  EXPECT_EQ(stream->options(), wrong);
  stream->setOptions(playout());
  EXPECT_EQ(stream->thread(), QELNKLegacyStreamThread::singleThreaded());
}

TEST(LegacyStreamPeer, AddressIsTakenAsItIsStored) {
  const auto stream = QELNKLegacyStream::create(Value::map());
  EXPECT_EQ(stream->peerAddress(), std::nullopt);
  sockaddr_in6 ipv6{};
  ipv6.sin6_family = AF_INET6;
  ipv6.sin6_port = htons(5000);
  inet_pton(AF_INET6, "fe80::1", &ipv6.sin6_addr);
  const auto data = [](const auto &address) {
    return Data({reinterpret_cast<const char *>(&address), sizeof address});
  };
  stream->setPeerAddressFromData(data(ipv6));
  EXPECT_EQ(stream->peerAddress(), "fe80::1");
  EXPECT_EQ(stream->peerIPv4Address(), std::nullopt);
  EXPECT_EQ(stream->peerPort(), htons(5000));
  sockaddr_in ipv4{};
  ipv4.sin_family = AF_INET;
  inet_pton(AF_INET, "10.0.0.7", &ipv4.sin_addr);
  stream->setPeerAddressFromData(data(ipv4));  // of 16 bytes
  EXPECT_EQ(stream->peerAddress(), "fe80::1");
  std::array<char, 28> wide{};
  std::memcpy(wide.data(), &ipv4, sizeof ipv4);
  stream->setPeerAddressFromData(data(wide));
  EXPECT_EQ(stream->peerIPv4Address(), "10.0.0.7");
  EXPECT_EQ(QELNKLegacyStream::stringFromIPv4Address(ipv4.sin_addr.s_addr), "10.0.0.7");
}

TEST(LegacyStreamLog, FilesAndGroups) {
  EXPECT_EQ(QELNKLegacyStream::logFilenameForApp("a:b", "prefix", "log"), std::nullopt);
  const auto home = std::filesystem::temp_directory_path() / ("qelnk-home-" + std::to_string(getpid()));
  const std::string before = getenv("HOME") ? getenv("HOME") : "";
  setenv("HOME", home.c_str(), 1);
  QELNKLegacyStream::setLoggingMask(1 + 2 + 4 + 16 + 32 + 64);
  const auto numberOf = [](const std::filesystem::path &file) {
    const std::string name = file.filename();
    int number = -1, end = 0;
    std::sscanf(name.c_str(), "%*4u-%*2u-%*2u %*2u.%*2u.%*2u.%*3u %d prefix.log%n", &number, &end);
    EXPECT_EQ(name.find(' ', 11), std::string("2000-01-01 00.00.00.000").size()) << name;
    EXPECT_EQ(size_t(end), name.size()) << name;
    return number;
  };
  const std::filesystem::path one = *QELNKLegacyStream::logFilenameForApp("a:b/../c", "prefix", "log"),
                              two = *QELNKLegacyStream::create(playout())->logFilenameWithPrefix("prefix", "log");
  EXPECT_EQ(one.parent_path(), home / "Library/Logs/Kestrova/a b .. c");
  EXPECT_TRUE(std::filesystem::is_directory(one.parent_path()));
  EXPECT_EQ(numberOf(two), numberOf(one) + 1);
  setenv("HOME", "/dev/null", 1);
  {
    const CapturedLog log;
    EXPECT_EQ(QELNKLegacyStream::logFilenameForApp("a", "b", "c"), std::nullopt);
    EXPECT_TRUE(log.contains("Could not create folder for schedule logging with error: "));
  }
  setenv("HOME", before.c_str(), 1);
  std::filesystem::remove_all(home);

  const CapturedLog log;
  {
    Wired wired(Transport::memory, ingest());
    wired.shakeHands();
    EXPECT_TRUE(eventually([&] { return log.contains("Flushed output in space available, missed space event = 1"); }));
    wired.stream->writeString(std::string(300, 'w'));
    wired.peer->send(zeroed(std::string(300, 'r')) + block("123", "T") + zeroed("end"));
    EXPECT_TRUE(eventually([&] { return wired.observer->has("string end"); }));
    EXPECT_TRUE(eventually([&] { return wired.stream->outgoingLength() == 0; }));
  }
  QELNKLegacyStream::setLoggingMask(0);
  for (const std::string &line :
       {"Incoming string handshake"s, "Incoming string (long): " + std::string(256, 'r') + " ...",
        "Received for 3 binary data bytes, incoming buffer length "s, "Outgoing stream bytes: handshake"s,
        "Outgoing stream bytes (long): " + std::string(256, 'w') + " ...", "Flushing 301 bytes to output stream"s,
        "Flushed 301 bytes to output stream"s, "Flushed output in space available, missed space event = 1"s,
        "Flushed output in write bytes, missed space event = 1"s, "Set stream status 1 with condition 1"s,
        "Stream is ready, informing delegate"s, "Disconnect streams"s})
    EXPECT_TRUE(eventually([&] { return log.contains(line); })) << line;  // the stream may end on its thread
}
