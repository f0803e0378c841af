#include <QELNetworkKit/QELNKLegacyClient.h>
#include <QELNetworkKit/RunLoop.h>

#include "Command.h"
#include "LegacyInput.h"
#include "LegacyView.h"
#include "Notation.h"

namespace tool {
namespace {

using qelnk::Value;

/// A client, the events of its connection, and the input that is written to it.
class Connecting : public QELNKLegacyClientDelegate,
                   public qelnk::NetServiceDelegate,
                   public std::enable_shared_from_this<Connecting> {
 public:
  explicit Connecting(Invocation &invocation);
  Exit run();

  void networkClientIsReady(const Client &client) override;
  void networkClient(const Client &, const std::string &receivedString) override {
    onMainThread([&] { showString(output_, receivedString); });
  }
  void networkClient(const Client &, const qelnk::Data &data, const std::string &contentType) override {
    onMainThread([&] { showBinary(output_, data, contentType); });
  }
  void networkClient(const Client &, const QELProjectTimecode &timecode,
                     const std::optional<std::string> &information) override {
    onMainThread([&] { showHeartbeat(output_, timecode, information); });
  }
  void networkClientWasTerminated(const Client &, bool willReconnect) override;
  void networkClient(const Client &, int64_t connectError, bool willRetry) override;
  void networkClientHeartbeatNotification(const Client &, bool lost) override {
    onMainThread([&] { showLostHeartbeat(output_, lost); });
  }
  void networkClientServiceUpdatedTXTRecordData(const Client &client) override {
    onMainThread([&] { showTXT(output_, client->serviceTXTRecordDictionary()); });
  }

  // The service tells these here, and the client is told in turn.
  void netServiceDidResolveAddress(const Service &service) override { client_->netServiceDidResolveAddress(service); }
  void netServiceDidNotResolve(const Service &service, std::error_code error) override;
  void netServiceDidUpdateTXTRecordData(const Service &service, const std::string &data) override {
    client_->netServiceDidUpdateTXTRecordData(service, data);
  }

 private:
  void begin();
  bool awaitReady();
  bool perform(const LegacyInput &input, size_t number);
  bool write(const std::function<bool()> &attempt);
  void awaitWritten();
  void close();
  void end();
  /// No connection is there, nor will be.
  void giveUp(const std::string &why) { failure_ = Failure(Exit::unanswered, why); }
  std::string reason() const {
    const auto error = client_->connectionError();
    return error ? ": " + error.message() : "";
  }
  bool isOver() const { return hasEnded_ || failure_; }

  const Arguments &arguments_;
  Session &session_;
  Output &output_;
  const double timeout_;
  const Value options_;
  std::string target_;
  std::shared_ptr<QELNKLegacyClient> client_;
  bool wasReady_ = false, hasEnded_ = false;
  bool isClosing_ = false;  // by our own wish
  std::optional<Failure> failure_;
};

/// Sets one option from KEY=VALUE. The library takes no notice of what it does not know, which is of little help here.
void setOption(Value &options, const std::string &setting) {
  const size_t equals = setting.find('=');
  const std::string key = setting.substr(0, equals);
  const Value *const current = options.find(key);
  if (equals == std::string::npos || !current)
    throw Failure(Exit::usage, "--set takes KEY=VALUE with one of the options' keys, not " + setting);
  const std::string text = setting.substr(equals + 1);
  Value value = parseArgument(text);
  if (current->isString() && !value.isString()) value = Value(text);
  const bool fits = current->isString() || (current->isBool() && value.isBool()) ||
                    (current->isInteger() && value.isInteger()) || (current->isFloat() && value.isNumber());
  if (!fits)
    throw Failure(Exit::usage, "--set " + key + " takes " +
                                   (current->isBool()      ? "true or false"
                                    : current->isInteger() ? "a whole number"
                                                           : "a number") +
                                   ", not " + text);
  options.set(key, current->isFloat() ? Value(value.doubleValue()) : value);
}

Value clientOptions(const Arguments &arguments) {
  const std::string set = arguments.text("options").value_or("playout");
  Value options;
  if (set == "playout") {
    options = QELNKLegacyClient::defaultPlayoutOptions();
    options.set("appID", QELNKLegacyClient::playoutAppID());
  } else if (set == "connect") {
    options = QELNKLegacyClient::defaultConnectOptions();
  } else if (set == "ingest") {
    options = QELNKLegacyClient::defaultIngestOptions();
  } else {
    throw Failure(Exit::usage, "--options takes playout, connect or ingest, not " + set);
  }
  for (const char *bound : {"maximumStringLength", "maximumBinaryLength"}) options.set(bound, 0);
  if (const auto appID = arguments.text("app-id")) options.set("appID", *appID);
  if (const auto timeout = arguments.seconds("timeout")) options.set("connectTimeout", *timeout);
  for (const std::string &setting : arguments.all("set")) setOption(options, setting);
  return options;
}

Connecting::Connecting(Invocation &invocation)
    : arguments_(invocation.arguments),
      session_(invocation.session),
      output_(invocation.output),
      timeout_(invocation.timeout),
      options_(clientOptions(invocation.arguments)) {
  const bool byService = arguments_.has("service");
  if (arguments_.count() != (byService ? 0 : 2)) throw Failure(Exit::usage, "either HOST PORT or --service is needed");
  if (byService != arguments_.has("type")) throw Failure(Exit::usage, "--service and --type go together");
  if (!byService && arguments_.has("domain")) throw Failure(Exit::usage, "--domain goes with --service");
  target_ = byService ? "the service " + *arguments_.text("service") : arguments_[0] + ":" + arguments_[1];
}

void Connecting::begin() {
  if (!arguments_.has("service")) {
    client_ = QELNKLegacyClient::create(target_, arguments_[0], uint64_t(portArgument(arguments_[1])), weak_from_this(),
                                        options_);
    return client_->connect();
  }
  const auto service = qelnk::NetService::create(arguments_.text("domain").value_or(""),
                                                 serviceType(*arguments_.text("type")), *arguments_.text("service"));
  client_ = QELNKLegacyClient::create(service, weak_from_this(), options_);
  // Before the first turn of the main loop, on which the service tells.
  service->setDelegate(weak_from_this());
}

void Connecting::networkClientIsReady(const Client &client) {
  onMainThread([&] {
    wasReady_ = true;
    showReady(output_, *client);
  });
}

void Connecting::networkClientWasTerminated(const Client &, bool willReconnect) {
  onMainThread([&] {
    if (isClosing_) return;
    showTerminated(output_, willReconnect);
    if (willReconnect) return;
    hasEnded_ = true;
    if (!wasReady_) giveUp("the connection to " + target_ + " ended before it was ready" + reason());
  });
}

void Connecting::networkClient(const Client &, int64_t connectError, bool willRetry) {
  onMainThread([&] {
    showConnectError(output_, connectError, willRetry);
    if (!willRetry) giveUp("no connection to " + target_ + ": " + connectErrorText(connectError) + reason());
  });
}

void Connecting::netServiceDidNotResolve(const Service &service, std::error_code error) {
  client_->netServiceDidNotResolve(service, error);
  giveUp(target_ + " was not found: " + error.message());
}

/// Waits until the connection is ready; whether it is.
bool Connecting::awaitReady() {
  return session_.waitUntil([this] { return isOver() || client_->isReady(); }) == Session::Wait::done && !isOver();
}

/// Has `attempt` write once the connection is ready, and waits while much is queued. Returns whether it was written.
bool Connecting::write(const std::function<bool()> &attempt) {
  while (awaitReady()) {
    if (attempt()) {
      session_.waitUntil([this] { return isOver() || client_->outgoingLength() <= longestLegacyQueue; }, std::nullopt,
                         std::chrono::milliseconds(5));
      return true;
    }
    qelnk::RunLoop::main()->runOnce(std::chrono::milliseconds(1));  // the connection is just ending
  }
  return false;
}

std::string placeOf(size_t line) { return "line " + std::to_string(line) + ": "; }

Failure notWritten(size_t line) { return {Exit::failed, placeOf(line) + "not written, the connection has ended"}; }

/// Does what a line asks for; whether that was to go on.
bool Connecting::perform(const LegacyInput &input, size_t number) {
  if (std::holds_alternative<LegacyDisconnect>(input)) return false;
  if (std::holds_alternative<LegacyTXT>(input))
    throw Failure(Exit::malformed, placeOf(number) + "only a service that listens has a TXT record to set");
  const bool written = write([&] {
    if (const auto *string = std::get_if<LegacyString>(&input)) return client_->writeString(string->text);
    const auto &binary = std::get<LegacyBinary>(input);
    if (client_->writeBinaryData(binary.data, binary.contentType, binary.fenced)) return true;
    if (!binary.fenced || !client_->isReady()) return false;
    showDropped(output_, binary.contentType);
    return true;
  });
  if (!written && hasEnded_) throw notWritten(number);
  return written;
}

/// Waits until all that is queued has been handed over to the system.
void Connecting::awaitWritten() {
  const auto wait = session_.waitUntil([this] { return isOver() || client_->outgoingLength() == 0; }, after(timeout_),
                                       std::chrono::milliseconds(5));
  if (wait == Session::Wait::timedOut)
    throw Failure(Exit::unanswered, target_ + " does not read: " + std::to_string(client_->outgoingLength()) +
                                        " bytes could not be written in time");
}

/// Ends the connection behind what was written, and waits for the other side to end it too: a connection that is simply
/// closed while something comes in loses what is still on its way out.
void Connecting::close() {
  isClosing_ = true;
  client_->closeStream(client_->outputStream());
  session_.waitUntil([this] { return !client_->isReady(); }, after(timeout_), std::chrono::milliseconds(5));
}

void Connecting::end() {
  isClosing_ = true;
  if (client_) client_->disconnect();
  while (qelnk::RunLoop::main()->runOnce({})) {  // what has arrived is printed too
  }
}

Exit Connecting::run() {
  // While the main loop can still be served, for which the connection may be waiting.
  const std::shared_ptr<void> atEnd(nullptr, [this](void *) { end(); });
  begin();
  std::optional<Failure> failure;  // told once what came before it has been written
  try {
    bool goesOn = awaitReady(), isDone = false;
    size_t number = 0;
    while (goesOn && !isDone) {
      const auto line = session_.readLine([this] { return isOver(); });
      if (!line) break;
      ++number;
      isDone = !perform(legacyInput(*line, number), number);
    }
    if (hasEnded_ && !isDone && session_.hasInput()) throw notWritten(number + 1);
    if (goesOn && !isDone && arguments_.has("stay")) session_.waitUntil([this] { return isOver(); });
  } catch (const Failure &problem) {
    failure = problem;
  }
  try {
    awaitWritten();
    if (!isOver()) close();
  } catch (const Failure &) {
    if (!failure) throw;  // the first one is what counts
  }
  if (failure) throw *failure;
  if (failure_) throw *failure_;
  if (const uint64_t dropped = client_->droppedLength())
    throw Failure(Exit::failed, std::to_string(dropped) + " bytes were not written before the connection ended");
  return Exit::done;
}

Exit connectToPeer(Invocation &invocation) { return std::make_shared<Connecting>(invocation)->run(); }

}  // namespace

extern const Command legacyConnectCommand;
const Command legacyConnectCommand = {
    "legacy connect",
    "Makes a legacy connection, prints what comes, and writes each line of standard input once it is ready.",
    {"[HOST PORT]",
     {{"service", "NAME", "connect to the service that is published under this name"},
      {"type", "_x._tcp", "its type"},
      {"domain", "D", "its domain"},
      {"options", "SET", "playout (default), connect or ingest; the last two connect again by themselves"},
      {"app-id", "ID", "application ID for the handshake (default: the one that goes with the set)"},
      {"set", "KEY=VALUE", "another value for one of the set's options; may be given several times"},
      stayOption}},
    [] {
      return std::string(legacyInputNotes()) +
             "With the sets playout and connect the other side has to send heartbeats: without one for 3 s the "
             "connection is "
             "ended\n(--set heartbeatProblemTimeout=0 has them not watched).\n";
    },
    connectToPeer};

}  // namespace tool
