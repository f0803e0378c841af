#include "Simulator.h"

#include <QELNetworkKit/JSON.h>
#include <QELNetworkKit/MPMessagePack.h>

#include <zmq.h>

#include <algorithm>
#include <cstdio>

#include "../qelnk/Exit.h"
#include "../qelnk/Notation.h"

namespace sim {

using qelnk::Value;

namespace {

// A byte that begins no MessagePack object.
constexpr uint8_t garbage[] = {0xC1, 0xC1, 0xC1};

void tell(const std::string &line) { std::fprintf(stderr, "orlin-sim: %s\n", line.c_str()); }

}  // namespace

Value Simulator::answerOf(Answer answer, const Value &messageID) {
  Value message = Value::map({{"messageID", messageID}, {"data", std::move(answer.data)}});
  if (!answer.error.empty()) message.set("error", answer.error);
  return message;
}

Simulator::Simulator(const Options &options)
    : options_(options), project_(Project::open(options.project)), router_(options.port) {
  if (options.webPort) web_.emplace(*options.webPort);
  collectCounters();
}

void Simulator::run(int stopDescriptor) {
  zmq_pollitem_t items[] = {{router_.socket(), 0, ZMQ_POLLIN, 0},
                            {nullptr, stopDescriptor, ZMQ_POLLIN, 0},
                            {nullptr, web_ ? web_->descriptor() : -1, ZMQ_POLLIN, 0}};
  while (!quit_) {
    zmq_poll(items, web_ ? 3 : 2, millisecondsToNextEvent(std::chrono::steady_clock::now()));
    if (items[1].revents != 0) return;
    const Time now = std::chrono::steady_clock::now();
    receive(now);
    receiveFromWeb(now);
    count(now);
    sendDelayed(now);
  }
  sendDelayed(Time::max());
}

/// Serves what has come in, but lets timers have their turn now and then.
void Simulator::receive(Time now) {
  for (int served = 0; served < 100 && !quit_; ++served) {
    const auto request = router_.receive();
    if (!request) return;
    serve(*request, now);
  }
}

void Simulator::receiveFromWeb(Time now) {
  for (int served = 0; web_ && served < 100 && !quit_; ++served) {
    const auto request = web_->receive();
    if (!request) return;
    serve(*request, now);
  }
}

void Simulator::serve(const Router::Request &request, Time now) {
  const std::span bytes(reinterpret_cast<const uint8_t *>(request.payload.data()), request.payload.size());
  qelnk::Error error;
  const auto message = qelnk::mp_dict(bytes, &error);
  if (!message) return tell("a frame that is no request is left out: " + error.description);
  const std::string_view command = (*message)["command"].string();
  Answer answer = perform(command, (*message)["data"], request.from);
  reply(request.from, (*message)["messageID"], std::move(answer), now);
  tellOfChanges(now);
}

void Simulator::serve(const WebServer::Request &request, Time now) {
  std::string answer;
  try {
    const Value message = tool::parseValue(request.text);
    answer = tool::textOf(answerOf(answerToWeb(request, message), message["messageID"]));
  } catch (const tool::Failure &problem) {
    // Its number may be readable all the same.
    const auto message = qelnk::jsonObject(request.text);
    const Value id = message ? (*message)["messageID"] : Value();
    answer = tool::textOf(answerOf({nullptr, problem.what()}, id.isInteger() || id.isString() ? id : Value()));
  }
  web_->send(request.from, std::move(answer));
  tellOfChanges(now);
}

Simulator::Answer Simulator::answerToWeb(const WebServer::Request &request, const Value &message) {
  if (!message["command"].isString()) return {nullptr, "this is no command"};
  // The page of any site can open a WebSocket to this machine.
  if (request.isForeign) return {nullptr, "commands are taken from programs and from this server's own page alone"};
  if (message["command"] != "watch") return perform(message["command"].string(), message["data"], {});
  web_->watch(request.from);
  return {overview(true), ""};
}

/// What the command at hand has changed.
void Simulator::tellOfChanges(Time now) {
  for (const Port *port : std::exchange(toPush_, {})) push(*port);
  const News news = std::exchange(news_, News::none);
  if (web_ && news != News::none)
    publish(Value::map({{"command", "projectUpdate"}, {"data", overview(news == News::project)}}),
            WebServer::Audience::watchers);
  restartCounters(now);
}

Value Simulator::overview(bool withPorts) {
  Value workflows = Value::list();
  for (const Workflow &workflow : project_.workflows()) {
    Value description = workflow.description();
    if (withPorts) description.set("ports", workflow.portDescriptions());
    workflows.append(std::move(description));
  }
  return Value::map({{"project", project_.description()}, {"workflows", std::move(workflows)}});
}

Simulator::Answer Simulator::perform(std::string_view command, const Value &arguments, const Address &from) {
  const std::string_view id = arguments["id"].string();
  if (command == "getProject") return {project_.description(), ""};
  if (command == "quit") {
    quit_ = true;
    return {nullptr, ""};
  }
  if (command == "startProject" || command == "stopProject") {
    command == "startProject" ? project_.start() : project_.stop();
    news_ = News::status;
    return {project_.description(), ""};
  }
  if (command == "openProject") return openProject(arguments["name"].string());
  if (command == "saveProject") return saveProject(arguments["name"].string());
  if (command == "getWorkflows") {
    Value list = Value::list();
    for (const Workflow &workflow : project_.workflows()) list.append(workflow.description());
    return {list, ""};
  }
  if (command == "setPortValue") return setPort(arguments);
  if (command == "registerPortUpdate" || command == "unregisterPortUpdate")
    return registerUpdates(id, from, command == "registerPortUpdate");

  Workflow *workflow = project_.workflow(id);
  if (command != "getExposedPorts" && command != "startWorkflow" && command != "stopWorkflow")
    return {nullptr, "unknown command " + std::string(command)};
  if (!workflow) return {nullptr, "there is no workflow " + std::string(id)};
  if (command == "getExposedPorts")
    return {Value::map({{"id", workflow->id}, {"data", workflow->portDescriptions()}}), ""};
  news_ = News::status;
  workflow->executing = command == "startWorkflow";
  return {workflow->description(), ""};
}

Simulator::Answer Simulator::openProject(std::string_view name) {
  try {
    project_ = Project::open(project_.fileNamed(name));
  } catch (const ProjectError &problem) {
    return {nullptr, problem.what()};
  }
  registrations_.clear();
  news_ = News::project;
  collectCounters();
  return {project_.description(), ""};
}

Simulator::Answer Simulator::saveProject(std::string_view name) {
  try {
    project_.save(project_.fileNamed(name));
    news_ = News::status;
  } catch (const ProjectError &problem) {
    return {nullptr, problem.what()};
  }
  return {project_.description(), ""};
}

Simulator::Answer Simulator::setPort(const Value &arguments) {
  const std::string_view id = arguments["id"].string();
  Port *port = project_.port(id);
  if (!port) return {nullptr, "there is no port " + std::string(id)};
  const auto value = port->converted(arguments["value"]);
  if (!value) return {nullptr, "the value does not fit port " + port->name + " of type " + port->valueType};
  port->value = *value;
  changed(*port);
  return {Value::map({{"id", port->id}, {"value", port->value}}), ""};
}

/// Has the ports that follow `input` take over its value.
void Simulator::changed(const Port &input) {
  toPush_.push_back(&input);
  for (Workflow &workflow : project_.workflows())
    for (Port &port : workflow.ports) {
      if (port.follow != input.id) continue;
      if (auto value = port.converted(input.value)) port.value = *value;
      toPush_.push_back(&port);
    }
}

Simulator::Answer Simulator::registerUpdates(std::string_view id, const Address &from, bool wanted) {
  const Port *port = project_.port(id);
  if (!port) return {nullptr, "there is no port " + std::string(id)};
  if (!port->output) return {nullptr, "the port " + port->name + " is an input"};
  if (from.empty()) return {Value::map({{"id", port->id}}), ""};  // WebSocket clients get every update as it is
  if (wanted)
    registrations_[port->id].insert(from);
  else
    registrations_[port->id].erase(from);
  return {Value::map({{"id", port->id}}), ""};
}

void Simulator::reply(const Address &to, const Value &messageID, Answer answer, Time now) {
  const Value message = answerOf(std::move(answer), messageID);
  ++repliesMade_;
  if (options_.garbageEvery != 0 && repliesMade_ % options_.garbageEvery == 0) router_.send(to, garbage);
  if (repliesMade_ > options_.dropReplies) {
    if (options_.delay.count() == 0)
      send(to, message);
    else
      delayed_.push_back({now + options_.delay, to, qelnk::mp_messagePack(message)});
  }
  if (options_.exitAfter != 0 && repliesMade_ >= options_.exitAfter)
    throw std::runtime_error("ends as --exit-after asks");
}

void Simulator::send(const Address &to, const Value &message) {
  if (!router_.send(to, qelnk::mp_messagePack(message).span())) forget(to);
}

void Simulator::push(const Port &port) {
  const auto registered = registrations_.find(port.id);
  if (registered == registrations_.end() && !web_) return;
  const Value message =
      Value::map({{"command", "portValueUpdate"}, {"data", Value::map({{"id", port.id}, {"value", port.value}})}});
  if (web_) publish(message, port.output ? WebServer::Audience::everyone : WebServer::Audience::watchers);
  if (registered == registrations_.end()) return;
  const std::set<Address> clients = registered->second;  // one that is gone is taken out meanwhile
  for (const Address &client : clients) send(client, message);
}

void Simulator::publish(const Value &message, WebServer::Audience audience) {
  try {
    web_->publish(tool::textOf(message), audience);
  } catch (const tool::Failure &problem) {
    tell(std::string("an update is not for WebSocket clients: ") + problem.what());
  }
}

void Simulator::forget(const Address &client) {
  for (auto &[id, clients] : registrations_) clients.erase(client);
}

void Simulator::collectCounters() {
  counters_.clear();
  for (Workflow &workflow : project_.workflows())
    for (Port &port : workflow.ports)
      if (port.every.count() > 0) counters_.push_back({&workflow, &port, Time::max()});
}

/// Gives the counters of workflows that execute since the last command their first due time.
void Simulator::restartCounters(Time now) {
  for (Counter &counter : counters_) {
    if (!counter.workflow->executing)
      counter.due = Time::max();
    else if (counter.due == Time::max())
      counter.due = now + counter.port->every;
  }
}

void Simulator::count(Time now) {
  for (Counter &counter : counters_) {
    if (counter.due > now) continue;
    Port &port = *counter.port;
    port.value = port.next();
    push(port);
    counter.due += port.every;
    // After a standstill it goes on from here instead of catching up.
    if (counter.due <= now) counter.due = now + port.every;
  }
}

void Simulator::sendDelayed(Time now) {
  while (!delayed_.empty() && delayed_.front().due <= now) {
    if (!router_.send(delayed_.front().to, delayed_.front().payload.span())) forget(delayed_.front().to);
    delayed_.pop_front();
  }
}

long Simulator::millisecondsToNextEvent(Time now) const {
  Time next = delayed_.empty() ? Time::max() : delayed_.front().due;
  for (const Counter &counter : counters_) next = std::min(next, counter.due);
  if (next == Time::max()) return -1;
  return long(std::max<int64_t>(0, std::chrono::ceil<std::chrono::milliseconds>(next - now).count()));
}

}  // namespace sim
