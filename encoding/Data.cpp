#include "encoding/ValueStorage.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

namespace qelnk {

using detail::BytesHeader;

uint8_t *BytesHeader::allocate(size_t capacity) {
  if (capacity > detail::sizeLimit) throw std::bad_alloc();
  void *memory = std::malloc(sizeof(BytesHeader) + capacity);
  if (!memory) throw std::bad_alloc();
  auto *header = new (memory) BytesHeader{{1}, capacity, nullptr};
  return reinterpret_cast<uint8_t *>(header + 1);
}

void BytesHeader::release() {
  if (references.fetch_sub(1, std::memory_order_acq_rel) == 1) std::free(this);
}

Data::Data(std::span<const uint8_t> bytes) {
  if (bytes.empty()) return;
  bytes_ = BytesHeader::allocate(bytes.size());
  size_ = bytes.size();
  std::memcpy(bytes_, bytes.data(), bytes.size());
}

Data::Data(std::string_view bytes) : Data(std::span(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size())) {}

Data Data::uninitialized(size_t size) {
  Data data;
  data.resize(size);
  return data;
}

Data::Data(const Data &other) : bytes_(other.bytes_), size_(other.size_) {
  if (bytes_) BytesHeader::of(bytes_)->retain();
}

Data::~Data() {
  if (bytes_) BytesHeader::of(bytes_)->release();
}

// Makes the bytes this object's own, with room for `capacity`.
void Data::grow(size_t capacity) {
  if (bytes_) {
    BytesHeader *header = BytesHeader::of(bytes_);
    if (header->references.load(std::memory_order_acquire) == 1) {
      if (header->capacity >= capacity) return;
      if (capacity > detail::sizeLimit) throw std::bad_alloc();
      void *memory = std::realloc(static_cast<void *>(header), sizeof(BytesHeader) + capacity);
      if (!memory) throw std::bad_alloc();
      header = static_cast<BytesHeader *>(memory);
      header->capacity = capacity;
      bytes_ = reinterpret_cast<uint8_t *>(header + 1);
      return;
    }
  } else if (capacity == 0) {
    return;
  }
  uint8_t *own = BytesHeader::allocate(std::max(capacity, size_));
  if (size_) std::memcpy(own, bytes_, size_);
  if (bytes_) BytesHeader::of(bytes_)->release();
  bytes_ = own;
}

uint8_t *Data::mutableData() {
  grow(size_);
  return bytes_;
}

void Data::reserve(size_t capacity) { grow(std::max(capacity, size_)); }

void Data::append(std::span<const uint8_t> bytes) {
  if (bytes.empty()) return;
  const Data keep =
      bytes_ && bytes.data() >= bytes_ && bytes.data() < bytes_ + size_ ? *this : Data();  // may be our own
  const size_t size = size_;
  resize(size + bytes.size());
  std::memcpy(bytes_ + size, bytes.data(), bytes.size());
}

void Data::append(std::string_view bytes) {
  append(std::span(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()));
}

void Data::resize(size_t size) {
  const size_t capacity = bytes_ ? BytesHeader::of(bytes_)->capacity : 0;
  grow(size <= capacity ? size : size_ == 0 ? size : std::max(size, capacity * 2));
  size_ = size;
}

}  // namespace qelnk
