#pragma once

#include <QELNetworkKit/Value.h>

#include <cstdint>
#include <list>
#include <span>
#include <vector>

namespace qelnk {

/// The bytes that wait to be written to a connection, first in first out. Taking some away moves none of the others;
/// large buffers are kept by reference. Holds no memory while it is empty.
///
/// Threads: like a standard container.
class OutgoingBytes {
 public:
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  void append(std::span<const uint8_t> bytes);
  void append(const Data &bytes);
  /// The first bytes, in one piece: `limit` of them or all, or 64 KiB at least. Valid until the next change.
  std::span<const uint8_t> first(size_t limit);
  void removeFirst(size_t count);
  void clear();

 private:
  struct Segment {
    Data bytes;
    size_t taken = 0;
    bool isOwn = false;  // more may be appended
    std::span<const uint8_t> rest() const { return bytes.span().subspan(taken); }
  };
  std::list<Segment> segments_;
  size_t size_ = 0;
  std::vector<uint8_t> gathered_;  // of several segments, for first()
};

}  // namespace qelnk
