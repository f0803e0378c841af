// Network utilities: how long it takes to list a hundred links, and what five hundred keep-alive watches cost. In a
// network of its own, where there is nothing else.

#include <QELNetworkKit/Log.h>
#include <QELNetworkKit/QELNKNetworkInterfaceDiscovery.h>
#include <QELNetworkKit/QELNKPingleton.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <netlink/route/route.h>
#include <sched.h>
#include <sys/mount.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Support.h"

using namespace std::chrono_literals;

namespace {

void run(const std::string &command) { bench::require(std::system(command.c_str()) == 0, command.c_str()); }

template <class Work>
double medianMilliseconds(const Work &work) {
  std::vector<double> samples;
  for (int i = 0; i < 50; ++i) {
    const auto start = bench::Clock::now();
    work();
    samples.push_back(bench::microseconds(bench::Clock::now() - start) / 1000);
  }
  return bench::median(samples);
}

/// The least that has to be asked of the kernel.
void dumpByHand() {
  nl_sock *socket = nl_socket_alloc();
  bench::require(nl_connect(socket, NETLINK_ROUTE) == 0, "nl_connect");
  nl_cache *links = nullptr, *addresses = nullptr;
  bench::require(rtnl_link_alloc_cache(socket, AF_UNSPEC, &links) == 0, "links");
  bench::require(rtnl_addr_alloc_cache(socket, &addresses) == 0, "addresses");
  nl_cache_free(links);
  nl_cache_free(addresses);
  nl_socket_free(socket);
}

void interfaces(int pairs) {
  for (int i = 1; i <= pairs; ++i) {
    const std::string number = std::to_string(i);
    run("ip link add a" + number + " type veth peer name b" + number + " && ip link set a" + number +
        " up && ip link set b" + number + " up && ip address add 10.1." + number + ".1/24 dev a" + number);
  }
  const auto list = [&] {
    bench::require(QELNKNetworkInterfaceDiscovery::interfaces().size() == size_t(2 * pairs), "links are missing");
  };
  std::this_thread::sleep_for(200ms);  // for the last one's carrier
  const std::string name = "interfaces/" + std::to_string(2 * pairs) + "-links";
  bench::printRow(name, "qelnk", {{"ms", medianMilliseconds(list)}});
  bench::printRow(name, "libnl", {{"ms", medianMilliseconds(dumpByHand)}});
}

struct Observer : QELNKPingletonDelegate {
  void pingleton(const std::shared_ptr<QELNKPingleton> &, const std::string &) override { ++reported; }
  std::atomic<int> reported = 0;
};

double descriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return double(std::distance(begin(all), end(all)));
}

void watches(int count, int seconds) {
  const auto observer = std::make_shared<Observer>();
  const double descriptorsBefore = descriptors(), residentBefore = bench::residentKiB();
  for (int i = 0; i < count; ++i)
    QELNKPingleton::sharedPingleton()->startWatchingIP(
        "127.1." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1), observer);
  std::this_thread::sleep_for(5s);
  const double used = bench::processSeconds();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  bench::printRow("watches/" + std::to_string(count), "qelnk",
                  {{"cpu_percent", 100 * (bench::processSeconds() - used) / seconds},
                   {"descriptors", descriptors() - descriptorsBefore},
                   {"kib_each", (bench::residentKiB() - residentBefore) / count}});
  bench::require(observer->reported == 0, "an address that answers was reported");
}

}  // namespace

int main() {
  // The kernel's configuration, whatever this machine runs.
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere", 1);
  QLGetHandle().setLevel(qelnk::LogLevel::off);
  bench::require(unshare(CLONE_NEWNET | CLONE_NEWNS) == 0, "a network of its own, which wants root");
  bench::require(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mount");
  bench::require(mount("sysfs", "/sys", "sysfs", 0, nullptr) == 0, "mount");
  run("ip link set lo up");
  interfaces(50);
  for (const int count : {1, 500}) watches(count, 20);
}
