#include "daemon/QELNKKORVALLoad.h"

#include "daemon/Mirror.h"
#include "platform/LogFormat.h"

#include <cerrno>

using qelnk::Value;
using Message = std::shared_ptr<QELNKMessage>;

void QELNKKORVALClient::Load::start(QELNKKORVALClient &client) {
  const auto takeWorkflows = [load = shared_from_this()](QELNKKORVALClient &of, const Value &descriptions) {
    load->addWorkflows(of, descriptions);
  };
  const auto takeProject = [load = shared_from_this(), takeWorkflows](QELNKKORVALClient &of, const Value &project) {
    of.updateProjectState(project);
    of.scheduleMessage(load->ask(of.requestForCommand("getWorkflows"), "the workflows", takeWorkflows));
  };
  client.scheduleMessage(ask(client.requestForCommand("getProject"), "the project", takeProject));
}

Message QELNKKORVALClient::Load::ask(Value request, std::string what, Step step) {
  return messageForRequest(std::move(request),
                           [load = shared_from_this(), what = std::move(what), step = std::move(step)](
                               const std::shared_ptr<QELNKClient> &of, const Message &message) {
                             auto &client = static_cast<QELNKKORVALClient &>(*of);
                             if (load->failed_) return;
                             if (!message->response()) return load->fail(client, what, message->error());
                             if (load->isOver(client)) return load->giveUp(client);
                             // Once another project has been opened its own load brings everything; going
                             // on here would bring it twice.
                             if (client.mirror_->opening() == load->opening_)
                               step(client, (*message->response())[QELNKKORVALData]);
                           });
}

// A description may be a byte, and becomes an object with callbacks, requests and places in tables: more than anybody
// has is refused, before it is made.
static constexpr size_t mostWorkflows = 65536, mostPorts = 1 << 20;

static qelnk::Error tooMany(size_t most, const char *what) {
  return {"QELNKKORVALClient", EMSGSIZE, fmt::format("the daemon tells of more than {} {}", most, what), {}};
}

void QELNKKORVALClient::Load::addWorkflows(QELNKKORVALClient &client, const Value &descriptions) {
  if (descriptions.size() > mostWorkflows) return fail(client, "the workflows", tooMany(mostWorkflows, "workflows"));
  std::vector<Message> messages;
  messages.reserve(descriptions.size() + 1);
  for (const Value &description : descriptions.items()) {
    if (!description.isDictionary()) continue;
    const Workflow workflow = addWorkflow(client, description);
    messages.push_back(ask(client.requestForCommand("getExposedPorts", workflow),
                           fmt::format("the ports of workflow {}", qelnk::printable(workflow->uid().value_or(""))),
                           [load = shared_from_this(), workflow](QELNKKORVALClient &of, const Value &data) {
                             load->addPorts(of, workflow, data[QELNKKORVALData]);
                           }));
  }
  messages.push_back(barrier());
  client.scheduleMessages(messages);
}

void QELNKKORVALClient::Load::addPorts(QELNKKORVALClient &client, const Workflow &workflow, const Value &descriptions) {
  ports_ += descriptions.size();
  if (ports_ > mostPorts)
    return fail(client, fmt::format("the ports of workflow {}", qelnk::printable(workflow->uid().value_or(""))),
                tooMany(mostPorts, "ports"));
  for (const Value &port : descriptions.items())
    if (port.isDictionary()) workflow->addPortWithDescription(port);
}

QELNKKORVALClient::Load::Workflow QELNKKORVALClient::Load::addWorkflow(QELNKKORVALClient &client,
                                                                       const Value &description) {
  auto workflow = std::make_shared<QELNKOrlinWorkflow>(description);
  const auto &mirror = client.mirror_;
  // Workflows come and go on the response queue alone, so the place is still the next one when it is taken.
  workflow->onPortAdded_ = [mirror = std::weak_ptr(mirror), workflow = workflow.get(),
                            place = mirror->numberOfWorkflows()](const std::shared_ptr<QELNKOrlinPort> &port) {
    if (const auto to = mirror.lock(); to && port->uid()) to->portAdded(workflow, place, *port->uid());
  };
  mirror->append(workflow);
  added_.push_back(workflow);
  return workflow;
}

// An empty message is never sent; it finishes when everything queued before it has. A push without a "messageID" may
// be taken for its answer while it waits, because both read as number 0: then it has finished all the same.
Message QELNKKORVALClient::Load::barrier() {
  return std::make_shared<QELNKMessage>(
      [load = shared_from_this()](const std::shared_ptr<QELNKClient> &of, const Message &message) {
        auto &client = static_cast<QELNKKORVALClient &>(*of);
        if (load->failed_) return;
        if (message->error()) return load->fail(client, "the workflows", message->error());
        if (load->isOver(client)) return load->giveUp(client);
        if (auto due = load->takeAwaiting(client)) client.informConnected(std::move(*due));
      });
}

// Where a project is being opened the connected callback is for the load that follows, and where there is another
// connection for its own load.
std::optional<QELNKClient::Awaiting> QELNKKORVALClient::Load::takeAwaiting(QELNKKORVALClient &client) const {
  std::optional<Awaiting> due;
  client.mirror_->ifNewest(opening_, [&] { due = client.takeAwaiting(connection_); });
  return due;
}

void QELNKKORVALClient::Load::fail(QELNKKORVALClient &client, const std::string &what, const qelnk::Error &error) {
  giveUp(client);
  qelnk::logError("QELNKKORVALClient could not load {}: {}", what, error.description);
  if (!client.syncRequests()) return;  // its callback waits for a load that succeeds
  if (auto due = takeAwaiting(client)) client.release(std::move(*due));
}

void QELNKKORVALClient::Load::giveUp(QELNKKORVALClient &client) {
  failed_ = true;
  client.mirror_->takeBack(added_);
}
