#pragma once

#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/QELNKLegacyStream.h>
#include <QELNetworkKit/Value.h>

#include <memory>
#include <string>

/// Writes to a legacy stream on a thread of its own, so that the caller never waits for the stream's lock.
///
/// Threads: every operation may be called from any thread.
class QELNK_EXPORT QELNKLegacySerializer {
 public:
  /// Throws std::system_error when the system has no thread left.
  explicit QELNKLegacySerializer(std::shared_ptr<QELNKLegacyStream> stream);
  ~QELNKLegacySerializer();
  QELNKLegacySerializer(const QELNKLegacySerializer &) = delete;
  QELNKLegacySerializer &operator=(const QELNKLegacySerializer &) = delete;

  /// Has the stream write, in the order of the calls, and returns at once. After cancel() nothing happens.
  void writeString(const std::string &string);
  /// The same for bytes, with a zero byte behind them.
  void writeData(const qelnk::Data &data);
  /// Ends the thread behind what it was given before, and waits for its end; on the thread itself it ends at once.
  void cancel();

  /// The stream it writes to, which it keeps alive.
  const std::shared_ptr<QELNKLegacyStream> &stream() const { return stream_; }

 private:
  struct StreamThread;
  const std::shared_ptr<QELNKLegacyStream> stream_;
  qelnk::Mutex mutex_;
  std::unique_ptr<StreamThread> streamThread_ QELNK_GUARDED_BY(mutex_);
};
