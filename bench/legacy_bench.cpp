// Legacy connections: binary blocks and strings one way, what a backlog costs, heartbeats to many connections, and what
// a connection takes. Beside plain Asio with the same chunk sizes, and bare loops of system calls.

#include <QELNetworkKit/Log.h>
#include <QELNetworkKit/QELNKLegacyStream.h>
#include <poll.h>

#include <boost/asio.hpp>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <thread>
#include <tuple>

#include "Contest.h"
#include "Legacy.h"

namespace {

namespace asio = boost::asio;
using namespace bench;
using qelnk::Data;
using qelnk::Value;

constexpr size_t writeSize = 8192;  // as the ingest options have it
constexpr size_t readSize = 2048;
constexpr size_t blockSize = size_t(1) << 20;
constexpr std::string_view line = "a preview is there";

enum class Kind { blocks, strings };

/// A block as the protocol writes it.
const std::string &blockBytes() {
  static const std::string bytes =
      "!bin! " + std::to_string(blockSize) + " image/raw" + '\0' + std::string(blockSize, '\7') + '\0';
  return bytes;
}

/// Counts what has come; opens the gate when that is all. In cache lines of its own, for the other side's thread may
/// use what lies beside it.
class alignas(128) Goal {
 public:
  void set(int64_t count) { left_ = count; }
  void add(int64_t count) {
    if ((left_ -= count) <= 0) gate_.open();
  }
  void await() { require(gate_.pass(), "not everything arrived"); }

 private:
  std::atomic<int64_t> left_{0};
  Gate gate_;
};

/// What an end by hand does with what it receives: makes each string, and counts blocks by their bytes.
class Counter {
 public:
  Counter(Kind kind, Goal &goal) : kind_(kind), goal_(goal) {}
  void take(std::string_view bytes) { kind_ == Kind::blocks ? countBlocks(bytes.size()) : countStrings(bytes); }

 private:
  void countBlocks(size_t count) {
    received_ += count;
    if (received_ < blockBytes().size()) return;
    received_ -= blockBytes().size();
    goal_.add(1);
  }
  void countStrings(std::string_view bytes) {
    for (size_t end; (end = bytes.find('\0')) != std::string_view::npos; bytes.remove_prefix(end + 1)) {
      const std::string string = partial_ + std::string(bytes.substr(0, end));
      partial_.clear();
      goal_.add(string.empty() ? 0 : 1);
    }
    partial_ += bytes;
  }

  const Kind kind_;
  Goal &goal_;
  size_t received_ = 0;
  std::string partial_;
};

// --- Ours ---

class Counting final : public QELNKLegacyStreamDelegate {
 public:
  using Stream = std::shared_ptr<QELNKLegacyStream>;
  explicit Counting(Goal &goal) : goal_(goal) {}
  void networkStream(const Stream &, const std::string &) override { goal_.add(1); }
  void networkStream(const Stream &, const Data &, const std::string &) override { goal_.add(1); }
  void networkStream(const Stream &, const QELProjectTimecode &, const std::optional<std::string> &) override {}
  void networkStreamIsReady(const Stream &) override { ready.open(); }
  void networkStreamWasTerminated(const Stream &) override {}
  Gate ready;

 private:
  Goal &goal_;
};

/// A stream of ours on a socket; on the shared thread, or on one of its own.
struct OurEnd {
  OurEnd(int socket, bool ownThread, Goal &goal) : observer(std::make_shared<Counting>(goal)) {
    Value options = QELNKLegacyStream::defaultIngestOptions();
    options.set("multiThreaded", ownThread);
    stream = QELNKLegacyStream::create(options);
    stream->setDelegate(observer);
    const auto pair = qelnk::streamsWithSocket(socket);
    stream->setInputStream(pair.input, pair.output);
  }
  void send(Kind kind, int64_t count) {
    static const Data block(std::string(blockSize, '\7'));
    static const std::string text(line);
    for (int64_t i = 0; i < count; ++i)
      if (kind == Kind::blocks)
        stream->writeBinaryData(block, "image/raw", false);
      else
        stream->writeString(text);
  }
  std::shared_ptr<Counting> observer;
  std::shared_ptr<QELNKLegacyStream> stream;
};

// --- Asio ---

/// An end by hand. It sends strings as they come in, from any thread, and a block again and again; it makes each string
/// that it receives, and counts blocks by their bytes.
class AsioEnd {
 public:
  AsioEnd(asio::io_context &context, int socket, Kind kind, Goal &goal)
      : socket_(context, asio::ip::tcp::v4(), socket), kind_(kind), counter_(kind, goal) {
    socket_.non_blocking(true);
    read();
  }
  void send(int64_t count) {
    if (kind_ == Kind::blocks)
      return asio::post(socket_.get_executor(), [this, count] {
        left_ = count;
        write(blockBytes());
      });
    for (const std::string text(line); count > 0; --count) sendString(text);
  }

 private:
  void sendString(const std::string &text) {
    const std::lock_guard lock(mutex_);
    queued_.append(text.c_str(), text.size() + 1);
    if (!std::exchange(writing_, true)) asio::post(socket_.get_executor(), [this] { writeQueued(); });
  }
  void writeQueued() {
    {
      const std::lock_guard lock(mutex_);
      underWay_.clear();
      underWay_.swap(queued_);
      if (!(writing_ = !underWay_.empty())) return;
    }
    left_ = 1;
    write(underWay_);
  }
  void write(const std::string &bytes) {
    const size_t size = std::min(bytes.size() - at_, writeSize);
    socket_.async_write_some(asio::buffer(bytes.data() + at_, size), [&](const auto &error, size_t written) {
      if (error) return;
      at_ += written;
      if (at_ == bytes.size()) at_ = 0, --left_;
      if (left_ > 0)
        write(bytes);
      else if (kind_ == Kind::strings)
        writeQueued();
    });
  }
  void read() {
    socket_.async_read_some(asio::buffer(chunk_), [this](const auto &error, size_t count) {
      if (error) return;
      counter_.take({chunk_.data(), count});
      read();
    });
  }

  asio::ip::tcp::socket socket_;
  const Kind kind_;
  Counter counter_;
  std::mutex mutex_;  // guards the next two
  std::string queued_;
  bool writing_ = false;
  std::string underWay_;
  size_t at_ = 0;
  int64_t left_ = 0;
  std::array<char, readSize> chunk_;
};

/// An Asio loop on a thread of its own.
struct AsioThread {
  asio::io_context context{1};
  asio::executor_work_guard<asio::io_context::executor_type> work = asio::make_work_guard(context);
  std::thread thread{[this] { context.run(); }};
  void end() {
    context.stop();
    thread.join();
  }
};

// --- Bare sockets ---

/// Both ends by system calls on blocking sockets, with a thread each, or on one thread that polls both. It sends
/// strings as they come in and a block again and again, and receives as the ends with Asio do.
class BareWay {
 public:
  BareWay(bool twoThreads, Kind kind) : kind_(kind) {
    std::tie(out_, in_) = connection();
    if (twoThreads) {
      threads_.emplace_back([this] {
        while (hasWork(true))
          while (left_ > 0) writeSome(0);
      });
      threads_.emplace_back([this] {
        while (readSome(0)) {
        }
      });
    } else {
      threads_.emplace_back([this] { serveBoth(); });
    }
  }
  ~BareWay() {
    {
      const std::lock_guard lock(mutex_);
      ended_ = true;
    }
    hasMore_.notify_one();
    eventfd_write(wakeUp_, 1);
    shutdown(in_, SHUT_RDWR);
    for (auto &thread : threads_) thread.join();
    for (const int descriptor : {out_, in_, wakeUp_}) close(descriptor);
  }
  BareWay(const BareWay &) = delete;
  BareWay &operator=(const BareWay &) = delete;

  void exchange(int64_t count) {
    goal_.set(count);
    if (kind_ == Kind::blocks) {
      enqueue([&] { blocks_ += count; });
    } else {
      const std::string text(line);
      for (int64_t i = 0; i < count; ++i) enqueue([&] { queued_.append(text.c_str(), text.size() + 1); });
    }
    goal_.await();
  }

 private:
  template <class Add>
  void enqueue(const Add &add) {
    {
      const std::lock_guard lock(mutex_);
      add();
      if (!std::exchange(idle_, false)) return;
    }
    hasMore_.notify_one();
    eventfd_write(wakeUp_, 1);
  }

  /// Takes what has been queued; returns false when there is none, or once it has ended.
  bool hasWork(bool waits) {
    std::unique_lock lock(mutex_);
    while (!ended_ && blocks_ == 0 && queued_.empty()) {
      idle_ = true;
      if (!waits) return false;
      hasMore_.wait(lock);
    }
    underWay_.clear();
    underWay_.swap(queued_);
    left_ = underWay_.empty() ? std::exchange(blocks_, 0) : 1;
    return !ended_;
  }

  void writeSome(int flags) {
    const std::string &bytes = kind_ == Kind::blocks ? blockBytes() : underWay_;
    const ssize_t count =
        ::send(out_, bytes.data() + at_, std::min(bytes.size() - at_, writeSize), flags | MSG_NOSIGNAL);
    require(count >= 0 || errno == EAGAIN || errno == EPIPE, "send");
    at_ += size_t(std::max<ssize_t>(count, 0));
    if (at_ == bytes.size()) at_ = 0, --left_;
    if (count < 0 && errno == EPIPE) left_ = 0;
  }

  bool readSome(int flags) {
    const ssize_t count = recv(in_, chunk_.data(), chunk_.size(), flags);
    if (count <= 0) return false;
    counter_.take({chunk_.data(), size_t(count)});
    return true;
  }

  void serveBoth() {
    pollfd items[] = {{in_, POLLIN, 0}, {wakeUp_, POLLIN, 0}, {out_, POLLOUT, 0}};
    while (!ended_) {
      const bool sends = left_ > 0 || hasWork(false);
      poll(items, sends ? 3 : 2, -1);
      if (eventfd_t count; items[1].revents) eventfd_read(wakeUp_, &count);
      if (sends && items[2].revents) writeSome(MSG_DONTWAIT);
      if (items[0].revents) readSome(MSG_DONTWAIT);
    }
  }

  const Kind kind_;
  int out_ = -1, in_ = -1;
  const int wakeUp_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  Goal goal_;
  Counter counter_{kind_, goal_};
  std::array<char, readSize> chunk_;
  std::mutex mutex_;  // guards the next four; what follows is the sending thread's
  std::string queued_;
  int64_t blocks_ = 0;
  bool idle_ = false;
  std::atomic<bool> ended_{false};
  std::condition_variable hasMore_;
  std::string underWay_;
  size_t at_ = 0;
  int64_t left_ = 0;
  std::vector<std::thread> threads_;
};

// --- One way ---

enum class Who { ours, asio };

/// A sender and a receiver, on one thread or on two.
class OneWay {
 public:
  OneWay(Who sender, Who receiver, bool twoThreads, Kind kind) : kind_(kind) {
    const auto [a, b] = connection();
    // Whoever is by hand waits for the other's handshake, which is sent from a thread of its own.
    if (sender == Who::ours) ourSender_ = std::make_unique<OurEnd>(a, twoThreads, nowhere_);
    if (receiver == Who::ours) ourReceiver_ = std::make_unique<OurEnd>(b, twoThreads, goal_);
    if (sender == Who::asio && receiver == Who::ours) shakeHands(a);
    if (receiver == Who::asio && sender == Who::ours) shakeHands(b);
    if (sender == Who::asio) asioSender_ = std::make_unique<AsioEnd>(loops_[0].context, a, kind, nowhere_);
    if (receiver == Who::asio) asioReceiver_ = std::make_unique<AsioEnd>(loops_[twoThreads].context, b, kind, goal_);
    for (auto *end : {ourSender_.get(), ourReceiver_.get()})
      if (end) require(end->observer->ready.pass(), "not ready");
  }
  ~OneWay() {
    for (AsioThread &loop : loops_) loop.end();  // before what they serve goes
  }
  OneWay(const OneWay &) = delete;
  OneWay &operator=(const OneWay &) = delete;

  void exchange(int64_t count) {
    goal_.set(count);
    if (ourSender_)
      ourSender_->send(kind_, count);
    else
      asioSender_->send(count);
    goal_.await();
  }

 private:
  const Kind kind_;
  Goal goal_, nowhere_;
  AsioThread loops_[2];
  std::unique_ptr<AsioEnd> asioSender_, asioReceiver_;
  std::unique_ptr<OurEnd> ourSender_, ourReceiver_;
};

void oneWay(Kind kind, bool twoThreads, int rounds, int64_t count) {
  const auto entry = [&](const char *peer, Who sender, Who receiver) {
    const auto way = std::make_shared<OneWay>(sender, receiver, twoThreads, kind);
    return RatedEntry{peer, [way](int64_t messages) { way->exchange(messages); }, {0}};
  };
  const auto bare = std::make_shared<BareWay>(twoThreads, kind);
  std::vector<RatedEntry> entries = {
      entry("asio", Who::asio, Who::asio),
      {"bare", [bare](int64_t messages) { bare->exchange(messages); }, {0}},
      entry("ours", Who::ours, Who::ours),
  };
  entries.back().references = {0, 1};
  if (twoThreads) {
    entries.push_back(entry("ours-to-asio", Who::ours, Who::asio));
    entries.push_back(entry("asio-to-ours", Who::asio, Who::ours));
  }
  contestOfRates(
      std::string(kind == Kind::blocks ? "blocks" : "strings") + (twoThreads ? "/two-threads" : "/one-thread"),
      std::move(entries), rounds, count);
}

/// A block of a gigabyte, which the receiver is to have as a whole.
void giant() {
  constexpr size_t size = size_t(1) << 30;
  const std::string text(size, '\7');
  const Data block(text);
  const auto ours = [&] {
    Goal goal, nowhere;
    const auto [a, b] = connection();
    OurEnd sender(a, true, nowhere), receiver(b, true, goal);
    require(sender.observer->ready.pass() && receiver.observer->ready.pass(), "not ready");
    goal.set(1);
    const auto start = Clock::now();
    sender.stream->writeBinaryData(block, "image/raw", false);
    goal.await();
    return std::vector<double>{microseconds(Clock::now() - start)};
  };
  const auto byHand = [&] {
    const auto [a, b] = connection();
    AsioThread loops[2];
    asio::ip::tcp::socket from(loops[0].context, asio::ip::tcp::v4(), a), to(loops[1].context, asio::ip::tcp::v4(), b);
    from.non_blocking(true);
    to.non_blocking(true);
    Gate done;
    std::string collected;
    std::array<char, readSize> chunk;
    size_t at = 0;
    const std::function<void()> write = [&] {
      const size_t part = std::min(size - at, writeSize);
      from.async_write_some(asio::buffer(text.data() + at, part), [&](const auto &error, size_t written) {
        if (error || (at += written) == size) return;
        write();
      });
    };
    const std::function<void()> read = [&] {
      to.async_read_some(asio::buffer(chunk), [&](const auto &error, size_t count) {
        if (error) return;
        collected.append(chunk.data(), count);
        collected.size() == size ? done.open() : read();
      });
    };
    const auto start = Clock::now();
    collected.reserve(size);
    asio::post(loops[0].context, write);
    asio::post(loops[1].context, read);
    require(done.pass(), "not everything arrived");
    const double time = microseconds(Clock::now() - start);
    for (AsioThread &loop : loops) loop.end();
    return std::vector<double>{time};
  };
  contestOfTimes("giant/1GiB", {{"ours", ours}, {"asio", byHand}}, 5);
}

/// What a byte costs while so many lie before it: nothing is read until all has been queued.
void backlog() {
  double first = 0;
  for (const int64_t megabytes : {1, 10, 100, 1000}) {
    Goal goal, nowhere;
    const auto [a, b] = connection();
    OurEnd sender(a, true, nowhere);
    shakeHands(b);
    require(sender.observer->ready.pass(), "not ready");
    const std::string text(999, 'x');
    const int64_t size = megabytes * 1000 * 1000;
    const double busyBefore = processSeconds();  // of a short one most is in the system's buffers before it is read
    for (int64_t queued = 0; queued < size; queued += 1000) sender.stream->writeString(text);
    std::vector<char> room(readSize * 8);
    for (int64_t left = size; left > 0;) {
      const ssize_t count = read(b, room.data(), room.size());
      require(count > 0, "read");
      left -= count;
    }
    const double cost = (processSeconds() - busyBefore) * 1e9 / double(size);
    if (first == 0) first = cost;
    printRow("backlog/" + std::to_string(megabytes) + "MB", "ours",
             {{"cpu_ns_per_byte", cost}, {"ratio", cost / first}});
    close(b);
  }
}

// --- Many ---

void heartbeat() {
  constexpr int connections = 1000, beats = 20;
  Crowd crowd(connections);
  std::vector<std::pair<int, int>> bare;
  std::vector<int> peers;
  for (int i = 0; i < connections; ++i) {
    bare.push_back(connection());
    peers.push_back(bare.back().second);
  }
  const QELProjectTimecode timecode(10, 59, 59, 24, 25);
  const std::string bytes = QELNKLegacyServer::timecodeStringForTimecode(timecode, "on air 1") + '\0';
  const auto timed = [](const std::function<void()> &beat, const std::function<void()> &after) {
    std::vector<double> times;
    for (int i = 0; i < beats; ++i) {
      const auto start = Clock::now();
      beat();
      times.push_back(microseconds(Clock::now() - start));
      after();
    }
    return times;
  };
  const auto ours = [&] { return timed([&] { crowd.beat(timecode, "on air 1"); }, [&] { crowd.drain(); }); };
  // On a thread of its own as well: else its sockets would never leave the caches of one core, as they do where what
  // peers read is read elsewhere.
  AsioThread writer;
  const auto loop = [&] {
    return timed(
        [&] {
          std::promise<void> written;
          asio::post(writer.context, [&] {
            for (const auto &[a, b] : bare) require(send(a, bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0, "send");
            written.set_value();
          });
          written.get_future().wait();
        },
        [&] { drainAll(peers); });
  };
  for (const auto &stream : crowd.server->streams()) require(stream->isReady(), "not ready");
  contestOfTimes("heartbeat/1000", {{"ours", ours}, {"bare-loop", loop}}, 15);
  writer.end();
  for (const auto &[a, b] : bare) close(a), close(b);
}

void crowds() {
  for (const int count : {1000, 5000}) {
    const Crowd crowd(count);
    printRow("connections/" + std::to_string(count), "ours",
             {{"seconds_to_accept", crowd.secondsToAccept}, {"KiB_each", crowd.memoryEach}});
  }
}

}  // namespace

int main(int count, char **arguments) {
  QLGetHandle().setLevel(qelnk::LogLevel::off);
  raiseDescriptorLimit();
  const std::string only = count > 1 ? arguments[1] : "";
  const auto contest = [&](const char *part, const std::function<void()> &work) {
    if (only.empty() || only == part) inFreshProcess(work);
  };
  contest("connections", crowds);
  for (const bool twoThreads : {false, true}) contest("blocks", [=] { oneWay(Kind::blocks, twoThreads, 21, 200); });
  for (const bool twoThreads : {false, true})
    contest("strings", [=] { oneWay(Kind::strings, twoThreads, 31, 1000000); });
  contest("giant", giant);
  contest("backlog", backlog);
  contest("heartbeat", heartbeat);
}
