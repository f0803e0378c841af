#include <QELNetworkKit/QELNKPingleton.h>
#include <QELNetworkKit/RunLoop.h>
#include <arpa/inet.h>

#include <algorithm>
#include <vector>

#include "Command.h"

namespace tool {
namespace {

/// Prints, on the main thread, which addresses are reported.
class Watcher : public QELNKPingletonDelegate {
 public:
  explicit Watcher(Output &output) : output_(output) {}

  void print(std::string_view event, const std::string &address) {
    if (output_.json())
      output_.event(event, {{"ip", address}});
    else
      output_.line(std::string(event) + ' ' + address);
  }
  void pingleton(const std::shared_ptr<QELNKPingleton> &, const std::string &cantReachIP) override {
    qelnk::RunLoop::main()->perform([this, cantReachIP] {
      print("unreachable", cantReachIP);
      ++reported_;
    });
  }
  size_t reported() const { return reported_; }

 private:
  Output &output_;
  size_t reported_ = 0;
};

Exit watch(Invocation &invocation) {
  std::vector<std::string> addresses;  // each once
  for (const std::string &address : invocation.arguments.words()) {
    if (in_addr number; inet_pton(AF_INET, address.c_str(), &number) != 1)
      throw Failure(Exit::usage, "watch: " + address + " is no IPv4 address");
    if (std::find(addresses.begin(), addresses.end(), address) == addresses.end()) addresses.push_back(address);
  }
  const auto watcher = std::make_shared<Watcher>(invocation.output);
  for (const std::string &address : addresses) {
    watcher->print("watching", address);
    QELNKPingleton::sharedPingleton()->startWatchingIP(address, watcher);
  }
  invocation.session.waitUntil([&] { return watcher->reported() == addresses.size(); });
  return Exit::done;
}

}  // namespace

extern const Command watchCommand;
const Command watchCommand = {
    "watch",
    "Watches whether machines still answer, and ends when none of them does.",
    {"IP...", {}},
    [] {
      return std::string(
          "Each address is pinged every two seconds and is reported, once, when it misses a reply. With "
          "--log-level info the watches' own lines go to standard error.\n");
    },
    watch};

}  // namespace tool
