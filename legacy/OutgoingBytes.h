#pragma once

#include <QELNetworkKit/Value.h>

#include <cstdint>
#include <list>
#include <span>

namespace qelnk {

/// The bytes that wait to be written to a connection, first in first out. Taking some away moves none of the others;
/// large buffers are kept by reference. While it is empty it holds a few hundred bytes at most, for the next ones.
///
/// Threads: like a standard container.
class OutgoingBytes {
 public:
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  /// Where there is no memory, std::bad_alloc; the beginning may have been appended.
  void append(std::span<const uint8_t> bytes);
  void append(const Data &bytes);
  /// The first bytes in one piece: `limit` of them, or all, or at least 1 MiB. Valid until they are removed; what is
  /// appended meanwhile does not move them.
  struct Piece {
    Data holder;
    std::span<const uint8_t> bytes;
  };
  Piece first(size_t limit);
  void removeFirst(size_t count);
  /// Takes the last bytes away, so that `size` are left.
  void truncate(size_t size);
  void clear();

 private:
  struct Segment {
    Data bytes;
    uint8_t *room = nullptr;  // in `bytes`, where more may be put
    size_t filled = 0, taken = 0;
    size_t roomLeft() const { return room ? bytes.size() - filled : 0; }
    std::span<const uint8_t> rest() const { return bytes.span().subspan(taken, filled - taken); }
  };
  void addSegment();
  std::list<Segment> segments_;
  size_t size_ = 0;
};

}  // namespace qelnk
