#include <QELNetworkKit/PQODictionary.h>
#include <QELNetworkKit/QELNKKORVALClient.h>
#include <QELNetworkKit/Queue.h>
#include <QELNetworkKit/ZMQSocket.h>

#include "daemon/Description.h"
#include "daemon/Mirror.h"
#include "daemon/QELNKKORVALLoad.h"
#include "platform/LogFormat.h"

using qelnk::Value;
using Client = std::shared_ptr<QELNKClient>;
using Message = std::shared_ptr<QELNKMessage>;
using Workflow = std::shared_ptr<QELNKOrlinWorkflow>;
using Port = std::shared_ptr<QELNKOrlinPort>;

static Value withData(Value request, std::initializer_list<std::pair<Value, Value>> data) {
  request.set(QELNKKORVALData, Value::map(data));
  return request;
}

static QELNKKORVALClient &korval(const Client &client) { return static_cast<QELNKKORVALClient &>(*client); }

static const Value &dataOf(const QELNKMessage &message) { return (*message.response())[QELNKKORVALData]; }

std::shared_ptr<QELNKKORVALClient> QELNKKORVALClient::create(std::shared_ptr<QELNKContext> context) {
  return make<QELNKKORVALClient>(std::move(context));
}

QELNKKORVALClient::QELNKKORVALClient(std::shared_ptr<QELNKContext> context)
    : QELNKClient(std::move(context)), mirror_(std::make_shared<qelnk::Mirror>()) {
  setMessageBody(QELNKMessageBodyMessagePack);
}

QELNKKORVALClient::~QELNKKORVALClient() = default;

// Frames without an envelope, and several requests under way at once.
int32_t QELNKKORVALClient::socketType() const { return ZMQ_DEALER; }

// The base would report "connected" here; that waits for the mirror to be complete.
void QELNKKORVALClient::onConnected() {
  if (const auto connected = socket()) connected->setInt(0, ZMQ_LINGER);
  updateWorkflows();
}

// The mirror will not be complete: a synchronous caller of connectToHost() must not wait for it any longer. The
// callback is dropped, so that it is not called for a mirror with holes.
void QELNKKORVALClient::release(Awaiting awaiting) {
  awaiting.block = nullptr;
  informConnected(std::move(awaiting));
}

// Matching responses.

// An absent identifier reads as 0, in a request and in an empty message as in a response.
std::optional<int64_t> QELNKKORVALClient::identifierForMessage(const QELNKMessage &message) const {
  return message.isEmptyMessage() ? 0 : (*message.request())[QELNKKORVALMessageID].integerValue();
}

Message QELNKKORVALClient::messageForResponse(const Value &response) {
  const int64_t identifier = response[QELNKKORVALMessageID].integerValue();
  if (identifier >= 0)
    if (auto message = messageWithIdentifier(identifier)) return message;
  if (response[QELNKKORVALCommand].string() == "portValueUpdate") takePush(response[QELNKKORVALData]);
  return nullptr;
}

void QELNKKORVALClient::takePush(const Value &data) {
  const Value &uid = data[QELNKKORVALID];
  if (!uid.isString()) return;
  const Workflow workflow = mirror_->workflowWithPort(uid.string());
  const Port port = workflow ? workflow->portWithID(uid.string()) : nullptr;
  if (!port) return;
  port->setValue(data[QELNKKORVALValue]);
  if (!port->sharedUpdateBlock()) return;
  // A callback finds the port's last value. Where very many wait, one for each port is enough; that it waits is asked
  // by a change of nothing, so that one which has begun and is not counted any more finds the value that was set
  // before.
  constexpr size_t mostWaiting = 65536;
  if (mirror_->waitingUpdates < mostWaiting) {
    if (mirror_->isBehind && mirror_->waitingUpdates < mostWaiting / 2) mirror_->isBehind = false;
  } else {
    if (!mirror_->isBehind.exchange(true))
      qelnk::logError("QELNKKORVALClient calls back once for several updates, its response queue is too slow");
    if (port->waitingUpdates_.fetch_add(0) > 0) return;
  }
  ++mirror_->waitingUpdates;
  ++port->waitingUpdates_;
  context()->responseQueue()->async([weakly = weak_from_this(), mirror = mirror_, workflow, port] {
    --mirror->waitingUpdates;
    --port->waitingUpdates_;
    const auto client = std::static_pointer_cast<QELNKKORVALClient>(weakly.lock());
    const auto block = port->sharedUpdateBlock();  // asked again: it may have been cleared meanwhile
    if (client && block) (*block)(client, workflow, port);
  });
}

// Requests.

Value QELNKKORVALClient::requestForCommand(std::string_view command) {
  Value request;
  request.reserve(4);
  request.set(QELNKKORVALCommand, command);
  request.set(QELNKKORVALTimestamp, clock()->wallTime() * 1000.0);
  request.set(QELNKKORVALMessageID, mirror_->nextMessageID++);
  return request;
}

Value QELNKKORVALClient::requestForCommand(std::string_view command, const Workflow &workflow) {
  return withData(requestForCommand(command), {{QELNKKORVALID, workflow ? qelnk::valueOf(workflow->uid()) : Value()}});
}

Message QELNKKORVALClient::messageForRequest(Value request, CommandBlock onDone, bool responseless) {
  if (QLGetHandle().enabled(qelnk::LogLevel::debug))
    qelnk::logDebug("QELNKClient sending request {}", request.description());
  return std::make_shared<QELNKMessage>(std::move(request), std::move(onDone), responseless);
}

// The project.

void QELNKKORVALClient::updateWorkflows() { std::make_shared<Load>(mirror_->opening(), connection())->start(*this); }

void QELNKKORVALClient::setProjectRunning(std::string_view command, bool runs, CommandBlock onDone) {
  sendRequest(requestForCommand(command),
              [runs, onDone = std::move(onDone)](const Client &client, const Message &message) {
                if (message->response()) korval(client).mirror_->running = runs;
                if (onDone) onDone(client, message);
              });
}

void QELNKKORVALClient::startProject(CommandBlock onDone) {
  setProjectRunning("startProject", true, std::move(onDone));
}

void QELNKKORVALClient::stopProject(CommandBlock onDone) { setProjectRunning("stopProject", false, std::move(onDone)); }

void QELNKKORVALClient::saveProject(const std::string &name) {
  sendRequest(withData(requestForCommand("saveProject"), {{QELNKKORVALName, name}}),
              [](const Client &client, const Message &message) {
                // A daemon that could not save it sends no description.
                if (message->response() && dataOf(*message).isDictionary())
                  korval(client).updateProjectState(dataOf(*message));
              });
}

void QELNKKORVALClient::save() { saveProject(projectFile().value_or("")); }

void QELNKKORVALClient::loadProject(const std::string &name, ConnectedBlock onLoaded) {
  const uint64_t opening = mirror_->beginOpening([&] { onLoaded = exchangeConnectedBlock(std::move(onLoaded)); });
  onLoaded = nullptr;  // whatever is not to be called any more
  sendRequest(withData(requestForCommand("openProject"), {{QELNKKORVALName, name}}),
              [opening, name](const Client &client, const Message &message) {
                if (!message->response()) {
                  qelnk::logError("QELNKKORVALClient could not load project {}: {}", name,
                                  message->error().description);
                  return korval(client).loadingFailed(opening, connectionOf(*message));
                }
                korval(client).mirror_->opened(opening);
                korval(client).updateWorkflows();
              });
}

void QELNKKORVALClient::loadingFailed(uint64_t opening, uint64_t connection) {
  std::optional<Awaiting> due;  // none where they are a later opening's, or the next connection's
  mirror_->openingFailed(opening, [&] { due = takeAwaiting(connection); });
  if (due) release(std::move(*due));
}

void QELNKKORVALClient::updateProjectState(const Value &description) {
  setProjectName(qelnk::stringIn(description, QELNKKORVALName));
  setProjectFile(qelnk::stringIn(description, QELNKKORVALFile));
  mirror_->running = description[QELNKKORVALStatus].boolValue();
}

void QELNKKORVALClient::quit() {
  sendRequest(
      requestForCommand("quit"),
      [](const Client &client, const Message &message) { korval(client).endConnection(connectionOf(*message)); }, true);
}

bool QELNKKORVALClient::running() const { return mirror_->running; }
std::optional<std::string> QELNKKORVALClient::projectName() const { return mirror_->projectName(); }
void QELNKKORVALClient::setProjectName(std::optional<std::string> name) { mirror_->setProjectName(std::move(name)); }
std::optional<std::string> QELNKKORVALClient::projectFile() const { return mirror_->projectFile(); }
void QELNKKORVALClient::setProjectFile(std::optional<std::string> file) { mirror_->setProjectFile(std::move(file)); }

// Workflows.

Workflow QELNKKORVALClient::workflowWithName(std::string_view name) const {
  return mirror_->firstWorkflow([&](const QELNKOrlinWorkflow &workflow) { return workflow.name() == name; });
}

Workflow QELNKKORVALClient::workflowWithID(std::string_view uid) const {
  return mirror_->firstWorkflow([&](const QELNKOrlinWorkflow &workflow) { return workflow.uid() == uid; });
}

Workflow QELNKKORVALClient::workflowWithIndex(size_t index) const { return mirror_->workflowWithIndex(index); }
size_t QELNKKORVALClient::numberOfWorkflows() const { return mirror_->numberOfWorkflows(); }
std::vector<Workflow> QELNKKORVALClient::workflows() const { return mirror_->workflows(); }

Message QELNKKORVALClient::setWorkflowExecuting(std::string_view command, const Workflow &workflow, bool executes) {
  if (!workflow || workflow->executing() == executes) return nullptr;
  return sendRequest(requestForCommand(command, workflow),
                     [workflow, executes](const Client &, const Message &message) {
                       if (message->response()) workflow->setExecuting(executes);
                     });
}

Message QELNKKORVALClient::startWorkflow(const Workflow &workflow) {
  return setWorkflowExecuting("startWorkflow", workflow, true);
}
Message QELNKKORVALClient::stopWorkflow(const Workflow &workflow) {
  return setWorkflowExecuting("stopWorkflow", workflow, false);
}

// Ports. A synchronous request serves the run loop while it waits, where the host may let go of the client and of
// everything that it gave: who sends several holds what he needs.

Message QELNKKORVALClient::setWorkflow(const Workflow &, const Port &port, const Value &value) {
  if (!port) return nullptr;
  return sendRequest(withData(requestForCommand("setPortValue"),
                              {{QELNKKORVALID, qelnk::valueOf(port->uid())}, {QELNKKORVALValue, value}}),
                     [port](const Client &, const Message &message) {
                       if (!message->response()) return;
                       if (const Value &data = dataOf(*message); !data.isNull()) port->setValue(data[QELNKKORVALValue]);
                     });
}

void QELNKKORVALClient::setWorkflow(const Workflow &workflow, const Value &values) {
  std::vector<std::string> ports;
  std::vector<Value> forPorts;
  const auto take = [&](const Value &name, const Value &value) {
    if (!name.isString()) return;
    ports.emplace_back(name.string());
    forPorts.push_back(value);
  };
  for (const Value::Entry &entry : values.entries()) take(entry.key, entry.value);
  if (values.isOrderedMap())
    for (const Value &name : values.orderedMap()) take(name, *values.find(name));
  setWorkflow(workflow, std::move(ports), std::move(forPorts));
}

void QELNKKORVALClient::setWorkflow(const Workflow &workflow, std::vector<std::string> ports,
                                    std::vector<Value> values) {
  if (!workflow || ports.size() != values.size()) return;
  const auto self = weak_from_this().lock();
  const Workflow held = workflow;  // NOLINT(performance-unnecessary-copy-initialization)
  for (size_t i = 0; i < ports.size(); ++i) setWorkflow(held, held->portWithName(ports[i]), values[i]);
}

void QELNKKORVALClient::triggerWorkflow(const Workflow &workflow, std::string_view portName) {
  const Port port = workflow ? workflow->portWithName(portName) : nullptr;
  if (!port) return;
  const std::string name(portName);
  if (port->valueType() == QELNKOrlinPortValueType_trig) setWorkflow(workflow, port, true);
  if (port->valueType() == QELNKOrlinPortValueType_bool) setWorkflow(workflow, {name, name}, {true, false});
}

void QELNKKORVALClient::registerWorkflow(const Workflow &workflow, std::vector<std::string> updatesForPorts,
                                         UpdateBlock onUpdate) {
  registerWorkflow(workflow, std::move(updatesForPorts), "registerPortUpdate", std::move(onUpdate));
}

void QELNKKORVALClient::unRegisterWorkflow(const Workflow &workflow, std::vector<std::string> updatesForPorts) {
  registerWorkflow(workflow, std::move(updatesForPorts), "unregisterPortUpdate", nullptr);
}

void QELNKKORVALClient::registerWorkflow(const Workflow &workflow, std::vector<std::string> updatesForPorts,
                                         std::string command, UpdateBlock onUpdate) {
  if (!workflow) return;
  const auto self = weak_from_this().lock();
  const Workflow held = workflow;  // NOLINT(performance-unnecessary-copy-initialization)
  for (const std::string &name : updatesForPorts) {
    const Port port = held->portWithName(name);
    if (!port || port->portType() != QELNKOrlinPortTypeOutput) continue;
    port->setUpdateBlock(onUpdate);
    sendRequest(withData(requestForCommand(command), {{QELNKKORVALID, qelnk::valueOf(port->uid())}}), nullptr);
  }
}
