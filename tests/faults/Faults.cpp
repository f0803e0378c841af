#include "faults/Faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <netdb.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

// The program's own functions come before the system's, in every library of the process. Each asks whether it is to
// fail, and goes on to the next of its name: the system's or, where there is one, the sanitizer's.

namespace qelnk::test {

namespace {

constexpr size_t largeBuffer = 64 * 1024;

std::array<std::atomic<long>, stepCount> taken;
std::atomic<bool> armed = false;
std::atomic<long> left = 0, struck = 0;
std::atomic<long> threads = 0, mostAtOnce = 0, threadLimit = std::numeric_limits<long>::max();
Fault current{};
thread_local bool immune = false;

struct Range {
  uintptr_t begin = 0, end = 0;
};

/// Where ZeroMQ's code lies.
Range findZeroMQ() {
  Range range;
  const auto look = [](dl_phdr_info *info, size_t, void *data) {
    if (!std::strstr(info->dlpi_name, "libzmq.so")) return 0;
    for (int i = 0; i < info->dlpi_phnum; ++i)
      if (const auto &part = info->dlpi_phdr[i]; part.p_type == PT_LOAD && part.p_flags & PF_X)
        *static_cast<Range *>(data) = {info->dlpi_addr + part.p_vaddr, info->dlpi_addr + part.p_vaddr + part.p_memsz};
    return 1;
  };
  dl_iterate_phdr(look, &range);
  return range;
}

/// ZeroMQ ends the process when one of these fails:
/// - epoll, thread: those of a context, which come with its first socket. We look whether there is room before that, so
///   that only another thread of the host's can take it away in between. Limits of both are tried with these calls.
/// - epollWatch: each connection is watched by its io thread as it comes and goes. The kernel refuses that only when it
///   has no memory, or when a user watches more descriptors than fs.epoll.max_user_watches, which are millions.
/// - option: those of TCP, which the kernel refuses no socket that is one.
bool isFatalToZeroMQ(Step step) {
  return step == Step::epoll || step == Step::thread || step == Step::epollWatch || step == Step::option;
}

bool isZeroMQ(const void *caller) {
  static const Range range = findZeroMQ();
  const auto address = reinterpret_cast<uintptr_t>(caller);
  return address >= range.begin && address < range.end;
}

/// What is to become of this call; null to go on.
const Fault *strikes(Step step, const void *caller) {
  if (immune || (isFatalToZeroMQ(step) && isZeroMQ(caller))) return nullptr;
  ++taken[size_t(step)];
  if (!armed.load(std::memory_order_acquire) || !contains(current.steps, step)) return nullptr;
  const long before = left--;
  if (before != 1 && (before > 1 || !current.lasts)) return nullptr;
  ++struck;
  return &current;
}

/// The same for a call that says so by errno.
bool fails(Step step, const void *caller) {
  const Fault *fault = strikes(step, caller);
  if (fault) errno = fault->error;
  return fault != nullptr;
}

enum class Kind : uint8_t { stream, datagrams, other };
Kind kindOf(int descriptor) {
  int type = 0;
  socklen_t size = sizeof type;
  if (getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) != 0) return Kind::other;
  return type == SOCK_STREAM ? Kind::stream : Kind::datagrams;
}

/// What is to become of a transfer. Only streams are cut short and end; and of what is no socket no transfer fails,
/// such as of ZeroMQ's signals.
const Fault *strikes(Step step, const void *caller, int descriptor) {
  const int error = errno;
  const Kind kind = kindOf(descriptor);
  errno = error;
  const bool fits = kind == Kind::stream || (kind == Kind::datagrams && current.effect == Fault::fails);
  return fits ? strikes(step, caller) : nullptr;
}

/// The next function of this name.
template <class Function>
Function next(Function, const char *name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

/// A transfer of `size` bytes: fails, or is cut short.
template <class Call>
ssize_t transfer(Step step, const void *caller, int descriptor, size_t size, Call &&call) {
  const Fault *fault = strikes(step, caller, descriptor);
  if (!fault) return call(size);
  if (fault->effect == Fault::ends) return 0;
  if (fault->effect == Fault::oneByte) return call(std::min<size_t>(size, 1));
  errno = fault->error;
  return -1;
}

/// The same of several buffers.
template <class Message, class Call>
ssize_t transferParts(Step step, const void *caller, int descriptor, const Message &message, Call &&call) {
  const Fault *fault = strikes(step, caller, descriptor);
  Message some = message;
  if (!fault) return call(some);
  if (fault->effect == Fault::ends) return 0;
  errno = fault->error;
  if (fault->effect == Fault::fails) return -1;
  iovec one{message.msg_iov[0].iov_base, std::min<size_t>(message.msg_iov[0].iov_len, 1)};
  some.msg_iov = &one;
  some.msg_iovlen = 1;
  return call(some);
}

struct Body {
  void *(*function)(void *);
  void *argument;
  bool immune;
};

void *runBody(void *data) {
  const Body body = *static_cast<Body *>(data);
  delete static_cast<Body *>(data);
  immune = body.immune;
  void *const result = body.function(body.argument);
  if (!immune) --threads;
  return result;
}

/// Whether there is room for one more thread, which is taken.
bool takeThread() {
  if (immune) return true;
  const long now = ++threads;
  if (now > threadLimit) {
    --threads;
    ++struck;
    return false;
  }
  for (long most = mostAtOnce; now > most && !mostAtOnce.compare_exchange_weak(most, now);) continue;
  return true;
}

}  // namespace

std::string_view nameOf(Step step) {
  static constexpr std::array<std::string_view, stepCount> names{
      "socket",  "connect", "bind", "listen", "accept", "send",   "receive", "epoll", "epollWatch", "eventfd",
      "timerfd", "pipe",    "open", "lookup", "option", "thread", "spawn",   "pidfd", "memory"};
  return names[size_t(step)];
}

void arm(const Fault &fault, long nth) {
  current = fault;
  left = nth;
  armed.store(true, std::memory_order_release);
}

void limitThreads(long most) { threadLimit = most; }

void disarm() {
  armed = false;
  threadLimit = std::numeric_limits<long>::max();
}

bool hasStruck() { return struck != 0; }
long mostThreads() { return mostAtOnce; }

void countSteps() {
  for (auto &count : taken) count = 0;
}

std::array<long, stepCount> stepsTaken() {
  std::array<long, stepCount> copy{};
  std::copy(taken.begin(), taken.end(), copy.begin());
  return copy;
}

Immune::Immune() : before_(std::exchange(immune, true)) {}
Immune::~Immune() { immune = before_; }

}  // namespace qelnk::test

using namespace qelnk::test;

#define CALLER __builtin_return_address(0)
#define NEXT(name) static const auto real = next(&::name, #name)
#define EXPORTED extern "C" __attribute__((visibility("default")))

// A call that is given up with -1 and errno.
#define FAILING(step, result, name, parameters, ...)     \
  EXPORTED result name parameters {                      \
    NEXT(name);                                          \
    return fails(step, CALLER) ? -1 : real(__VA_ARGS__); \
  }

FAILING(Step::socket, int, socket, (int family, int type, int protocol), family, type, protocol)
FAILING(Step::socket, int, socketpair, (int family, int type, int protocol, int *pair), family, type, protocol, pair)
FAILING(Step::connect, int, connect, (int fd, const sockaddr *address, socklen_t size), fd, address, size)
FAILING(Step::bind, int, bind, (int fd, const sockaddr *address, socklen_t size), fd, address, size)
FAILING(Step::listen, int, listen, (int fd, int backlog), fd, backlog)
FAILING(Step::accept, int, accept, (int fd, sockaddr *address, socklen_t *size), fd, address, size)
FAILING(Step::accept, int, accept4, (int fd, sockaddr *address, socklen_t *size, int flags), fd, address, size, flags)
FAILING(Step::epoll, int, epoll_create1, (int flags), flags)
FAILING(Step::epoll, int, epoll_create, (int size), size)
FAILING(Step::eventfd, int, eventfd, (unsigned value, int flags), value, flags)
FAILING(Step::timerfd, int, timerfd_create, (clockid_t clock, int flags), clock, flags)
FAILING(Step::pipe, int, pipe, (int *pair), pair)
FAILING(Step::pipe, int, pipe2, (int *pair, int flags), pair, flags)
FAILING(Step::option, int, setsockopt, (int fd, int level, int name, const void *value, socklen_t size), fd, level,
        name, value, size)
FAILING(Step::pidfd, int, pidfd_open, (pid_t pid, unsigned flags), pid, flags)

EXPORTED int epoll_ctl(int epoll, int operation, int fd, epoll_event *event) {
  NEXT(epoll_ctl);
  if (operation == EPOLL_CTL_ADD && fails(Step::epollWatch, CALLER)) return -1;
  return real(epoll, operation, fd, event);
}

template <class Open>
static int openBy(Open real, const void *caller, const char *path, int flags, va_list arguments) {
  const mode_t mode = flags & O_CREAT ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return fails(Step::open, caller) ? -1 : real(path, flags, mode);
}

EXPORTED int open(const char *path, int flags, ...) {
  NEXT(open);
  va_list arguments;
  va_start(arguments, flags);
  return openBy(real, CALLER, path, flags, arguments);
}

EXPORTED int open64(const char *path, int flags, ...) {
  NEXT(open64);
  va_list arguments;
  va_start(arguments, flags);
  return openBy(real, CALLER, path, flags, arguments);
}

EXPORTED ssize_t send(int fd, const void *bytes, size_t size, int flags) {
  NEXT(send);
  return transfer(Step::send, CALLER, fd, size, [&](size_t some) { return real(fd, bytes, some, flags); });
}

EXPORTED ssize_t sendto(int fd, const void *bytes, size_t size, int flags, const sockaddr *to, socklen_t length) {
  NEXT(sendto);
  return transfer(Step::send, CALLER, fd, size, [&](size_t some) { return real(fd, bytes, some, flags, to, length); });
}

EXPORTED ssize_t sendmsg(int fd, const msghdr *message, int flags) {
  NEXT(sendmsg);
  return transferParts(Step::send, CALLER, fd, *message, [&](const msghdr &some) { return real(fd, &some, flags); });
}

EXPORTED ssize_t recv(int fd, void *bytes, size_t size, int flags) {
  NEXT(recv);
  return transfer(Step::receive, CALLER, fd, size, [&](size_t some) { return real(fd, bytes, some, flags); });
}

EXPORTED ssize_t recvfrom(int fd, void *bytes, size_t size, int flags, sockaddr *from, socklen_t *length) {
  NEXT(recvfrom);
  return transfer(Step::receive, CALLER, fd, size,
                  [&](size_t some) { return real(fd, bytes, some, flags, from, length); });
}

EXPORTED ssize_t recvmsg(int fd, msghdr *message, int flags) {
  NEXT(recvmsg);
  const auto parts = message->msg_iov;
  const auto count = message->msg_iovlen;
  return transferParts(Step::receive, CALLER, fd, *message, [&](msghdr &some) {
    const ssize_t size = real(fd, &some, flags);
    *message = some;
    message->msg_iov = parts;
    message->msg_iovlen = count;
    return size;
  });
}

EXPORTED ssize_t write(int fd, const void *bytes, size_t size) {
  NEXT(write);
  return transfer(Step::send, CALLER, fd, size, [&](size_t some) { return real(fd, bytes, some); });
}

EXPORTED ssize_t read(int fd, void *bytes, size_t size) {
  NEXT(read);
  return transfer(Step::receive, CALLER, fd, size, [&](size_t some) { return real(fd, bytes, some); });
}

EXPORTED ssize_t writev(int fd, const iovec *parts, int count) {
  NEXT(writev);
  msghdr message{};
  message.msg_iov = const_cast<iovec *>(parts);
  message.msg_iovlen = size_t(count);
  return transferParts(Step::send, CALLER, fd, message,
                       [&](const msghdr &some) { return real(fd, some.msg_iov, int(some.msg_iovlen)); });
}

EXPORTED int getaddrinfo(const char *host, const char *service, const addrinfo *hints, addrinfo **found) {
  NEXT(getaddrinfo);
  const Fault *fault = strikes(Step::lookup, CALLER);
  return fault ? fault->error : real(host, service, hints, found);
}

EXPORTED int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*function)(void *),
                            void *argument) {
  NEXT(pthread_create);
  if (const Fault *fault = strikes(Step::thread, CALLER)) return fault->error;
  if (!takeThread()) return EAGAIN;
  auto *body = new Body{function, argument, immune};
  const int error = real(thread, attributes, runBody, body);
  if (!error) return 0;
  if (!immune) --threads;
  delete body;
  return error;
}

EXPORTED int posix_spawn(pid_t *pid, const char *path, const posix_spawn_file_actions_t *actions,
                         const posix_spawnattr_t *attributes, char *const *arguments, char *const *environment) {
  NEXT(posix_spawn);
  const Fault *fault = strikes(Step::spawn, CALLER);
  return fault ? fault->error : real(pid, path, actions, attributes, arguments, environment);
}

EXPORTED void *malloc(size_t size) {
  NEXT(malloc);
  return size >= largeBuffer && fails(Step::memory, CALLER) ? nullptr : real(size);
}

#ifdef QELNK_OWN_NEW  // a sanitizer's operator does not come by malloc()
static void *allocate(size_t size, const void *caller) {
  static const auto real = reinterpret_cast<void *(*)(size_t)>(dlsym(RTLD_NEXT, "_Znwm"));
  if (size >= largeBuffer && fails(Step::memory, caller)) throw std::bad_alloc();
  return real(size);
}

__attribute__((visibility("default"))) void *operator new(size_t size) { return allocate(size, CALLER); }
#endif
