#include "DaemonVerbs.h"

#include <algorithm>
#include <set>

#include "DaemonView.h"
#include "Notation.h"
#include "Table.h"

namespace tool {
namespace {

using WorkflowPointer = std::shared_ptr<QELNKOrlinWorkflow>;
using PortPointer = std::shared_ptr<QELNKOrlinPort>;

[[noreturn]] void fail(const std::string &text) { throw Failure(Exit::failed, text); }

WorkflowPointer workflowOf(VerbCall &call) {
  const std::string &name = call.arguments[0];
  if (auto workflow = call.link.client()->workflowWithName(name)) return workflow;
  if (auto workflow = call.link.client()->workflowWithID(name)) return workflow;
  fail("there is no workflow " + name);
}

PortPointer portOf(const QELNKOrlinWorkflow &workflow, const std::string &name) {
  if (auto port = workflow.portWithName(name)) return port;
  if (auto port = workflow.portWithID(name)) return port;
  fail("there is no port " + name + " in the workflow " + labelOf(workflow));
}

void show(VerbCall &call) { showTree(call.output, *call.link.client()); }

/// Asks which workflows execute. With the project some start and stop that the mirror knows nothing of, and a workflow
/// that it takes for idle is not stopped.
void updateExecuting(VerbCall &call) {
  const auto client = call.link.client();
  const auto take = [](const std::shared_ptr<QELNKClient> &client, const std::shared_ptr<QELNKMessage> &message) {
    if (!message->response()) return;
    for (const qelnk::Value &description : (*message->response())[QELNKKORVALData].items())
      if (const auto workflow =
              static_cast<DaemonClient &>(*client).workflowWithID(description[QELNKKORVALID].string()))
        workflow->setExecuting(description[QELNKKORVALStatus].boolValue());
  };
  call.link.perform(1, [&] { client->sendRequest(client->requestForCommand("getWorkflows"), take); });
}

void start(VerbCall &call) {
  call.link.perform(1, [&] { call.link.client()->startProject(nullptr); });
  updateExecuting(call);
  showProject(call.output, *call.link.client());
}

void stop(VerbCall &call) {
  call.link.perform(1, [&] { call.link.client()->stopProject(nullptr); });
  updateExecuting(call);
  showProject(call.output, *call.link.client());
}

void startWorkflow(VerbCall &call) {
  const auto workflow = workflowOf(call);
  call.link.perform(workflow->executing() ? 0 : 1, [&] { call.link.client()->startWorkflow(workflow); });
  showWorkflow(call.output, *workflow);
}

void stopWorkflow(VerbCall &call) {
  const auto workflow = workflowOf(call);
  call.link.perform(workflow->executing() ? 1 : 0, [&] { call.link.client()->stopWorkflow(workflow); });
  showWorkflow(call.output, *workflow);
}

void checkSet(const Arguments &arguments) {
  if (arguments.count() % 2 == 0) throw Failure(Exit::usage, "the port " + arguments.words().back() + " has no value");
}

/// Sets one port after the other, so that the time-out is for each reply and an event tells the value just confirmed.
void set(VerbCall &call) {
  const auto workflow = workflowOf(call);
  std::vector<std::pair<PortPointer, qelnk::Value>> settings;
  for (size_t index = 1; index < call.arguments.count(); index += 2)
    settings.emplace_back(portOf(*workflow, call.arguments[index]), parseArgument(call.arguments[index + 1]));
  for (const auto &[port, value] : settings) {
    call.link.perform(1, [&, &port = port, &value = value] { call.link.client()->setWorkflow(workflow, port, value); });
    showPort(call.output, *workflow, *port);
  }
}

void trigger(VerbCall &call) {
  const auto workflow = workflowOf(call);
  const auto port = portOf(*workflow, call.arguments[1]);
  const bool isTrigger = port->valueType() == QELNKOrlinPortValueType_trig;
  if (!isTrigger && port->valueType() != QELNKOrlinPortValueType_bool)
    fail("the port " + labelOf(*port) + " is of type " +
         std::string(QELNKOrlinPort::nameOfValueType(port->valueType())) +
         ": only trig and bool ports can be triggered");
  call.link.perform(isTrigger ? 1 : 2, [&] {
    call.link.client()->setWorkflow(workflow, port, true);
    if (!isTrigger) call.link.client()->setWorkflow(workflow, port, false);
  });
  showPort(call.output, *workflow, *port);
}

/// The pushed updates of some ports, shown as they come, from registering to unregistering.
class Watch {
 public:
  Watch(VerbCall &call, WorkflowPointer workflow, std::set<PortPointer> ports, int64_t count)
      : call_(call), workflow_(std::move(workflow)), ports_(std::move(ports)), left_(count) {
    client()->setPushHandler([this](auto &, auto &port, auto &value) { onPush(port, value); });
  }
  ~Watch() { client()->setPushHandler(nullptr); }
  Watch(const Watch &) = delete;
  Watch &operator=(const Watch &) = delete;

  /// Being asked to end is a good end from here on.
  void run() {
    try {
      askForEach("registerPortUpdate");
      Deadline end;
      if (const auto seconds = call_.arguments.seconds("for")) end = after(*seconds);
      const auto wait = call_.session.waitUntil([this] { return left_ == 0 || !call_.link.alive(); }, end);
      if (left_ != 0 && !call_.link.alive()) fail("the daemon has ended");
      if (wait != Session::Wait::stopped) askForEach("unregisterPortUpdate");
    } catch (const Failure &) {
      if (!call_.session.stopped()) throw;
    }
  }

 private:
  const std::shared_ptr<DaemonClient> &client() const { return call_.link.client(); }

  void onPush(const PortPointer &port, const std::optional<qelnk::Value> &value) {
    if (left_ == 0 || !ports_.contains(port)) return;
    --left_;
    showUpdate(call_.output, *workflow_, *port, value);
  }

  /// Sends a command for each port, by its identifier: names need not be unique.
  void askForEach(const char *command) {
    for (const auto &port : ports_) {
      qelnk::Value request = client()->requestForCommand(command);
      request.set(QELNKKORVALData, qelnk::Value::map({{QELNKKORVALID, port->uid().value_or("")}}));
      call_.link.perform(1, [&] { client()->sendRequest(std::move(request), nullptr); });
    }
  }

  VerbCall &call_;
  const WorkflowPointer workflow_;
  const std::set<PortPointer> ports_;
  int64_t left_;
};

int64_t countOf(const Arguments &arguments) { return arguments.integer("count", 1, INT64_MAX).value_or(INT64_MAX); }

void checkWatch(const Arguments &arguments) {
  countOf(arguments);
  arguments.seconds("for");
}

void watch(VerbCall &call) {
  const auto workflow = workflowOf(call);
  std::set<PortPointer> ports;
  for (size_t index = 1; index < call.arguments.count(); ++index) {
    const auto port = portOf(*workflow, call.arguments[index]);
    if (port->portType() != QELNKOrlinPortTypeOutput)
      fail("the port " + labelOf(*port) + " is an input: a daemon pushes the values of output ports");
    ports.insert(port);
  }
  Watch(call, workflow, std::move(ports), countOf(call.arguments)).run();
}

void load(VerbCall &call) {
  auto loaded = std::make_shared<bool>(false);
  call.link.client()->takeRefusal();
  call.link.client()->loadProject(call.arguments[0], [loaded](auto &) { *loaded = true; });
  call.link.await([&] { return *loaded; });
  call.link.checkRefusal();
  showProject(call.output, *call.link.client());
}

void save(VerbCall &call) {
  call.link.perform(1, [&] {
    if (call.arguments.count() == 0)
      call.link.client()->save();
    else
      call.link.client()->saveProject(call.arguments[0]);
  });
  showProject(call.output, *call.link.client());
}

void quit(VerbCall &call) {
  call.link.quit();
  if (call.output.json())
    call.output.event("quit");
  else
    call.output.line("quit");
}

void shell(VerbCall &call) {
  if (!runShell(call.link, call.session, call.output)) throw Failure(Exit::failed, "");
}

}  // namespace

std::span<const Verb> verbs() {
  static const Verb table[] = {
      {"show", {"", {}}, "show the project, its workflows and their ports", show},
      {"start", {"", {}}, "start the project", start},
      {"stop", {"", {}}, "stop the project", stop},
      {"start-workflow", {"WORKFLOW", {}}, "start a workflow", startWorkflow},
      {"stop-workflow", {"WORKFLOW", {}}, "stop a workflow", stopWorkflow},
      {"set",
       {"WORKFLOW PORT VALUE [PORT VALUE...]", {}},
       "set ports; text that is not JSON is a string",
       set,
       checkSet},
      {"trigger", {"WORKFLOW PORT", {}}, "trigger a trig port, or pulse a bool port", trigger},
      {"watch",
       {"WORKFLOW PORT...",
        {{"count", "N", "watch: end after N updates"}, {"for", "SECONDS", "watch: end after that time"}}},
       "print the values of output ports as the daemon pushes them",
       watch,
       checkWatch},
      {"load", {"NAME", {}}, "have the daemon open a project", load},
      {"save", {"[NAME]", {}}, "have the daemon save the project, under another name if one is given", save},
      {"quit", {"", {}}, "ask the daemon to exit", quit},
      {"shell", {"", {}}, "run the verbs that standard input holds, one a line", shell}};
  return table;
}

const Verb &findVerb(std::string_view name) {
  const auto found = std::find_if(verbs().begin(), verbs().end(), [&](const Verb &verb) { return verb.name == name; });
  if (found == verbs().end()) throw Failure(Exit::usage, "unknown verb " + std::string(name));
  return *found;
}

std::string helpForVerbs() {
  Table table;
  for (const Verb &verb : verbs()) {
    std::string usage = std::string(verb.name) + " " + std::string(verb.syntax.arguments);
    for (const Option &option : verb.syntax.options)
      usage += " [--" + std::string(option.name) + " " + std::string(option.value) + "]";
    table.add({usage, std::string(verb.summary)});
  }
  return table.text("  ");
}

}  // namespace tool
