#include "netutil/Ping.h"

#include <QELNetworkKit/qelNKPing.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/ip.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>

#include "support/AvahiNetwork.h"
#include "support/OwnNetwork.h"
#include "support/TestSupport.h"

using namespace qelnk;
using namespace qelnk::test;
using namespace std::chrono_literals;
using Words = std::vector<std::string>;

// --- The command line ---

namespace {

struct Mistake {
  Words words;
  int code;
  std::string text;
  bool byRoot = true;
  friend void PrintTo(const Mistake &mistake, std::ostream *out) {
    for (const auto &word : mistake.words) *out << word << ' ';
  }
};

class Mistakes : public testing::TestWithParam<Mistake> {};

}  // namespace

TEST_P(Mistakes, EndWithTheirCodeAndText) {
  Words words = GetParam().words;
  words.insert(words.begin(), "ping");
  words.push_back("127.0.0.1");
  try {
    PingOptions::parse(words, GetParam().byRoot);
    FAIL() << "was taken";
  } catch (const PingExit &exit) {
    EXPECT_EQ(exit.code(), GetParam().code);
    EXPECT_EQ(exit.what(), GetParam().text);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Ping, Mistakes,
    testing::Values(
        Mistake{{"-c", "0"}, 64, "invalid count of packets to transmit: `0'"},
        Mistake{{"-c5x"}, 64, "invalid count of packets to transmit: `5x'"},
        Mistake{{"-f", "-i", "2"}, 64, "-f and -i: incompatible options"},
        Mistake{{"-f"}, 77, "-f flag: Operation not permitted", false},
        Mistake{{"-G", "x"}, 64, "invalid packet size: `x'"}, Mistake{{"-g", "-1"}, 64, "invalid packet size: `-1'"},
        Mistake{{"-h", "0"}, 64, "invalid increment size: `0'"},
        Mistake{{"-g", "5"}, 64, "Maximum sweep size must be specified"},
        Mistake{{"-G", "9", "-s", "9"}, 64, "Packet size and ping sweep are mutually exclusive"},
        Mistake{{"-G", "9", "-g", "9"}, 64, "Maximum packet size must be greater than the minimum packet size"},
        Mistake{{"-I", "lo"}, 64, "invalid multicast interface: `lo'"},
        Mistake{{"-i", "0"}, 64, "invalid timing interval: `0'"},
        Mistake{{"-i", "nan"}, 64, "invalid timing interval: `nan'"},
        Mistake{{"-i", "0.5"}, 77, "-i interval too short: Operation not permitted", false},
        Mistake{{"-l", "2147483648"}, 64, "invalid preload value: `2147483648'"},
        Mistake{{"-l", "2"}, 77, "-l flag: Operation not permitted", false},
        Mistake{{"-M", "x"}, 64, "invalid message: `x'"},
        Mistake{{"-M", "m", "-M", "t"}, 64, "ICMP_TSTAMP and ICMP_MASKREQ are exclusive."},
        Mistake{{"-m", "256"}, 64, "invalid TTL: `256'"}, Mistake{{"-T", "256"}, 64, "invalid multicast TTL: `256'"},
        Mistake{{"-p", "0g"}, 64, "patterns must be specified as hex digits"},
        Mistake{{"-p", "00112233445566778899aabbccddeeffx"}, 64, "patterns must be specified as hex digits"},
        Mistake{{"-s", "65536"}, 64, "invalid packet size: `65536'"}, Mistake{{"-t", "0"}, 64, "invalid timeout: `0'"},
        Mistake{{"-t", "99999999999"}, 64, "invalid timeout: `99999999999' > 3600"},
        Mistake{{"-W", "2147483648"}, 64, "invalid timing interval: `2147483648'"},
        Mistake{{"-z", "256"}, 64, "invalid TOS: `256'"}));

TEST(PingOptions, ReadsALineOfManyOptions) {
  const auto options = PingOptions::parse({"", "-qnc3", "-i", "1.5", "-p", "0aFf1", "-W250", "--", "host"}, false);
  EXPECT_EQ(options.flags, uint32_t(QELNKPingQuiet | QELNKPingNumeric | QELNKPingCount | QELNKPingInterval |
                                    QELNKPingPattern | QELNKPingWaitTime));
  EXPECT_EQ(options.host, "host");
  EXPECT_EQ(options.count, 3);
  EXPECT_EQ(options.interval, 1500);
  EXPECT_EQ(options.waittime, 250);
  EXPECT_EQ(options.pattern, (std::vector<uint8_t>{0x0A, 0xFF, 0x01}));
  for (const Words &words : {Words{"ping"}, Words{"ping", "a", "b"}, Words{"ping", "-x", "a"}, Words{"ping", "-c"}}) {
    try {
      PingOptions::parse(words, true);
      ADD_FAILURE() << "was taken";
    } catch (const PingExit &exit) {
      EXPECT_EQ(exit.code(), 64);
      EXPECT_TRUE(exit.isUsage());
      EXPECT_TRUE(std::string_view(exit.what())
                      .ends_with("       ping [-AaDdfLnoQqRrv] [-c count] [-I iface] [-i wait] [-l preload]\n"
                                 "            [-M mask | time] [-m ttl] [-p pattern] [-S src_addr]\n"
                                 "            [-s packetsize] [-T ttl] [-t timeout] [-W waittime]\n"
                                 "            [-z tos] mcast-group\n"));
    }
  }
}

// --- Runs ---

namespace {

void answerPings(bool answer) {
  run(std::string("echo ") + (answer ? "0" : "1") + " > /proc/sys/net/ipv4/icmp_echo_ignore_all");
}

/// Runs on a thread in a network of its own whose loopback is up and answers.
void onLoopback(const std::function<void()> &work) {
  withOwnNetwork([&] {
    run("ip link set lo up");
    work();
  });
}

/// One run: what it printed and how it ended.
struct Outcome {
  int32_t result = 0;  // of an escape
  int code = -1;       // of another end
  std::string end, output, errors;

  explicit Outcome(Words words, PingSurroundings surroundings = {}) {
    words.insert(words.begin(), "ping");
    surroundings.print = [&](std::string_view text) { output += text; };
    surroundings.printError = [&](std::string_view text) { errors += text; };
    try {
      Ping ping(PingOptions::parse(words, geteuid() == 0), surroundings);
      result = ping.run();
    } catch (const PingExit &exit) {
      code = exit.code();
      end = exit.what();
    }
  }
  bool printed(std::string_view text) const { return output.find(text) != std::string::npos; }
};

using Bytes = std::vector<uint8_t>;

uint16_t checksum(const Bytes &bytes) {
  uint32_t sum = 0;
  for (size_t i = 0; i < bytes.size(); ++i) sum += uint32_t(bytes[i]) << (i % 2 ? 0 : 8);
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  return uint16_t(~sum);
}

Bytes withChecksum(Bytes bytes) {
  bytes[2] = bytes[3] = 0;
  const uint16_t sum = checksum(bytes);
  bytes[2] = uint8_t(sum >> 8);
  bytes[3] = uint8_t(sum);
  return bytes;
}

/// Somebody at 127.0.0.1 who answers each echo request with whatever the test likes.
class Answerer {
 public:
  struct Answer {
    Bytes bytes;
    const char *from = "127.0.0.1";
  };
  using Handler = std::function<std::vector<Answer>(const Bytes &request, const Bytes &packet)>;

  explicit Answerer(Handler handler) : handler_(std::move(handler)) {
    answerPings(false);
    socket_ = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
    EXPECT_GE(socket_, 0);
    thread_ = std::thread([this] { serve(); });
  }
  ~Answerer() {
    ended_ = true;
    thread_.join();
    close(socket_);
  }

 private:
  void serve() {
    while (!ended_) {
      pollfd ready{socket_, POLLIN, 0};
      if (poll(&ready, 1, 20) <= 0) continue;
      Bytes packet(2000);
      packet.resize(size_t(recv(socket_, packet.data(), packet.size(), 0)));
      if (packet[20] != 8) continue;
      for (const Answer &answer : handler_({packet.begin() + 20, packet.end()}, packet))
        send(answer, {packet.begin() + 12, packet.begin() + 16});
    }
  }
  void send(const Answer &answer, const Bytes &asker) const {
    const int sender = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
    sockaddr_in from{AF_INET, 0, {inet_addr(answer.from)}, {}}, to{AF_INET, 0, {}, {}};
    std::memcpy(&to.sin_addr, asker.data(), asker.size());
    EXPECT_EQ(bind(sender, reinterpret_cast<sockaddr *>(&from), sizeof from), 0);
    EXPECT_EQ(sendto(sender, answer.bytes.data(), answer.bytes.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to),
              ssize_t(answer.bytes.size()));
    close(sender);
  }

  const Handler handler_;
  int socket_;
  std::atomic<bool> ended_ = false;
  std::thread thread_;
};

Bytes replyTo(Bytes request) {
  request[0] = 0;
  return withChecksum(request);
}
Bytes altered(Bytes bytes, size_t at) {
  bytes[at] ^= 1;
  return withChecksum(bytes);
}

class PingRun : public testing::Test {
 protected:
  void SetUp() override {
    if (const auto missing = AvahiNetwork::missing(); !missing.empty()) GTEST_SKIP() << missing;
  }
};

}  // namespace

TEST_F(PingRun, CountsItsOwnRepliesAlone) {
  onLoopback([] {
    Bytes request;
    const Answerer answerer([&](const Bytes &bytes, const Bytes &) -> std::vector<Answerer::Answer> {
      const Bytes reply = replyTo(bytes);
      if (!request.empty()) return {{reply}};
      request = bytes;
      Bytes corrupted = reply;
      corrupted[30] ^= 1;
      return {{corrupted},
              {withChecksum(Bytes(reply.begin(), reply.begin() + 12))},  // cut off
              {Bytes(reply.begin(), reply.begin() + 5)},
              {altered(reply, 5)},   // of another run
              {altered(reply, 7)},   // of a request that was not sent
              {altered(reply, 14)},  // sent at another time
              {reply, "127.0.0.2"},
              {reply},
              {reply}};
    });
    const Outcome run({"-c", "2", "-s", "56", "127.0.0.1"});
    EXPECT_EQ(run.code, 0);
    EXPECT_TRUE(
        run.printed("PING 127.0.0.1 (127.0.0.1): 56 data bytes\nintvl 1.0\n64 bytes from 127.0.0.1: icmp_seq=0 "
                    "ttl=64 time="))
        << run.output;
    EXPECT_TRUE(run.printed(" (DUP!)\n64 bytes from 127.0.0.1: icmp_seq=1 ttl=64 time=")) << run.output;
    EXPECT_TRUE(
        run.printed("\n\n--- 127.0.0.1 ping statistics ---\n2 packets transmitted, 2 packets received, "
                    "+1 duplicates, 0.0% packet loss\nround-trip min/avg/max/stddev = "))
        << run.output;
    EXPECT_EQ(std::count(run.output.begin(), run.output.end(), '\n'), 9) << run.output;
    ASSERT_EQ(request.size(), 64u);
    EXPECT_EQ(checksum(request), 0);
    EXPECT_EQ(Bytes(request.begin(), request.begin() + 2), (Bytes{8, 0}));
    EXPECT_EQ(request[4] << 8 | request[5], getpid() & 0xFFFF);
    EXPECT_EQ(Bytes(request.begin() + 16, request.begin() + 20), (Bytes{8, 9, 10, 11}));
    const time_t sent = request[8] << 24 | request[9] << 16 | request[10] << 8 | request[11];
    EXPECT_NEAR(double(sent), double(time(nullptr)), 30);
  });
}

TEST_F(PingRun, EscapesOnceAReplyIsMissed) {
  onLoopback([] {
    const size_t descriptors = descriptorCount();
    const auto start = std::chrono::steady_clock::now();
    answerPings(false);
    const Outcome missed({"-A", "-i", "2", "127.0.0.1"});
    EXPECT_EQ(missed.result, QELNK_PING_ESCAPE);
    EXPECT_EQ(missed.output, "PING 127.0.0.1 (127.0.0.1): 56 data bytes\nintvl 2.0\n\aESCAPE!\n");
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, 2s);
    EXPECT_EQ(ntransmitted, 0);

    PingSurroundings twoSends;  // quiet ones go on
    twoSends.mustFinish = [] { return ntransmitted == 2; };
    const Outcome quiet({"-q", "127.0.0.1"}, twoSends);
    EXPECT_EQ(quiet.code, 2);
    EXPECT_EQ(quiet.output,
              "PING 127.0.0.1 (127.0.0.1): 56 data bytes\nintvl 1.0\n\n--- 127.0.0.1 ping statistics ---\n2 packets "
              "transmitted, 0 packets received, 100.0% packet loss\n");
    EXPECT_LE(descriptorCount(), descriptors);
    // A network that refuses to send is one where replies are missed.
    const Outcome noRoute({"192.0.2.1"});
    EXPECT_EQ(noRoute.result, QELNK_PING_ESCAPE);
    EXPECT_TRUE(noRoute.errors.find("sendto: Network is unreachable") != std::string::npos) << noRoute.errors;
  });
}

TEST_F(PingRun, CountsLateRepliesApart) {
  onLoopback([] {
    const Answerer answerer([](const Bytes &bytes, const Bytes &) -> std::vector<Answerer::Answer> {
      std::this_thread::sleep_for(20ms);
      return {{replyTo(bytes)}};
    });
    const Outcome run({"-q", "-c", "1", "-W", "1", "127.0.0.1"});
    EXPECT_EQ(run.code, 2);
    EXPECT_TRUE(
        run.printed("\n1 packets transmitted, 0 packets received, 100.0% packet loss, 1 packets out of wait time\n"))
        << run.output;
  });
}

TEST_F(PingRun, SeveralDoNotCountEachOthers) {
  onLoopback([] {
    std::vector<std::thread> threads;
    std::vector<Outcome> runs(8, Outcome({"-x"}));
    for (Outcome &each : runs) threads.emplace_back([&] { each = Outcome({"-c", "2", "-i", "1", "127.0.0.1"}); });
    for (std::thread &thread : threads) thread.join();
    for (const Outcome &each : runs)
      EXPECT_TRUE(each.printed("\n2 packets transmitted, 2 packets received, 0.0% packet loss\n")) << each.output;
    EXPECT_LE(tmin, tmax);
    EXPECT_GE(tsum, tmax);
  });
}

TEST_F(PingRun, NeedsNoPrivileges) {
  onLoopback([] {
    // Of this thread alone.
    ASSERT_EQ(syscall(SYS_setresuid, -1, 65534, -1), 0);
    const Outcome refused({"-c", "1", "127.0.0.1"});
    EXPECT_EQ(refused.code, 71);
    EXPECT_EQ(refused.end, "socket: Operation not permitted");
    ASSERT_EQ(syscall(SYS_setresuid, -1, 0, -1), 0);
    run("echo '0 2147483647' > /proc/sys/net/ipv4/ping_group_range");
    ASSERT_EQ(syscall(SYS_setresuid, -1, 65534, -1), 0);
    const Outcome allowed({"-o", "-D", "-z", "16", "-m", "7", "127.0.0.1"});
    EXPECT_EQ(allowed.code, 0);
    EXPECT_TRUE(allowed.printed("64 bytes from 127.0.0.1: icmp_seq=0 ttl=64 time=")) << allowed.output;
    EXPECT_EQ(syscall(SYS_setresuid, -1, 0, -1), 0);
  });
}

TEST_F(PingRun, SendsWhatTheOptionsSay) {
  onLoopback([] {
    std::mutex mutex;
    std::vector<Bytes> packets;  // with their IP headers
    const Answerer answerer([&](const Bytes &request, const Bytes &packet) -> std::vector<Answerer::Answer> {
      const std::lock_guard lock(mutex);
      packets.push_back(packet);
      return {{replyTo(request)}};
    });
    const auto sent = [&](Words words) {
      {
        const std::lock_guard lock(mutex);
        packets.clear();
      }
      words.push_back("127.0.0.1");
      const Outcome outcome(words);
      EXPECT_EQ(outcome.code, 0) << outcome.end << outcome.output;
      const std::lock_guard lock(mutex);
      return packets;
    };
    constexpr size_t flags = 6, tos = 1, ttl = 8, source = 15, data = 28;
    const Bytes plain = sent({"-o", "-z", "16", "-m", "7", "-p", "0aff1", "-s", "14"}).at(0);
    EXPECT_EQ(plain[tos], 16);
    EXPECT_EQ(plain[ttl], 7);
    EXPECT_EQ(Bytes(plain.begin() + data + 8, plain.end()), (Bytes{0x0A, 0xFF, 0x01, 0x0A, 0xFF, 0x01}));
    const Bytes built = sent({"-o", "-D", "-b", "lo", "-S", "127.0.0.3", "-z", "16", "-m", "7", "-s", "3"}).at(0);
    EXPECT_EQ(built[flags], 0x40);
    EXPECT_EQ(built[tos], 16);
    EXPECT_EQ(built[ttl], 7);
    EXPECT_EQ(built[source], 3);
    EXPECT_EQ(Bytes(built.begin() + data, built.end()), (Bytes{0, 1, 2}));
    EXPECT_EQ(checksum(Bytes(built.begin(), built.begin() + 20)), 0);
    std::vector<size_t> sizes;
    for (const Bytes &packet : sent({"-c", "5", "-l", "5", "-G", "58", "-g", "56"}))
      sizes.push_back(packet.size() - data);
    EXPECT_EQ(sizes, (std::vector<size_t>{56, 57, 58, 56, 57}));

    answerPings(true);
    EXPECT_TRUE(Outcome({"-o", "-R", "127.0.0.1"}).printed("RR: \t"));
    EXPECT_TRUE(Outcome({"-o", "-a", "0.0.0.0"}).printed("\a\n"));
    EXPECT_EQ(Outcome({"-b", "none", "127.0.0.1"}).end, "bad interface name");
    EXPECT_EQ(Outcome({"-L", "127.0.0.1"}).end, "-I, -L, -T flags cannot be used with unicast destination");
    EXPECT_EQ(Outcome({"-f", "224.0.0.1"}).end, "-f flag cannot be used with multicast destination");
    EXPECT_TRUE(Outcome({"nobody.invalid"}).end.starts_with("cannot resolve nobody.invalid: "));
  });
  onLoopback([] {  // which the system answers
    EXPECT_TRUE(Outcome({"-o", "-M", "t", "127.0.0.1"}).printed("20 bytes from 127.0.0.1: icmp_seq=0 ttl=64 time="));
  });
}
