// qelnk-soak: one process of a studio that runs for long, see scripts/soak.sh. Its words say which parts it has:
//   qelnk-soak seed=7 server=20001 clients=20002:6 publisher=20003 subscribers=20004:8 ...
// It obeys the lines "go", "rest", "heap" and "end" on standard input, and tells on standard output, in JSON, what it
// counts and what is not as it should be. The library's log goes to standard error.

#include <malloc.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <map>
#include <vector>

#include "Part.h"

using namespace std::chrono_literals;
using qelnk::Value;

namespace {

using Make = std::unique_ptr<soak::Part> (*)(const soak::Setting &);
const std::map<std::string_view, Make> kinds = {
    {"server", soak::requestServer},    {"clients", soak::requestClients},     {"publisher", soak::publisher},
    {"subscribers", soak::subscribers}, {"legacy-server", soak::legacyServer}, {"legacy-clients", soak::legacyClients},
    {"daemon", soak::daemonMirror},     {"launched", soak::launchedDaemons},   {"web-sockets", soak::webSockets},
    {"watches", soak::watches},
};

int numberOf(std::string_view text) {
  int number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

class Process {
 public:
  /// False for words that it does not know.
  bool makeParts(int count, char **words) {
    soak::Setting setting;
    for (int i = 1; i < count; ++i) {
      const std::string_view word = words[i];
      const size_t equals = std::min(word.find('='), word.size() - 1);
      const std::string_view name = word.substr(0, equals), rest = word.substr(equals + 1);
      const std::string_view text = rest.substr(std::min(rest.find(':'), rest.size() - 1) + 1);
      if (name == "seed") setting.seed = uint64_t(numberOf(rest));
      if (name == "pace") setting.pace = numberOf(rest);
      if (name == "seed" || name == "pace") continue;
      const auto kind = kinds.find(name);
      if (kind == kinds.end()) return false;
      setting.port = numberOf(rest);
      setting.text = text;
      setting.count = numberOf(text);
      ++setting.seed;
      parts_.push_back(kind->second(setting));
    }
    return true;
  }

  void run() {
    const auto loop = qelnk::RunLoop::main();
    const auto input = loop->watch(STDIN_FILENO, qelnk::Readiness::readable, [this](auto) { readCommands(); });
    const auto beat = loop->performAfter(
        20ms, [this] { this->beat(); }, 20ms);
    const auto count = loop->performAfter(
        1s, [this] { tellCounts(); }, 1s);
    soak::tell("ready");
    loop->run();
    for (const auto &source : {input, beat, count}) source->cancel();
    parts_.clear();
    QELNKContext::terminateSharedContext();
    QELNKWebSocket::waitUntilClosed(5s);
    soak::tell("end");
  }

 private:
  void readCommands() {
    char bytes[256];
    const ssize_t length = read(STDIN_FILENO, bytes, sizeof bytes);
    if (length <= 0) return qelnk::RunLoop::main()->stop();
    input_.append(bytes, size_t(length));
    for (size_t end; (end = input_.find('\n')) != std::string::npos; input_.erase(0, end + 1))
      obey(input_.substr(0, end));
  }

  void obey(const std::string &command) {
    if (command == "go") {
      isResting_ = false;
      for (auto &part : parts_) part->go();
    } else if (command == "rest") {
      isResting_ = true;
      hasToldQuiet_ = false;
      for (auto &part : parts_) part->rest();
    } else if (command == "heap") {
      const auto use = mallinfo2();
      soak::tell("heap", Value::map({{"bytes", uint64_t(use.uordblks + use.hblkhd)}}));
    } else if (command == "end") {
      qelnk::RunLoop::main()->stop();
    }
  }

  void beat() {
    const auto time = soak::now();
    lag_ = std::max(lag_, time - last_ - 20ms);
    last_ = time;
    for (auto &part : parts_) part->beat();
    if (!isResting_ || hasToldQuiet_) return;
    if (!std::all_of(parts_.begin(), parts_.end(), [](auto &part) { return part->isQuiet(); })) return;
    hasToldQuiet_ = true;
    soak::tell("quiet");
  }

  void tellCounts() {
    Value counts = soak::counters().asValue();
    soak::latencies().take(counts);
    counts.set("lag", std::chrono::duration<double, std::milli>(std::exchange(lag_, {})).count());
    soak::tell("counts", counts);
  }

  std::vector<std::unique_ptr<soak::Part>> parts_;
  std::string input_;
  bool isResting_ = false, hasToldQuiet_ = true;
  soak::Time last_ = soak::now();
  soak::Time::duration lag_{};
};

}  // namespace

int main(int count, char **words) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // nothing of a soak outlives its supervisor
  signal(SIGPIPE, SIG_IGN);
  QLGetHandle().setSink([](qelnk::LogLevel level, std::string_view line) {
    static const char *const names[] = {"debug", "standard", "error", "off"};
    std::fprintf(stderr, "%.3f %s %.*s\n", qelnk::Clock::system()->wallTime(), names[size_t(level)], int(line.size()),
                 line.data());
  });
  Process process;
  if (!process.makeParts(count, words)) {
    std::fprintf(stderr, "qelnk-soak is started by scripts/soak.sh\n");
    return 64;
  }
  process.run();
  return 0;
}
