// What it costs to have the library: the time from a process's start to main and to the first answer, and the memory,
// threads and work of processes in which nothing happens. Seen from outside; the programs are those of
// startup_probe.cpp.

#include <QELNetworkKit/Log.h>
#include <QELNetworkKit/QELNKLegacyStream.h>
#include <fcntl.h>
#include <spawn.h>

#include <boost/asio.hpp>
#include <boost/beast.hpp>
#include <list>
#include <memory>
#include <thread>

#include "Contest.h"
#include "DaemonProcess.h"
#include "Legacy.h"
#include "RoundTrips.h"
#include "StartUp.h"

namespace {

namespace asio = boost::asio;

using namespace bench;

/// One of the programs, which is killed with this.
class Probe {
 public:
  Probe(const std::string &program, std::vector<std::string> arguments) {
    static const std::string folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    const std::string path = folder + "/startup_" + program;
    std::vector<char *> words{const_cast<char *>(path.c_str())};
    for (std::string &argument : arguments) words.push_back(argument.data());
    words.push_back(nullptr);
    int ends[2];
    require(pipe2(ends, O_CLOEXEC) == 0, "pipe2");
    reports_ = ends[0];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    started_ = StartUpReport::now();
    errno = posix_spawn(&process_, path.c_str(), &actions, nullptr, words.data(), environ);
    require(errno == 0, "posix_spawn");
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
  }
  ~Probe() {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
    close(reports_);
  }
  Probe(const Probe &) = delete;
  Probe &operator=(const Probe &) = delete;

  /// Waits for its next report; gives the microseconds from its start until then.
  double microsecondsToReport() {
    StartUpReport report;
    require(read(reports_, &report, sizeof report) == sizeof report, "a program failed");
    port_ = report.port;
    return double(report.nanoseconds - started_) / 1e3;
  }
  int port() const { return port_; }
  std::string place() const { return "/proc/" + std::to_string(process_); }

 private:
  pid_t process_ = 0;
  int reports_ = -1, port_ = 0;
  int64_t started_ = 0;
};

// Start-up.

void toMain() {
  const auto entry = [](const char *program) {
    return TimedEntry{program, [=] {
                        std::vector<double> times;
                        for (int i = 0; i < 10; ++i) times.push_back(Probe(program, {}).microsecondsToReport());
                        return times;
                      }};
  };
  contestOfTimes("startup/main", {entry("ours"), entry("libraries"), entry("libzmq"), entry("empty")}, 21);
}

void toFirstAnswer() {
  const Echo echo;
  const auto entry = [&](const char *program) {
    return TimedEntry{program, [&echo, program] {
                        std::vector<double> times;
                        for (int i = 0; i < 5; ++i) {
                          Probe probe(program, {"request", std::to_string(echo.port())});
                          const double main = probe.microsecondsToReport();
                          times.push_back(probe.microsecondsToReport() - main);
                        }
                        return times;
                      }};
  };
  contestOfTimes("startup/first-answer", {entry("ours"), entry("libzmq")}, 21);
}

// Idle.

/// Accepts WebSockets and leaves them alone.
class WebSocketServer {
 public:
  WebSocketServer() {
    thread_ = std::thread([this] {
      namespace beast = boost::beast;
      boost::system::error_code error;
      while (!error) {
        asio::ip::tcp::socket socket(context_);
        acceptor_.accept(socket, error);
        if (error) return;
        sockets_.emplace_back(std::move(socket)).accept(error);
      }
    });
  }
  ~WebSocketServer() {
    shutdown(acceptor_.native_handle(), SHUT_RDWR);
    thread_.join();
  }
  int port() const { return acceptor_.local_endpoint().port(); }

 private:
  asio::io_context context_;
  asio::ip::tcp::acceptor acceptor_{context_, {asio::ip::address_v4::loopback(), 0}};
  std::list<boost::beast::websocket::stream<asio::ip::tcp::socket>> sockets_;
  std::thread thread_;
};

struct Use {
  double seconds = 0;
  double switches = 0;  // of the threads, wanted or not
  int threads = 0;
};

Use useOf(const Probe &probe) {
  Use use;
  for (const auto &task : std::filesystem::directory_iterator(probe.place() + "/task")) {
    std::string line;
    double nanoseconds = 0;
    std::ifstream(task.path() / "schedstat") >> nanoseconds;
    use.seconds += nanoseconds / 1e9;
    for (std::ifstream status(task.path() / "status"); std::getline(status, line);)
      if (const auto place = line.find("voluntary_ctxt_switches:"); place != line.npos)
        use.switches += std::atof(line.c_str() + line.find(':') + 1);
    ++use.threads;
  }
  return use;
}

double kibibytesOf(const Probe &probe, std::string_view what) {
  std::string line;
  for (std::ifstream status(probe.place() + "/status"); std::getline(status, line);)
    if (line.starts_with(what)) return std::atof(line.c_str() + what.size());
  return 0;
}

/// All at once: they do not disturb each other.
void idle(const DaemonProcess &daemon) {
  const Echo echo;
  const WebSocketServer webSockets;
  Context context;
  Socket publisher(context, ZMQ_PUB);
  const int publishing = publisher.bindToLoopback();
  struct Entry {
    std::string what, program;
    int port = 0;
    std::unique_ptr<Probe> probe{};
    Use before{};
  };
  std::vector<Entry> entries;
  entries.push_back({"nothing", "empty"});
  entries.push_back({"nothing", "libzmq"});
  entries.push_back({"nothing", "libraries"});
  entries.push_back({"nothing", "ours"});
  entries.push_back({"request", "libzmq", echo.port()});
  entries.push_back({"request", "ours", echo.port()});
  entries.push_back({"server", "ours"});
  entries.push_back({"publisher", "ours"});
  entries.push_back({"subscriber", "ours", publishing});
  entries.push_back({"daemon", "ours", daemon.port()});
  entries.push_back({"legacy", "ours"});
  entries.push_back({"websocket", "ours", webSockets.port()});
  entries.push_back({"watch", "ours"});
  std::vector<int> peers;
  for (Entry &entry : entries) {
    entry.probe = std::make_unique<Probe>(entry.program, std::vector{entry.what, std::to_string(entry.port)});
    for (int reports = 0; reports < 2; ++reports) entry.probe->microsecondsToReport();
    if (entry.what == "legacy") peers = connectPeers(uint16_t(entry.probe->port()), 1);
  }
  std::this_thread::sleep_for(3s);
  const auto start = Clock::now();
  for (Entry &entry : entries) entry.before = useOf(*entry.probe);
  std::this_thread::sleep_for(8s);
  const double time = seconds(Clock::now() - start);
  for (const Entry &entry : entries) {
    const Use use = useOf(*entry.probe);
    printRow("idle/" + entry.what, entry.program,
             {{"resident_kib", kibibytesOf(*entry.probe, "VmRSS:")},
              {"own_kib", kibibytesOf(*entry.probe, "RssAnon:")},
              {"threads", double(use.threads)},
              {"cpu_percent", 100 * (use.seconds - entry.before.seconds) / time},
              {"switches_per_second", (use.switches - entry.before.switches) / time}});
  }
  for (const int peer : peers) close(peer);
}

}  // namespace

int main() {
  const DaemonProcess daemon(10, 10);  // before there are threads
  QLGetHandle().setLevel(qelnk::LogLevel::off);
  toMain();
  toFirstAnswer();
  idle(daemon);
}
