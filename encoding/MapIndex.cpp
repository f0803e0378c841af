#include <algorithm>
#include <bit>
#include <numeric>

#include "encoding/ValueStorage.h"

namespace qelnk::detail {

namespace {

// What a hash with an unknown seed does not reach by chance.
constexpr size_t longestProbe = 1024;
constexpr size_t mostMismatches = 16;

/// The place among the sorted entries where a key is or would be.
uint32_t *placeOf(MapIndex &index, const Value *values, size_t count, const Value &key) {
  return std::lower_bound(index.slots(), index.slots() + count, key, [values](uint32_t entry, const Value &sought) {
    return keyBefore(values[2 * entry], sought);
  });
}

}  // namespace

size_t MapIndex::slotsFor(size_t entries) { return std::bit_ceil(entries + entries / 2 + 1); }

void MapIndex::sort(const Value *values, size_t count) {
  sorted = true;
  std::iota(slots(), slots() + count, 0);
  std::stable_sort(slots(), slots() + count,
                   [values](uint32_t a, uint32_t b) { return keyBefore(values[2 * a], values[2 * b]); });
}

size_t MapIndex::enter(const Value *values, size_t entry) {
  const Value &key = values[2 * entry];
  if (sorted) {
    uint32_t *const place = placeOf(*this, values, entry, key);
    if (place != slots() + entry && keysEqual(values[2 * *place], key)) return *place;
    std::copy_backward(place, slots() + entry, slots() + entry + 1);
    *place = uint32_t(entry);
    return entry;
  }
  const auto hash = uint32_t(key.hash());
  size_t mismatches = 0;
  for (size_t probe = 0; probe < longestProbe && mismatches < mostMismatches; ++probe) {
    uint32_t &slot = slots()[(hash + probe) & mask];
    if (!slot) {
      slot = (hash & ~mask) | uint32_t(entry + 1);
      return entry;
    }
    if ((slot ^ hash) & ~mask) continue;
    const size_t other = (slot & mask) - 1;
    if (keysEqual(values[2 * other], key)) return other;
    ++mismatches;
  }
  return crowded;
}

size_t findEntry(const Value *values, size_t count, const MapIndex *index, const Value &key) {
  if (!index) {
    for (size_t i = 0; i < count; ++i)
      if (keysEqual(values[2 * i], key)) return i;
    return count;
  }
  const uint32_t *const slots = index->slots();
  if (index->sorted) {
    const uint32_t *const place = placeOf(const_cast<MapIndex &>(*index), values, count, key);
    return place != slots + count && keysEqual(values[2 * *place], key) ? *place : count;
  }
  const auto hash = uint32_t(key.hash());
  for (uint32_t at = hash & index->mask;; at = (at + 1) & index->mask) {
    if (!slots[at]) return count;
    if ((slots[at] ^ hash) & ~index->mask) continue;
    const size_t entry = (slots[at] & index->mask) - 1;
    if (keysEqual(values[2 * entry], key)) return entry;
  }
}

}  // namespace qelnk::detail
