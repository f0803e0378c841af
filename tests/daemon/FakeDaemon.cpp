#include "daemon/FakeDaemon.h"

#include <QELNetworkKit/MPMessagePack.h>
#include <QELNetworkKit/QELNKContext.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <zmq.h>

#include <atomic>
#include <stdexcept>

#include "support/TestSupport.h"

namespace qelnk::test {

Value workflowDescription(const std::string &id, bool executing) {
  return Value::map({{"id", id}, {"name", "workflow " + id}, {"status", executing}, {"execute", true}});
}

Value portDescription(const std::string &id, const std::string &direction, const std::string &type, Value value) {
  return Value::map({{"id", id},
                     {"name", "port " + id},
                     {"portType", direction},
                     {"portValueType", type},
                     {"value", std::move(value)}});
}

Value answerTo(const Value &request, Value data) {
  return Value::map({{"messageID", request["messageID"]}, {"data", std::move(data)}});
}

FakeDaemon::Workflows exampleWorkflows() {
  return {{workflowDescription("a"),
           {portDescription("in", "input", "int_", 1), portDescription("out", "output", "doub", 0.5),
            portDescription("on", "input", "bool"), portDescription("go", "input", "trig")}},
          {workflowDescription("b", true),
           {portDescription("out", "output", "str_"), portDescription("text", "output", "str_", "x")}},
          {workflowDescription("c"), {}}};
}

std::shared_ptr<QELNKKORVALClient> connectedClient(const FakeDaemon &daemon) {
  const auto client = QELNKKORVALClient::create(QELNKContext::contextWithBackgroundQueue());
  std::atomic<bool> connected{false};
  client->connectToHost("localhost", daemon.port(), [&](const auto &) { connected = true; });
  if (!eventually([&] { return connected.load(); })) throw std::runtime_error("could not connect to the fake daemon");
  return client;
}

FakeDaemon::FakeDaemon(const Workflows &workflows, uint16_t port)
    : context_(zmq_ctx_new()),
      socket_(zmq_socket(context_, ZMQ_ROUTER)),
      wake_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  setWorkflows(workflows);
  const int none = 0;
  zmq_setsockopt(socket_, ZMQ_LINGER, &none, sizeof none);
  zmq_setsockopt(socket_, ZMQ_SNDHWM, &none, sizeof none);
  zmq_setsockopt(socket_, ZMQ_RCVHWM, &none, sizeof none);
  const std::string endpoint = "tcp://127.0.0.1:" + (port ? std::to_string(port) : "*");
  if (zmq_bind(socket_, endpoint.c_str()) != 0) throw std::runtime_error(zmq_strerror(zmq_errno()));
  char bound[256];
  size_t length = sizeof bound;
  zmq_getsockopt(socket_, ZMQ_LAST_ENDPOINT, bound, &length);
  port_ = std::stoi(std::string(bound).substr(std::string(bound).rfind(':') + 1));
  thread_ = std::thread([this] { serve(); });
}

FakeDaemon::~FakeDaemon() {
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
  }
  eventfd_write(wake_, 1);
  thread_.join();
  zmq_close(socket_);
  zmq_ctx_term(context_);
  close(wake_);
}

void FakeDaemon::setScript(Script script) {
  const std::lock_guard lock(mutex_);
  script_ = std::move(script);
}

void FakeDaemon::setWorkflows(const Workflows &workflows) {
  const std::lock_guard lock(mutex_);
  workflows_ = Value::list();
  ports_ = Value::map();
  for (const auto &[workflow, ports] : workflows) {
    Value list = Value::list();
    for (const Value &port : ports) list.append(port);
    workflows_.append(workflow);
    ports_.set(workflow["id"], std::move(list));
  }
}

void FakeDaemon::fallSilent() {
  setScript([](const Value &, std::vector<Value>) { return std::vector<Value>(); });
}

void FakeDaemon::send(const Value &message) { sendBytes(std::string(mp_messagePack(message).text())); }

void FakeDaemon::sendBytes(std::string bytes) {
  {
    const std::lock_guard lock(mutex_);
    outgoing_.push_back(std::move(bytes));
  }
  eventfd_write(wake_, 1);
}

std::vector<Value> FakeDaemon::requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

std::vector<Value> FakeDaemon::requests(std::string_view command) const {
  auto found = requests();
  std::erase_if(found, [&](const Value &request) { return request["command"] != Value(command); });
  return found;
}

void FakeDaemon::serve() {
  for (;;) {
    zmq_pollitem_t items[] = {{socket_, 0, ZMQ_POLLIN, 0}, {nullptr, wake_, ZMQ_POLLIN, 0}};
    zmq_poll(items, 2, -1);
    eventfd_t ignored;
    eventfd_read(wake_, &ignored);
    while (receive()) continue;
    flush();
    const std::lock_guard lock(mutex_);
    if (stopped_) return;
  }
}

std::vector<std::string> FakeDaemon::receiveFrames() {
  std::vector<std::string> frames;
  int more = 1;
  for (size_t length = sizeof more; more; zmq_getsockopt(socket_, ZMQ_RCVMORE, &more, &length)) {
    zmq_msg_t frame;
    zmq_msg_init(&frame);
    if (zmq_msg_recv(&frame, socket_, ZMQ_DONTWAIT) < 0) return {};
    frames.emplace_back(static_cast<const char *>(zmq_msg_data(&frame)), zmq_msg_size(&frame));
    zmq_msg_close(&frame);
  }
  return frames;
}

bool FakeDaemon::receive() {
  const auto frames = receiveFrames();
  if (frames.empty()) return false;
  // The identity that the socket puts in front and one frame of the message: anything else is not the protocol.
  const auto request = frames.size() == 2 ? mp_dict(Data(frames[1]).span()) : std::nullopt;
  if (!request) {
    ADD_FAILURE() << "not a request: " << frames.size() << " frames";
    return true;
  }
  Script script;
  std::vector<Value> answers;
  {
    const std::lock_guard lock(mutex_);
    peer_ = frames[0];
    requests_.push_back(*request);
    script = script_;
    answers = answersTo(*request);
  }
  if (script) answers = script(*request, std::move(answers));
  for (const Value &answer : answers) send(answer);
  return true;
}

void FakeDaemon::flush() {
  std::vector<std::string> outgoing;
  std::string peer;
  {
    const std::lock_guard lock(mutex_);
    outgoing.swap(outgoing_);
    peer = peer_;
  }
  for (const std::string &bytes : outgoing) {
    zmq_send(socket_, peer.data(), peer.size(), ZMQ_SNDMORE);
    zmq_send(socket_, bytes.data(), bytes.size(), 0);
  }
}

std::vector<Value> FakeDaemon::answersTo(const Value &request) const {
  const std::string_view command = request["command"].string();
  if (command == "quit") return {};
  Value data;
  if (command == "getProject" || command == "saveProject")
    data = Value::map({{"name", "show"}, {"file", "show.prj"}, {"status", 0}});
  if (command == "setPortValue") data = Value::map({{"value", request["data"]["value"]}});
  if (command == "getWorkflows") data = workflows_;
  if (command == "getExposedPorts") data = Value::map({{"data", ports_[request["data"]["id"].string()]}});
  return {answerTo(request, data)};
}

}  // namespace qelnk::test
