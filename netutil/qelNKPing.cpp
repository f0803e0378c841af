#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/qelNKPing.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <set>

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
/// is the end of the process. A run that is told to finish but escapes leaves that to the next one.
class Signals {
 public:
  /// The process is told of the nearest time-out; none is zero.
  explicit Signals(std::chrono::seconds timeout) {
    const qelnk::Lock lock(mutex);
    if (runs++ == 0) {
      hasReply = false;
      for (size_t i = 0; i < std::size(numbers); ++i) {
        struct sigaction action {};
        action.sa_handler = numbers[i] == SIGQUIT ? onStatus : onFinish;
        action.sa_flags = SA_RESTART;
        sigaction(numbers[i], &action, &before[i]);
      }
    }
    if (timeout.count() == 0) return;
    timeout_ = timeouts->insert(Clock::now() + timeout);
    setAlarm();
  }
  ~Signals() {
    const qelnk::Lock lock(mutex);
    if (atEnd) return;
    if (timeout_) {
      timeouts->erase(*timeout_);
      setAlarm();
    }
    if (--runs == 0)
      for (size_t i = 0; i < std::size(numbers); ++i) sigaction(numbers[i], &before[i], nullptr);
  }
  Signals(const Signals &) = delete;
  Signals &operator=(const Signals &) = delete;

  static void ignore() {
    const qelnk::Lock lock(mutex);
    atEnd = true;
    signal(SIGINT, SIG_IGN);
    signal(SIGALRM, SIG_IGN);
  }

 private:
  using Clock = std::chrono::steady_clock;
  using Timeouts = std::multiset<Clock::time_point>;
  static void setAlarm() QELNK_REQUIRES(mutex) {
    if (timeouts->empty()) {
      alarm(0);
      return;
    }
    const auto left = std::chrono::ceil<std::chrono::seconds>(*timeouts->begin() - Clock::now());
    alarm(unsigned(std::max<int64_t>(1, left.count())));
  }

  static constexpr int numbers[] = {SIGINT, SIGALRM, SIGQUIT};
  static inline qelnk::Mutex mutex;
  static inline Timeouts *const timeouts QELNK_PT_GUARDED_BY(mutex) = new Timeouts;
  static inline int runs QELNK_GUARDED_BY(mutex) = 0;
  static inline bool atEnd QELNK_GUARDED_BY(mutex) = false;
  static inline struct sigaction before[std::size(numbers)] QELNK_GUARDED_BY(mutex);

  std::optional<Timeouts::iterator> timeout_;
};

void printTo(FILE *stream, std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stream);
  std::fflush(stream);
}

/// Two runs that end at once must not both run what is to be done at exit: the second waits for the end.
[[noreturn]] void endProcess(int code, std::string_view text) {
  static auto &once = *new qelnk::Mutex;
  once.lock();
  printTo(stderr, text);
  std::exit(code);
}

}  // namespace

int32_t qelNKPing(int argc, char *const argv[]) {
  const auto behindName = [](const char *text) {
    return std::string(program_invocation_short_name) + ": " + text + '\n';
  };
  try {
    // What only root may do is for those who are, not for whoever starts a program that has its rights.
    const auto options = PingOptions::parse({argv, argv + argc}, getuid() == 0);
    endsAtSecondSignal = !options.has(QELNKPingNumeric);
    qelnk::PingSurroundings surroundings;
    surroundings.isTool = true;
    surroundings.print = [](std::string_view text) { printTo(stdout, text); };
    surroundings.printError = [](std::string_view text) { printTo(stderr, text); };
    surroundings.mustFinish = [] { return finishing.load(); };
    surroundings.takeStatusRequest = [] { return statusAsked.exchange(false); };
    surroundings.willFinish = Signals::ignore;
    surroundings.replied = [] { hasReply = true; };
    Ping ping(options, surroundings);  // Ctrl-C ends the look-up of the name, which does not look at flags
    const Signals signals{std::chrono::seconds(options.timeout)};
    return ping.run();
  } catch (const PingExit &exit) {
    endProcess(exit.code(), exit.isUsage() || !*exit.what() ? exit.what() : behindName(exit.what()));
  } catch (const std::exception &failure) {
    endProcess(PingExit::system, behindName(failure.what()));
  }
}
