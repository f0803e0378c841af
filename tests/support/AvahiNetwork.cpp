#include "support/AvahiNetwork.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "support/TestSupport.h"

namespace qelnk::test {

namespace fs = std::filesystem;

namespace {

constexpr const char *busVariable = "DBUS_SYSTEM_BUS_ADDRESS";

constexpr const char *busConfiguration =
    R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>system</type><listen>unix:path=@FOLDER@/bus</listen><auth>EXTERNAL</auth>
<policy context="default"><allow user="*"/><allow own="*"/><allow send_destination="*" eavesdrop="false"/>
<allow send_type="method_call"/><allow send_type="signal"/><allow send_type="method_return"/><allow send_type="error"/>
<allow receive_type="method_call"/><allow receive_type="signal"/><allow receive_type="method_return"/>
<allow receive_type="error"/></policy></busconfig>
)";

constexpr const char *daemonConfiguration = R"([server]
host-name=@NAME@
use-ipv4=yes
use-ipv6=yes
allow-interfaces=@INTERFACES@
ratelimit-interval-usec=1000000
ratelimit-burst=1000
[wide-area]
enable-wide-area=no
[publish]
publish-hinfo=no
publish-workstation=no
)";

void write(const fs::path &file, std::string text, const std::vector<std::pair<std::string, std::string>> &values) {
  for (const auto &[key, value] : values) text.replace(text.find(key), key.size(), value);
  std::ofstream(file) << text;
}

std::string quoted(const std::string &command) {
  std::string text = "'";
  for (const char c : command) c == '\'' ? text += "'\\''" : text += c;
  return text + '\'';
}

/// A child that does not outlive this process, whatever becomes of that.
std::shared_ptr<Process> shell(const std::string &command) {
  return Process::launch("/usr/bin/setpriv", {"--pdeathsig", "KILL", "/bin/sh", "-c", command});
}

void end(std::shared_ptr<Process> &process, int signal) {
  if (!process) return;
  process->signal(signal);
  process->waitUntilExit();
  process = nullptr;
}

void waitForFile(const fs::path &file) {
  if (!eventually([&] { return fs::exists(file); })) throw std::runtime_error(file.string() + " did not appear");
}

fs::path busLink() { return fs::temp_directory_path() / ("qelnk-bus-" + std::to_string(getpid())); }

fs::path makeFolder() {
  std::string name = (fs::temp_directory_path() / "qelnk-avahi-XXXXXX").string();
  if (!mkdtemp(name.data())) throw std::runtime_error("no temporary folder");
  return name;
}

}  // namespace

AvahiMachine::AvahiMachine(const fs::path &folder, std::string name, const std::string &interfaces)
    : folder_(folder / name) {
  fs::create_directory(folder_);
  write(folder_ / "bus.conf", busConfiguration, {{"@FOLDER@", folder_.string()}});
  write(folder_ / "avahi.conf", daemonConfiguration, {{"@NAME@", name}, {"@INTERFACES@", interfaces}});
  // The daemon wants a folder of its own below /run, and each machine has another daemon.
  keeper_ = shell("exec unshare -nm sh -c " +
                  quoted("mount -t tmpfs tmpfs /run && mkdir /run/avahi-daemon && mount -t sysfs sysfs /sys && "
                         "ip link set lo up && touch " +
                         (folder_ / "ready").string() + " && exec sleep infinity"));
  waitForFile(folder_ / "ready");
}

AvahiMachine::~AvahiMachine() {
  endBus();
  end(keeper_, SIGKILL);
}

std::string AvahiMachine::inside(const std::string &command) const {
  return std::string("export ") + busVariable + "=unix:path=" + busSocket().string() + "; exec nsenter -t " +
         std::to_string(pid()) + " -n -m sh -c " + quoted(command) + " 2>>" + (folder_ / "log").string();
}

std::shared_ptr<Process> AvahiMachine::start(const std::string &command) const {
  return shell(inside("exec " + command) + " >&2");
}

std::string AvahiMachine::outputOf(const std::string &command) const {
  const auto file = folder_ / "output";
  shell(inside(command) + " >" + file.string())->waitUntilExit();
  std::stringstream text;
  text << std::ifstream(file).rdbuf();
  return text.str();
}

std::string AvahiMachine::log() const {
  std::stringstream text;
  text << std::ifstream(folder_ / "log").rdbuf();
  return text.str();
}

void AvahiMachine::startBus() {
  fs::remove(busSocket());
  bus_ = start("dbus-daemon --nofork --nopidfile --config-file=" + (folder_ / "bus.conf").string());
  waitForFile(busSocket());
}

void AvahiMachine::startDaemon() {
  daemon_ = start("avahi-daemon --no-drop-root --no-chroot --no-proc-title --no-rlimits -f " +
                  (folder_ / "avahi.conf").string());
}

void AvahiMachine::endBus() {
  end(bus_, SIGKILL);
  end(daemon_, SIGKILL);  // it may hang when it is asked to end while it notices that its bus has gone
}
void AvahiMachine::endDaemon(int signal) { end(daemon_, signal); }

AvahiNetwork::AvahiNetwork(int cables) : folder_(makeFolder()) {
  std::string interfaces = cables ? "ve0" : "lo";
  for (int n = 1; n < cables; ++n) interfaces += ",ve" + std::to_string(n);
  machines_.push_back(std::make_unique<AvahiMachine>(folder_, "alpha", interfaces));
  if (cables) machines_.push_back(std::make_unique<AvahiMachine>(folder_, "beta", interfaces));
  for (int n = 0; n < cables; ++n) {
    const std::string number = std::to_string(n), cable = "ve" + number;
    alpha().outputOf("ip link add " + cable + " type veth peer name " + cable + " netns " +
                     std::to_string(beta().pid()));
    for (size_t end = 0; end < 2; ++end) {
      const std::string side = std::to_string(end + 1);
      machines_[end]->outputOf("ip link set " + cable + " addrgenmode none; ip link set " + cable +
                               " up; ip address add 10.77." + number + "." + side + "/24 dev " + cable +
                               "; ip address add fe80::" + number + ":" + side + "/64 dev " + cable + " nodad");
    }
  }
  bus_.emplace(alpha().busSocket());
}

AvahiNetwork::~AvahiNetwork() {
  machines_.clear();
  fs::remove_all(folder_);
}

void AvahiNetwork::startAll() {
  for (const auto &machine : machines_) {
    machine->startBus();
    machine->startDaemon();
  }
}

std::string AvahiNetwork::missing() {
  return geteuid() == 0 ? "" : "needs network namespaces of its own, which only root can make";
}

// The bus library reads the variable once in a process: the place stays, and a link there leads to the bus.
SystemBus::SystemBus(const fs::path &socket) {
  setenv(busVariable, ("unix:path=" + busLink().string()).c_str(), 1);
  fs::remove(busLink());  // of a program of that number that was killed
  if (!socket.empty()) fs::create_symlink(socket, busLink());
}

SystemBus::~SystemBus() { fs::remove(busLink()); }

}  // namespace qelnk::test
