#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "Options.h"
#include "Project.h"
#include "Router.h"
#include "WebServer.h"

namespace sim {

/// The daemon: answers commands, counts, and pushes the values of output ports to whom has registered for them, and to
/// every WebSocket client. Those may give the same commands, as JSON, and "watch", after which they are told of all
/// that changes. The fault switches are for the command port's clients alone.
///
/// One thread, beside that of the WebSocket clients.
class Simulator {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// Opens the project and binds the port; throws std::runtime_error.
  explicit Simulator(const Options &options);

  int port() const { return router_.port(); }
  int webPort() const { return web_ ? web_->port() : 0; }
  /// Serves until it is told to quit, `stopDescriptor` is readable or a fault switch ends it. Told to quit, it sends
  /// what is still delayed before it returns.
  void run(int stopDescriptor);

 private:
  struct Answer {
    qelnk::Value data;
    std::string error;  // empty for none
  };
  struct Delayed {
    Time due;
    Address to;
    qelnk::Data payload;
  };
  struct Counter {
    Workflow *workflow;
    Port *port;
    Time due;
  };

  enum class News { none, status, project };  // what there is to tell watchers, beside values of ports

  void receive(Time now);
  void receiveFromWeb(Time now);
  void serve(const Router::Request &request, Time now);
  void serve(const WebServer::Request &request, Time now);
  Answer answerToWeb(const WebServer::Request &request, const qelnk::Value &message);
  Answer perform(std::string_view command, const qelnk::Value &arguments, const Address &from);
  Answer openProject(std::string_view name);
  Answer saveProject(std::string_view name);
  Answer setPort(const qelnk::Value &arguments);
  Answer registerUpdates(std::string_view id, const Address &from, bool wanted);
  static qelnk::Value answerOf(Answer answer, const qelnk::Value &messageID);
  void reply(const Address &to, const qelnk::Value &messageID, Answer answer, Time now);
  void send(const Address &to, const qelnk::Value &message);

  void changed(const Port &input);
  void push(const Port &port);
  void publish(const qelnk::Value &message, WebServer::Audience audience);
  void tellOfChanges(Time now);
  qelnk::Value overview(bool withPorts);
  void forget(const Address &client);

  void collectCounters();
  void restartCounters(Time now);
  void count(Time now);
  void sendDelayed(Time now);
  long millisecondsToNextEvent(Time now) const;

  const Options options_;
  Project project_;
  Router router_;
  std::optional<WebServer> web_;
  std::map<std::string, std::set<Address>, std::less<>> registrations_;  // by port identifier
  std::vector<const Port *> toPush_;                                     // once the command at hand is answered
  News news_ = News::none;                                               // likewise
  std::deque<Delayed> delayed_;
  std::vector<Counter> counters_;
  uint64_t repliesMade_ = 0;
  bool quit_ = false;
};

}  // namespace sim
