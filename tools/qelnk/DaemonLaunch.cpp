#include "DaemonLaunch.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "Exit.h"

namespace tool {

std::string defaultBundle() {
  namespace fs = std::filesystem;
  std::error_code ignored;
  const fs::path folder = fs::read_symlink("/proc/self/exe", ignored).parent_path();
  const fs::path bundle = fs::path("Orlin Daemon") / "orlin Daemon.app";
  const fs::path built = folder / bundle;
  return fs::exists(built, ignored)
             ? built
             : (folder / QELNK_LIBRARY_FROM_PROGRAM / "QELNetworkKit" / bundle).lexically_normal();
}

int64_t freePort(int64_t wanted) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // Old connections may linger on a port that a daemon gets all the same.
  const int reuse = wanted != 0;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(uint16_t(wanted));
  socklen_t length = sizeof address;
  auto *generic = reinterpret_cast<sockaddr *>(&address);
  const bool found = fd >= 0 && bind(fd, generic, length) == 0 && getsockname(fd, generic, &length) == 0;
  const int problem = errno;
  if (fd >= 0) close(fd);
  const std::string reason = ": " + std::generic_category().message(problem);
  if (!found && wanted != 0) throw Failure(Exit::failed, "port " + std::to_string(wanted) + reason);
  if (!found) throw Failure(Exit::system, "no free port" + reason);
  return ntohs(address.sin_port);
}

LentStreams::LentStreams(Child child) {
  for (int number = 0; number < 3; ++number) saved_[number] = fcntl(number, F_DUPFD_CLOEXEC, 3);
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  dup2(nothing, STDIN_FILENO);
  dup2(child == Child::ends ? saved_[2] : nothing, STDOUT_FILENO);
  if (child == Child::stays) dup2(nothing, STDERR_FILENO);
  close(nothing);
}

LentStreams::~LentStreams() {
  for (int number = 0; number < 3; ++number) {
    dup2(saved_[number], number);
    close(saved_[number]);
  }
}

}  // namespace tool
