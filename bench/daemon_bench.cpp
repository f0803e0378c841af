// The client of a daemon under load: values pushed many times a second, a large mirror, the search for a port, and
// nothing to do at all. The daemons are processes of their own on raw libzmq.

#include <QELNetworkKit/Log.h>
#include <fcntl.h>

#include "DaemonProcess.h"

namespace {

using namespace bench;

constexpr int portsPerWorkflow = 50;

/// Counts the pushes that reach a callback, and how old they are then.
class Receiver {
 public:
  explicit Receiver(const std::shared_ptr<QELNKKORVALClient> &client, size_t most) : ages_(most, 0.f), client_(client) {
    for (const auto &workflow : client->workflows()) {
      std::vector<std::string> names;
      for (const auto &port : workflow->ports()) names.push_back(*port->name());
      client->registerWorkflow(workflow, names, [this](auto &, auto &, auto &port) { take(port->doubleValue()); });
    }
    while (client->pendingMessages() > 0) std::this_thread::sleep_for(10ms);
  }
  ~Receiver() { client_->disconnect(); }

  void expect(int64_t count) {
    received_ = 0;
    expected_ = count;
  }
  int64_t received() const { return received_; }
  void awaitAll() { require(all_.pass(), "pushes are missing"); }
  /// The ages of what came after the first `skipped`, in microseconds.
  std::vector<double> ages(int64_t skipped = 0) const { return {ages_.begin() + skipped, ages_.begin() + received_}; }

 private:
  void take(double sent) {
    const int64_t place = received_;
    ages_[size_t(place)] = float((timestamp() - sent) * 1e6);
    received_ = place + 1;
    if (place + 1 == expected_) all_.open();
  }

  std::vector<float> ages_;  // made beforehand, so that the process grows by what is measured alone
  std::atomic<int64_t> received_{0}, expected_{0};
  Gate all_;
  const std::shared_ptr<QELNKKORVALClient> client_;
};

// Each push writes a line, for it answers no request: what that costs depends on where the lines go.

void logNowhere() { QLGetHandle().setLevel(qelnk::LogLevel::off); }
void logToHost() {
  QLGetHandle().setLevel(qelnk::LogLevel::standard);
  QLGetHandle().setSink([](qelnk::LogLevel, std::string_view) {});
}
void logToStandardError() {
  QLGetHandle().setLevel(qelnk::LogLevel::standard);
  QLGetHandle().setSink(nullptr);
}

double share(const std::map<std::string, ThreadUse> &before, const std::map<std::string, ThreadUse> &after,
             const std::string &thread, double time) {
  const auto old = before.find(thread), now = after.find(thread);
  return now == after.end() ? 0 : 100 * (now->second.seconds - (old == before.end() ? 0 : old->second.seconds)) / time;
}

void pushedAtARate(DaemonProcess &daemon, const std::string &log, int64_t perSecond, int64_t length) {
  const auto client = connect(daemon);
  const int64_t count = perSecond * length, settled = perSecond * 2;
  Receiver receiver(client, size_t(count));
  receiver.expect(count);
  const auto start = Clock::now();
  daemon.push(count, perSecond);
  while (receiver.received() < settled) std::this_thread::sleep_for(10ms);
  const double residentBefore = residentKiB();
  const auto before = threadUse();
  const auto middle = Clock::now();
  receiver.awaitAll();
  const double time = seconds(Clock::now() - middle), resident = residentKiB();
  const auto after = threadUse();
  const auto ages = receiver.ages(settled);
  printRow("pushes/" + std::to_string(perSecond) + "-a-second/" + log, "qelnk",
           {{"per_second", double(count) / seconds(Clock::now() - start)},
            {"io_percent", share(before, after, ioThreadName, time)},
            {"callback_percent", share(before, after, callbackThreadName, time)},
            {"zmq_percent", share(before, after, "ZMQbg/IO/0", time)},
            {"grown_kib", resident - residentBefore},
            {"median_us", median(ages)},
            {"p99_us", quantile(ages, 0.99)}});
}

void pushedAsFastAsCan(DaemonProcess &daemon, const std::string &log, int64_t count) {
  const auto client = connect(daemon);
  Receiver receiver(client, size_t(count));
  const double residentBefore = residentKiB();
  double most = residentBefore;
  receiver.expect(count);
  const auto start = Clock::now();
  daemon.push(count, 0);
  for (; receiver.received() < count && Clock::now() - start < 60s; std::this_thread::sleep_for(10ms))
    most = std::max(most, residentKiB());
  receiver.awaitAll();
  printRow("pushes/as-fast-as-can/" + log, "qelnk",
           {{"per_second", double(count) / seconds(Clock::now() - start)},
            {"grown_kib", most - residentBefore},
            {"p99_us", quantile(receiver.ages(), 0.99)}});
}

/// What one push costs the io thread, which finds its port, at a rate that leaves it time.
void search(DaemonProcess &daemon) {
  constexpr int64_t count = 200000;
  const auto client = connect(daemon);
  const auto last = client->workflowWithIndex(client->numberOfWorkflows() - 1);
  const auto port = last->portWithIndex(last->numberOfPorts() - 1);
  const auto before = threadUse();
  const auto socketBefore = client->dataReceived();
  daemon.push(count, 100000);
  // Nobody is called back here; the last push has come when its port has its value and no more bytes come.
  for (uint64_t seen = socketBefore, now = 0; (now = client->dataReceived()) != seen || now == socketBefore; seen = now)
    std::this_thread::sleep_for(100ms);
  require(port->doubleValue() > 1, "the last port has no value");
  const auto after = threadUse();
  printRow("search/" + std::to_string(daemon.workflows()) + "-workflows", "qelnk",
           {{"io_ns", share(before, after, ioThreadName, 100) * 1e9 / double(count)}});
  client->disconnect();
}

void load(DaemonProcess &daemon) {
  const double residentBefore = residentKiB();
  const auto start = Clock::now();
  const auto client = connect(daemon);
  const double time = seconds(Clock::now() - start);
  size_t ports = 0;
  for (const auto &workflow : client->workflows()) ports += workflow->numberOfPorts();
  require(ports == size_t(daemon.workflows()) * portsPerWorkflow, "ports are missing");
  printRow("load/" + std::to_string(daemon.workflows()) + "-workflows", "qelnk",
           {{"seconds", time}, {"resident_kib", residentKiB() - residentBefore}, {"ports", double(ports)}});
  client->disconnect();
}

void idle(DaemonProcess &daemon, int seconds) {
  const auto client = connect(daemon);
  const auto before = threadUse();
  const double usedBefore = processSeconds();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  const double used = processSeconds() - usedBefore;
  const auto after = threadUse();
  const auto passes = after.at(ioThreadName).switches - before.at(ioThreadName).switches;
  printRow("idle/one-client", "qelnk",
           {{"cpu_percent", 100 * used / seconds}, {"passes_per_second", double(passes) / seconds}});
  client->disconnect();
}

}  // namespace

int main() {
  DaemonProcess one(1, portsPerWorkflow), hundred(100, portsPerWorkflow), thousand(1000, portsPerWorkflow);
  logNowhere();
  load(thousand);
  idle(one, 10);
  for (DaemonProcess *daemon : {&one, &hundred, &thousand}) search(*daemon);
  pushedAsFastAsCan(thousand, "log-off", 1000000);
  pushedAtARate(thousand, "log-off", 100000, 12);
  logToHost();
  pushedAtARate(thousand, "log-to-host", 100000, 12);
  // To a sink that costs the system next to nothing.
  require(dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO) >= 0, "dup2");
  logToStandardError();
  pushedAtARate(thousand, "log-to-stderr", 100000, 5);
}
