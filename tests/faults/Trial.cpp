#include "faults/Trial.h"

#include <QELNetworkKit/Log.h>
#include <QELNetworkKit/Process.h>
#include <QELNetworkKit/RunLoop.h>
#include <QELNetworkKit/ZMQException.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <system_error>
#include <vector>

#include "support/TestSupport.h"

extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

using namespace std::chrono_literals;
using Steady = std::chrono::steady_clock;

namespace qelnk::test {

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int slowness = 4;
constexpr long everyNth = 5;  // of a fault's calls: the sanitizers take their time
#else
constexpr int slowness = 1;
constexpr long everyNth = 1;
#endif
constexpr auto patience = 10s * slowness;          // for what has to come
constexpr auto grace = 20ms;                       // for what may come although the host was told of a failure
constexpr auto shortageLasts = 250ms;              // of a fault that lasts, unless the host is told sooner
constexpr auto longestTrial = 3 * patience + 10s;  // beyond it the process hangs
constexpr size_t atOnce = 6;                       // trials wait more than they work

constexpr Steps descriptors =
    Step::socket | Step::accept | Step::eventfd | Step::epoll | Step::timerfd | Step::pipe | Step::open | Step::pidfd;

constexpr Steps only(Step step) { return step | step; }

constexpr Fault faults[] = {
    {"no descriptor, for one", only(Step::socket), EMFILE},
    {"no descriptor, for one", only(Step::accept), EMFILE},
    {"no descriptor, for one", only(Step::eventfd), EMFILE},
    {"no descriptor, for one", only(Step::epoll), EMFILE},
    {"no descriptor, for one", only(Step::timerfd), EMFILE},
    {"no descriptor, for one", only(Step::pipe), EMFILE},
    {"no descriptor, for one", only(Step::open), EMFILE},
    {"no descriptor, for one", only(Step::pidfd), EMFILE},
    {"no descriptors", descriptors, EMFILE, true},
    {"no network", only(Step::connect), ENETUNREACH},
    {"no network any more", only(Step::connect), ENETUNREACH, true},
    {"no local port", only(Step::connect), EADDRNOTAVAIL},
    {"address taken", only(Step::bind), EADDRINUSE},
    {"listening refused", only(Step::listen), EADDRINUSE},
    {"connection gone before it was accepted", only(Step::accept), ECONNABORTED},
    {"interrupted", only(Step::accept), EINTR},
    {"reset", only(Step::send), ECONNRESET},
    {"broken pipe", only(Step::send), EPIPE},
    {"interrupted", only(Step::send), EINTR},
    {"short", only(Step::send), 0, false, Fault::oneByte},
    {"always short", only(Step::send), 0, true, Fault::oneByte},
    {"reset", only(Step::receive), ECONNRESET},
    {"interrupted", only(Step::receive), EINTR},
    {"short", only(Step::receive), 0, false, Fault::oneByte},
    {"ended", only(Step::receive), 0, false, Fault::ends},
    {"no memory to watch", only(Step::epollWatch), ENOMEM},
    {"option refused", only(Step::option), ENOMEM},
    {"look-up fails", only(Step::lookup), EAI_AGAIN},
    {"look-up without memory", only(Step::lookup), EAI_MEMORY, true},
    {"no thread, for one", only(Step::thread), EAGAIN},
    {"no threads", only(Step::thread), EAGAIN, true},
    {"no process", only(Step::spawn), EAGAIN},
    {"no memory, for one", only(Step::memory), ENOMEM},
    {"no memory", only(Step::memory), ENOMEM, true},
};

std::string describe(const Fault &fault) {
  std::string text = fault.name;
  for (size_t step = 0; step < stepCount; ++step)
    if (fault.steps == only(Step(step))) text += " (" + std::string(nameOf(Step(step))) + ")";
  return text;
}

// What a process is told in, and tells at its end.
std::atomic<bool> told = false;
std::mutex linesMutex;
std::vector<std::string> lines;

void setLimit(rlim_t descriptorLimit) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::min(descriptorLimit, limit.rlim_max);
  setrlimit(RLIMIT_NOFILE, &limit);
}

rlim_t usualLimit = 0;
std::atomic<bool> limited = false;  // the system's own limit is lower, or was

/// Whether something has been refused, or may have been.
bool isRefused() { return hasStruck() || limited; }

/// What is to go wrong in a trial.
struct Mishap {
  const Fault *fault = nullptr;  // at this call
  long nth = 0;
  rlim_t descriptorLimit = 0;  // none if 0
  long threadLimit = -1;       // none if negative
  bool isOne() const { return fault || descriptorLimit || threadLimit >= 0; }

  void begin() const {
    limited = descriptorLimit != 0;
    if (fault) arm(*fault, nth);
    if (descriptorLimit) setLimit(descriptorLimit);
    if (threadLimit >= 0) limitThreads(threadLimit);
  }
};

}  // namespace

/// What a trial's process does, and what it reports.
class Course {
 public:
  struct Report {
    std::string problem;  // none if empty
    std::array<long, stepCount> steps{};
    size_t descriptors = 0;
    long threads = 0;
  };

  /// Runs the scenario with the mishap and without.
  static Report go(const Scenario &scenario, const Mishap &mishap, size_t mostDescriptors);
  static void lift() {
    disarm();
    setLimit(usualLimit);
  }
  static void write(int pipe, const Report &report);
  static Report read(const std::string &text);

 private:
  static std::string runOnce(const Scenario &scenario, const Mishap &mishap);
};

// In the trial's process.

void Trial::fail(const std::string &what) { throw std::logic_error(what); }

void Trial::tell() { told = true; }
bool Trial::wasTold() const { return told; }

void Trial::require(const char *what, bool ok) {
  if (ok) return;
  if (isClean_ || !isRefused()) fail(std::string(what) + " failed without cause");
  tell();
  throw GaveUp{};
}

void Trial::reach(const char *what, const std::function<bool()> &condition) {
  const bool recovers = failing_ && (failing_ & ~recoversFrom) == 0;
  const auto begin = Steady::now();
  std::optional<Steady::time_point> since;  // when the host was told
  const auto isOver = [&] {
    if (condition()) return true;
    if (isClean_) return false;
    if (!since && told && isRefused()) since = Steady::now();
    if (since || Steady::now() - begin > shortageLasts) Course::lift();
    return since && !recovers && Steady::now() - *since > grace;
  };
  if (!eventually(isOver, std::chrono::duration_cast<std::chrono::milliseconds>(patience)))
    fail(std::string(what) + " did not come" + (isClean_ ? "" : since ? ", nor later" : ", and nobody was told"));
  if (!condition()) throw GaveUp{};
}

std::string Course::runOnce(const Scenario &scenario, const Mishap &mishap) {
  Trial trial(mishap.fault ? mishap.fault->steps : 0, !mishap.isOne());
  std::string problem;
  try {
    scenario.run(trial);
  } catch (const Trial::GaveUp &) {
  } catch (const std::logic_error &wrong) {
    problem = wrong.what();
  } catch (const std::exception &thrown) {
    // Documented for what lacks memory or descriptors, and for ZeroMQ's objects and processes.
    const bool documented = dynamic_cast<const std::bad_alloc *>(&thrown) ||
                            dynamic_cast<const std::system_error *>(&thrown) ||
                            dynamic_cast<const ZMQException *>(&thrown) || dynamic_cast<const ProcessError *>(&thrown);
    if (!mishap.isOne() || !documented) problem = std::string("threw ") + thrown.what();
  }
  return problem;
}

Course::Report Course::go(const Scenario &scenario, const Mishap &mishap, size_t mostDescriptors) {
  QLGetHandle().setSink([](LogLevel level, std::string_view line) {
    const Immune immune;
    const std::lock_guard lock(linesMutex);
    lines.emplace_back(line);
    if (level == LogLevel::error) told = true;
  });
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  usualLimit = before.rlim_cur;
  countSteps();
  mishap.begin();
  Report report;
  report.problem = runOnce(scenario, mishap);
  lift();
  report.steps = stepsTaken();
  report.threads = mostThreads();
  const Immune immune;
  if (report.problem.empty()) {
    report.problem = runOnce(scenario, {});
    if (!report.problem.empty()) report.problem = "afterwards: " + report.problem;
  }
  if (report.problem.empty() && mostDescriptors &&
      !eventually([&] { return descriptorCount() <= mostDescriptors; }, 5s * slowness))
    report.problem = "left " + std::to_string(descriptorCount() - mostDescriptors) + " descriptors open";
  report.descriptors = descriptorCount();
  if (report.problem.empty() && __lsan_do_recoverable_leak_check && __lsan_do_recoverable_leak_check())
    report.problem = "leaks";
  if (!report.problem.empty()) {
    const std::lock_guard lock(linesMutex);
    for (const auto &line : lines) report.problem += "\n      " + line;
  }
  return report;
}

void Course::write(int pipe, const Report &report) {
  std::ostringstream text;
  text << report.descriptors << ' ' << report.threads;
  for (const long count : report.steps) text << ' ' << count;
  text << '\n' << report.problem;
  const std::string bytes = text.str();
  for (size_t at = 0; at < bytes.size();) {
    const ssize_t size = ::write(pipe, bytes.data() + at, bytes.size() - at);
    if (size <= 0) return;
    at += size_t(size);
  }
}

Course::Report Course::read(const std::string &text) {
  Report report;
  std::istringstream in(text);
  in >> report.descriptors >> report.threads;
  for (long &count : report.steps) in >> count;
  in.get();
  std::getline(in, report.problem, '\0');
  return report;
}

// In the test's process, which has no thread but one, for it forks.

namespace {

/// A trial under way.
class Child {
 public:
  Child(const Scenario &scenario, std::string name, const Mishap &mishap, size_t mostDescriptors)
      : name_(std::move(name)) {
    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC)) throw std::system_error(errno, std::generic_category());
    pid_ = fork();
    if (pid_ == 0) {
      dup2(pipe[1], 3);  // the only one beside the standard three, whatever others there are here
      close_range(4, ~0u, 0);
      const rlimit noCore{};
      setrlimit(RLIMIT_CORE, &noCore);
      Course::write(3, Course::go(scenario, mishap, mostDescriptors));
      _exit(0);
    }
    close(pipe[1]);
    pipe_ = pipe[0];
  }
  ~Child() { close(pipe_); }
  Child(const Child &) = delete;
  Child &operator=(const Child &) = delete;

  int pipe() const { return pipe_; }
  const std::string &name() const { return name_; }
  bool isLate() const { return Steady::now() > end_; }
  /// Takes what there is to read. Returns false once that was all.
  bool takeSome() {
    char bytes[4096];
    const ssize_t size = ::read(pipe_, bytes, sizeof bytes);
    if (size > 0) text_.append(bytes, size_t(size));
    return size > 0;
  }
  Course::Report finish(bool hangs) {
    if (hangs) kill(pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
    Course::Report report = Course::read(text_);
    if (hangs)
      report.problem = "hangs";
    else if (WIFSIGNALED(status))
      report.problem = std::string("ended by signal ") + strsignal(WTERMSIG(status));
    else if (WEXITSTATUS(status))
      report.problem += "\n      exit code " + std::to_string(WEXITSTATUS(status));
    return report;
  }

 private:
  const std::string name_;
  const Steady::time_point end_ = Steady::now() + longestTrial;
  pid_t pid_ = 0;
  int pipe_ = -1;
  std::string text_;
};

class Crowd {
 public:
  void add(std::unique_ptr<Child> child) {
    children_.push_back(std::move(child));
    while (children_.size() >= atOnce) serve();
  }
  std::string finish() {
    while (!children_.empty()) serve();
    return problems_;
  }

 private:
  void serve() {
    std::vector<pollfd> watched;
    for (const auto &child : children_) watched.push_back({child->pipe(), POLLIN, 0});
    poll(watched.data(), watched.size(), 100);
    size_t at = 0;
    for (auto child = children_.begin(); child != children_.end(); ++at) {
      const bool isOver = (watched[at].revents && !(*child)->takeSome()) || (*child)->isLate();
      if (isOver) {
        if (const auto report = (*child)->finish((*child)->isLate()); !report.problem.empty())
          problems_ += "  " + (*child)->name() + ": " + report.problem + "\n";
        child = children_.erase(child);
      } else {
        ++child;
      }
    }
  }

  std::list<std::unique_ptr<Child>> children_;
  std::string problems_;
};

Course::Report runClean(const Scenario &scenario) {
  Child child(scenario, "without a fault", {}, 0);
  while (!child.isLate() && child.takeSome()) {
  }
  return child.finish(child.isLate());
}

/// Whether this one is to be tried; with the environment variable only those whose name has its value.
bool isWanted(const std::string &name) {
  const char *wanted = std::getenv("QELNK_FAULT");
  return !wanted || name.find(wanted) != std::string::npos;
}

long callsOf(const Course::Report &report, Steps steps) {
  long calls = 0;
  for (size_t step = 0; step < stepCount; ++step)
    if (contains(steps, Step(step))) calls += report.steps[step];
  return calls;
}

/// Runs the scenario without a mishap, and then with all those that `mishaps` names to its second argument.
std::string tryEach(
    const Scenario &scenario,
    const std::function<void(const Course::Report &clean,
                             const std::function<void(const std::string &, const Mishap &)> &)> &mishaps) {
  const auto clean = runClean(scenario);
  if (!clean.problem.empty()) return "without a fault: " + clean.problem;
  Crowd crowd;
  mishaps(clean, [&](const std::string &name, const Mishap &mishap) {
    if (isWanted(name)) crowd.add(std::make_unique<Child>(scenario, name, mishap, clean.descriptors));
  });
  return crowd.finish();
}

}  // namespace

std::string tryOnce(const Scenario &scenario) { return runClean(scenario).problem; }

std::string tryAll(const Scenario &scenario) {
  return tryEach(scenario, [&](const Course::Report &clean, const auto &attempt) {
    long offset = 0;
    for (const Fault &fault : faults) {
      if (std::ranges::any_of(scenario.unfit,
                              [&](auto part) { return describe(fault).find(part) != std::string::npos; }))
        continue;
      const long calls = callsOf(clean, fault.steps);
      for (long nth = 1 + offset++ % everyNth; nth <= calls; nth += everyNth)
        attempt(fmt::format("{} at call {} of {}", describe(fault), nth, calls), {.fault = &fault, .nth = nth});
    }
  });
}

std::string tryLimits(const Scenario &scenario) {
  return tryEach(scenario, [&](const Course::Report &clean, const auto &attempt) {
    for (rlim_t limit = 4; !scenario.hasPeer && limit <= rlim_t(callsOf(clean, descriptors)) + 8; limit += everyNth)
      attempt(fmt::format("at most {} descriptors", limit), {.descriptorLimit = limit});
    for (long limit = 0; limit < clean.threads; ++limit)
      attempt(fmt::format("at most {} threads", limit), {.threadLimit = limit});
  });
}

}  // namespace qelnk::test
