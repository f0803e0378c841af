#include <QELNetworkKit/QELNKOrlinDaemonSpawner.h>

#include <signal.h>
#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <vector>

#include "Command.h"
#include "DaemonLaunch.h"
#include "DaemonView.h"
#include "Demonstration.h"
#include "LegacyDemo.h"
#include "Notation.h"

namespace tool {
namespace {

using qelnk::Value;

constexpr char demoProject[] =
#include "DemoProject.inc"
    ;

/// A folder with the demonstration's project, gone at the end.
class DemoFolder {
 public:
  DemoFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qelnk-demo-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw Failure(Exit::system, "no temporary folder");
    path_ = pattern;
    std::ofstream file(project());
    file << demoProject;
    if (!file.flush()) throw Failure(Exit::system, "the demonstration's project cannot be written");
  }
  ~DemoFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  DemoFolder(const DemoFolder &) = delete;
  DemoFolder &operator=(const DemoFolder &) = delete;
  std::string project() const { return (path_ / "Demo.prj").string(); }

 private:
  std::filesystem::path path_;
};

/// The demonstration of daemon control.
class DaemonDemo : private Demonstration {
 public:
  explicit DaemonDemo(Invocation &invocation) : Demonstration(invocation) {}
  ~DaemonDemo() override { terminate(); }
  DaemonDemo(const DaemonDemo &) = delete;
  DaemonDemo &operator=(const DaemonDemo &) = delete;

  void run() {
    launch();
    start();
    setPorts();
    trigger();
    count();
    stop();
    quit();
  }

 private:
  using Workflow = std::shared_ptr<QELNKOrlinWorkflow>;
  using Port = std::shared_ptr<QELNKOrlinPort>;

  std::string lost() const override {
    return !quitting_ && process_ && !process_->isRunning() ? "the daemon has ended" : "";
  }

  Workflow workflow(const std::string &name) {
    auto found = client_->workflowWithName(name);
    if (!found) throw Failure(Exit::failed, "the mirror has no workflow " + name);
    return found;
  }
  Port port(const Workflow &workflow, const std::string &name) {
    auto found = workflow->portWithName(name);
    if (!found) throw Failure(Exit::failed, "the mirror has no port " + name);
    return found;
  }

  void launch() {
    spawner_ = std::make_unique<QELNKOrlinDaemonSpawner>(defaultBundle(), freePort());
    auto connected = std::make_shared<bool>(false);
    try {
      const LentStreams streams(LentStreams::Child::ends);
      client_ = spawner_->spawnConnectedDaemonWithProject(folder_.project(), Value::map(),
                                                          [connected](auto &) { *connected = true; });
    } catch (const qelnk::ProcessError &error) {
      throw Failure(Exit::system, error.what());
    }
    process_ = client_->daemon()->task();
    if (!process_) throw Failure(Exit::failed, "no daemon was started");
    step("launched a simulated daemon: process " + std::to_string(process_->pid()) + " on port " +
         std::to_string(client_->daemon()->port()));
    expect("the mirror of the daemon is loaded", [&] { return *connected; });
    expect("the mirror has both workflows", [&] { return client_->numberOfWorkflows() == 2; });
    step("loaded its mirror: " + std::to_string(client_->numberOfWorkflows()) + " workflows, " +
         std::to_string(workflow("Mixer")->numberOfPorts() + workflow("Clock")->numberOfPorts()) + " ports");
    showTree(output_, *client_);
  }

  void start() {
    step("start the project and its workflows");
    client_->startProject(nullptr);
    expect("the project runs", [&] { return client_->running(); });
    showProject(output_, *client_);
    for (const char *name : {"Mixer", "Clock"}) {
      const auto started = workflow(name);
      client_->startWorkflow(started);
      expect(std::string(name) + " executes", [&] { return started->executing(); });
      showWorkflow(output_, *started);
    }
  }

  /// Shows each push for these ports and keeps it.
  void follow(const Workflow &workflow, const std::vector<std::string> &ports) {
    client_->registerWorkflow(workflow, ports, [this](auto &, auto &pushed, auto &port) {
      const auto value = port->currentValue();
      updates_.emplace_back(port->name().value_or(""), value.value_or(Value()));
      showUpdate(output_, *pushed, *port, value);
    });
  }
  bool wasPushed(const std::string &port, const Value &value) const {
    return std::find(updates_.begin(), updates_.end(), std::pair(port, value)) != updates_.end();
  }

  /// Sets a port and waits for the daemon's confirmation and for the push of the port that follows it.
  void set(const Workflow &workflow, const std::string &name, const std::string &follower, const Value &value) {
    step("set " + name + " to " + textOf(value) + "; " + follower + " follows it");
    const auto changed = port(workflow, name);
    client_->setWorkflow(workflow, changed, value);
    expect(name + " is confirmed", [&] { return changed->currentValue() == value; });
    showPort(output_, *workflow, *changed);
    expect(follower + " is pushed", [&] { return wasPushed(follower, value); });
  }

  void setPorts() {
    const auto mixer = workflow("Mixer");
    step("watch the output ports of Mixer");
    follow(mixer, {"Meter", "Caption", "On air"});
    set(mixer, "Level", "Meter", 0.75);
    set(mixer, "Title", "Caption", "Evening news");
  }

  void trigger() {
    const auto mixer = workflow("Mixer");
    step("trigger Take; On air follows it");
    client_->triggerWorkflow(mixer, "Take");
    const auto take = port(mixer, "Take");
    expect("Take is confirmed", [&] { return take->boolValue(); });
    showPort(output_, *mixer, *take);
    expect("On air is pushed", [&] { return wasPushed("On air", true); });
  }

  std::vector<int64_t> pushes(const std::string &port) const {
    std::vector<int64_t> values;
    for (const auto &[name, value] : updates_)
      if (name == port) values.push_back(value.integerValue());
    return values;
  }

  void count() {
    step("watch the counter of Clock");
    const auto clock = workflow("Clock");
    follow(clock, {"Frames"});
    expect("Frames is pushed five times", [&] { return pushes("Frames").size() >= 5; });
    const auto values = pushes("Frames");
    if (!std::is_sorted(values.begin(), values.end()) || values.front() == values.back())
      throw Failure(Exit::failed, "Frames does not count up");
    client_->unRegisterWorkflow(clock, {"Frames"});
  }

  void stop() {
    step("stop the workflows and the project");
    for (const char *name : {"Clock", "Mixer"}) {
      const auto stopped = workflow(name);
      client_->stopWorkflow(stopped);
      expect(std::string(name) + " has stopped", [&] { return !stopped->executing(); });
      showWorkflow(output_, *stopped);
    }
    client_->stopProject(nullptr);
    expect("the project has stopped", [&] { return !client_->running(); });
    showProject(output_, *client_);
  }

  void quit() {
    step("quit the daemon");
    const pid_t pid = process_->pid();
    quitting_ = true;
    client_->QELNKKORVALClient::quit();  // the daemon client's own would wait for a daemon that hangs
    expect("the daemon has ended", [&] { return !process_->isRunning(); });
    expect("no daemon is tracked", [&] { return spawner_->runningDaemons() == 0; });
    const auto status = process_->status();
    if (!status || status->signalled || status->code != 0) throw Failure(Exit::failed, "the daemon did not end well");
    expect("nothing is left running", [&] { return kill(pid, 0) != 0 && errno == ESRCH; });
    step("process " + std::to_string(pid) + " has ended with exit code 0; nothing is left running");
  }

  /// Ends a daemon that a failed step left running.
  void terminate() {
    if (!process_ || !process_->isRunning()) return;
    session_.acknowledgeStop();
    client_->QELNKKORVALClient::quit();
    if (session_.waitUntil([&] { return !process_->isRunning(); }, after(1)) == Session::Wait::done) return;
    process_->signal(SIGKILL);
    process_->waitUntilExit();
  }

  const DemoFolder folder_;
  std::unique_ptr<QELNKOrlinDaemonSpawner> spawner_;
  std::shared_ptr<QELNKKORVALDaemonClient> client_;
  std::shared_ptr<qelnk::Process> process_;
  std::vector<std::pair<std::string, Value>> updates_;
  bool quitting_ = false;
};

Exit demo(Invocation &invocation) {
  DaemonDemo(invocation).run();
  runLegacyDemo(invocation);
  return Exit::done;
}

}  // namespace

extern const Command demoCommand;
const Command demoCommand = {
    "demo",
    "Shows the library at work on this machine alone: a simulated daemon, and legacy connections.",
    {"", {}},
    nullptr,
    demo};

}  // namespace tool
