#pragma once

#include <QELNetworkKit/QELNKKORVALClient.h>
#include <QELNetworkKit/Value.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace qelnk::test {

/// Descriptions as a daemon gives them.
Value workflowDescription(const std::string &id, bool executing = false);
Value portDescription(const std::string &id, const std::string &direction, const std::string &type, Value value = {});

/// A daemon of the command protocol in this process: raw ZeroMQ on a thread of its own, answering for a project that
/// the test describes. Everything may be called from any thread.
class FakeDaemon {
 public:
  /// Gets a request and the answers that the daemon would give; returns the messages that it gives instead.
  using Script = std::function<std::vector<Value>(const Value &request, std::vector<Value> answers)>;

  /// A project "show" in "show.prj" with the workflows and ports given: pairs of a description and its ports.
  using Workflows = std::vector<std::pair<Value, std::vector<Value>>>;
  explicit FakeDaemon(const Workflows &workflows = {}, uint16_t port = 0);
  ~FakeDaemon();

  int32_t port() const { return port_; }
  void setScript(Script script);
  void setWorkflows(const Workflows &workflows);
  /// Answers nothing any more.
  void fallSilent();
  /// Sends to the peer last heard.
  void send(const Value &message);
  void sendBytes(std::string bytes);

  /// What has come, in order; all of it, or one command's.
  std::vector<Value> requests() const;
  std::vector<Value> requests(std::string_view command) const;
  size_t count(std::string_view command) const { return requests(command).size(); }

 private:
  void serve();
  bool receive();
  std::vector<std::string> receiveFrames();
  void flush();
  std::vector<Value> answersTo(const Value &request) const;

  void *context_, *socket_;
  int32_t port_ = 0;
  int wake_;
  mutable std::mutex mutex_;  // guards what follows
  Value workflows_, ports_;   // a list, and the lists of ports under the identifiers
  Script script_;
  std::vector<Value> requests_;
  std::vector<std::string> outgoing_;
  std::string peer_;
  bool stopped_ = false;
  std::thread thread_;
};

/// The answer to a request.
Value answerTo(const Value &request, Value data = {});

/// Three workflows: "a" with ports of four kinds, "b" with two (one has the identifier of one of "a"), "c" with none.
FakeDaemon::Workflows exampleWorkflows();

/// A client whose mirror is complete, on a context with a queue of its own.
std::shared_ptr<QELNKKORVALClient> connectedClient(const FakeDaemon &daemon);

/// The only reference to a client that callbacks on other threads let go.
class LastReference {
 public:
  explicit LastReference(std::shared_ptr<QELNKKORVALClient> client) : weakly_(client), client_(std::move(client)) {}
  std::shared_ptr<QELNKKORVALClient> operator->() const {
    const std::lock_guard lock(mutex_);
    return client_;
  }
  void letGo() {
    std::shared_ptr<QELNKKORVALClient> client;  // ends after the lock
    const std::lock_guard lock(mutex_);
    client.swap(client_);
  }
  bool isDestroyed() const { return !operator->() && weakly_.expired(); }

 private:
  const std::weak_ptr<QELNKKORVALClient> weakly_;
  mutable std::mutex mutex_;
  std::shared_ptr<QELNKKORVALClient> client_;
};

}  // namespace qelnk::test
