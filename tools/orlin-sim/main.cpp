// orlin-sim: a simulated processing daemon for tests, demonstrations and the developers of hosts.

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "Options.h"
#include "Simulator.h"

namespace {

/// A descriptor that is readable once the daemon is asked to end.
int stopDescriptor() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGTERM, SIGINT}) {
    sigaddset(&signals, number);
    signal(number, SIG_DFL);  // who ignores them may have started this program
  }
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  return signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

int serve(const sim::Options &options) {
  const int stop = stopDescriptor();
  sim::Simulator simulator(options);
  if (options.port == 0) std::printf("listening on port %d\n", simulator.port());
  if (options.webPort == 0) std::printf("web clients on port %d\n", simulator.webPort());
  std::fflush(stdout);
  simulator.run(stop);
  return 0;
}

}  // namespace

int main(int count, char **words) {
  const std::vector<std::string> line(words + std::min(count, 1), words + count);
  if (line == std::vector<std::string>{"--help"}) {
    std::fputs(sim::usage, stdout);
    return 0;
  }
  try {
    return serve(sim::Options::parse(line, std::getenv("ORLIN_SIM_OPTIONS")));
  } catch (const sim::UsageError &problem) {
    std::fprintf(stderr, "orlin-sim: %s\n%s", problem.what(), sim::usage);
    return 64;
  } catch (const std::exception &problem) {
    std::fprintf(stderr, "orlin-sim: %s\n", problem.what());
    return 1;
  }
}
