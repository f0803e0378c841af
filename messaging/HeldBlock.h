#pragma once

#include <QELNetworkKit/Mutex.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

namespace qelnk {

/// A callback of the host's that may be exchanged while it is being called. Threads: any.
template <class Block>
class HeldBlock {
 public:
  /// What a thread that calls it again and again keeps meanwhile.
  struct Lease {
    std::shared_ptr<const Block> block;
    uint64_t version = 0;
  };

  /// For calling it, with no lock held; null when there is none.
  std::shared_ptr<const Block> current() const {
    const Lock lock(mutex_);
    return block_;
  }
  /// The same, faster, with what the last call left in the lease.
  const Block *current(Lease &lease) const {
    if (lease.version != version_.load(std::memory_order_acquire)) {
      const auto old = std::move(lease.block);  // goes after the lock
      const Lock lock(mutex_);
      lease = {block_, version_};
    }
    return lease.block.get();
  }
  Block get() const {
    const auto block = current();
    return block ? *block : nullptr;
  }
  void set(Block block) {
    auto held = block ? std::make_shared<const Block>(std::move(block)) : nullptr;
    const Lock lock(mutex_);
    block_.swap(held);  // the old one goes after the lock
    ++version_;
  }

 private:
  mutable Mutex mutex_;
  std::shared_ptr<const Block> block_ QELNK_GUARDED_BY(mutex_);
  std::atomic<uint64_t> version_{1};  // changed with the mutex held
};

}  // namespace qelnk
