#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/Process.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "platform/Guard.h"
#include "platform/LogFormat.h"
#include "platform/RunLoopThread.h"

extern "C" {  // the system's header lacks it
#include <sys/pidfd.h>
}

namespace qelnk {

namespace {

/// A descriptor of a process, closed with its last holder.
class ProcessDescriptor {
 public:
  explicit ProcessDescriptor(int fd) : fd_(fd) {}
  ~ProcessDescriptor() { close(fd_); }
  ProcessDescriptor(const ProcessDescriptor &) = delete;
  ProcessDescriptor &operator=(const ProcessDescriptor &) = delete;
  int get() const { return fd_; }

 private:
  const int fd_;
};

/// How a child begins: no descriptor but the standard three, and no trace of how the host handles its signals.
class SpawnSettings {
 public:
  SpawnSettings() {
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawn_file_actions_init(&actions_);
    error_ = posix_spawn_file_actions_addclosefrom_np(&actions_, 3);
    posix_spawnattr_init(&attributes_);
    posix_spawnattr_setsigmask(&attributes_, &none);
    posix_spawnattr_setsigdefault(&attributes_, &all);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~SpawnSettings() {
    posix_spawnattr_destroy(&attributes_);
    posix_spawn_file_actions_destroy(&actions_);
  }
  SpawnSettings(const SpawnSettings &) = delete;
  SpawnSettings &operator=(const SpawnSettings &) = delete;

  pid_t spawn(const std::string &executable, const std::vector<std::string> &arguments) const {
    std::vector<char *> argv{const_cast<char *>(executable.c_str())};
    for (const std::string &argument : arguments) argv.push_back(const_cast<char *>(argument.c_str()));
    argv.push_back(nullptr);
    pid_t pid = 0;
    const int error =
        error_ ? error_ : posix_spawn(&pid, executable.c_str(), &actions_, &attributes_, argv.data(), environ);
    if (error) throw ProcessError(executable, error);
    return pid;
  }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
  int error_ = 0;
};

class Child final : public Process, public std::enable_shared_from_this<Child> {
 public:
  /// `fd` is negative for a child that has ended already, its status taken by somebody else.
  Child(pid_t pid, int fd, TerminationHandler onExit)
      : pid_(pid), fd_(fd < 0 ? nullptr : std::make_shared<ProcessDescriptor>(fd)), onExit_(std::move(onExit)) {}

  pid_t pid() const override { return pid_; }
  bool isRunning() const override { return descriptor() != nullptr; }
  std::optional<Status> status() const override {
    const Lock lock(mutex_);
    return status_;
  }

  void waitUntilExit() override {
    const auto fd = descriptor();
    if (!fd) return;
    pollfd item{fd->get(), POLLIN, 0};
    while (poll(&item, 1, -1) < 0 && errno == EINTR) {
    }
    noteEnd();
  }

  bool signal(int number) override {
    const auto fd = descriptor();
    return fd && pidfd_send_signal(fd->get(), number, nullptr, 0) == 0;
  }

  /// On the service thread: sees to it that the end is noticed and the handler called.
  void watchEnd() {
    const auto fd = descriptor();
    if (!fd) return tellEnd();
    const auto source = std::make_shared<std::shared_ptr<LoopSource>>();
    try {  // the handler holds the descriptor open: a closed one would never tell
      *source =
          serviceLoop()->watch(fd->get(), Readiness::readable, [self = shared_from_this(), fd, source](Readiness) {
            (*source)->cancel();
            self->noteEnd();
            self->tellEnd();
          });
    } catch (const std::system_error &error) {  // out of descriptors, most likely; that passes
      logError("Process {} cannot be watched yet: {}", pid_, error.what());
      serviceLoop()->performAfter(std::chrono::seconds(1), [self = shared_from_this()] { self->watchEnd(); });
    }
  }

 private:
  std::shared_ptr<ProcessDescriptor> descriptor() const {
    const Lock lock(mutex_);
    return fd_;
  }

  /// Takes the status of the child, which has ended. Whoever comes first does so: a thread that waits for the end need
  /// not wait for the service thread, which may be the thread that waits.
  void noteEnd() {
    const Lock lock(mutex_);
    if (!fd_) return;
    siginfo_t info{};
    if (waitid(P_PIDFD, id_t(fd_->get()), &info, WEXITED) == 0)
      status_ = Status{info.si_status, info.si_code != CLD_EXITED};
    fd_ = nullptr;
  }

  void tellEnd() {
    if (const auto handler = std::exchange(onExit_, nullptr))
      runGuarded("Process termination handler", [&] { handler(shared_from_this()); });
  }

  const pid_t pid_;
  mutable Mutex mutex_;
  std::shared_ptr<ProcessDescriptor> fd_ QELNK_GUARDED_BY(mutex_);  // none once the child has ended
  std::optional<Status> status_ QELNK_GUARDED_BY(mutex_);
  TerminationHandler onExit_;  // the service thread's
};

const std::shared_ptr<RunLoop> &startedServiceLoop(const std::string &executable) try {
  return serviceLoop();
} catch (const std::system_error &error) {
  throw ProcessError(executable, error.code().value());
}

/// Ends a child that cannot be followed.
void giveUp(pid_t pid) {
  kill(pid, SIGKILL);
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace

ProcessError::ProcessError(const std::string &executable, int errorNumber)
    : std::runtime_error(executable + ": " + std::generic_category().message(errorNumber)), errorNumber_(errorNumber) {}

std::shared_ptr<Process> Process::launch(const std::string &executable, const std::vector<std::string> &arguments,
                                         TerminationHandler onExit) {
  const auto &loop = startedServiceLoop(executable);  // first: without it there must be no child
  const pid_t pid = SpawnSettings().spawn(executable, arguments);
  const int fd = pidfd_open(pid, 0);
  if (const int error = errno; fd < 0 && error != ESRCH) {
    giveUp(pid);
    throw ProcessError(executable, error);
  }
  auto child = std::make_shared<Child>(pid, fd, std::move(onExit));
  loop->perform([child] { child->watchEnd(); });
  return child;
}

}  // namespace qelnk
