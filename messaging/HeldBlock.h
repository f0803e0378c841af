#pragma once

#include <memory>
#include <mutex>
#include <utility>

namespace qelnk {

/// A callback of the host's that may be exchanged while it is being called. Threads: any.
template <class Block>
class HeldBlock {
 public:
  /// For calling it, with no lock held; null when there is none.
  std::shared_ptr<const Block> current() const {
    const std::lock_guard lock(mutex_);
    return block_;
  }
  Block get() const {
    const auto block = current();
    return block ? *block : nullptr;
  }
  void set(Block block) {
    auto held = block ? std::make_shared<const Block>(std::move(block)) : nullptr;
    const std::lock_guard lock(mutex_);
    block_.swap(held);  // the old one goes after the lock
  }

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<const Block> block_;
};

}  // namespace qelnk
