#pragma once

#include "messaging/ClientState.h"
#include "messaging/MessageList.h"
#include "messaging/SocketPoll.h"

#include <chrono>
#include <memory>
#include <string>
#include <vector>

/// The work of a client's io thread, and the list of messages that it alone touches.
///
/// A pass drains what is ready in a fixed order: requests of other threads, replies, sending, empty messages,
/// deadlines.
class QELNK_HIDDEN QELNKClient::Loop {
 public:
  explicit Loop(QELNKClient &client);

  /// Connects and serves until it is told to stop; then every message has finished and nobody waits.
  void run();

  // For the client's operations when they are called on this thread.

  /// Takes over what other threads handed in, so that it keeps its place before what is queued here.
  void takeInbox();
  void append(std::shared_ptr<QELNKMessage> message) { messages_.append(std::move(message)); }
  void finish(const std::shared_ptr<QELNKMessage> &message);
  void cancel(const std::shared_ptr<QELNKMessage> &message);
  qelnk::MessageList &messages() { return messages_; }

 private:
  using Steady = std::chrono::steady_clock;

  bool connect();
  void serve();
  bool pass();
  int poll();
  void serveOthers();
  int wantedEvents();
  bool sleep();
  std::chrono::nanoseconds longestWait() const;
  void receive();
  void handle(qelnk::Value response, bool wanted);
  void send();
  bool send(QELNKMessage &message);
  bool sendFrames(QELNKMessage &message, const QELNKFrames &frames, qelnk::Error &error);
  void rest(const QELNKMessage &message);
  void finishEmpty();
  void expire();
  void forget(const QELNKMessage &message);
  void abandon(QELNKMessage &message, int32_t code, const char *reason);
  void renewSocket();
  void end();
  bool isEnding() const;

  QELNKClient &client_;
  State &state_;
  const std::shared_ptr<qelnk::RunLoop> runLoop_;
  const int32_t socketType_;
  const std::string endpoint_;
  qelnk::SocketPoll poll_;
  qelnk::MessageList messages_;
  std::vector<State::Order> taken_;       // a member to keep its memory
  const QELNKMessage *failed_ = nullptr;  // the message whose sending failed last, and when it is tried again
  Steady::time_point retryAt_{};
  Steady::time_point unanswerableSentAt_{};  // when a message without a response was sent last
  const QELNKMessage *awaiting_ = nullptr;   // the one whose reply a request socket waits for
  // The same socket waits for the reply to a message that has ended; if it could not be replaced, when to try again.
  bool replyOutstanding_ = false;
  Steady::time_point renewAt_{};
};
