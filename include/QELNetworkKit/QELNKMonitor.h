#pragma once

#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/QELNKSocket.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

/// The transport events of an endpoint; a mask is the sum of some. They are ZeroMQ's own numbers.
enum QELNKMonitorEvent : uint32_t {
  QELNKMonitorEventConnected = 1,          ///< a connection is there (at the transport's level)
  QELNKMonitorEventConnectDelayed = 2,     ///< connecting goes on in the background
  QELNKMonitorEventConnectRetried = 4,     ///< connecting failed and will be tried again
  QELNKMonitorEventListening = 8,          ///< bound
  QELNKMonitorEventBindFailed = 16,        ///< could not be bound
  QELNKMonitorEventAccepted = 32,          ///< somebody has connected
  QELNKMonitorEventAcceptFailed = 64,      ///< somebody could not be accepted
  QELNKMonitorEventClosed = 128,           ///< a connection was closed here
  QELNKMonitorEventCloseFailed = 256,      ///< a connection could not be closed
  QELNKMonitorEventDisconnected = 512,     ///< a connection was lost
  QELNKMonitorEventMonitorStopped = 1024,  ///< the endpoint's socket has ended, or has another monitor now
  QELNKMonitorEventAll = 2047,
  /// This endpoint's keys were refused, and ZeroMQ does not try again. Not among all, and without a name.
  QELNKMonitorEventKeysRefused = 16384
};

/// Watches the connections of another endpoint come and go.
///
///     auto monitor = QELNKMonitor::create(context);
///     monitor->connectToSocket(client, QELNKMonitorEventAll);
///     while (uint16_t event = monitor->events()) std::puts(monitor->eventsToString(event).c_str());
///
/// The endpoint must have connected or bound. To see its first events too, attach the monitor in the endpoint's socket
/// block. An endpoint's socket has one monitor at a time, and one that replaces its socket (a subscriber after a
/// silence) needs to be watched anew, for which the socket block is the place as well.
///
/// Threads: every operation may be called from any thread. A thread of the monitor's own reads the events as they come,
/// since ZeroMQ waits for whoever does not; up to 65,536 are kept for events(), then the oldest are dropped.
class QELNK_EXPORT QELNKMonitor : public QELNKSocket {
 public:
  /// Null, with a line on the log, for no context.
  static std::shared_ptr<QELNKMonitor> create(std::shared_ptr<QELNKContext> context);
  ~QELNKMonitor() override;

  /// Watches the events of a mask on `socket`, which is of the same context, instead of what it watched before. A
  /// failure is told on the log and leaves the monitor without a socket.
  void connectToSocket(const std::shared_ptr<QELNKSocket> &socket, uint32_t events);
  /// Waits for the next event and returns its number; 0 when there is no socket, when it was disconnected meanwhile,
  /// once the watched socket has ended, or after a failure, which is told on the log. Several threads may wait; each
  /// event is for one of them. Who waits holds a reference to the monitor. A socket that the host has set is read by
  /// the calling thread, which then has to be the only one.
  uint16_t events();
  /// Stops watching; whoever waits in events() gets 0 at once.
  void disconnect() override;

  /// The names of a mask's events, as "Connect Delayed, Disconnected"; empty for none.
  static std::string eventsToString(uint32_t events);
  /// Appends a name to such a text when `events` has the bit `mask`.
  static void addEventString(std::string_view name, uint32_t events, uint32_t mask, std::string &to);

  /// ZMQ_PAIR.
  int32_t socketType() const override;

 protected:
  /// For create() of subclasses.
  explicit QELNKMonitor(std::shared_ptr<QELNKContext> context);
  friend class QELNKSocket;

  void ioThread() override;

 private:
  struct State;
  int watch();
  bool readEvents();
  void add(uint16_t event);
  uint16_t receiveEvent();
  bool isConnected() const;
  void setConnected(bool connected);
  static uint16_t eventOf(const QELNKFrames &frames);
  static void tellReceiveError(int number);

  std::unique_ptr<State> state_;
};
