#include "platform/WatchSet.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace qelnk {

namespace {

constexpr uint64_t wakeId = 0;

[[noreturn]] void fail(const char *what) { throw std::system_error(errno, std::generic_category(), what); }

uint32_t maskOf(Readiness events) {
  return (events & Readiness::readable ? EPOLLIN : 0u) | (events & Readiness::writable ? EPOLLOUT : 0u);
}

Readiness readinessOf(uint32_t mask) {
  Readiness ready = Readiness::none;
  // After a hang-up a read returns at once, with what is left or the end.
  if (mask & (EPOLLIN | EPOLLHUP)) ready = ready | Readiness::readable;
  if (mask & EPOLLOUT) ready = ready | Readiness::writable;
  if (mask & (EPOLLERR | EPOLLHUP)) ready = ready | Readiness::failed;
  return ready;
}

Readiness common(Readiness a, Readiness b) { return Readiness(uint32_t(a) & uint32_t(b)); }

int waitInMilliseconds(int descriptor, std::span<epoll_event> room, std::optional<std::chrono::nanoseconds> limit) {
  using std::chrono::milliseconds;
  const auto whole = limit ? std::chrono::ceil<milliseconds>(*limit) : milliseconds(-1);
  return epoll_wait(descriptor, room.data(), int(room.size()), int(std::min(whole, milliseconds(1 << 30)).count()));
}

}  // namespace

void WatchSet::open(int wakeDescriptor) {
  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  if (epoll < 0) fail("epoll_create1");
  epoll_event event{EPOLLIN, {.u64 = wakeId}};
  if (epoll_ctl(epoll, EPOLL_CTL_ADD, wakeDescriptor, &event) < 0) {
    const int error = errno;
    ::close(epoll);
    throw std::system_error(error, std::generic_category(), "epoll_ctl");
  }
  epoll_ = epoll;
}

void WatchSet::close() {
  if (epoll_ >= 0) ::close(epoll_);
  epoll_ = -1;
}

void WatchSet::add(const std::shared_ptr<Watch> &watch) {
  const auto known = idOfDescriptor_.find(watch->fd);
  const uint64_t id = known == idOfDescriptor_.end() ? ++lastId_ : known->second;
  Entry entry = known == idOfDescriptor_.end() ? Entry{watch->fd, {}} : entries_.at(id);
  entry.watches.push_back(watch);
  if (!update(id, entry)) fail("epoll_ctl");
  entries_.insert_or_assign(id, std::move(entry));
  idOfDescriptor_[watch->fd] = id;
}

std::shared_ptr<const WatchSet::Handler> WatchSet::remove(Watch &watch) {
  const auto known = idOfDescriptor_.find(watch.fd);
  if (!watch.handler || known == idOfDescriptor_.end()) return nullptr;
  const auto entry = entries_.find(known->second);
  auto handler = std::exchange(watch.handler, nullptr);
  std::erase_if(entry->second.watches, [&](const auto &other) { return other.get() == &watch; });
  if (!entry->second.watches.empty()) {
    update(entry->first, entry->second);
    return handler;
  }
  epoll_ctl(epoll_, EPOLL_CTL_DEL, watch.fd, nullptr);
  entries_.erase(entry);
  idOfDescriptor_.erase(known);
  return handler;
}

std::vector<std::shared_ptr<const WatchSet::Handler>> WatchSet::removeAll() {
  std::vector<std::shared_ptr<const Handler>> handlers;
  for (auto &[id, entry] : entries_)
    for (auto &watch : entry.watches) handlers.push_back(std::exchange(watch->handler, nullptr));
  entries_.clear();
  idOfDescriptor_.clear();
  return handlers;
}

std::vector<WatchSet::Call> WatchSet::callsFor(const epoll_event &event) const {
  std::vector<Call> calls;
  const auto entry = entries_.find(event.data.u64);
  if (entry == entries_.end()) return calls;
  for (const auto &watch : entry->second.watches)
    if (const Readiness told = common(readinessOf(event.events), watch->events | Readiness::failed);
        told != Readiness::none)
      calls.push_back({watch, told});
  return calls;
}

std::span<epoll_event> WatchSet::wait(int descriptor, std::span<epoll_event> room,
                                      std::optional<std::chrono::nanoseconds> limit) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(limit.value_or(std::chrono::nanoseconds::zero()));
  const timespec time{seconds.count(), limit ? (*limit - seconds).count() : 0};
  int count = epoll_pwait2(descriptor, room.data(), int(room.size()), limit ? &time : nullptr, nullptr);
  if (count < 0 && errno != EINTR)
    count = waitInMilliseconds(descriptor, room, limit);  // an old kernel lacks the first
  return room.first(size_t(std::max(count, 0)));
}

bool WatchSet::update(uint64_t id, const Entry &entry) {
  epoll_event event{0, {.u64 = id}};
  for (const auto &watch : entry.watches) event.events |= maskOf(watch->events);
  const bool known = entries_.contains(id);
  if (epoll_ctl(epoll_, known ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, entry.fd, &event) == 0) return true;
  // Closed without cancelling and opened again under the same number: the system has forgotten it.
  return known && errno == ENOENT && epoll_ctl(epoll_, EPOLL_CTL_ADD, entry.fd, &event) == 0;
}

}  // namespace qelnk
