#include <algorithm>
#include <cstdlib>
#include <vector>

#include "encoding/ValueStorage.h"

namespace qelnk::detail {

constexpr size_t largestChunk = 256 * 1024;

Arena *Arena::make(size_t firstPiece) {
  void *memory = std::malloc(sizeof(Arena) + firstPiece);
  if (!memory) throw std::bad_alloc();
  return new (memory) Arena(firstPiece);
}

void *Arena::newChunk(size_t bytes) {
  void *memory = std::malloc(sizeof(Chunk) + bytes);
  if (!memory) throw std::bad_alloc();
  chunks = new (memory) Chunk{chunks};
  return chunks + 1;
}

void *Arena::allocateSlowly(size_t bytes) {
  // What would leave most of a chunk unused, or not fit, gets a chunk of its own, and the one in use goes on.
  if (bytes > nextChunk / 4) return newChunk(bytes);
  cursor = static_cast<char *>(newChunk(nextChunk));
  end = cursor + nextChunk;
  nextChunk = std::min(2 * nextChunk, largestChunk);
  return std::exchange(cursor, cursor + bytes);
}

void Arena::destroy() {
  while (BytesHeader *block = blocks) {
    blocks = block->next;
    block->release();
  }
  while (Chunk *chunk = chunks) {
    chunks = chunk->next;
    std::free(chunk);
  }
  this->~Arena();
  std::free(static_cast<void *>(this));
}

// Trees take about four times the room of their encoding: 16 bytes a value, of which most are encoded in a few.
void TreeBuilder::makeArena() { arena_ = Arena::make(std::min(4 * inputSize_ + 64, size_t(64 * 1024))); }

void TreeBuilder::bytes(Value *slot, Tag tag, const void *content, size_t size) {
  void *place = nullptr;
  if (size > arenaBytesLimit) {
    uint8_t *block = BytesHeader::allocate(size);
    BytesHeader::of(block)->next = std::exchange(arena().blocks, BytesHeader::of(block));
    place = block;
  } else if (size != 0) {
    place = arena().allocate(size);
  }
  if (size != 0) std::memcpy(place, content, size);
  new (slot) Value(Access::makePointer(tag, borrowedFlag, size, place));
}

Value *TreeBuilder::container(Value *slot, Tag tag, size_t count) {
  Value *values = nullptr;
  if (count != 0) {
    const size_t number = count << (tag == tagMap);
    if (number > sizeLimit / sizeof(Value)) throw std::bad_alloc();
    auto *header = static_cast<ArenaHeader *>(arena().allocate(sizeof(ArenaHeader) + number * sizeof(Value)));
    new (header) ArenaHeader{arena_, nullptr};
    values = reinterpret_cast<Value *>(header + 1);
  }
  new (slot) Value(Access::makePointer(tag, borrowedFlag, count, values));
  return values;
}

// Arena values are moved by their bytes: nothing in there is destroyed one by one.
static void relocate(Value *to, const Value *from, size_t count) {
  std::memmove(static_cast<void *>(to), static_cast<const void *>(from), count * sizeof(Value));
}

// Of a small map. Returns how many entries are left.
size_t TreeBuilder::mergeRepeatedKeys(Value *values, size_t count) {
  size_t kept = 0;
  for (size_t i = 0; i < count; ++i) {
    size_t same = 0;
    while (same < kept && !keysEqual(values[2 * same], values[2 * i])) ++same;
    if (same < kept) {
      relocate(values + 2 * same + 1, values + 2 * i + 1, 1);
    } else if (kept++ != i) {
      relocate(values + 2 * (kept - 1), values + 2 * i, 2);
    }
  }
  return kept;
}

// The same of a large map, which gets its index.
size_t TreeBuilder::indexMap(Value *values, size_t count) {
  auto *index = static_cast<MapIndex *>(arena().allocate(MapIndex::bytesFor(count)));
  std::memset(index, 0, MapIndex::bytesFor(count));
  index->mask = uint32_t(MapIndex::slotsFor(count) - 1);
  (reinterpret_cast<ArenaHeader *>(values) - 1)->index = index;
  size_t kept = 0;
  for (size_t i = 0; i < count; ++i) {
    if (kept != i) relocate(values + 2 * kept, values + 2 * i, 2);
    const size_t same = index->enter(values, kept);
    if (same == MapIndex::crowded) {
      relocate(values + 2 * kept, values + 2 * i, 2 * (count - i));
      return mergeSorted(*index, values, kept + count - i);
    }
    if (same == kept) {
      ++kept;
    } else {
      relocate(values + 2 * same + 1, values + 2 * kept + 1, 1);
    }
  }
  return kept;
}

// The same with a sorted index, in which repeated keys lie side by side.
size_t TreeBuilder::mergeSorted(MapIndex &index, Value *values, size_t count) {
  index.sort(values, count);
  uint32_t *const slots = index.slots();
  std::vector<bool> repeated(count);
  size_t places = 0;
  for (size_t i = 0; i < count; ++i) {
    const size_t entry = slots[i];
    if (places && keysEqual(values[2 * slots[places - 1]], values[2 * entry])) {
      relocate(values + 2 * slots[places - 1] + 1, values + 2 * entry + 1, 1);
      repeated[entry] = true;
    } else {
      slots[places++] = uint32_t(entry);
    }
  }
  if (places == count) return count;
  std::vector<uint32_t> newNumber(count);
  size_t kept = 0;
  for (size_t i = 0; i < count; ++i) {
    if (repeated[i]) continue;
    relocate(values + 2 * kept, values + 2 * i, 2);
    newNumber[i] = uint32_t(kept++);
  }
  for (size_t i = 0; i < places; ++i) slots[i] = newNumber[slots[i]];
  return kept;
}

void TreeBuilder::finishMap(Value *slot) {
  const size_t count = Access::length(*slot);
  if (count < 2) return;
  Value *values = Access::pointer<Value>(*slot);
  const size_t kept = count > indexedMapSize ? indexMap(values, count) : mergeRepeatedKeys(values, count);
  if (kept != count) Access::setLength(*slot, kept);
}

Value TreeBuilder::finish(Value *root) {
  if (!Access::isContainer(*root) || !Access::bits(*root)) {
    Value copy(*root);
    new (root) Value();
    return copy;
  }
  arena_ = nullptr;  // the root holds it from here on
  Value tree = Access::make(Access::head(*root) & ~borrowedFlag, Access::bits(*root));
  new (root) Value();
  return tree;
}

}  // namespace qelnk::detail
