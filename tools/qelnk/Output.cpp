#include "Output.h"

#include <QELNetworkKit/Log.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>

#include "Exit.h"
#include "Notation.h"
#include "Session.h"

namespace tool {
namespace {

/// Writes all of it; returns 0 or the system's error number. `interrupted` is asked when a signal came in between.
template <class Interrupted>
int writeAll(int fd, std::string_view bytes, Interrupted interrupted) {
  while (!bytes.empty()) {
    const ssize_t count = write(fd, bytes.data(), bytes.size());
    if (count < 0 && errno != EINTR) return errno;
    if (count < 0 && interrupted()) return EINTR;
    if (count > 0) bytes.remove_prefix(size_t(count));
  }
  return 0;
}

constexpr std::string_view boldType = "\033[1m", plainType = "\033[0m";  // equally long

/// Standard error under a number of its own: number 2 may be lent to a child process for the moment of its start.
int diagnosticsDescriptor() {
  static const int fd = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  return fd;
}

/// What people are shown: of what a peer sent, lines and tabs are kept, and bold type is ours; anything else that a
/// terminal would obey is not.
std::string forTerminal(std::string_view text) {
  std::string shown;
  shown.reserve(text.size());
  while (!text.empty()) {
    const auto c = static_cast<unsigned char>(text[0]);
    const bool isC1 = c == 0xC2 && text.size() > 1 && (static_cast<unsigned char>(text[1]) & 0xE0) == 0x80;
    size_t length = isC1 ? 2 : 1;
    const bool isObeyed = isC1 || c == 0x7F || (c < ' ' && c != '\n' && c != '\t');
    if (text.starts_with(boldType) || text.starts_with(plainType))
      shown += text.substr(0, length = boldType.size());
    else if (isObeyed)
      shown += "\uFFFD";
    else
      shown += text[0];
    text.remove_prefix(length);
  }
  return shown;
}

// Every push of a daemon brings this line at error level: it looks like a reply to nothing at first.
constexpr std::string_view pushLine = "QELNKClient got response without matching message, discarding it";

}  // namespace

Output::Output(Session &session, bool json) : session_(session), json_(json), isTerminal_(isatty(STDOUT_FILENO)) {
  const char *terminal = std::getenv("TERM");
  colour_ = !json && isTerminal_ && !std::getenv("NO_COLOR") && terminal && std::string_view(terminal) != "dumb";
}

void Output::event(std::string_view name, Fields fields) {
  qelnk::Value object = qelnk::Value::map({{"event", name}});
  for (const auto &[key, value] : fields) object.set(key, value);
  line(plainJSON(object));
}

void Output::line(std::string_view text) { bytes((isTerminal_ ? forTerminal(text) : std::string(text)) + '\n'); }

void Output::bytes(std::string_view bytes) {
  if (session_.outputError() != 0) return;
  const int error = writeAll(STDOUT_FILENO, bytes, [this] { return session_.stopped(); });
  if (error != 0) session_.outputFailed(error);
}

std::string Output::bold(std::string_view text) const {
  return colour_ ? std::string(boldType) + std::string(text) + std::string(plainType) : std::string(text);
}

void tell(std::string_view line) {
  static const bool isTerminal = isatty(diagnosticsDescriptor());
  const auto text = isTerminal ? forTerminal(line) : std::string(line);
  writeAll(diagnosticsDescriptor(), text + "\n", [] { return false; });
}

void complain(std::string_view text) { tell("qelnk: " + std::string(text)); }

void setLogLevel(const std::string *level) {
  std::optional<qelnk::LogLevel> chosen;
  if (!level || *level == "error") chosen = qelnk::LogLevel::error;
  if (level && *level == "off") chosen = qelnk::LogLevel::off;
  if (level && *level == "info") chosen = qelnk::LogLevel::standard;
  if (level && *level == "debug") chosen = qelnk::LogLevel::debug;
  if (!chosen) throw Failure(Exit::usage, "--log-level takes off, error, info or debug, not " + *level);
  diagnosticsDescriptor();
  QLGetHandle().setLevel(*chosen);
  QLGetHandle().setSink([quiet = !level](qelnk::LogLevel, std::string_view line) {
    if (!quiet || line.find(pushLine) == std::string_view::npos) tell(line);
  });
}

}  // namespace tool
