#include "Session.h"

#include <QELNetworkKit/RunLoop.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <system_error>
#include <utility>

#include "Exit.h"

namespace tool {
namespace {

using namespace std::chrono_literals;

// What the signal handler touches. Handlers, unlike ignored and blocked signals, are not handed on to child processes.
std::atomic<int> signalsSeen{0};
int signalPipe[2] = {-1, -1};

void onStopSignal(int) {
  const int saved = errno;
  signalsSeen.fetch_add(1);
  [[maybe_unused]] const ssize_t written = write(signalPipe[1], "!", 1);
  errno = saved;
}

void onBrokenPipe(int) {}

void handle(int number, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  sigaction(number, &action, nullptr);
}

void drainSignalPipe() {
  char bytes[64];
  while (read(signalPipe[0], bytes, sizeof bytes) > 0) {
  }
}

}  // namespace

Session::Session() {
  if (pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
    throw Failure(Exit::system, "no pipe: " + std::generic_category().message(errno));
  handle(SIGINT, onStopSignal);
  handle(SIGTERM, onStopSignal);
  handle(SIGPIPE, onBrokenPipe);
  signalWatch_ = qelnk::RunLoop::main()->watch(signalPipe[0], qelnk::Readiness::readable, [this](qelnk::Readiness) {
    drainSignalPipe();
    if (onStop_) onStop_();
  });
}

Session::~Session() {
  signalWatch_->cancel();
  handle(SIGINT, SIG_DFL);
  handle(SIGTERM, SIG_DFL);
  close(signalPipe[0]);
  close(signalPipe[1]);
}

bool Session::stopped() const { return outputStops_ || signalsSeen.load() > acknowledged_; }

void Session::acknowledgeStop() {
  acknowledged_ = signalsSeen.load();
  outputStops_ = false;
}

void Session::outputFailed(int errorNumber) {
  if (outputError_ != 0) return;
  outputError_ = errorNumber;
  outputStops_ = true;
}

Session::Wait Session::waitUntil(const std::function<bool()> &condition, Deadline deadline,
                                 std::chrono::milliseconds glance) {
  for (;;) {
    if (condition()) return Wait::done;
    if (stopped()) return Wait::stopped;
    std::chrono::nanoseconds limit = glance;
    if (deadline) {
      const std::chrono::nanoseconds left = *deadline - Clock::now();
      if (left <= 0ns) return Wait::timedOut;
      limit = std::min(limit, left);
    }
    qelnk::RunLoop::main()->runOnce(limit);
  }
}

/// Waits until standard input or the main loop has something, and serves the loop.
void Session::awaitInput() {
  const auto loop = qelnk::RunLoop::main();
  bool readable = false;
  std::shared_ptr<qelnk::LoopSource> watch;
  try {
    watch = loop->watch(STDIN_FILENO, qelnk::Readiness::readable, [&](qelnk::Readiness) { readable = true; });
  } catch (const std::system_error &) {  // a file: that cannot be watched, and is always readable
    readable = true;
  }
  loop->runOnce(readable ? 0ns : 1s);
  if (watch) watch->cancel();
  if (readable) inputEnded_ = !fill();
}

/// Reads what is there; returns false at the end of the input.
bool Session::fill() {
  char bytes[65536];
  const ssize_t count = read(STDIN_FILENO, bytes, sizeof bytes);
  if (count < 0 && (errno == EINTR || errno == EAGAIN)) return true;
  if (count < 0)
    throw Failure(Exit::system, "standard input cannot be read: " + std::generic_category().message(errno));
  input_.append(bytes, size_t(count));
  return count > 0;
}

std::optional<std::string> Session::readLine(const std::function<bool()> &interrupted) {
  for (;;) {
    if (stopped() || (interrupted && interrupted())) return std::nullopt;
    const size_t end = input_.find('\n', searched_);
    if (end != std::string::npos || inputEnded_) {
      if (end == std::string::npos && input_.empty()) return std::nullopt;
      std::string line = input_.substr(0, end);
      input_.erase(0, end == std::string::npos ? end : end + 1);
      searched_ = 0;
      return line;
    }
    searched_ = input_.size();
    awaitInput();
  }
}

bool Session::hasInput() {
  if (input_.empty() && !inputEnded_) {
    pollfd standardInput{STDIN_FILENO, POLLIN, 0};
    if (poll(&standardInput, 1, 0) > 0) inputEnded_ = !fill();
  }
  return !input_.empty();
}

void Session::serve(bool stay) {
  while (readLine()) {
  }
  if (stay) waitUntil([] { return false; }, std::nullopt, 1s);
}

std::string Session::readAll() {
  while (!inputEnded_ && !stopped()) awaitInput();
  if (stopped()) throw Failure(Exit::failed, "");
  return std::exchange(input_, {});
}

}  // namespace tool
