#include "legacy/OutgoingBytes.h"

#include <algorithm>

namespace qelnk {

namespace {

// Buffers from this size on are kept by reference; own segments grow up to it.
constexpr size_t segmentSize = 65536;

}  // namespace

void OutgoingBytes::append(std::span<const uint8_t> bytes) {
  size_ += bytes.size();
  while (!bytes.empty()) {
    if (segments_.empty() || !segments_.back().isOwn || segments_.back().bytes.size() >= segmentSize)
      segments_.push_back({Data(), 0, true});
    Data &last = segments_.back().bytes;
    const auto part = bytes.first(std::min(bytes.size(), segmentSize - last.size()));
    last.append(part);
    bytes = bytes.subspan(part.size());
  }
}

void OutgoingBytes::append(const Data &bytes) {
  if (bytes.size() < segmentSize) return append(bytes.span());
  segments_.push_back({bytes, 0, false});
  size_ += bytes.size();
}

std::span<const uint8_t> OutgoingBytes::first(size_t limit) {
  if (limit == 0 || empty()) return {};
  // So much is worth gathering; a longer front is taken as it is.
  const size_t count = std::min({limit, size_, segmentSize});
  if (const auto rest = segments_.front().rest(); rest.size() >= count) return rest.first(std::min(rest.size(), limit));
  gathered_.clear();
  for (const Segment &segment : segments_) {
    const auto rest = segment.rest();
    const auto part = rest.first(std::min(rest.size(), count - gathered_.size()));
    gathered_.insert(gathered_.end(), part.begin(), part.end());
    if (gathered_.size() == count) break;
  }
  return gathered_;
}

void OutgoingBytes::removeFirst(size_t count) {
  size_ -= count;
  while (count > 0) {
    Segment &front = segments_.front();
    const size_t part = std::min(count, front.rest().size());
    front.taken += part;
    count -= part;
    if (front.rest().empty()) segments_.pop_front();
  }
  if (size_ == 0) gathered_ = {};
}

void OutgoingBytes::clear() { *this = {}; }

}  // namespace qelnk
