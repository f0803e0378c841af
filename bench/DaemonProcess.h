#pragma once

#include <QELNetworkKit/MPMessagePack.h>
#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKKORVALClient.h>
#include <sys/mman.h>

#include <bit>
#include <cstring>
#include <memory>
#include <new>
#include <thread>

#include "Support.h"

/// Daemons that are processes of their own, on raw libzmq.
namespace bench {

using namespace std::chrono_literals;
using qelnk::Value;

/// The time that a pushed value carries, on the clock that all processes share.
inline double timestamp() { return seconds(Clock::now().time_since_epoch()); }

/// What a daemon and the process that measures share.
struct Control {
  std::atomic<int> port{0};
  std::atomic<int64_t> pushes{0};     // set to have so many values pushed; 0 again when they have been
  std::atomic<int64_t> perSecond{0};  // 0 for as fast as the connection takes them
  std::atomic<bool> ended{false};
};

/// Answers what a client asks when it connects, and pushes values of all its ports in turn.
class Daemon {
 public:
  Daemon(Control &control, int workflows, int portsEach) : control_(control), socket_(context_, ZMQ_ROUTER) {
    socket_.set(ZMQ_ROUTER_MANDATORY, 1);  // nothing is dropped: a connection that is full makes it wait
    socket_.set(ZMQ_RCVTIMEO, 20);
    socket_.set(ZMQ_SNDTIMEO, 5000);
    describe(workflows, portsEach);
    control_.port = socket_.bindToLoopback();
  }

  void serve() {
    while (!control_.ended) {
      Frame identity, body;
      if (identity.receive(socket_) && body.receive(socket_)) answer(std::string(identity.bytes()), body.bytes());
      if (control_.pushes > 0) push();
    }
  }

 private:
  static std::string bytes(const Value &value) { return std::string(MPMessagePackWriter::writeObject(value).text()); }

  void describe(int workflows, int portsEach) {
    Value list = Value::list();
    for (int w = 0; w < workflows; ++w) {
      const std::string workflow = "w" + std::to_string(w);
      list.append(
          Value::map({{"id", workflow}, {"name", "Workflow " + workflow}, {"execute", true}, {"status", false}}));
      Value ports = Value::list();
      for (int p = 0; p < portsEach; ++p) {
        const std::string number = std::to_string(p), port = workflow + ".p" + number;
        ports.append(Value::map({{"id", port},
                                 {"name", "Port " + number},
                                 {"portType", "output"},
                                 {"portValueType", "doub"},
                                 {"value", 0.25}}));
        // The eight bytes of the value come last.
        pushes_.push_back(
            bytes(Value::map({{"command", "portValueUpdate"}, {"data", Value::map({{"id", port}, {"value", 0.5}})}})));
      }
      ports_[workflow] = bytes(Value::map({{"data", ports}}));
    }
    workflows_ = bytes(list);
  }

  void answer(const std::string &identity, std::string_view body) {
    const auto request = qelnk::mp_dict(std::span(reinterpret_cast<const uint8_t *>(body.data()), body.size()));
    require(request.has_value(), "not a request");
    client_ = identity;
    std::string data = "\xc0";
    const std::string_view command = (*request)["command"].string();
    if (command == "getProject")
      data = bytes(Value::map({{"name", "Project"}, {"file", "project.prj"}, {"status", true}}));
    if (command == "getWorkflows") data = workflows_;
    if (command == "getExposedPorts") data = ports_.at(std::string((*request)["data"]["id"].string()));
    std::string reply = bytes(Value::map({{"messageID", (*request)["messageID"]}, {"data", Value()}}));
    reply.pop_back();  // the nil
    send(reply + data);
  }

  void push() {
    const int64_t perSecond = control_.perSecond, count = control_.pushes;
    const auto start = Clock::now();
    for (int64_t sent = 0; sent < count && !control_.ended;) {
      // Paced: what a millisecond brings, then sleep until the next one.
      const int64_t due =
          perSecond > 0 ? std::min(count, int64_t(seconds(Clock::now() - start) * double(perSecond)) + 1) : count;
      for (; sent < due; ++sent) pushOne(pushes_[size_t(sent) % pushes_.size()]);
      if (perSecond > 0) std::this_thread::sleep_for(1ms);
    }
    control_.pushes = 0;
  }

  void pushOne(std::string &body) {
    const uint64_t bits = __builtin_bswap64(std::bit_cast<uint64_t>(timestamp()));
    std::memcpy(body.data() + body.size() - sizeof(bits), &bits, sizeof(bits));
    send(body);
  }

  void send(std::string_view body) {
    require(Frame(client_).send(socket_, ZMQ_SNDMORE), "the client has gone");
    require(Frame(body).send(socket_), "not sent");
  }

  Control &control_;
  Context context_;
  Socket socket_;
  std::string workflows_, client_;
  std::map<std::string, std::string> ports_;
  std::vector<std::string> pushes_;
};

/// A daemon's process. To be made before this process has other threads.
class DaemonProcess {
 public:
  DaemonProcess(int workflows, int portsEach) : workflows_(workflows) {
    void *memory = mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    require(memory != MAP_FAILED, "mmap");
    control_ = new (memory) Control;
    process_ = fork();
    require(process_ >= 0, "fork");
    if (process_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      Daemon(*control_, workflows, portsEach).serve();
      std::_Exit(0);
    }
    for (int i = 0; i < 1000 && port() == 0; ++i) std::this_thread::sleep_for(10ms);
    require(port() != 0, "the daemon does not start");
  }
  ~DaemonProcess() {
    control_->ended = true;
    waitpid(process_, nullptr, 0);
    munmap(control_, sizeof(Control));
  }
  DaemonProcess(const DaemonProcess &) = delete;
  DaemonProcess &operator=(const DaemonProcess &) = delete;

  int workflows() const { return workflows_; }
  int port() const { return control_->port; }
  void push(int64_t count, int64_t perSecond) {
    control_->perSecond = perSecond;
    control_->pushes = count;
  }

 private:
  const int workflows_;
  Control *control_;
  pid_t process_;
};

inline std::shared_ptr<QELNKKORVALClient> connect(const DaemonProcess &daemon) {
  auto client = QELNKKORVALClient::create(QELNKContext::contextWithBackgroundQueue());
  Gate connected;
  client->connectToHost("127.0.0.1", daemon.port(), [&](auto &) { connected.open(); });
  require(connected.pass(), "no connection");
  require(client->numberOfWorkflows() == size_t(daemon.workflows()), "the mirror is not complete");
  return client;
}

}  // namespace bench
