#include <QELNetworkKit/QELNKWebSocket.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "Command.h"

namespace tool {
namespace {

using Target = std::shared_ptr<QELNKWebSocket>;

/// How much may wait to be sent before no further line is read.
constexpr size_t longestQueue = size_t(16) << 20;

/// A WebSocket with what it tells, all of it on the main thread.
class Client final : public QELNKWebSocketDelegate, public std::enable_shared_from_this<Client> {
 public:
  explicit Client(Invocation &invocation);
  Exit run();

  void webSocketDidOpen(const Target &) override {
    isOpen_ = true;
    if (output_.json()) output_.event("open");
  }
  void webSocketDidClose(const Target &) override {
    if (output_.json()) output_.event("closed");
  }
  void webSocket(const Target &, const std::string &text) override {
    if (hasAll()) return;
    ++count_;
    if (output_.json())
      output_.event("text", {{"text", text}});
    else
      output_.line(text);
  }

 private:
  void open();
  void send();
  void check(bool sent, const qelnk::Error &error) const {
    if (!sent) throw Failure(error.code == EILSEQ ? Exit::malformed : Exit::failed, "not sent: " + error.description);
  }
  void close();
  bool hasAll() const { return wanted_ && count_ == *wanted_; }
  bool isDone() const { return ended_ || hasAll(); }

  const Arguments &arguments_;
  Session &session_;
  Output &output_;
  const double timeout_;
  const std::optional<int64_t> wanted_;
  std::vector<qelnk::Data> files_;
  int64_t count_ = 0;
  bool hasSent_ = false;
  Target webSocket_;
  bool isOpen_ = false, ended_ = false;
  std::optional<Failure> failure_;
};

qelnk::Data contentsOf(const std::string &file) {
  std::ifstream stream(file, std::ios::binary);
  const std::string bytes(std::istreambuf_iterator<char>(stream), {});
  if (!stream || std::filesystem::is_directory(file)) throw Failure(Exit::system, file + " cannot be read");
  return qelnk::Data(bytes);
}

Client::Client(Invocation &invocation)
    : arguments_(invocation.arguments),
      session_(invocation.session),
      output_(invocation.output),
      timeout_(invocation.timeout),
      wanted_(arguments_.integer("count", 1, INT64_MAX)) {
  for (const std::string &file : arguments_.all("binary")) files_.push_back(contentsOf(file));
}

void Client::open() {
  QELNKWebSocketOptions options;
  options.checksCertificate = arguments_.has("strict") || arguments_.has("ca");
  options.certificateAuthorityFile = arguments_.text("ca").value_or("");
  options.openTimeout = std::chrono::milliseconds(std::max<int64_t>(1, int64_t(timeout_ * 1000)));
  options.closedBlock = [this](const Target &, uint16_t, const std::string &reason, bool wasClean) {
    ended_ = true;
    // Who has all that it wanted, and lost nothing, does not mind how the other side ends.
    if (!wasClean && (hasSent_ || !hasAll())) failure_ = Failure(Exit::failed, arguments_[0] + ": " + reason);
  };
  webSocket_ = QELNKWebSocket::create(arguments_[0], weak_from_this(), std::move(options));
  session_.waitUntil([this] { return ended_ || isOpen_; });
}

/// Sends the lines of the input, then the files.
void Client::send() {
  qelnk::Error error;
  const auto room = [this] {
    session_.waitUntil([this] { return isDone() || webSocket_->bufferedAmount() <= longestQueue; }, std::nullopt,
                       std::chrono::milliseconds(5));
    return !isDone() && !session_.stopped();
  };
  while (const auto line = session_.readLine([this] { return isDone(); })) {
    hasSent_ = true;
    check(webSocket_->sendString(*line, &error), error);
    if (!room()) return;
  }
  for (const qelnk::Data &file : files_) {
    if (!room()) return;
    hasSent_ = true;
    check(webSocket_->sendData(file, &error), error);
  }
}

/// Lets go of it once what was sent has gone out, however long the other side takes: one that takes in nothing fails.
void Client::close() {
  const auto hasSent = [this] {
    return ended_ || (webSocket_->bufferedAmount() == 0 && webSocket_->readyState() != QELNKWebSocket::closed);
  };
  constexpr std::chrono::milliseconds glance(5);
  const Deadline limit = session_.stopped() ? Deadline(after(1)) : std::nullopt;
  session_.acknowledgeStop();
  session_.waitUntil(hasSent, limit, glance);
  if (ended_) return;
  const bool isSent = webSocket_->bufferedAmount() == 0;
  webSocket_ = nullptr;
  if (isSent) session_.waitUntil([] { return QELNKWebSocket::waitUntilClosed({}); }, after(timeout_), glance);
}

Exit Client::run() {
  open();
  std::optional<Failure> failure;  // told once what came before it has gone out
  try {
    if (isOpen_) send();
    if (wanted_ || arguments_.has("stay")) session_.waitUntil([this] { return isDone(); });
  } catch (const Failure &problem) {
    failure = problem;
  }
  if (!failure_) close();
  if (failure_) throw *failure_;
  if (failure) throw *failure;
  return Exit::done;
}

Exit webSocket(Invocation &invocation) { return std::make_shared<Client>(invocation)->run(); }

}  // namespace

extern const Command webSocketCommand;
const Command webSocketCommand = {
    "ws",
    "Opens a WebSocket, prints the text that comes, and sends each line of standard input as text.",
    {"URL",
     {{"binary", "FILE", "send this file as a binary message behind the lines; may be given several times"},
      {"count", "N", "end after N messages of text"},
      {"strict", "", "accept no certificate that is not valid for the host"},
      {"ca", "FILE", "accept those only that are signed by one in this PEM file"},
      stayOption}},
    nullptr,
    webSocket};

}  // namespace tool
