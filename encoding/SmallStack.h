#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <type_traits>

namespace qelnk::detail {

/// A stack of plain objects that takes memory only once it is higher than N. It is what walks over trees have instead
/// of recursion.
template <class T, size_t N>
class SmallStack {
  static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);

 public:
  bool empty() const { return size_ == 0; }
  size_t size() const { return size_; }
  T &back() { return top_[-1]; }
  void push(const T &item) {
    if (size_ == capacity_) grow();
    new (top_++) T(item);
    ++size_;
  }
  void pop() {
    --top_;
    --size_;
  }

 private:
  void grow() {
    auto larger = std::make_unique_for_overwrite<Slot[]>(2 * capacity_);
    std::memcpy(static_cast<void *>(larger.get()), top_ - size_, size_ * sizeof(T));
    more_ = std::move(larger);
    top_ = reinterpret_cast<T *>(more_.get()) + size_;
    capacity_ *= 2;
  }

  struct alignas(T) Slot {
    std::byte bytes[sizeof(T)];
  };
  Slot first_[N];
  std::unique_ptr<Slot[]> more_;
  T *top_ = reinterpret_cast<T *>(first_);
  size_t size_ = 0;
  size_t capacity_ = N;
};

}  // namespace qelnk::detail
