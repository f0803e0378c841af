#include <QELNetworkKit/qelNKPing.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "netutil/Ping.h"

using qelnk::Ping;
using qelnk::PingExit;
using qelnk::PingOptions;

namespace {

std::atomic<bool> finishing{false}, statusAsked{false};
std::atomic<bool> hasReply{false}, endsAtSecondSignal{true};

void onFinish(int signal) {
  if (signal == SIGINT && finishing && endsAtSecondSignal) _exit(hasReply ? 0 : 2);
  finishing = true;
}
void onStatus(int) { statusAsked = true; }

/// What signals mean while runs are under way; what they meant before comes back with the last one's end, unless that
/// is the end of the process.
class Signals {
 public:
  Signals() {
    const std::lock_guard lock(mutex);
    if (runs++ > 0) return;
    finishing = statusAsked = false;
    for (size_t i = 0; i < 3; ++i) {
      struct sigaction action {};
      action.sa_handler = numbers[i] == SIGQUIT ? onStatus : onFinish;
      sigaction(numbers[i], &action, &before[i]);
    }
  }
  ~Signals() {
    const std::lock_guard lock(mutex);
    if (--runs > 0 || atEnd) return;
    alarm(0);
    for (size_t i = 0; i < 3; ++i) sigaction(numbers[i], &before[i], nullptr);
  }
  Signals(const Signals &) = delete;
  Signals &operator=(const Signals &) = delete;

  static void ignore() {
    const std::lock_guard lock(mutex);
    atEnd = true;
    signal(SIGINT, SIG_IGN);
    signal(SIGALRM, SIG_IGN);
  }

 private:
  static constexpr int numbers[] = {SIGINT, SIGALRM, SIGQUIT};
  static inline std::mutex mutex;
  static inline int runs = 0;
  static inline bool atEnd = false;
  static inline struct sigaction before[3];
};

void printTo(FILE *stream, std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stream);
  std::fflush(stream);
}

}  // namespace

int32_t qelNKPing(int argc, char *const argv[]) {
  try {
    const auto options = PingOptions::parse({argv, argv + argc}, geteuid() == 0);
    endsAtSecondSignal = !options.has(QELNKPingNumeric);
    qelnk::PingSurroundings surroundings;
    surroundings.isTool = true;
    surroundings.print = [](std::string_view text) { printTo(stdout, text); };
    surroundings.printError = [](std::string_view text) { printTo(stderr, text); };
    surroundings.mustFinish = [] { return finishing.load(); };
    surroundings.takeStatusRequest = [] { return statusAsked.exchange(false); };
    surroundings.willFinish = Signals::ignore;
    surroundings.replied = [] { hasReply = true; };
    hasReply = false;
    Ping ping(options, surroundings);
    const Signals signals;
    if (options.timeout) alarm(unsigned(options.timeout));
    return ping.run();
  } catch (const PingExit &exit) {
    if (exit.isUsage())
      printTo(stderr, exit.what());
    else if (*exit.what())
      printTo(stderr, std::string(program_invocation_short_name) + ": " + exit.what() + '\n');
    std::exit(exit.code());
  } catch (const std::exception &failure) {
    printTo(stderr, std::string(program_invocation_short_name) + ": " + failure.what() + '\n');
    std::exit(PingExit::system);
  }
}
