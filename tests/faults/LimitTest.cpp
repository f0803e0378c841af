#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKLegacyServer.h>
#include <QELNetworkKit/QELNKServer.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <system_error>

#include "faults/Trial.h"
#include "support/TestSupport.h"

using namespace qelnk;
using namespace qelnk::test;
using namespace std::chrono_literals;

namespace {

constexpr size_t guestCount = 20;

/// A process that connects to a port, many times, and stays. Made while this one has no thread but one.
class Guests {
 public:
  Guests() {
    if (pipe(pipe_)) throw std::system_error(errno, std::generic_category());
    pid_ = fork();
    if (pid_ == 0) connectAll();
  }
  ~Guests() {
    kill(pid_, SIGKILL);
    close(pipe_[0]);
    close(pipe_[1]);
  }
  Guests(const Guests &) = delete;
  Guests &operator=(const Guests &) = delete;
  /// So many more connect.
  void come(uint16_t port, uint16_t count) const {
    const Order order{port, count};
    if (write(pipe_[1], &order, sizeof order) != sizeof order) throw std::system_error(errno, std::generic_category());
  }

 private:
  struct Order {
    uint16_t port, count;
  };
  [[noreturn]] void connectAll() const {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (Order order{}; read(pipe_[0], &order, sizeof order) == sizeof order;) {
      address.sin_port = htons(order.port);
      for (; order.count > 0; --order.count)
        connect(socket(AF_INET, SOCK_STREAM, 0), reinterpret_cast<const sockaddr *>(&address), sizeof address);
    }
    _exit(1);
  }
  int pipe_[2]{};
  pid_t pid_ = 0;
};

double usedTime() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return double(time.tv_sec) + double(time.tv_nsec) / 1e9;
}

struct Rest {
  double used = 0;  // of one second
  size_t lines = 0;
};

/// What a server does with more connections than there are descriptors: it takes some, rests, and takes the others when
/// there are descriptors again. Counts the lines on the log that have `line`.
Rest crowd(Trial &trial, uint16_t port, const Guests &guests, const char *line) {
  const CapturedLog log;
  const size_t alone = descriptorCount();
  guests.come(port, 1);  // what serves connections begins with the first
  trial.reach("a guest", [&] { return descriptorCount() > alone; });
  eventually([] { return false; }, 100ms);
  const size_t before = descriptorCount();
  rlimit usual{};
  getrlimit(RLIMIT_NOFILE, &usual);
  const rlimit low{rlim_t(before + guestCount / 2), usual.rlim_max};
  setrlimit(RLIMIT_NOFILE, &low);
  guests.come(port, guestCount);
  // Where a line tells of the limit nothing is tried out here: that would take a descriptor away and give it back.
  trial.reach("the limit", [&] {
    if (*line) return log.contains(line);
    const int spare = dup(0);
    close(spare);
    return spare < 0;
  });
  const double start = usedTime();
  eventually([] { return false; }, 1s);
  const Rest rest{usedTime() - start, log.count(line)};
  setrlimit(RLIMIT_NOFILE, &usual);
  trial.reach("all guests", [&] { return descriptorCount() >= before + guestCount; });
  return rest;
}

void legacyServer(Trial &trial) {
  const Guests guests;
  const auto server = QELNKLegacyServer::create("Studio", 0, QELNKLegacyStream::defaultPlayoutOptions());
  trial.require("listening", server->start());
  const Rest rest = crowd(trial, server->port(), guests, "Listening socket cannot accept connections for now");
  trial.require("a second without spinning", rest.used < 0.3);
  trial.require("one line on the log", rest.lines == 1);
}

// ZeroMQ tries again and again to accept, on its own thread, and has nothing to be told that it shall wait.
void server(Trial &trial) {
  const Guests guests;
  const auto server = QELNKServer::create(QELNKContext::contextWithBackgroundQueue());
  trial.require("binding", server->bindToPort(0, nullptr));
  crowd(trial, uint16_t(server->port()), guests, "");
}

}  // namespace

TEST(DescriptorLimit, OfALegacyServerWithManyConnections) { EXPECT_EQ(tryOnce({"LegacyServer", legacyServer}), ""); }
TEST(DescriptorLimit, OfAServerWithManyConnections) { EXPECT_EQ(tryOnce({"Server", server}), ""); }
