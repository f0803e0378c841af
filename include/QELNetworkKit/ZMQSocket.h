#pragma once

#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/Value.h>
#include <QELNetworkKit/ZMQContext.h>

#include <zmq.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

/// A ZeroMQ socket. Failures throw ZMQException, but for sending, which reports false; each is written to the log's
/// error level as "ZMQLogError: *** SOCKET: FUNCTION: REASON".
///
/// Threads: one thread owns a socket from its making to its closing; monitor(), stopMonitor(), endpoint() and
/// description() may be called from any.
class QELNK_EXPORT ZMQSocket : public std::enable_shared_from_this<ZMQSocket> {
 public:
  /// "ZMQ_PAIR" and so on for 0 to 8 (5 and 6 have their old names), else "UNKNOWN".
  static std::string_view nameForSocketType(int32_t type);

  /// Usually made by ZMQContext::socketWithType().
  ZMQSocket(ZMQContext *context, int32_t type);
  /// Closes.
  ~ZMQSocket();
  ZMQSocket(const ZMQSocket &) = delete;
  ZMQSocket &operator=(const ZMQSocket &) = delete;

  /// Closes the socket; what is still to be sent leaves in the background, as long as the linger option says, and at
  /// most longestLinger where nobody set it: a peer that never comes must not hold up the end of the context. Twice is
  /// harmless.
  void close();
  /// The longest that closing lets messages leave where nobody set it.
  static constexpr std::chrono::milliseconds longestLinger{1000};
  /// Whether it has no raw socket (any more).
  bool isClosed() const { return socket_.load() == nullptr; }

  /// Sets an option of any type. Throws where ZeroMQ refuses; else true.
  bool setData(const qelnk::Data &data, int32_t option);
  /// Sets an option whose value is an int.
  bool setInt(int value, int32_t option);
  /// Reads an option of any type; the result has the length that ZeroMQ reports.
  std::optional<qelnk::Data> dataForOption(int32_t option) const;

  /// A TCP port that a socket of this process has just given up is waited for, at most a second: ZeroMQ closes in the
  /// background.
  bool bindToEndpoint(const std::string &endpoint);
  /// Connects in the background: that nobody is there yet is no failure.
  bool connectToEndpoint(const std::string &endpoint);

  /// The TCP port to which it was bound last; 0 for none.
  int32_t boundPort() const { return boundPort_; }

  /// Sends one frame; a failure is logged and gives false.
  bool sendData(const qelnk::Data &data, int32_t flags);
  /// Receives one frame into `buffer`. Returns its length, which may exceed `length` when it was cut, or -1.
  int receive(void *buffer, size_t length, int32_t flags);
  /// Receives one frame.
  qelnk::Data receiveData(int32_t flags);

  /// Asks for messages that begin with `prefix`; returns whether ZeroMQ accepted it.
  bool subscribe(std::string_view prefix);
  /// Asks for all messages.
  bool subscribeAll() { return subscribe({}); }

  /// Has ZeroMQ publish the transport events of `events` on an in-process endpoint, in place of one given before
  /// (zmq_socket_monitor()). Returns 0, or -1 with the error number in errno. Any thread.
  int monitor(const std::string &endpoint, uint32_t events);
  /// Ends that where it is still the same endpoint. Any thread.
  void stopMonitor(const std::string &endpoint);

  /// Fills a poll item for this socket.
  void getPollItem(zmq_pollitem_t &item, int16_t events) const;

  /// The context it was made on, not owned.
  ZMQContext *context() const { return context_.load(); }
  /// ZeroMQ's number of the socket type.
  int32_t type() const { return type_.load(); }
  /// The raw socket; null once closed.
  void *socket() const { return socket_.load(); }

  // For a host that takes the raw socket over or hands another in. They store and do nothing else: a raw socket that is
  // forgotten here is the caller's to close.
  /// Stores the context, which is not held.
  void setContext(ZMQContext *context) { context_ = context; }
  /// Stores the type.
  void setType(int32_t type) { type_ = type; }
  /// Stores the raw socket; the one before is forgotten, not closed.
  void setSocket(void *socket) { socket_ = socket; }
  /// True forgets the raw socket; false changes nothing.
  void setClosed(bool closed) {
    if (closed) socket_ = nullptr;
  }

  /// The last endpoint given to bind or connect.
  std::string endpoint() const;
  void setEndpoint(std::string endpoint);

  /// "<ZMQSocket: 0x… (ctx=0x…, type=ZMQ_REQ, endpoint=tcp://…, closed=0)>"
  std::string description() const;

 private:
  friend class ZMQContext;
  friend class QELNKSocket;
  [[noreturn]] void fail(const char *function) const;
  void logError(const char *function) const;
  void boundLinger();
  int linger() const;

  std::atomic<ZMQContext *> context_;
  std::weak_ptr<ZMQContext::Registry> registry_;
  std::atomic<int32_t> type_;
  std::atomic<void *> socket_{nullptr};
  // An io thread owns it and closes it once it is asked to.
  std::atomic<bool> ownedByThread_{false}, askedToClose_{false};
  mutable qelnk::Mutex mutex_;
  std::string endpoint_ QELNK_GUARDED_BY(mutex_);
  std::atomic<int32_t> boundPort_{0};
  qelnk::Mutex monitoring_;  // keeps the raw socket from being closed while another thread has it monitored
  std::string monitorEndpoint_ QELNK_GUARDED_BY(monitoring_);
};
