#pragma once

#include <QELNetworkKit/QELNKSubscriber.h>
#include <QELNetworkKit/RunLoop.h>

#include "messaging/SocketPoll.h"
#include "messaging/SubscriberState.h"

#include <chrono>
#include <memory>
#include <string>
#include <vector>

/// The work of a subscriber's io thread.
class QELNK_HIDDEN QELNKSubscriber::Loop {
 public:
  explicit Loop(QELNKSubscriber &subscriber);

  /// Connects, receives, and connects again after a silence, until it is told to stop.
  void run();

 private:
  bool pass();
  bool connect();
  void receive();
  bool receiveOne();
  void add(qelnk::Value message, size_t bytes);
  void deliver();
  void watchSilence();
  void end();

  QELNKSubscriber &subscriber_;
  State &state_;
  const std::shared_ptr<qelnk::RunLoop> runLoop_;
  const std::string endpoint_;
  qelnk::SocketPoll poll_;
  std::vector<State::Delivery> received_;  // and not yet handed over
  std::chrono::nanoseconds silentSince_;   // on the subscriber's clock
  bool renewed_ = false;                   // the connection, in this silence
  bool dropping_ = false;                  // the host has been told that it loses messages
};
