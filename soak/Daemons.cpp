// Daemons: the mirror of one that is restarted again and again, and ones that are launched. Round after round a mirror
// is driven, and is then compared with what the daemon itself says of its project, over a WebSocket.

#include <csignal>
#include <thread>

#include "Part.h"

using namespace std::chrono_literals;
using qelnk::Value;

namespace soak {
namespace {

constexpr auto requestTimeout = 3s;

/// One connection to the daemon, until it is lost. All of it happens on the main thread.
class Session final : public QELNKWebSocketDelegate, public std::enable_shared_from_this<Session> {
  template <class Call>
  auto guarded(Call call) {
    return [self = weak_from_this(), call](auto &&...arguments) {
      const auto session = self.lock();
      if (session && !session->hasEnded) call(*session, arguments...);
    };
  }
  QELNKMessage::ResponseBlock checked(const char *what) {
    return guarded([what](Session &session, auto &, auto &message) {
      if (!message->response()) session.end(std::string(what) + ": " + message->error().description);
    });
  }

 public:
  std::shared_ptr<QELNKKORVALClient> client;
  bool hasEnded = false, isIdle = false;
  Time progress = now();

  void begin(int port, const std::string &webPort) {
    webSocket_ = QELNKWebSocket::create("ws://127.0.0.1:" + webPort, weak_from_this());
    client = QELNKKORVALClient::create(QELNKContext::sharedContext());
    client->setRequestTimeout(requestTimeout);
    watchConnection();
    client->connectToHost("127.0.0.1", port, guarded([](Session &session, auto &) { session.takeOver(); }));
  }

  /// Has the clock run, with its updates counted from nothing.
  void startRound() {
    isIdle = false;
    ask([](Session &session) {
      session.updates_ = 0;
      session.base_ = session.frames_->intValue();
      session.client->startProject(session.checked("startProject"));
      session.client->startWorkflow(session.clock());
      session.ask([](Session &begun) { begun.isDriven_ = true; });
    });
  }

  /// Sets each input to something.
  void drive(const std::function<int(int, int)> &between) {
    for (const auto &port : workflow_->ports()) {
      if (port->portType() != QELNKOrlinPortTypeInput) continue;
      set(port, between);
    }
    ask([](Session &) {});  // or the session ends: what is confirmed after the time-out, the daemon alone has
  }
  bool isDriven() const { return isDriven_; }

  /// Stops the clock, and compares when all that was asked for is done.
  void compare() {
    isDriven_ = false;
    client->stopWorkflow(clock());
    client->stopProject(checked("stopProject"));
    ask([](Session &session) {
      session.checkUpdates();
      session.webSocket_->sendString(R"({"command":"watch","messageID":77})");
    });
  }

  void end(const std::string &why) {
    if (!std::exchange(hasEnded, true)) failure("daemon", why);
  }
  void letGo() {
    if (client && frames_) client->unRegisterWorkflow(clock(), {"Frames"});
    webSocket_ = nullptr;
    client = nullptr;
  }

  void webSocketDidOpen(const std::shared_ptr<QELNKWebSocket> &) override {}
  void webSocketDidClose(const std::shared_ptr<QELNKWebSocket> &) override { end("lost its WebSocket"); }
  void webSocket(const std::shared_ptr<QELNKWebSocket> &, const std::string &text) override {
    const auto message = qelnk::jsonObject(text);
    if (message && (*message)["messageID"].integerValue() == 77) compareWith((*message)["data"]);
  }

 private:
  std::shared_ptr<QELNKOrlinWorkflow> clock() const { return client->workflowWithName("Clock"); }

  /// Whoever loses a daemon hears of it from a monitor: ZeroMQ connects again, but to another daemon.
  void watchConnection() {
    client->setSocketBlock([self = weak_from_this()](auto &endpoint, auto &) {
      const auto monitor = QELNKMonitor::create(endpoint->context());
      monitor->connectToSocket(endpoint, QELNKMonitorEventDisconnected);
      std::thread([monitor, self] {
        while (const uint16_t event = monitor->events())
          if (event == QELNKMonitorEventDisconnected)
            qelnk::RunLoop::main()->perform([self] {
              if (const auto session = self.lock()) session->end("lost its connection");
            });
      }).detach();
    });
  }

  /// The mirror is there: follow the outputs, and see that the clock stands still.
  void takeOver() {
    workflow_ = client->workflowWithName("Mixer");
    const auto ticking = clock();
    frames_ = ticking ? ticking->portWithName("Frames") : nullptr;
    if (!workflow_ || !frames_) return end("the mirror lacks a workflow");
    if (ticking->executing()) {
      // What it counts between the reading of its value and the registration nobody tells: begin with a clock at rest.
      client->stopWorkflow(ticking);
      return ask([](Session &session) { session.hasEnded = true; });
    }
    client->registerWorkflow(workflow_, {"Meter", "Caption", "Channel", "Muted", "Queue"},
                             guarded([](auto &&...) { ++counters().pushes; }));
    client->registerWorkflow(ticking, {"Frames"}, guarded([](Session &session, auto &&...) {
                               ++counters().pushes;
                               ++session.updates_;
                             }));
    startRound();
  }

  /// Calls `then` behind everything that was asked for, and behind what was pushed before the answer. It times out
  /// before the requests that were made just before it, so that all of them have been answered in time.
  template <class Call>
  void ask(Call then) {
    progress = now();
    client->sendRequest(client->requestForCommand("getProject"),
                        guarded([then](Session &session, auto &, auto &message) {
                          if (!message->response()) return session.end("getProject: " + message->error().description);
                          session.progress = now();
                          then(session);
                        }),
                        requestTimeout - 100ms);
  }

  void set(const std::shared_ptr<QELNKOrlinPort> &port, const std::function<int(int, int)> &between) {
    const int number = between(0, 1'000'000);
    Value value = number;
    if (port->valueType() == QELNKOrlinPortValueType_bool) value = number % 2 == 0;
    if (port->valueType() == QELNKOrlinPortValueType_doub) value = number / 3.0;
    if (port->valueType() == QELNKOrlinPortValueType_str_) value = "title " + std::to_string(number);
    if (port->valueType() == QELNKOrlinPortValueType_arry) value = Value::list({number, "clip", 0.5, false});
    client->setWorkflow(workflow_, port, value);
  }

  void checkUpdates() {
    const int64_t counted = frames_->intValue() - base_;
    if (updates_ != counted)
      finding("daemon",
              std::to_string(updates_) + " updates came of a counter that went on by " + std::to_string(counted));
  }

  void compareWith(const Value &state) {
    if (hasEnded) return;
    const Value &project = state["project"];
    // Another daemon by now: its predecessor's end is about to be told.
    if (project["name"].string() != client->projectName().value_or("")) return end("the daemon is another one");
    if (project["status"].boolValue() != client->running())
      finding("daemon", "the mirror's project differs in running");
    size_t workflows = 0;
    for (const Value &workflow : state["workflows"].items()) workflows += compareWorkflow(workflow);
    if (workflows != client->numberOfWorkflows()) finding("daemon", "the mirror has another number of workflows");
    ++counters().compared;
    progress = now();
    isIdle = true;
  }

  size_t compareWorkflow(const Value &theirs) {
    const auto ours = client->workflowWithID(theirs["id"].string());
    if (!ours) return 0;
    const auto name = std::string(theirs["name"].string());
    if (ours->name() != name || ours->executing() != theirs["status"].boolValue() ||
        ours->executeOnRun() != theirs["execute"].boolValue() || ours->numberOfPorts() != theirs["ports"].size())
      finding("daemon", "the mirror's workflow " + name + " differs: it " + (ours->executing() ? "executes" : "rests") +
                            " with " + std::to_string(ours->numberOfPorts()) + " ports, the daemon's is " +
                            theirs.description().substr(0, 100));
    for (const Value &port : theirs["ports"].items()) {
      const auto mirrored = ours->portWithID(port["id"].string());
      const auto value = mirrored ? mirrored->currentValue() : std::nullopt;
      if (!value || !(*value == port["value"]))
        finding("daemon", "port " + std::string(port["name"].string()) + " is " + port["value"].description() +
                              ", mirrored as " + (value ? value->description() : "none"));
    }
    return 1;
  }

  std::shared_ptr<QELNKWebSocket> webSocket_;
  std::shared_ptr<QELNKOrlinWorkflow> workflow_;
  std::shared_ptr<QELNKOrlinPort> frames_;
  int64_t updates_ = 0, base_ = 0;
  bool isDriven_ = false;
};

class DaemonMirror final : public Part {
 public:
  explicit DaemonMirror(const Setting &setting) : Part(setting) {}

  void beat() override {
    if (session_ && (!goes() || session_->hasEnded)) {
      session_->letGo();
      session_ = nullptr;
      next_ = after(100, 600);
    } else if (session_) {
      drive();
    } else if (goes() && now() > next_) {
      session_ = std::make_shared<Session>();
      session_->begin(setting_.port, setting_.text);
    }
  }
  bool isQuiet() const override { return !session_; }

 private:
  void drive() {
    if (session_->isDriven()) {
      if (compareAt_ == Time()) compareAt_ = after(500, 4'000);
      if (oneIn(5 * setting_.pace)) session_->drive([this](int low, int high) { return between(low, high); });
      if (now() < compareAt_) return;
      session_->compare();
    } else if (session_->isIdle) {
      if (oneIn(3)) {
        session_->letGo();
        session_ = nullptr;
      } else {
        session_->startRound();
      }
    } else if (now() - session_->progress > 8s) {
      session_->end("the daemon does not answer");
    }
    compareAt_ = Time();
  }

  std::shared_ptr<Session> session_;
  Time next_, compareAt_;
};

/// Launches a daemon after the other, each with a project of its own; some are told to quit, some are killed.
class LaunchedDaemons final : public Part {
 public:
  explicit LaunchedDaemons(const Setting &setting)
      : Part(setting),
        project_(setting.text.substr(setting.text.find(',') + 1)),
        spawner_(setting.text.substr(0, setting.text.find(',')), setting.port) {}

  void beat() override {
    if (launch_ && launch_->isDone) {
      launch_ = nullptr;
      next_ = after(1'000, 6'000);
      ++counters().launched;
    } else if (launch_ && !launch_->isEnding && (launch_->isDriven || now() > launch_->limit)) {
      end();
    } else if (!launch_ && goes() && now() > next_) {
      begin();
    }
  }
  bool isQuiet() const override { return !launch_ && spawner_.runningDaemons() == 0; }

 private:
  struct Launch {
    std::shared_ptr<QELNKKORVALDaemonClient> client;
    std::atomic<bool> isDriven{false}, isEnding{false}, isDone{false};
    std::atomic<int> waiting{0};
    Time limit;
  };

  void begin() {
    launch_ = std::make_shared<Launch>();
    launch_->limit = now() + 20s;
    launch_->client = spawner_.spawnConnectedDaemonWithProject(
        project_, Value::map(),
        [launch = std::weak_ptr(launch_)](auto &client) {
          const auto mixer = client->workflowWithName("Mixer");
          if (!mixer) return finding("launched", "the mirror of a launched daemon is not complete");
          client->registerWorkflow(mixer, {"Meter"}, [launch](auto &, auto &, auto &meter) {
            const auto driven = launch.lock();
            if (driven && meter->doubleValue() == 0.75) driven->isDriven = true;
          });
          client->setWorkflow(mixer, Value::map({{"Level", 0.75}}));
        },
        anyContext());
  }

  void end() {
    if (!launch_->isDriven) failure("launched", "a launched daemon does not do as it is told");
    launch_->isEnding = true;
    const auto task = launch_->client->daemon()->task();
    if (oneIn(3) && task) return kill(*task);
    std::thread([launch = launch_] {  // quit() waits for the daemon
      launch->client->quit();
      launch->client = nullptr;
      launch->isDone = true;
    })
        .detach();
  }

  /// What was asked for ends all the same when a daemon is killed, each once.
  void kill(qelnk::Process &task) {
    tell("fault", Value::map({{"peer", "launched"}, {"kind", "kill"}}));
    launch_->waiting = 3;
    for (int i = 0; i < 3; ++i)
      launch_->client->sendRequest(launch_->client->requestForCommand("getWorkflows"),
                                   [launch = launch_](auto &, auto &) {
                                     if (--launch->waiting == 0)
                                       std::thread([launch] {
                                         launch->client = nullptr;
                                         launch->isDone = true;
                                       }).detach();
                                   });
    task.signal(SIGKILL);
  }

  const std::string project_;
  QELNKOrlinDaemonSpawner spawner_;
  std::shared_ptr<Launch> launch_;
  Time next_;
};

}  // namespace

std::unique_ptr<Part> daemonMirror(const Setting &setting) { return std::make_unique<DaemonMirror>(setting); }
std::unique_ptr<Part> launchedDaemons(const Setting &setting) { return std::make_unique<LaunchedDaemons>(setting); }

}  // namespace soak
