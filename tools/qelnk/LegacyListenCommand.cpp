#include <QELNetworkKit/QELNKLegacyService.h>
#include <QELNetworkKit/RunLoop.h>
#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>

#include "Command.h"
#include "LegacyInput.h"
#include "LegacyView.h"

namespace tool {
namespace {

using Stream = std::shared_ptr<QELNKLegacyStream>;

/// Seconds for which a connection that lags far behind holds up the others.
constexpr double patience = 0.5;

/// A listening server, the events of its connections, and the input that is written to them.
class Listening : public QELNKLegacyServerDelegate,
                  public qelnk::NetServiceDelegate,
                  public std::enable_shared_from_this<Listening> {
 public:
  explicit Listening(Invocation &invocation);
  Exit run();

  void networkService(const Server &, const Stream &, const std::string &receivedString) override {
    onMainThread([&] { showString(output_, receivedString); });
  }
  void networkService(const Server &, const Stream &, const QELProjectTimecode &timecode,
                      const std::optional<std::string> &information) override {
    onMainThread([&] { showHeartbeat(output_, timecode, information); });
  }
  void networkServiceNetworkStreamIsReady(const Server &, const Stream &stream) override {
    onMainThread([&] { showReady(output_, *stream); });
  }
  void networkServiceNetworkStreamWasTerminated(const Server &, const Stream &) override {
    onMainThread([&] {
      if (!isClosing_) showTerminated(output_);
    });
  }

  // The service tells these here, and is told in turn.
  void netServiceDidPublish(const Service &service) override;
  void netServiceDidNotPublish(const Service &service, std::error_code error) override;

 private:
  void start();
  void startHeartbeats();
  void awaitConnections();
  bool perform(const LegacyInput &input, size_t number);
  void setRecord(const qelnk::TXTRecordDictionary &record, size_t number);
  std::vector<Stream> readyStreams() const;
  uint64_t longestQueue() const;
  uint64_t shortestQueue() const;
  void endThoseBeyond(uint64_t length);
  void awaitRoom();
  void awaitWritten();
  void close();
  void end();

  Invocation &invocation_;
  const Arguments &arguments_;
  Session &session_;
  Output &output_;
  qelnk::TXTRecordDictionary record_;
  std::shared_ptr<QELNKLegacyServer> server_;
  std::shared_ptr<QELNKLegacyService> service_;  // the same, where it is to be published
  std::shared_ptr<qelnk::LoopSource> heartbeats_;
  bool isClosing_ = false;  // by our own wish
};

qelnk::Value streamOptions(const Arguments &arguments) {
  const std::string set = arguments.text("options").value_or("playout");
  if (set != "playout" && set != "ingest") throw Failure(Exit::usage, "--options takes playout or ingest, not " + set);
  qelnk::Value options = set == "ingest"
                             ? QELNKLegacyStream::defaultIngestOptions()
                             : QELNKLegacyStream::defaultPlayoutOptionsForAppID(QELNKLegacyStream::playoutAppID());
  if (const auto appID = arguments.text("app-id")) options.set("appID", *appID);
  return options;
}

uint32_t bindingAddress(const std::string &text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1)
    throw Failure(Exit::usage, "--bind takes an IPv4 address, not " + text);
  return ntohl(address.s_addr);
}

qelnk::TXTRecordDictionary recordOf(const std::vector<std::string> &entries) {
  qelnk::TXTRecordDictionary record;
  for (const std::string &entry : entries) {
    const size_t equals = entry.find('=');
    const std::string key = entry.substr(0, equals);
    const auto value = equals == std::string::npos ? std::nullopt : std::optional(entry.substr(equals + 1));
    if (!fitsTXTRecord(key, value)) throw Failure(Exit::usage, "--txt takes KEY=VALUE, not " + entry);
    record.insert_or_assign(key, value);
  }
  return record;
}

Listening::Listening(Invocation &invocation)
    : invocation_(invocation),
      arguments_(invocation.arguments),
      session_(invocation.session),
      output_(invocation.output),
      record_(recordOf(arguments_.all("txt"))) {
  const auto port = uint16_t(arguments_.integer("port", 0, 65535).value_or(0));
  const auto type = arguments_.text("type");
  const std::string name = arguments_.text("name").value_or("");
  for (const char *option : {"txt", "domain"})
    if (!type && arguments_.has(option)) throw Failure(Exit::usage, "--" + std::string(option) + " goes with --type");
  if (type)
    server_ = service_ = QELNKLegacyService::create(arguments_.text("domain").value_or(""), serviceType(*type), name,
                                                    port, streamOptions(arguments_));
  else
    server_ = QELNKLegacyServer::create(name, port, streamOptions(arguments_));
  if (const auto address = arguments_.text("bind")) server_->setBindingIPAddress(bindingAddress(*address));
}

void Listening::netServiceDidPublish(const Service &service) {
  service_->netServiceDidPublish(service);
  if (output_.json())
    output_.event("published", {{"name", service->name()}, {"type", service->type()}, {"port", service->port()}});
  else
    output_.line("published as " + service->name() + ", " + service->type() + ", on port " +
                 std::to_string(service->port()));
}

void Listening::netServiceDidNotPublish(const Service &service, std::error_code error) {
  service_->netServiceDidNotPublish(service, error);
  complain("not published yet: " + error.message());
}

void Listening::start() {
  server_->setDelegate(weak_from_this());
  qelnk::Error error;
  if (!server_->start(&error))
    throw Failure(Exit::failed, "port " + std::to_string(server_->port()) + ": " + error.description + " (" +
                                    error.domain + " " + std::to_string(error.code) + ")");
  if (output_.json())
    output_.event("listening", {{"port", server_->port()}});
  else
    output_.line("listening on port " + std::to_string(server_->port()));
  if (!service_) return;
  // Before the first turn of the main loop, on which the service tells.
  service_->netService()->setDelegate(weak_from_this());
  if (!record_.empty()) service_->setTXTRecordDictionary(record_);
}

void Listening::startHeartbeats() {
  const auto seconds = arguments_.seconds("heartbeat");
  if (!seconds) return;
  const auto interval = std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(*seconds));
  const auto loop = qelnk::RunLoop::main();
  heartbeats_ = loop->performAfter(
      interval,
      [this, clock = loop->clock()] {
        server_->sendHeartbeatAtTimecode(QELProjectTimecode::timeOfDay(clock->wallTime()));
      },
      interval);
}

std::vector<Stream> Listening::readyStreams() const {
  auto streams = server_->streams();
  std::erase_if(streams, [](const Stream &stream) { return !stream->isReady(); });
  return streams;
}

/// Waits until so many are ready: what is written before that is not for them.
void Listening::awaitConnections() {
  const auto wanted = size_t(arguments_.integer("wait", 1, 1'000'000).value_or(0));
  const auto wait = session_.waitUntil([&] { return readyStreams().size() >= wanted; }, after(invocation_.timeout));
  if (wait == Session::Wait::timedOut)
    throw Failure(Exit::unanswered, std::to_string(readyStreams().size()) + " of " + std::to_string(wanted) +
                                        " connections are ready in time (--timeout gives them longer)");
}

uint64_t Listening::longestQueue() const {
  uint64_t longest = 0;
  for (const Stream &stream : readyStreams()) longest = std::max(longest, stream->outgoingLength());
  return longest;
}

uint64_t Listening::shortestQueue() const {
  const auto streams = readyStreams();
  uint64_t shortest = streams.empty() ? 0 : UINT64_MAX;
  for (const Stream &stream : streams) shortest = std::min(shortest, stream->outgoingLength());
  return shortest;
}

/// Waits while much is queued for every connection, and for a moment while one lags far behind the others; then that
/// one is ended, as are all once none of them has read for the time-out.
void Listening::awaitRoom() {
  const auto glance = std::chrono::milliseconds(5);
  for (uint64_t before = shortestQueue(); before > longestLegacyQueue; before = shortestQueue()) {
    const auto wait =
        session_.waitUntil([&] { return shortestQueue() <= longestLegacyQueue; }, after(invocation_.timeout), glance);
    if (wait != Session::Wait::timedOut) break;
    if (shortestQueue() >= before) endThoseBeyond(longestLegacyQueue);
  }
  constexpr uint64_t farBehind = 4 * longestLegacyQueue;
  if (longestQueue() <= farBehind) return;
  const auto wait = session_.waitUntil([&] { return longestQueue() <= farBehind; }, after(patience), glance);
  if (wait == Session::Wait::timedOut) endThoseBeyond(farBehind);
}

void Listening::endThoseBeyond(uint64_t length) {
  for (const Stream &stream : readyStreams()) {
    if (stream->outgoingLength() <= length) continue;
    complain("legacy listen: the connection of " + stream->peerHostName().value_or("a peer") +
             " is ended: it does not read, or too slowly");
    stream->stream(stream->inputStream(), qelnk::StreamEvent::end);
  }
}

/// Waits until all that is queued has been handed over to the system.
void Listening::awaitWritten() {
  const auto wait =
      session_.waitUntil([&] { return longestQueue() == 0; }, after(invocation_.timeout), std::chrono::milliseconds(5));
  if (wait == Session::Wait::timedOut)
    throw Failure(Exit::unanswered, "a connection does not read: not everything could be written in time");
}

void Listening::setRecord(const qelnk::TXTRecordDictionary &record, size_t number) {
  if (!service_)
    throw Failure(Exit::malformed, "line " + std::to_string(number) + ": there is a TXT record only with --type");
  service_->setTXTRecordDictionary(record);
}

/// Does what a line asks for; whether that was to go on.
bool Listening::perform(const LegacyInput &input, size_t number) {
  if (const auto *string = std::get_if<LegacyString>(&input)) server_->writeString(string->text);
  if (const auto *binary = std::get_if<LegacyBinary>(&input))
    server_->writeBinaryData(binary->data, binary->contentType, binary->fenced);
  if (const auto *txt = std::get_if<LegacyTXT>(&input)) setRecord(txt->record, number);
  awaitRoom();
  return !std::holds_alternative<LegacyDisconnect>(input);
}

/// Ends the connections behind what was written, and waits for the other sides to end them too: a connection that is
/// simply closed while something comes in loses what is still on its way out.
void Listening::close() {
  isClosing_ = true;
  for (const Stream &stream : readyStreams()) stream->closeStream(stream->outputStream());
  session_.waitUntil([this] { return readyStreams().empty(); }, after(invocation_.timeout),
                     std::chrono::milliseconds(5));
}

void Listening::end() {
  if (heartbeats_) heartbeats_->cancel();
  server_->stop();
}

Exit Listening::run() {
  // While the main loop can still be served, for which the connections may be waiting.
  const std::shared_ptr<void> atEnd(nullptr, [this](void *) { end(); });
  start();
  startHeartbeats();
  awaitConnections();
  bool goesOn = true;
  std::optional<Failure> failure;  // told once what came before it has been written
  try {
    size_t number = 0;
    while (goesOn) {
      const auto line = session_.readLine();
      if (!line) break;
      ++number;
      goesOn = perform(legacyInput(*line, number), number);
    }
    if (goesOn && arguments_.has("stay")) session_.serve(true);
  } catch (const Failure &problem) {
    failure = problem;
  }
  if (heartbeats_) heartbeats_->cancel();
  try {
    awaitWritten();
    close();
  } catch (const Failure &) {
    if (!failure) throw;  // the first one is what counts
  }
  if (failure) throw *failure;
  return Exit::done;
}

Exit listenForConnections(Invocation &invocation) { return std::make_shared<Listening>(invocation)->run(); }

}  // namespace

extern const Command legacyListenCommand;
const Command legacyListenCommand = {
    "legacy listen",
    "Listens for legacy connections, prints what they send but for binary blocks, and writes each line of standard "
    "input "
    "to all\nof them.",
    {"",
     {{"port", "N", "port to listen on (default: one that the system chooses)"},
      {"bind", "IPV4", "the IPv4 address to listen on (default: all); IPv6 listens on all in any case"},
      {"name", "NAME", "name of the service (default: the machine's)"},
      {"type", "_x._tcp", "publish the service with this type"},
      {"domain", "D", "publish it in this domain"},
      {"txt", "KEY=VALUE", "an entry of its TXT record; may be given several times"},
      {"options", "SET", "playout (default) or ingest"},
      {"app-id", "ID", "application ID for the handshake (default: the one that goes with the set)"},
      {"heartbeat", "SECONDS", "send a heartbeat with the time of day at this interval"},
      {"wait", "N", "first wait until N connections are ready, at most the timeout"},
      stayOption}},
    [] { return std::string(legacyInputNotes()) + "A connection that falls 64 MiB behind the others is ended.\n"; },
    listenForConnections};

}  // namespace tool
