#pragma once

#include <QELNetworkKit/Process.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qelnk::test {

/// A machine with network, bus and service discovery daemon of its own: namespaces of this one, which end with this
/// process at the latest. Several test programs may have theirs at the same time.
///
/// Its bus is reached from outside too, since a socket's path leads across network namespaces: a program becomes one of
/// the machine's by taking its bus for the system's.
class AvahiMachine {
 public:
  /// `folder` is for its files. On the network it is `name`.local, on the interfaces given.
  AvahiMachine(const std::filesystem::path &folder, std::string name, const std::string &interfaces);
  ~AvahiMachine();
  AvahiMachine(const AvahiMachine &) = delete;
  AvahiMachine &operator=(const AvahiMachine &) = delete;

  /// Both return before the daemon is ready, which takes it about a second.
  void startBus();
  void startDaemon();
  /// Takes the daemon along, which is no use without.
  void endBus();
  void endDaemon(int signal = SIGTERM);
  /// For example SIGSTOP and SIGCONT.
  void signalDaemon(int signal) { daemon_->signal(signal); }

  std::filesystem::path busSocket() const { return folder_ / "bus"; }

  /// Starts a shell command in the machine's namespaces, on its bus; what it says goes to the log.
  std::shared_ptr<Process> start(const std::string &command) const;
  /// Runs one to its end, and returns what it wrote to its output.
  std::string outputOf(const std::string &command) const;
  /// What the bus, the daemon and the commands wrote, for a test that failed.
  std::string log() const;
  pid_t pid() const { return keeper_->pid(); }

 private:
  std::string inside(const std::string &command) const;

  const std::filesystem::path folder_;
  std::shared_ptr<Process> keeper_, bus_, daemon_;
};

/// Makes the bus that listens at `socket` this process's system bus for its lifetime; one at a time. Between them, and
/// with an empty path, there is none.
class SystemBus {
 public:
  explicit SystemBus(const std::filesystem::path &socket = {});
  ~SystemBus();
  SystemBus(const SystemBus &) = delete;
  SystemBus &operator=(const SystemBus &) = delete;
};

/// One machine, or two joined by cables. This process talks to the first one's daemon.
class AvahiNetwork {
 public:
  /// Without a cable there is one machine, alpha, with 127.0.0.1 and ::1 alone. Else there is beta too, and cable N is
  /// the interface veN at both ends, with 10.77.N.1 and fe80::N:1 at alpha's, 10.77.N.2 and fe80::N:2 at beta's.
  explicit AvahiNetwork(int cables = 0);
  ~AvahiNetwork();
  AvahiNetwork(const AvahiNetwork &) = delete;
  AvahiNetwork &operator=(const AvahiNetwork &) = delete;

  AvahiMachine &alpha() { return *machines_.at(0); }
  AvahiMachine &beta() { return *machines_.at(1); }
  void startAll();

  /// Namespaces are the administrator's to make. Empty when they can be made, else what to tell about a skipped test.
  static std::string missing();

 private:
  const std::filesystem::path folder_;
  std::optional<SystemBus> bus_;
  std::vector<std::unique_ptr<AvahiMachine>> machines_;
};

}  // namespace qelnk::test
