// What a daemon sends: each value of the input is the answer to the request whose number it bears, or a push. No
// network: requests stay where they are queued, and their callbacks are called from here.

#include <QELNetworkKit/MPMessagePack.h>
#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKKORVALClient.h>
#include <QELNetworkKit/Queue.h>
#include <QELNetworkKit/RunLoop.h>
#include <QELNetworkKit/ZMQContext.h>

#include <cerrno>
#include <chrono>
#include <map>
#include <utility>

#include "Fuzz.h"

using qelnk::Value;

namespace {

class Client final : public QELNKKORVALClient {
 public:
  static std::shared_ptr<Client> create() {
    static auto &context = *new std::shared_ptr(
        std::make_shared<QELNKContext>(std::make_shared<ZMQContext>(1), qelnk::Queue::main(), qelnk::Queue::main()));
    return make<Client>(context);
  }

  void take(const Value &response) {
    const auto found =
        response.isDictionary() ? requests_.find(response[QELNKKORVALMessageID].integerValue()) : requests_.begin();
    if (found == requests_.end()) {
      if (response.isDictionary()) fuzz::require(!messageForResponse(response), "what answers nothing has no message");
    } else {
      const auto answered = requests_.extract(found).mapped();
      if (response.isDictionary())
        answered->setResponse(response);
      else
        answered->setError({"ZMQ", ECANCELED, "Request cancelled", nullptr});
      call(answered);
    }
    while (!barriers_.empty() && (requests_.empty() || requests_.begin()->first > barriers_.begin()->first))
      call(barriers_.extract(barriers_.begin()).mapped());
    while (qelnk::RunLoop::main()->runOnce(std::chrono::nanoseconds(0))) {
    }
  }

 protected:
  friend class QELNKSocket;
  explicit Client(const std::shared_ptr<QELNKContext> &context) : QELNKKORVALClient(context) {}

  /// Each message passes here on its way into the queue, where it stays for as long as the client.
  std::optional<int64_t> identifierForMessage(const QELNKMessage &message) const override {
    const auto identifier = QELNKKORVALClient::identifierForMessage(message);
    const std::shared_ptr<QELNKMessage> notOwned(std::shared_ptr<void>(), const_cast<QELNKMessage *>(&message));
    if (message.isEmptyMessage())
      barriers_.emplace(last_, notOwned);
    else
      requests_.emplace(last_ = *identifier, notOwned);
    return identifier;
  }

 private:
  void call(const std::shared_ptr<QELNKMessage> &message) {
    if (const auto block = message->responseBlock())
      block(std::static_pointer_cast<QELNKClient>(shared_from_this()), message);
  }

  mutable std::map<int64_t, std::shared_ptr<QELNKMessage>> requests_;
  mutable std::multimap<int64_t, std::shared_ptr<QELNKMessage>> barriers_;  // by the request before
  mutable int64_t last_ = -1;
};

void checkPort(const QELNKOrlinPort &port) {
  const auto value = port.currentValue();
  port.currentValueAsString();
  fuzz::require(!QELNKOrlinPort::nameOfValueType(port.valueType()).empty(), "a port has a type");
  if (port.valueType() == QELNKOrlinPortValueType_arry) fuzz::require(value->isNull() || value->isList(), "a list");
  if (port.valueType() == QELNKOrlinPortValueType_str_) fuzz::require(value->isNull() || value->isString(), "a string");
}

void checkMirror(const QELNKKORVALClient &client) {
  fuzz::require(client.workflows().size() == client.numberOfWorkflows(), "all workflows are listed");
  for (const auto &workflow : client.workflows()) {
    fuzz::require(!workflow->uid() || client.workflowWithID(*workflow->uid()), "a workflow is found");
    fuzz::require(workflow->numberOfInputPorts() + workflow->numberOfOutputPorts() == workflow->numberOfPorts(),
                  "a port is an input or an output");
    for (const auto &port : workflow->ports()) {
      fuzz::require(!port->uid() || workflow->portWithID(*port->uid()), "a port is found");
      checkPort(*port);
    }
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const auto client = Client::create();
  client->setConnectedBlock([weak = std::weak_ptr(client)](const auto &) {
    const auto client = weak.lock();
    for (const auto &workflow : client->workflows()) {
      std::vector<std::string> names;
      for (const auto &port : workflow->ports())
        if (port->name()) names.push_back(*port->name());
      client->registerWorkflow(workflow, names, [](auto &, auto &, auto &port) { checkPort(*port); });
      client->startWorkflow(workflow);
      client->setWorkflow(workflow, Value::map({{"in", 1}}));
    }
    client->save();
    client->startProject({});
    client->loadProject("other", [](const auto &) {});
  });
  client->updateWorkflows();  // its request has number 0

  MPMessagePackReader reader(qelnk::Data(std::span(data, size)));
  while (const auto value = reader.readObject()) client->take(*value);
  checkMirror(*client);
  return 0;
}
