#include <QELNetworkKit/QELNKLegacySerializer.h>

#include <chrono>

#include "platform/Thread.h"

using qelnk::Data;
using qelnk::RunLoop;

struct QELNK_HIDDEN QELNKLegacySerializer::StreamThread {
  explicit StreamThread(const QELNKLegacyStream &stream)
      : thread("Stream Thread for Stream " + stream.description(), streamThreadMain) {}
  static void streamThreadMain(const std::stop_token &token) {
    const auto loop = RunLoop::current();
    while (!token.stop_requested()) loop->run();
  }
  qelnk::Thread thread;
};

QELNKLegacySerializer::QELNKLegacySerializer(std::shared_ptr<QELNKLegacyStream> stream)
    : stream_(std::move(stream)), streamThread_(std::make_unique<StreamThread>(*stream_)) {}

QELNKLegacySerializer::~QELNKLegacySerializer() { cancel(); }

void QELNKLegacySerializer::writeString(const std::string &string) {
  const qelnk::Lock lock(mutex_);
  if (streamThread_)
    streamThread_->thread.runLoop()->perform([stream = stream_, string] { stream->writeString(string); });
}

void QELNKLegacySerializer::writeData(const Data &data) {
  const qelnk::Lock lock(mutex_);
  if (streamThread_) streamThread_->thread.runLoop()->perform([stream = stream_, data] { stream->writeData(data); });
}

void QELNKLegacySerializer::cancel() {
  RunLoop::current()->cancelPerforms(stream_.get());
  std::unique_ptr<StreamThread> ending;
  {
    const qelnk::Lock lock(mutex_);
    ending.swap(streamThread_);
  }
  if (!ending) return;
  if (ending->thread.isCurrent()) return ending->thread.cancel();
  ending->thread.runLoop()->perform(
      [&thread = ending->thread] { thread.cancel(); });  // behind what was asked for before
  while (!ending->thread.endsWithin(std::chrono::seconds(1))) {
  }
}
