// The client of a daemon under load: values pushed many times a second, a large mirror, the search for a port, and
// nothing to do at all. The daemons are processes of their own on raw libzmq.

#include <QELNetworkKit/Log.h>
#include <QELNetworkKit/MPMessagePack.h>
#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKKORVALClient.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <bit>
#include <csignal>
#include <cstring>
#include <memory>
#include <new>
#include <thread>

#include "Support.h"

namespace {

using namespace std::chrono_literals;
using bench::Clock;
using qelnk::Value;

constexpr int portsPerWorkflow = 50;

/// The time that a pushed value carries, on the clock that all processes share.
double timestamp() { return bench::seconds(Clock::now().time_since_epoch()); }

// The daemon's side.

/// What a daemon and the process that measures share.
struct Control {
  std::atomic<int> port{0};
  std::atomic<int64_t> pushes{0};     // set to have so many values pushed; 0 again when they have been
  std::atomic<int64_t> perSecond{0};  // 0 for as fast as the connection takes them
  std::atomic<bool> ended{false};
};

/// Answers what a client asks when it connects, and pushes values of all its ports in turn.
class Daemon {
 public:
  Daemon(Control &control, int workflows) : control_(control), socket_(context_, ZMQ_ROUTER) {
    socket_.set(ZMQ_ROUTER_MANDATORY, 1);  // nothing is dropped: a connection that is full makes it wait
    socket_.set(ZMQ_RCVTIMEO, 20);
    socket_.set(ZMQ_SNDTIMEO, 5000);
    describe(workflows);
    control_.port = socket_.bindToLoopback();
  }

  void serve() {
    while (!control_.ended) {
      bench::Frame identity, body;
      if (identity.receive(socket_) && body.receive(socket_)) answer(std::string(identity.bytes()), body.bytes());
      if (control_.pushes > 0) push();
    }
  }

 private:
  static std::string bytes(const Value &value) { return std::string(MPMessagePackWriter::writeObject(value).text()); }

  void describe(int workflows) {
    Value list = Value::list();
    for (int w = 0; w < workflows; ++w) {
      const std::string workflow = "w" + std::to_string(w);
      list.append(
          Value::map({{"id", workflow}, {"name", "Workflow " + workflow}, {"execute", true}, {"status", false}}));
      Value ports = Value::list();
      for (int p = 0; p < portsPerWorkflow; ++p) {
        const std::string number = std::to_string(p), port = workflow + ".p" + number;
        ports.append(Value::map({{"id", port},
                                 {"name", "Port " + number},
                                 {"portType", "output"},
                                 {"portValueType", "doub"},
                                 {"value", 0.25}}));
        // The eight bytes of the value come last.
        pushes_.push_back(
            bytes(Value::map({{"command", "portValueUpdate"}, {"data", Value::map({{"id", port}, {"value", 0.5}})}})));
      }
      ports_[workflow] = bytes(Value::map({{"data", ports}}));
    }
    workflows_ = bytes(list);
  }

  void answer(const std::string &identity, std::string_view body) {
    const auto request = qelnk::mp_dict(std::span(reinterpret_cast<const uint8_t *>(body.data()), body.size()));
    bench::require(request.has_value(), "not a request");
    client_ = identity;
    std::string data = "\xc0";
    const std::string_view command = (*request)["command"].string();
    if (command == "getProject")
      data = bytes(Value::map({{"name", "Project"}, {"file", "project.prj"}, {"status", true}}));
    if (command == "getWorkflows") data = workflows_;
    if (command == "getExposedPorts") data = ports_.at(std::string((*request)["data"]["id"].string()));
    std::string reply = bytes(Value::map({{"messageID", (*request)["messageID"]}, {"data", Value()}}));
    reply.pop_back();  // the nil
    send(reply + data);
  }

  void push() {
    const int64_t perSecond = control_.perSecond, count = control_.pushes;
    const auto start = Clock::now();
    for (int64_t sent = 0; sent < count && !control_.ended;) {
      // Paced: what a millisecond brings, then sleep until the next one.
      const int64_t due = perSecond > 0
                              ? std::min(count, int64_t(bench::seconds(Clock::now() - start) * double(perSecond)) + 1)
                              : count;
      for (; sent < due; ++sent) pushOne(pushes_[size_t(sent) % pushes_.size()]);
      if (perSecond > 0) std::this_thread::sleep_for(1ms);
    }
    control_.pushes = 0;
  }

  void pushOne(std::string &body) {
    const uint64_t bits = __builtin_bswap64(std::bit_cast<uint64_t>(timestamp()));
    std::memcpy(body.data() + body.size() - sizeof(bits), &bits, sizeof(bits));
    send(body);
  }

  void send(std::string_view body) {
    bench::require(bench::Frame(client_).send(socket_, ZMQ_SNDMORE), "the client has gone");
    bench::require(bench::Frame(body).send(socket_), "not sent");
  }

  Control &control_;
  bench::Context context_;
  bench::Socket socket_;
  std::string workflows_, client_;
  std::map<std::string, std::string> ports_;
  std::vector<std::string> pushes_;
};

/// A daemon's process. To be made before this process has other threads.
class DaemonProcess {
 public:
  explicit DaemonProcess(int workflows) : workflows_(workflows) {
    void *memory = mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    bench::require(memory != MAP_FAILED, "mmap");
    control_ = new (memory) Control;
    process_ = fork();
    bench::require(process_ >= 0, "fork");
    if (process_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      Daemon(*control_, workflows).serve();
      std::_Exit(0);
    }
    for (int i = 0; i < 1000 && port() == 0; ++i) std::this_thread::sleep_for(10ms);
    bench::require(port() != 0, "the daemon does not start");
  }
  ~DaemonProcess() {
    control_->ended = true;
    waitpid(process_, nullptr, 0);
    munmap(control_, sizeof(Control));
  }
  DaemonProcess(const DaemonProcess &) = delete;
  DaemonProcess &operator=(const DaemonProcess &) = delete;

  int workflows() const { return workflows_; }
  int port() const { return control_->port; }
  void push(int64_t count, int64_t perSecond) {
    control_->perSecond = perSecond;
    control_->pushes = count;
  }

 private:
  const int workflows_;
  Control *control_;
  pid_t process_;
};

// The client's side.

std::shared_ptr<QELNKKORVALClient> connect(const DaemonProcess &daemon) {
  auto client = QELNKKORVALClient::create(QELNKContext::contextWithBackgroundQueue());
  bench::Gate connected;
  client->connectToHost("127.0.0.1", daemon.port(), [&](auto &) { connected.open(); });
  bench::require(connected.pass(), "no connection");
  bench::require(client->numberOfWorkflows() == size_t(daemon.workflows()), "the mirror is not complete");
  return client;
}

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
  void awaitAll() { bench::require(all_.pass(), "pushes are missing"); }
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
  bench::Gate all_;
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

double share(const std::map<std::string, bench::ThreadUse> &before,
             const std::map<std::string, bench::ThreadUse> &after, const std::string &thread, double time) {
  const auto old = before.find(thread), now = after.find(thread);
  return now == after.end() ? 0 : 100 * (now->second.seconds - (old == before.end() ? 0 : old->second.seconds)) / time;
}

void pushedAtARate(DaemonProcess &daemon, const std::string &log, int64_t perSecond, int64_t seconds) {
  const auto client = connect(daemon);
  const int64_t count = perSecond * seconds, settled = perSecond * 2;
  Receiver receiver(client, size_t(count));
  receiver.expect(count);
  const auto start = Clock::now();
  daemon.push(count, perSecond);
  while (receiver.received() < settled) std::this_thread::sleep_for(10ms);
  const double residentBefore = bench::residentKiB();
  const auto before = bench::threadUse();
  const auto middle = Clock::now();
  receiver.awaitAll();
  const double time = bench::seconds(Clock::now() - middle), resident = bench::residentKiB();
  const auto after = bench::threadUse();
  const auto ages = receiver.ages(settled);
  bench::printRow("pushes/" + std::to_string(perSecond) + "-a-second/" + log, "qelnk",
                  {{"per_second", double(count) / bench::seconds(Clock::now() - start)},
                   {"io_percent", share(before, after, bench::ioThreadName, time)},
                   {"callback_percent", share(before, after, bench::callbackThreadName, time)},
                   {"zmq_percent", share(before, after, "ZMQbg/IO/0", time)},
                   {"grown_kib", resident - residentBefore},
                   {"median_us", bench::median(ages)},
                   {"p99_us", bench::quantile(ages, 0.99)}});
}

void pushedAsFastAsCan(DaemonProcess &daemon, const std::string &log, int64_t count) {
  const auto client = connect(daemon);
  Receiver receiver(client, size_t(count));
  const double residentBefore = bench::residentKiB();
  double most = residentBefore;
  receiver.expect(count);
  const auto start = Clock::now();
  daemon.push(count, 0);
  for (; receiver.received() < count && Clock::now() - start < 60s; std::this_thread::sleep_for(10ms))
    most = std::max(most, bench::residentKiB());
  receiver.awaitAll();
  bench::printRow("pushes/as-fast-as-can/" + log, "qelnk",
                  {{"per_second", double(count) / bench::seconds(Clock::now() - start)},
                   {"grown_kib", most - residentBefore},
                   {"p99_us", bench::quantile(receiver.ages(), 0.99)}});
}

/// What one push costs the io thread, which finds its port, at a rate that leaves it time.
void search(DaemonProcess &daemon) {
  constexpr int64_t count = 200000;
  const auto client = connect(daemon);
  const auto last = client->workflowWithIndex(client->numberOfWorkflows() - 1);
  const auto port = last->portWithIndex(last->numberOfPorts() - 1);
  const auto before = bench::threadUse();
  const auto socketBefore = client->dataReceived();
  daemon.push(count, 100000);
  // Nobody is called back here; the last push has come when its port has its value and no more bytes come.
  for (uint64_t seen = socketBefore, now = 0; (now = client->dataReceived()) != seen || now == socketBefore; seen = now)
    std::this_thread::sleep_for(100ms);
  bench::require(port->doubleValue() > 1, "the last port has no value");
  const auto after = bench::threadUse();
  bench::printRow("search/" + std::to_string(daemon.workflows()) + "-workflows", "qelnk",
                  {{"io_ns", share(before, after, bench::ioThreadName, 100) * 1e9 / double(count)}});
  client->disconnect();
}

void load(DaemonProcess &daemon) {
  const double residentBefore = bench::residentKiB();
  const auto start = Clock::now();
  const auto client = connect(daemon);
  const double time = bench::seconds(Clock::now() - start);
  size_t ports = 0;
  for (const auto &workflow : client->workflows()) ports += workflow->numberOfPorts();
  bench::require(ports == size_t(daemon.workflows()) * portsPerWorkflow, "ports are missing");
  bench::printRow(
      "load/" + std::to_string(daemon.workflows()) + "-workflows", "qelnk",
      {{"seconds", time}, {"resident_kib", bench::residentKiB() - residentBefore}, {"ports", double(ports)}});
  client->disconnect();
}

void idle(DaemonProcess &daemon, int seconds) {
  const auto client = connect(daemon);
  const auto before = bench::threadUse();
  const double usedBefore = bench::processSeconds();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  const double used = bench::processSeconds() - usedBefore;
  const auto after = bench::threadUse();
  const auto passes = after.at(bench::ioThreadName).switches - before.at(bench::ioThreadName).switches;
  bench::printRow("idle/one-client", "qelnk",
                  {{"cpu_percent", 100 * used / seconds}, {"passes_per_second", double(passes) / seconds}});
  client->disconnect();
}

}  // namespace

int main() {
  DaemonProcess one(1), hundred(100), thousand(1000);
  logNowhere();
  load(thousand);
  idle(one, 10);
  for (DaemonProcess *daemon : {&one, &hundred, &thousand}) search(*daemon);
  pushedAsFastAsCan(thousand, "log-off", 1000000);
  pushedAtARate(thousand, "log-off", 100000, 12);
  logToHost();
  pushedAtARate(thousand, "log-to-host", 100000, 12);
  // To a sink that costs the system next to nothing.
  bench::require(dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO) >= 0, "dup2");
  logToStandardError();
  pushedAtARate(thousand, "log-to-stderr", 100000, 5);
}
