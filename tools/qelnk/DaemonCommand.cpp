#include <algorithm>

#include "Command.h"
#include "DaemonLink.h"
#include "DaemonVerbs.h"

namespace tool {
namespace {

/// The options of verbs stand among those of the command; one that is another verb's is a mistake.
Arguments argumentsOf(const Verb &verb, const Arguments &given) {
  for (const Verb &other : verbs())
    for (const Option &option : other.syntax.options) {
      const auto &own = verb.syntax.options;
      const bool known = std::any_of(own.begin(), own.end(), [&](const Option &o) { return o.name == option.name; });
      if (given.has(option.name) && !known)
        throw Failure(Exit::usage, "--" + std::string(option.name) + " goes with " + std::string(other.name));
    }
  Arguments arguments = given.forVerb(verb.syntax);
  if (verb.check) verb.check(arguments);
  return arguments;
}

/// Runs `action` and tells its failure, so that what comes after it is told after it.
template <class Action>
Exit outcomeOf(Action action) {
  try {
    action();
    return Exit::done;
  } catch (const Failure &failure) {
    if (*failure.what()) complain(failure.what());
    return failure.exit();
  }
}

Exit daemon(Invocation &invocation) {
  const Verb &verb = findVerb(invocation.arguments[0]);
  const Arguments arguments = argumentsOf(verb, invocation.arguments);
  DaemonLink::checkOptions(invocation.arguments);
  DaemonLink link(invocation);
  const Exit exit = outcomeOf([&] {
    link.connect();
    VerbCall call{arguments, link, invocation.session, invocation.output};
    verb.run(call);
  });
  const Exit end = outcomeOf([&] { link.close(exit); });
  return exit == Exit::done ? end : exit;
}

}  // namespace

extern const Command daemonCommand;
const Command daemonCommand = {
    "daemon",
    "Drives a processing daemon: one that runs already, or one that it launches and quits again.",
    {"VERB [ARGUMENT...]",
     {{"connect", "HOST:PORT", "drive the daemon that listens there"},
      {"spawn", "PROJECT", "launch a daemon with this project file, and quit it at the end"},
      {"bundle", "DIR", "the daemon's application bundle (default: the simulated daemon)"},
      {"base-port", "N", "the launched daemon's port, or the first to try (default: a free one)"},
      {"heap", "MB", "heap limit of the launched daemon"},
      {"web", "PORT", "have the launched daemon serve WebSocket clients there"},
      {"keep", "", "leave the launched daemon running"},
      {"count", "N", "watch: end after N updates"},
      {"for", "SECONDS", "watch: end after that time"}}},
    [] {
      return "verbs:\n" + helpForVerbs() +
             "\nOne of --connect and --spawn is needed. Workflows and ports are given by name, else by identifier. "
             "Values are JSON; other text is a string.\n";
    },
    daemon};

}  // namespace tool
