#include "legacy/OutgoingBytes.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace qelnk {

namespace {

// Buffers from this size on are kept by reference; own segments grow up to it.
constexpr size_t smallestSegment = 256, segmentSize = 65536;
// So much of several segments is put together; a longer segment is taken as it is.
constexpr size_t gatheredAtMost = size_t(1) << 20;

}  // namespace

void OutgoingBytes::append(std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    if (segments_.empty() || segments_.back().roomLeft() == 0) addSegment();
    Segment &last = segments_.back();
    const auto part = bytes.first(std::min(bytes.size(), last.roomLeft()));
    std::memcpy(last.room + last.filled, part.data(), part.size());
    last.filled += part.size();
    size_ += part.size();
    bytes = bytes.subspan(part.size());
  }
}

/// Each is twice as large as the one before, so that little is set aside for little.
void OutgoingBytes::addSegment() {
  const size_t before = segments_.empty() ? 0 : segments_.back().bytes.size();
  Segment segment{Data::uninitialized(std::clamp(before * 2, smallestSegment, segmentSize))};
  segment.room = segment.bytes.mutableData();
  segments_.push_back(std::move(segment));
}

void OutgoingBytes::append(const Data &bytes) {
  if (bytes.size() < segmentSize) return append(bytes.span());
  segments_.push_back({bytes, nullptr, bytes.size()});
  size_ += bytes.size();
}

OutgoingBytes::Piece OutgoingBytes::first(size_t limit) {
  if (limit == 0 || empty()) return {};
  const size_t count = std::min({limit, size_, gatheredAtMost});
  const Segment &front = segments_.front();
  if (const auto rest = front.rest(); rest.size() >= count) {
    return {front.bytes, rest.first(std::min(rest.size(), limit))};
  }
  Data gathered;
  for (const Segment &segment : segments_) {
    const auto rest = segment.rest();
    gathered.append(rest.first(std::min(rest.size(), count - gathered.size())));
    if (gathered.size() == count) break;
  }
  const auto bytes = gathered.span();
  return {std::move(gathered), bytes};
}

void OutgoingBytes::removeFirst(size_t count) {
  size_ -= count;
  while (count > 0) {
    Segment &front = segments_.front();
    const size_t part = std::min(count, front.rest().size());
    front.taken += part;
    count -= part;
    if (!front.rest().empty()) continue;
    if (segments_.size() == 1 && front.room && front.bytes.size() == smallestSegment)
      front.filled = front.taken = 0;  // for the next ones
    else
      segments_.pop_front();
  }
}

void OutgoingBytes::truncate(size_t size) {
  while (size_ > size) {
    Segment &back = segments_.back();
    const size_t part = std::min(size_ - size, back.rest().size());
    back.filled -= part;
    size_ -= part;
    if (back.rest().empty()) segments_.pop_back();
  }
}

void OutgoingBytes::clear() { *this = {}; }

}  // namespace qelnk
