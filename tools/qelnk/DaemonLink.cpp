#include "DaemonLink.h"

#include <signal.h>

#include <algorithm>
#include <filesystem>

#include "DaemonLaunch.h"

namespace tool {
namespace {

constexpr std::chrono::milliseconds soon(5);

std::string howItEnded(const qelnk::Process &process) {
  const auto status = process.status();
  if (!status) return "";
  return (status->signalled ? " (signal " : " (exit code ") + std::to_string(status->code) + ")";
}

std::string secondsText(double seconds) {
  std::string text = std::to_string(seconds);
  text.erase(text.find_last_not_of('0') + 1);
  if (text.ends_with('.')) text.pop_back();
  return text + " s";
}

}  // namespace

void DaemonLink::checkOptions(const Arguments &arguments) {
  const auto fail = [](const std::string &text) { throw Failure(Exit::usage, text); };
  if (arguments.has("connect") == arguments.has("spawn")) fail("give either --connect HOST:PORT or --spawn PROJECT");
  for (const char *option : {"bundle", "base-port", "heap", "web", "keep"})
    if (arguments.has(option) && !arguments.has("spawn")) fail(std::string("--") + option + " goes with --spawn");
  arguments.integer("base-port", 1, 65535);
  arguments.integer("heap", 1, INT32_MAX);
  arguments.integer("web", 1, 65535);
  if (const auto peer = arguments.text("connect")) {
    const size_t colon = peer->rfind(':');
    if (colon == std::string::npos || colon == 0) fail("--connect takes HOST:PORT, not " + *peer);
    portArgument(std::string_view(*peer).substr(colon + 1));
  }
}

DaemonLink::DaemonLink(Invocation &invocation) : invocation_(invocation) {
  const Arguments &arguments = invocation.arguments;
  keep_ = arguments.has("keep");
  if (const auto peer = arguments.text("connect")) {
    const size_t colon = peer->rfind(':');
    host_ = peer->substr(0, colon);
    port_ = portArgument(std::string_view(*peer).substr(colon + 1));
  } else {
    launch();
  }
}

DaemonLink::~DaemonLink() {
  if (!closed_ && process_) endDaemon(1);
  // What was sent last, a "quit" perhaps, is on its way until the context has ended.
  client_.reset();
  QELNKContext::terminateSharedContext();
}

void DaemonLink::launch() {
  const Arguments &arguments = invocation_.arguments;
  const std::string project = *arguments.text("spawn");
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(project, ignored))
    throw Failure(Exit::failed, "there is no project file " + project);
  // A daemon that has the port already would be taken for the one launched here, and driven and quit in its place.
  const int64_t port = freePort(arguments.integer("base-port", 1, 65535).value_or(0));
  spawner_ = std::make_unique<QELNKOrlinDaemonSpawner>(arguments.text("bundle").value_or(defaultBundle()), port);
  const qelnk::Value properties =
      qelnk::Value::map({{QELNKOrlinDaemonMaxHeapSize, arguments.integer("heap", 1, INT32_MAX).value_or(0)},
                         {QELNKOrlinDaemonWebSocketPort, arguments.integer("web", 1, 65535).value_or(0)}});
  const LentStreams streams(keep_ ? LentStreams::Child::stays : LentStreams::Child::ends);
  try {
    const auto daemon = spawner_->spawnDaemonWithProject(project, properties);
    process_ = daemon->task();
    port_ = int32_t(daemon->port());
  } catch (const qelnk::ProcessError &error) {
    throw Failure(Exit::system, error.what());
  }
  if (!process_) throw Failure(Exit::failed, "there is no project file " + project);
}

void DaemonLink::connect() {
  client_ = DaemonClient::create();
  auto connected = std::make_shared<bool>(false);
  client_->connectToHost(host_, port_, [connected](auto &) { *connected = true; });
  await([&] { return *connected; });
  connected_ = true;
  client_->setRequestTimeout(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(invocation_.timeout)));
}

bool DaemonLink::alive() const { return !process_ || process_->isRunning(); }

void DaemonLink::failAlone() const {
  if (invocation_.session.stopped()) throw Failure(Exit::failed, "");
  if (!alive()) throw Failure(Exit::failed, "the daemon has ended" + howItEnded(*process_));
  throw Failure(Exit::unanswered, "no answer from " + host_ + ":" + std::to_string(port_) + " within " +
                                      secondsText(invocation_.timeout));
}

void DaemonLink::await(const std::function<bool()> &condition) {
  for (;;) {
    const uint64_t answered = client_->answered();
    const auto wait = invocation_.session.waitUntil(
        [&] { return condition() || !alive() || client_->answered() != answered; }, after(invocation_.timeout));
    if (condition()) return;
    if (wait != Session::Wait::done || !alive()) failAlone();
  }
}

void DaemonLink::perform(size_t requests, const std::function<void()> &command) {
  client_->takeRefusal();
  const uint64_t goal = client_->answered() + requests;
  command();
  // Every request ends, by its answer or by its own time-out. The callback of an empty message comes behind theirs, by
  // which the mirror has the answers.
  auto settled = std::make_shared<bool>(false);
  client_->scheduleMessage(std::make_shared<QELNKMessage>([settled](auto &, auto &) { *settled = true; }));
  invocation_.session.waitUntil([&] { return *settled || !alive(); });
  if (!*settled || client_->answered() < goal) failAlone();
  checkRefusal();
}

void DaemonLink::checkRefusal() {
  if (const auto refusal = client_->takeRefusal()) throw Failure(Exit::failed, *refusal);
}

void DaemonLink::quit() {
  hasQuit_ = true;
  client_->quit();
  const auto wait = invocation_.session.waitUntil([&] { return !client_->socket(); }, after(invocation_.timeout), soon);
  if (wait != Session::Wait::done) failAlone();
}

void DaemonLink::close(Exit exit) {
  closed_ = true;
  if (!process_) return;
  if (!hasQuit_ && !alive()) {
    if (exit != Exit::done) return;  // which is what has been told
    // Ctrl-C on a terminal asks the daemon as well, which is in the same process group.
    if (invocation_.session.stopped()) return;
    throw Failure(Exit::failed, "the daemon has ended by itself" + howItEnded(*process_));
  }
  if (!keep_ || !connected_ || hasQuit_) {
    if (!endDaemon(connected_ ? invocation_.timeout : std::min(1.0, invocation_.timeout)))
      throw Failure(Exit::failed, "");
    return;
  }
  const std::string pid = std::to_string(process_->pid());
  if (invocation_.output.json())
    invocation_.output.event("kept", {{"port", port_}, {"pid", process_->pid()}});
  else
    invocation_.output.line("kept  port " + std::to_string(port_) + "  pid " + pid);
}

/// Quits a launched daemon. One that does not end within `patience` seconds is terminated: false.
bool DaemonLink::endDaemon(double patience) {
  closed_ = true;
  Session &session = invocation_.session;
  const auto ended = [&] { return !process_->isRunning(); };
  session.acknowledgeStop();
  if (!hasQuit_ && client_) client_->quit();
  hasQuit_ = true;
  if (session.waitUntil(ended, after(patience), soon) == Session::Wait::done) return true;
  complain("the daemon on port " + std::to_string(port_) + " does not quit; it is terminated");
  session.acknowledgeStop();
  process_->signal(SIGTERM);
  if (session.waitUntil(ended, after(2), soon) != Session::Wait::done) {
    process_->signal(SIGKILL);
    process_->waitUntilExit();
  }
  return false;
}

}  // namespace tool
