#include "messaging/MessageList.h"

#include <utility>

namespace qelnk {

MessageList::~MessageList() {
  while (first_) remove(*first_);
}

void MessageList::append(std::shared_ptr<QELNKMessage> message) {
  QELNKMessage &added = *message;
  auto &place = added.place_;
  place.self = std::move(message);
  place.previous = last_;
  (last_ ? last_->place_.next : first_) = &added;
  last_ = &added;
  if (!unsent_) unsent_ = &added;
  if (added.deadline_) {
    place.deadline = deadlines_.emplace_hint(deadlines_.end(), *added.deadline_, &added);
    place.hasDeadline = true;
  }
}

std::shared_ptr<QELNKMessage> MessageList::remove(QELNKMessage &message) {
  auto &place = message.place_;
  if (indexedUpTo_ == &message) indexedUpTo_ = place.previous;
  if (place.indexed) removeFromIndex(message);
  if (std::exchange(place.hasDeadline, false)) deadlines_.erase(place.deadline);
  if (unsent_ == &message) unsent_ = place.next;
  (place.previous ? place.previous->place_.next : first_) = place.next;
  (place.next ? place.next->place_.previous : last_) = place.previous;
  place.previous = place.next = nullptr;
  return std::move(place.self);
}

std::vector<std::shared_ptr<QELNKMessage>> MessageList::all() const {
  std::vector<std::shared_ptr<QELNKMessage>> messages;
  for (const QELNKMessage *message = first_; message; message = message->place_.next)
    messages.push_back(message->place_.self);
  return messages;
}

QELNKMessage *MessageList::firstUnsent() {
  while (unsent_ && (unsent_->sent_ || unsent_->isEmptyMessage())) unsent_ = unsent_->place_.next;
  return unsent_;
}

QELNKMessage *MessageList::find(int64_t identifier) {
  if (!first_ || first_->identifier_ == identifier) return first_;
  if (const auto namesakes = index_.find(identifier); namesakes != index_.end()) return namesakes->second.first;
  while (QELNKMessage *next = indexedUpTo_ ? indexedUpTo_->place_.next : first_) {
    indexedUpTo_ = next;
    index(*next);
    if (next->identifier_ == identifier) return next;
  }
  return nullptr;
}

void MessageList::index(QELNKMessage &message) {
  if (!message.identifier_) return;
  Namesakes &namesakes = index_[*message.identifier_];
  auto &place = message.place_;
  place.previousNamesake = namesakes.last;
  (namesakes.last ? namesakes.last->place_.nextNamesake : namesakes.first) = &message;
  namesakes.last = &message;
  place.indexed = true;
}

void MessageList::removeFromIndex(QELNKMessage &message) {
  auto &place = message.place_;
  const auto entry = index_.find(*message.identifier_);
  Namesakes &namesakes = entry->second;
  (place.previousNamesake ? place.previousNamesake->place_.nextNamesake : namesakes.first) = place.nextNamesake;
  (place.nextNamesake ? place.nextNamesake->place_.previousNamesake : namesakes.last) = place.previousNamesake;
  place.previousNamesake = place.nextNamesake = nullptr;
  place.indexed = false;
  if (!namesakes.first) index_.erase(entry);
}

std::chrono::nanoseconds MessageList::firstDeadline() const {
  return deadlines_.empty() ? std::chrono::nanoseconds::max() : deadlines_.begin()->first;
}

QELNKMessage *MessageList::expired(std::chrono::nanoseconds now) const {
  return firstDeadline() <= now && !deadlines_.empty() ? deadlines_.begin()->second : nullptr;
}

}  // namespace qelnk
