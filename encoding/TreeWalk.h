#pragma once

#include <utility>
#include <vector>

#include "encoding/SmallStack.h"
#include "encoding/ValueStorage.h"

namespace qelnk::detail {

/// Visits a value tree in order without recursion, for everything that writes one. The visitor has
///
///     bool scalar(const Value &);                       a value that is no container
///     bool begin(const Value &container);               a list, a map or an ordered map; its values follow
///     bool end(const Value &container);
///     bool between(const Value &container, size_t n);   before the n-th value in it; in maps even ones are keys
///     const Value *sortedKeys(const Value &map, Value &room);   null, or the list of keys to visit, put into `room`
///
/// each of which ends the walk by returning false, which walk() then returns.
template <class Visitor>
class TreeWalk {
 public:
  explicit TreeWalk(Visitor &visitor) : visitor_(visitor) {}

  bool walk(const Value &root) {
    if (!isOpened(root)) return visitor_.scalar(root);
    if (!open(root)) return false;
    while (!open_.empty()) {
      if (!(open_.back().map ? visitKeyed() : visitRun())) return false;
    }
    return true;
  }

 private:
  struct Open {
    const Value *next;
    const Value *end;
    const Value *container;
    const Value *map;      // where the values of the keys that are visited are, when they do not lie between the keys
    const Value *pending;  // the value of the key just visited
    size_t position;
  };

  static bool isOpened(const Value &value) {
    return Access::tag(value) >= tagList && Access::tag(value) <= tagOrderedMap;
  }

  bool close() {
    const Value &container = *open_.back().container;
    open_.pop();
    return visitor_.end(container);
  }

  // Goes on with values that lie one after another, up to the next container or the end.
  bool visitRun() {
    Open &top = open_.back();
    const Value *const end = top.end;
    const Value &container = *top.container;
    size_t position = top.position;
    for (const Value *next = top.next; next != end;) {
      const Value &value = *next++;
      if (!visitor_.between(container, position++)) return false;
      if (isOpened(value)) {
        top.next = next;
        top.position = position;
        return open(value);
      }
      if (!visitor_.scalar(value)) return false;
    }
    return close();
  }

  // Goes on with keys and the values that are looked up for them.
  bool visitKeyed() {
    Open &top = open_.back();
    if (top.next == top.end && !top.pending) return close();
    if (!visitor_.between(*top.container, top.position++)) return false;
    const Value *value = std::exchange(top.pending, nullptr);
    if (!value) {
      value = top.next++;
      top.pending = top.map->find(*value);
    }
    return isOpened(*value) ? open(*value) : visitor_.scalar(*value);
  }

  bool open(const Value &container) {
    if (!visitor_.begin(container)) return false;
    Open opened{nullptr, nullptr, &container, nullptr, nullptr, 0};
    Value room;
    std::span<const Value> values;
    const Value *keys = container.isList() ? nullptr : visitor_.sortedKeys(container, room);
    if (keys) {
      sorted_.push_back(std::move(room));  // shares the keys' memory: what the span points to stays where it is
      values = sorted_.back().items();
      opened.map = container.isOrderedMap() ? &Access::plain(container.orderedMap()) : &container;
    } else if (container.isOrderedMap()) {
      values = container.orderedMap().allKeys().items();
      opened.map = &Access::plain(container.orderedMap());
    } else {
      values = Access::values(container);
    }
    opened.next = values.data();
    opened.end = values.data() + values.size();
    open_.push(opened);
    return true;
  }

  Visitor &visitor_;
  SmallStack<Open, 16> open_;
  std::vector<Value> sorted_;
};

}  // namespace qelnk::detail
