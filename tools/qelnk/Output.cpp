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

/// Standard error under a number of its own: number 2 may be lent to a child process for the moment of its start.
int diagnosticsDescriptor() {
  static const int fd = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  return fd;
}

// Every push of a daemon brings this line at error level: it looks like a reply to nothing at first.
constexpr std::string_view pushLine = "QELNKClient got response without matching message, discarding it";

}  // namespace

Output::Output(Session &session, bool json) : session_(session), json_(json) {
  const char *terminal = std::getenv("TERM");
  colour_ =
      !json && isatty(STDOUT_FILENO) && !std::getenv("NO_COLOR") && terminal && std::string_view(terminal) != "dumb";
}

void Output::event(std::string_view name, Fields fields) {
  qelnk::Value object = qelnk::Value::map({{"event", name}});
  for (const auto &[key, value] : fields) object.set(key, value);
  line(plainJSON(object));
}

void Output::line(std::string_view text) {
  std::string whole(text);
  whole += '\n';
  bytes(whole);
}

void Output::bytes(std::string_view bytes) {
  if (session_.outputError() != 0) return;
  const int error = writeAll(STDOUT_FILENO, bytes, [this] { return session_.stopped(); });
  if (error != 0) session_.outputFailed(error);
}

std::string Output::bold(std::string_view text) const {
  return colour_ ? "\033[1m" + std::string(text) + "\033[0m" : std::string(text);
}

void tell(std::string_view line) {
  writeAll(diagnosticsDescriptor(), std::string(line) + "\n", [] { return false; });
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
