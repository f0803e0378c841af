#pragma once

#include <QELNetworkKit/QELNKMessage.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

namespace qelnk {

/// The messages of a client that have not finished, in the order queued. No operation takes longer when more of them
/// wait; finding by identifier is amortised.
///
/// Threads: the client's io thread.
class MessageList {
 public:
  MessageList() = default;
  ~MessageList();
  MessageList(const MessageList &) = delete;
  MessageList &operator=(const MessageList &) = delete;

  static bool isListed(const QELNKMessage &message) { return message.place_.self != nullptr; }
  void append(std::shared_ptr<QELNKMessage> message);
  /// Takes a message of the list off it.
  std::shared_ptr<QELNKMessage> remove(QELNKMessage &message);

  /// Each of them, the oldest first.
  std::vector<std::shared_ptr<QELNKMessage>> all() const;
  /// The oldest, or null.
  QELNKMessage *first() const { return first_; }
  /// The oldest that is neither sent nor empty, or null.
  QELNKMessage *firstUnsent();
  /// The oldest with that identifier, or null.
  QELNKMessage *find(int64_t identifier);

  /// The earliest deadline, or the largest duration.
  std::chrono::nanoseconds firstDeadline() const;
  /// A message whose deadline has come, or null.
  QELNKMessage *expired(std::chrono::nanoseconds now) const;

 private:
  struct Namesakes {
    QELNKMessage *first = nullptr, *last = nullptr;
  };
  void index(QELNKMessage &message);
  void removeFromIndex(QELNKMessage &message);

  QELNKMessage *first_ = nullptr, *last_ = nullptr;
  QELNKMessage *unsent_ = nullptr;  // none before it is unsent
  // The index is made of those up to here when a look-up first passes them: replies that come in the order of their
  // requests are found at the head and never need it.
  QELNKMessage *indexedUpTo_ = nullptr;
  std::unordered_map<int64_t, Namesakes> index_;
  std::multimap<std::chrono::nanoseconds, QELNKMessage *> deadlines_;
};

}  // namespace qelnk
