// A part of the studio: endpoints of one kind, their load, and what has to hold for them.

#pragma once

#include <chrono>
#include <memory>
#include <random>
#include <string>

#include "Report.h"

namespace soak {

using Time = std::chrono::steady_clock::time_point;
inline Time now() { return std::chrono::steady_clock::now(); }

/// What the command line says of a part, and what all share.
struct Setting {
  int port = 0, count = 0;
  std::string text;
  uint64_t seed = 0;
  int pace = 1;  // so many times less load
};

/// All is called on the main thread.
class Part {
 public:
  explicit Part(const Setting &setting) : setting_(setting), random_(setting.seed) {}
  virtual ~Part() = default;
  /// Begins with what comes and goes.
  virtual void go() { goes_ = true; }
  /// Lets go of it; isQuiet() once that is done.
  virtual void rest() { goes_ = false; }
  virtual bool isQuiet() const { return true; }
  /// Called 50 times a second.
  virtual void beat() {}

 protected:
  bool goes() const { return goes_; }
  int between(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random_); }
  bool oneIn(int count) { return between(1, count) == 1; }
  Time after(int lowMilliseconds, int highMilliseconds) {
    return now() + std::chrono::milliseconds(between(lowMilliseconds, highMilliseconds));
  }
  /// The shared context, whose callbacks come on the main thread, or one with threads of its own.
  std::shared_ptr<QELNKContext> anyContext() {
    return oneIn(2) ? QELNKContext::sharedContext() : QELNKContext::contextWithBackgroundQueue();
  }

  const Setting setting_;

 private:
  std::mt19937_64 random_;
  bool goes_ = false;
};

std::unique_ptr<Part> requestServer(const Setting &setting);
std::unique_ptr<Part> requestClients(const Setting &setting);
std::unique_ptr<Part> publisher(const Setting &setting);
std::unique_ptr<Part> subscribers(const Setting &setting);
std::unique_ptr<Part> legacyServer(const Setting &setting);
std::unique_ptr<Part> legacyClients(const Setting &setting);
/// `text` is the port of its web clients.
std::unique_ptr<Part> daemonMirror(const Setting &setting);
/// `text` is the bundle, a comma, and the project.
std::unique_ptr<Part> launchedDaemons(const Setting &setting);
std::unique_ptr<Part> webSockets(const Setting &setting);
std::unique_ptr<Part> watches(const Setting &setting);

}  // namespace soak
