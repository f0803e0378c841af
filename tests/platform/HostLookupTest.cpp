#include "platform/HostLookup.h"

#include <QELNetworkKit/NetService.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <set>
#include <thread>

#include "platform/SocketAddress.h"
#include "support/AvahiNetwork.h"
#include "support/TestSupport.h"

namespace qelnk {

using namespace std::chrono_literals;
using test::eventually;

namespace {

std::string textOf(const std::string &address) {
  char host[NI_MAXHOST], port[NI_MAXSERV];
  const auto *start = reinterpret_cast<const sockaddr *>(address.data());
  if (getnameinfo(start, socklen_t(address.size()), host, sizeof host, port, sizeof port,
                  NI_NUMERICHOST | NI_NUMERICSERV))
    return "?";
  return std::string(host) + " " + port;
}

struct Result {
  std::vector<std::string> addresses;
  std::error_code error;
  int calls = 0;
};

std::shared_ptr<HostLookup> look(const std::string &host, Result &result) {
  return HostLookup::start(host, 80, RunLoop::current(), [&](const auto &addresses, std::error_code error) {
    ++result.calls;
    for (const auto &address : addresses) result.addresses.push_back(textOf(address));
    result.error = error;
  });
}

/// Looks up a host to the end.
Result lookUp(const std::string &host) {
  Result result;
  const auto lookup = look(host, result);
  EXPECT_EQ(result.calls, 0) << "not within start()";
  EXPECT_TRUE(eventually([&] { return result.calls != 0; }, 30s)) << host;
  return result;
}

using Texts = std::vector<std::string>;

/// Runs `body` on a thread that has a file system and a network of its own, and so have the threads that it starts:
/// /etc/hosts holds `hosts`, and the only name server is one that never answers.
void withHosts(const std::string &hosts, const std::function<void()> &body) {
  std::thread([&] {
    ASSERT_EQ(unshare(CLONE_FS | CLONE_NEWNS | CLONE_NEWNET), 0);
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(std::system("ip link set lo up"), 0);
    const auto replace = [](const char *file, const std::string &text) {
      char name[] = "/tmp/qelnk-hosts-XXXXXX";
      close(mkstemp(name));
      std::ofstream(name) << text;
      EXPECT_EQ(mount(name, file, nullptr, MS_BIND, nullptr), 0);
      unlink(name);
    };
    replace("/etc/hosts", hosts);
    replace("/etc/resolv.conf", "nameserver 127.0.0.1\n");
    const int silent = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(53);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(silent, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    body();
    close(silent);
  }).join();
}

#define NEEDS_NAMESPACES \
  if (!test::AvahiNetwork::missing().empty()) GTEST_SKIP() << test::AvahiNetwork::missing()

}  // namespace

TEST(HostLookup, ReadsNumericAddresses) {
  EXPECT_EQ(lookUp("192.0.2.7").addresses, Texts{"192.0.2.7 80"});
  EXPECT_EQ(lookUp("2001:db8::1").addresses, Texts{"2001:db8::1 80"});
  EXPECT_EQ(lookUp("fe80::1%lo").addresses, Texts{"fe80::1%lo 80"});
  for (const std::string host : {"fe80::1%nosuch", "1:2", "::1::"}) {
    const auto result = lookUp(host);
    EXPECT_TRUE(result.addresses.empty());
    EXPECT_EQ(result.error.category(), addressInfoCategory());
    EXPECT_EQ(result.error.message(), "Name or service not known");
  }
}

TEST(HostLookup, AsksTheSystem) {
  NEEDS_NAMESPACES;
  const test::SystemBus none;
  withHosts("192.0.2.1 twin\n2001:db8::1 twin\n192.0.2.2 twin printer.local\n192.0.2.1 twin\n", [] {
    const auto twin = lookUp("twin").addresses;
    EXPECT_EQ(std::set(twin.begin() + 1, twin.end()), (std::set<std::string>{"192.0.2.1 80", "192.0.2.2 80"}));
    EXPECT_EQ(twin.front(), "2001:db8::1 80");
    EXPECT_EQ(twin.size(), 3u);
    EXPECT_EQ(lookUp("Printer.Local").addresses, Texts{"192.0.2.2 80"}) << "where the network cannot be asked";
    EXPECT_EQ(lookUp("").error.message(), "Name or service not known");
  });
}

TEST(HostLookup, OneThatHangsHoldsUpNobody) {
  NEEDS_NAMESPACES;
  withHosts("192.0.2.1 quick\n", [] {
    Result slow, dropped, cancelled;
    const auto hangs = look("slow.example", slow);
    look("dropped.example", dropped);
    const auto lookup = look("quick", cancelled);
    lookup->cancel();
    EXPECT_EQ(lookUp("quick").addresses, Texts{"192.0.2.1 80"});
    EXPECT_FALSE(eventually([&] { return slow.calls != 0; }, 300ms));
    hangs->cancel();
    for (int round = 0; round < 100; ++round) {
      Result result;
      std::shared_ptr<HostLookup> own;
      own = HostLookup::start("127.0.0.1", 80, RunLoop::current(), [&](const auto &, std::error_code) {
        own = nullptr;
        ++result.calls;
      });
      std::thread other([&] { look("quick", dropped); });  // a thread that ends, and the look-up with it
      EXPECT_TRUE(eventually([&] { return result.calls == 1; }));
      other.join();
    }
    EXPECT_EQ(slow.calls + dropped.calls + cancelled.calls, 0);
  });
}

/// Leaves the program with everything under way.
static void exitAtWork() {
  static const test::SystemBus none;
  QLGetHandle().setSink([](LogLevel, std::string_view) {});
  static const auto service = NetService::create("", "_qelnktest._tcp", "Here", 7000);
  static Result result;
  static std::shared_ptr<HostLookup> lookup;
  service->publish();
  service->resolveWithTimeout(1min);
  withHosts("", [] {
    lookup = look("slow.example", result);
    std::exit(0);
  });
}

TEST(HostLookupDeathTest, EndOfTheProgramWaitsForNothing) {
  NEEDS_NAMESPACES;
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EXIT(exitAtWork(), testing::ExitedWithCode(0), "^$");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 4s) << "as long as the resolver tries";
}

TEST(HostLookup, AsksTheNetworkForLocalNames) {
  NEEDS_NAMESPACES;
  test::AvahiNetwork network(1);
  network.startAll();
  // The daemon may still be starting, and then there is nobody to ask but the system.
  EXPECT_TRUE(eventually([&] { return !network.alpha().outputOf("avahi-resolve -n beta.local").empty(); }));
  const size_t threads = test::threadCount(), descriptors = test::descriptorCount();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(lookUp("BETA.local.").addresses.size(), 2u);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  EXPECT_TRUE(eventually([&] { return test::threadCount() <= threads && test::descriptorCount() <= descriptors; }));
}

}  // namespace qelnk
