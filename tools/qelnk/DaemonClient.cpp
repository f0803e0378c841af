#include "DaemonClient.h"

#include <QELNetworkKit/RunLoop.h>

#include <utility>

#include "Output.h"

namespace tool {

using qelnk::Value;

std::shared_ptr<DaemonClient> DaemonClient::create() {
  return QELNKSocket::make<DaemonClient>(QELNKContext::sharedContext());
}

uint64_t DaemonClient::answered() const {
  const qelnk::Lock lock(mutex_);
  return answered_;
}

std::optional<std::string> DaemonClient::takeRefusal() {
  const qelnk::Lock lock(mutex_);
  return std::exchange(refusal_, std::nullopt);
}

void DaemonClient::setPushHandler(PushHandler handler) {
  const qelnk::Lock lock(mutex_);
  pushHandler_ = std::move(handler);
}

std::shared_ptr<QELNKMessage> DaemonClient::messageForResponse(const Value &response) {
  auto message = QELNKKORVALClient::messageForResponse(response);
  if (message && message->request())
    takeAnswer(*message, response);
  else if (!message && response["command"] == "portValueUpdate")
    takePush(response["data"]);
  return message;
}

std::optional<int64_t> DaemonClient::identifierForMessage(const QELNKMessage &message) const {
  return message.isEmptyMessage() ? std::nullopt : QELNKKORVALClient::identifierForMessage(message);
}

void DaemonClient::takeAnswer(const QELNKMessage &message, const Value &response) {
  const std::string command((*message.request())[QELNKKORVALCommand].string());
  const Value &error = response["error"];
  const qelnk::Lock lock(mutex_);
  ++answered_;
  if (refusal_) return;
  if (!error.isNull())
    refusal_ =
        "the daemon refused " + command + ": " + (error.isString() ? std::string(error.string()) : error.description());
  else if (command == "setPortValue" && response[QELNKKORVALData].isNull())
    refusal_ = "the daemon did not confirm the value";
}

void DaemonClient::takePush(const Value &push) {
  // So many values may wait until somebody reads what is printed.
  constexpr size_t mostWaiting = 100'000;
  {
    qelnk::Lock lock(mutex_);
    if (!pushHandler_) return;
    if (waitingPushes_ >= mostWaiting) {
      const bool isNew = !std::exchange(leavesOut_, true);
      lock.unlock();
      if (isNew) complain("updates are left out, for nobody reads those that were printed");
      return;
    }
  }
  for (const auto &workflow : workflows()) {
    const auto port = workflow->portWithID(push[QELNKKORVALID].string());
    if (!port) continue;
    {
      const qelnk::Lock lock(mutex_);
      ++waitingPushes_;
    }
    // The port holds the pushed value now; by the time that the main thread looks it may hold a later one.
    qelnk::RunLoop::main()->perform([weak = weak_from_this(), workflow, port, value = port->currentValue()] {
      const auto self = std::static_pointer_cast<DaemonClient>(weak.lock());
      if (!self) return;
      PushHandler handler;
      {
        const qelnk::Lock lock(self->mutex_);
        handler = self->pushHandler_;
        if (--self->waitingPushes_ == 0) self->leavesOut_ = false;
      }
      if (handler) handler(workflow, port, value);
    });
    return;
  }
}

}  // namespace tool
