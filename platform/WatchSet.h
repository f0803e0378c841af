#pragma once

#include <QELNetworkKit/RunLoop.h>
#include <sys/epoll.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <unordered_map>
#include <vector>

namespace qelnk {

/// The descriptors that one run loop watches, in an epoll set that is opened with the first of them. A descriptor may
/// be watched more than once.
///
/// Threads: every operation but wait() under the loop's lock. Handlers are handed out to be called and destroyed
/// without it.
class WatchSet {
 public:
  using Handler = std::function<void(Readiness)>;

  struct Watch {
    int fd = -1;
    Readiness events = Readiness::none;
    std::shared_ptr<const Handler> handler;  // none once cancelled
  };
  /// A watch and what it is to be told.
  struct Call {
    std::shared_ptr<Watch> watch;
    Readiness ready;
  };

  WatchSet() = default;
  ~WatchSet() { close(); }
  WatchSet(const WatchSet &) = delete;
  WatchSet &operator=(const WatchSet &) = delete;

  bool isOpen() const { return epoll_ >= 0; }
  /// Readable while something that is watched is ready.
  int descriptor() const { return epoll_; }

  /// Opens the set, with `wakeDescriptor` in it. Throws std::system_error, as does add().
  void open(int wakeDescriptor);
  void close();

  void add(const std::shared_ptr<Watch> &watch);
  /// From here on the descriptor may be closed. Returns the handler.
  std::shared_ptr<const Handler> remove(Watch &watch);
  std::vector<std::shared_ptr<const Handler>> removeAll();

  /// Who is to be told of `event`; nobody when all have been removed, even if their descriptor's number is in use
  /// again.
  std::vector<Call> callsFor(const epoll_event &event) const;

  /// Waits for events of the set `descriptor`, at most `limit` (none: for ever). Needs no lock.
  static std::span<epoll_event> wait(int descriptor, std::span<epoll_event> room,
                                     std::optional<std::chrono::nanoseconds> limit);

 private:
  struct Entry {
    int fd;
    std::vector<std::shared_ptr<Watch>> watches;
  };
  bool update(uint64_t id, const Entry &entry);

  int epoll_ = -1;
  uint64_t lastId_ = 0;  // 0 is the wake descriptor's
  std::unordered_map<uint64_t, Entry> entries_;
  std::unordered_map<int, uint64_t> idOfDescriptor_;
};

}  // namespace qelnk
