#pragma once

#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/Process.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// One daemon that was launched.
///
/// Threads: any.
class QELNK_EXPORT QELNKOrlinDaemon {
 public:
  /// `task` is null, and the port 0, where no process was started.
  QELNKOrlinDaemon(std::string project, int64_t port, int64_t webSocketPort, std::shared_ptr<qelnk::Process> task);

  /// Waits until the process has ended, which it does of itself once a client has sent it "quit", and lets it go. Sends
  /// nothing.
  void quit();

  /// The project file that it was launched with.
  std::string project() const;
  void setProject(std::string project);
  /// The daemon's command port; 0 where no process was started.
  int64_t port() const { return port_; }
  /// The web-socket port it was given; 0 for none.
  int64_t webSocketPort() const { return webSocketPort_; }
  /// The process; null where none was started, and after quit().
  std::shared_ptr<qelnk::Process> task() const;

  /// "orlin daemon with project PROJECT on port PORT"
  std::string description() const;

 private:
  friend class QELNKOrlinDaemonSpawner;
  friend class QELNKKORVALDaemonClient;
  void setTask(std::shared_ptr<qelnk::Process> task);
  /// Has `notice` called once the process has ended, here if it has already.
  void whenEnded(const std::function<void()> &notice);
  void noteEnd();

  const int64_t port_, webSocketPort_;
  mutable qelnk::Mutex mutex_;
  std::string project_ QELNK_GUARDED_BY(mutex_);
  std::shared_ptr<qelnk::Process> task_ QELNK_GUARDED_BY(mutex_);
  bool hasEnded_ QELNK_GUARDED_BY(mutex_) = false;
  std::vector<std::function<void()>> notices_ QELNK_GUARDED_BY(mutex_);
};
