#include <QELNetworkKit/QELNKKORVALConstants.h>
#include <QELNetworkKit/QELNKOrlinWorkflow.h>

#include <algorithm>

#include "daemon/Description.h"
#include "encoding/Text.h"

using qelnk::Value;
using Port = std::shared_ptr<QELNKOrlinPort>;

QELNKOrlinWorkflow::QELNKOrlinWorkflow(const Value &description)
    : name_(qelnk::stringIn(description, QELNKKORVALName)),
      uid_(qelnk::stringIn(description, QELNKKORVALID)),
      executeOnRun_(description[QELNKKORVALExecute].boolValue()),
      executing_(description[QELNKKORVALStatus].boolValue()) {}

size_t QELNKOrlinWorkflow::Hash::operator()(std::string_view text) const { return qelnk::detail::hashOfText(text); }

Port QELNKOrlinWorkflow::addPortWithDescription(const Value &description) {
  auto port = std::make_shared<QELNKOrlinPort>(description);
  {
    const qelnk::Lock lock(mutex_);
    if (port->uid()) portsByID_.try_emplace(*port->uid(), ports_.size());
    ports_.push_back(port);
  }
  if (onPortAdded_) onPortAdded_(port);
  return port;
}

std::vector<Port> QELNKOrlinWorkflow::ports() const {
  const qelnk::Lock lock(mutex_);
  return ports_;
}

Port QELNKOrlinWorkflow::portWithName(std::string_view name) const {
  const qelnk::Lock lock(mutex_);
  const auto found = std::find_if(ports_.begin(), ports_.end(), [&](const Port &port) { return port->name() == name; });
  return found == ports_.end() ? nullptr : *found;
}

Port QELNKOrlinWorkflow::portWithID(std::string_view uid) const {
  const qelnk::Lock lock(mutex_);
  const auto found = portsByID_.find(uid);
  return found == portsByID_.end() ? nullptr : ports_[found->second];
}

Port QELNKOrlinWorkflow::portWithIndex(size_t index) const {
  const qelnk::Lock lock(mutex_);
  return index < ports_.size() ? ports_[index] : nullptr;
}

Port QELNKOrlinWorkflow::portOfType(int32_t portType, size_t index) const {
  const qelnk::Lock lock(mutex_);
  for (const Port &port : ports_)
    if (port->portType() == portType && index-- == 0) return port;
  return nullptr;
}

size_t QELNKOrlinWorkflow::numberOfPortsOfType(int32_t portType) const {
  const qelnk::Lock lock(mutex_);
  return size_t(
      std::count_if(ports_.begin(), ports_.end(), [&](const Port &port) { return port->portType() == portType; }));
}

Port QELNKOrlinWorkflow::inputPortWithIndex(size_t index) const { return portOfType(QELNKOrlinPortTypeInput, index); }
Port QELNKOrlinWorkflow::outputPortWithIndex(size_t index) const { return portOfType(QELNKOrlinPortTypeOutput, index); }
size_t QELNKOrlinWorkflow::numberOfInputPorts() const { return numberOfPortsOfType(QELNKOrlinPortTypeInput); }
size_t QELNKOrlinWorkflow::numberOfOutputPorts() const { return numberOfPortsOfType(QELNKOrlinPortTypeOutput); }

size_t QELNKOrlinWorkflow::numberOfPorts() const {
  const qelnk::Lock lock(mutex_);
  return ports_.size();
}
