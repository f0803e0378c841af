// Publishes a service on the local network, finds it by its name, and reads its record.
// Change first: the type, which is your application's ("_NAME._tcp"), and the name that people see.

#include <QELNetworkKit/QELNetworkKit.h>

#include <chrono>
#include <cstdio>
#include <utility>

using namespace std::chrono_literals;
using qelnk::NetService;

constexpr const char *type = "_qelnk-example._tcp";

// Both services were begun on the main thread, so their observer is called there.
struct Observer final : qelnk::NetServiceDelegate, std::enable_shared_from_this<Observer> {
  std::shared_ptr<NetService> wanted;
  bool published = false, found = false;

  void netServiceDidPublish(const Service &service) override {
    if (std::exchange(published, true)) return;
    std::printf("published as \"%s\"\n", service->name().c_str());  // another one of that name makes it "... #2"
    wanted = NetService::create("", type, service->name());
    wanted->setDelegate(weak_from_this());
    wanted->resolveWithTimeout(20s);
  }
  void netServiceDidNotPublish(const Service &, std::error_code error) override {
    std::fprintf(stderr,
                 "Service discovery does not answer: %s. It wants the system's avahi-daemon: is it running?\n"
                 "Waiting for it ...\n",
                 error.message().c_str());
  }
  void netServiceDidResolveAddress(const Service &service) override {
    std::printf("found on %s, port %u, %zu addresses\n", service->hostName().c_str(), service->port(),
                service->addresses().size());
  }
  void netServiceDidNotResolve(const Service &, std::error_code) override { qelnk::RunLoop::main()->stop(); }
  void netServiceDidUpdateTXTRecordData(const Service &service, const std::string &data) override {
    const auto record = NetService::dictionaryFromTXTRecordData(data);
    const auto room = record.find("room");
    if (room == record.end()) return;
    std::printf("its room is %s\n", room->second.value_or("").c_str());
    found = room->second == "12" && service->port() == 4711;
    qelnk::RunLoop::main()->stop();
  }
};

int main() {
  const auto loop = qelnk::RunLoop::main();
  auto observer = std::make_shared<Observer>();
  auto ours = NetService::create("", type, "Studio A", 4711);
  ours->setTXTRecordData(NetService::dataFromTXTRecordDictionary({{"room", "12"}}));
  ours->setDelegate(observer);
  ours->publish();

  auto limit = loop->performAfter(30s, [&] { loop->stop(); });
  loop->run();
  limit->cancel();
  if (!observer->found) std::fputs(observer->published ? "not found\n" : "not published\n", stderr);
  return observer->found ? 0 : 1;
}
