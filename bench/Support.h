#pragma once

#include <sched.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// What the programs that measure messaging share: time, figures, threads and raw ZeroMQ.
namespace bench {

using Clock = std::chrono::steady_clock;

inline double microseconds(Clock::duration time) { return std::chrono::duration<double, std::micro>(time).count(); }
inline double seconds(Clock::duration time) { return std::chrono::duration<double>(time).count(); }

/// Ends the program when what it measures does not work: a figure of it would mean nothing.
inline void require(bool condition, const char *what) {
  if (condition) return;
  std::fprintf(stderr, "benchmark: %s (%s)\n", what, zmq_strerror(zmq_errno()));
  std::_Exit(1);
}

// Figures.

/// The value below which the given share of `samples` lies; 0.5 for the median.
inline double quantile(std::vector<double> samples, double share) {
  if (samples.empty()) return 0;
  const auto place = samples.begin() + std::ptrdiff_t(share * double(samples.size() - 1));
  std::nth_element(samples.begin(), place, samples.end());
  return *place;
}
inline double median(std::vector<double> samples) { return quantile(std::move(samples), 0.5); }

/// Prints one measured row, which scripts/bench_report.py reads: NAME PEER KEY=VALUE...
inline void printRow(const std::string &name, const std::string &peer,
                     std::initializer_list<std::pair<const char *, double>> figures) {
  std::printf("%s %s", name.c_str(), peer.c_str());
  for (const auto &[key, value] : figures) std::printf(" %s=%.6g", key, value);
  std::printf("\n");
  std::fflush(stdout);
}

// Threads.

/// Binds all threads of this process, and those that they start from now on, to one core, or to all.
inline void pin(bool toOneCore) {
  static const auto all = [] {
    cpu_set_t set;
    sched_getaffinity(0, sizeof(set), &set);
    return set;
  }();
  cpu_set_t one;
  CPU_ZERO(&one);
  for (int core = 0; core < CPU_SETSIZE && CPU_COUNT(&one) == 0; ++core)
    if (CPU_ISSET(core, &all)) CPU_SET(core, &one);
  for (const auto &task : std::filesystem::directory_iterator("/proc/self/task"))
    sched_setaffinity(std::atoi(task.path().filename().c_str()), sizeof(one), toOneCore ? &one : &all);
}

struct ThreadUse {
  double seconds = 0;     // time on a core
  uint64_t switches = 0;  // times that it went to sleep
};

/// What the threads of this process have used, those of one name taken together.
inline std::map<std::string, ThreadUse> threadUse() {
  std::map<std::string, ThreadUse> all;
  for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name, line;
    double nanoseconds = 0;
    std::getline(std::ifstream(task.path() / "comm"), name);
    std::ifstream(task.path() / "schedstat") >> nanoseconds;
    ThreadUse &use = all[name];
    use.seconds += nanoseconds / 1e9;
    for (std::ifstream status(task.path() / "status"); std::getline(status, line);)
      if (line.starts_with("voluntary_ctxt_switches:")) use.switches += std::strtoull(line.c_str() + 24, nullptr, 10);
  }
  return all;
}

/// The memory of this process.
inline double residentKiB() {
  std::string line;
  for (std::ifstream status("/proc/self/status"); std::getline(status, line);)
    if (line.starts_with("VmRSS:")) return std::atof(line.c_str() + 6);
  return 0;
}

/// What this process has used of a core.
inline double processSeconds() {
  timespec used{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return double(used.tv_sec) + double(used.tv_nsec) / 1e9;
}

/// The threads of a client of ours, as the system shows them.
constexpr const char *ioThreadName = "qelnk-client";
constexpr const char *callbackThreadName = ".networkcontext";

/// Waits until it has been opened; then it is closed again.
class Gate {
 public:
  void open() {
    const std::lock_guard lock(mutex_);
    isOpen_ = true;
    opened_.notify_one();
  }
  /// Returns false when that took longer than any honest result does.
  bool pass(std::chrono::seconds limit = std::chrono::seconds(60)) {
    std::unique_lock lock(mutex_);
    const bool opened = opened_.wait_for(lock, limit, [this] { return isOpen_; });
    isOpen_ = false;
    return opened;
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  bool isOpen_ = false;
};

/// Does it in a process whose memory nobody has used before. To be called while this one has no other threads.
inline void inFreshProcess(const std::function<void()> &work) {
  const pid_t process = fork();
  require(process >= 0, "fork");
  if (process == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    work();
    std::_Exit(0);
  }
  int status = 0;
  require(waitpid(process, &status, 0) == process && status == 0, "a process failed");
}

/// Lets this process have as many descriptors as it may.
inline void raiseDescriptorLimit() {
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  descriptors.rlim_cur = descriptors.rlim_max;
  setrlimit(RLIMIT_NOFILE, &descriptors);
}

// Raw ZeroMQ.

class Context {
 public:
  Context() : context_(zmq_ctx_new()) { require(context_ != nullptr, "zmq_ctx_new"); }
  ~Context() { zmq_ctx_term(context_); }
  Context(const Context &) = delete;
  Context &operator=(const Context &) = delete;
  void *get() const { return context_; }
  /// Ends what waits on its sockets, which are to be closed then.
  void shutdown() { zmq_ctx_shutdown(context_); }

 private:
  void *context_;
};

class Socket {
 public:
  Socket(const Context &context, int type) : socket_(zmq_socket(context.get(), type)) {
    require(socket_ != nullptr, "zmq_socket");
    set(ZMQ_LINGER, 0);
  }
  ~Socket() { zmq_close(socket_); }
  Socket(const Socket &) = delete;
  Socket &operator=(const Socket &) = delete;

  void *get() const { return socket_; }
  void set(int option, int value) {
    require(zmq_setsockopt(socket_, option, &value, sizeof(value)) == 0, "zmq_setsockopt");
  }
  void subscribe(std::string_view prefix) {
    require(zmq_setsockopt(socket_, ZMQ_SUBSCRIBE, prefix.data(), prefix.size()) == 0, "zmq_setsockopt");
  }
  /// Binds to a port of the system's choice on the loopback and returns it.
  int bindToLoopback() {
    require(zmq_bind(socket_, "tcp://127.0.0.1:*") == 0, "zmq_bind");
    char endpoint[64] = "";
    size_t size = sizeof(endpoint);
    require(zmq_getsockopt(socket_, ZMQ_LAST_ENDPOINT, endpoint, &size) == 0, "zmq_getsockopt");
    return std::atoi(std::string_view(endpoint).substr(std::string_view(endpoint).rfind(':') + 1).data());
  }
  /// A publisher waits rather than drop what it has no room for.
  void waitForRoom() { set(ZMQ_XPUB_NODROP, 1); }
  void connectToLoopback(int port) {
    require(zmq_connect(socket_, ("tcp://127.0.0.1:" + std::to_string(port)).c_str()) == 0, "zmq_connect");
  }

 private:
  void *socket_;
};

/// A ZeroMQ message that closes itself.
class Frame {
 public:
  Frame() { zmq_msg_init(&message_); }
  explicit Frame(std::string_view bytes) {
    zmq_msg_init_size(&message_, bytes.size());
    std::memcpy(zmq_msg_data(&message_), bytes.data(), bytes.size());
  }
  ~Frame() { zmq_msg_close(&message_); }
  Frame(const Frame &) = delete;
  Frame &operator=(const Frame &) = delete;

  bool receive(const Socket &socket, int flags = 0) { return zmq_msg_recv(&message_, socket.get(), flags) >= 0; }
  /// Leaves it empty once it has been sent.
  bool send(const Socket &socket, int flags = 0) { return zmq_msg_send(&message_, socket.get(), flags) >= 0; }
  std::string_view bytes() const {
    return {static_cast<const char *>(zmq_msg_data(&message_)), zmq_msg_size(&message_)};
  }

 private:
  mutable zmq_msg_t message_;
};

/// What programs by hand are written with, by the names that other libraries' have here, too.
struct RawZMQ {
  using Context = bench::Context;
  using Socket = bench::Socket;
  using Frame = bench::Frame;
  /// Returns false once the context has been shut down.
  static bool poll(zmq_pollitem_t *items, size_t count, int milliseconds) {
    return zmq_poll(items, int(count), milliseconds) >= 0 || zmq_errno() == EINTR;
  }
};

}  // namespace bench
