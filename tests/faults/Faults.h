#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace qelnk::test {

/// What the system is asked for, as far as it can fail.
enum class Step : uint8_t {
  socket,
  connect,
  bind,
  listen,
  accept,
  send,
  receive,
  epoll,       // a descriptor for it
  epollWatch,  // one more watched by it
  eventfd,
  timerfd,
  pipe,
  open,
  lookup,
  option,
  thread,
  spawn,
  pidfd,
  memory,  // 64 KiB and more at once
  count
};
constexpr size_t stepCount = size_t(Step::count);
std::string_view nameOf(Step step);

using Steps = uint32_t;
constexpr Steps operator|(Step a, Step b) { return 1u << unsigned(a) | 1u << unsigned(b); }
constexpr Steps operator|(Steps a, Step b) { return a | 1u << unsigned(b); }
constexpr bool contains(Steps steps, Step step) { return steps >> unsigned(step) & 1u; }

/// Which calls fail, and how.
struct Fault {
  const char *name;
  Steps steps;
  int error = 0;       // errno, or what getaddrinfo(), pthread_create() and posix_spawn() return
  bool lasts = false;  // all from that one on
  enum Effect : uint8_t { fails, oneByte, ends } effect = fails;
};

/// Has the `nth` of a fault's calls fail, counted from here on and from 1.
void arm(const Fault &fault, long nth);
/// Has no thread start while so many run.
void limitThreads(long most);
/// From here on nothing fails.
void disarm();
/// Whether a call has failed.
bool hasStruck();
/// Begins to count steps anew.
void countSteps();
/// How often each step was taken since then.
std::array<long, stepCount> stepsTaken();
/// How many threads ran at once, at most.
long mostThreads();

/// While it lives, nothing fails on this thread, nor on those that it starts: for peers, and for what the test itself
/// needs.
class Immune {
 public:
  Immune();
  ~Immune();
  Immune(const Immune &) = delete;
  Immune &operator=(const Immune &) = delete;

 private:
  const bool before_;
};

}  // namespace qelnk::test
