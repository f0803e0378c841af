#pragma once

#include <QELNetworkKit/QELNKLegacyClient.h>
#include <QELNetworkKit/QELNKLegacyServer.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace qelnk::test {

/// What observers were told, in order, each as one text: "string A", "ready", "binary T 3", "error 4 0". Threads: any.
class Told {
 public:
  void add(std::string text);
  std::vector<std::string> all() const;
  size_t count(std::string_view text) const;
  bool has(std::string_view text) const { return count(text) != 0; }
  /// Called with each text, on the thread that is told it.
  void onTold(std::function<void(const std::string &)> handler);

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> texts_;
  std::function<void(const std::string &)> handler_;
};

std::string textOf(const QELProjectTimecode &timecode, const std::optional<std::string> &information);

class StreamObserver final : public QELNKLegacyStreamDelegate, public Told {
 public:
  using Stream = std::shared_ptr<QELNKLegacyStream>;
  void networkStream(const Stream &, const std::string &string) override { add("string " + string); }
  void networkStream(const Stream &, const Data &data, const std::string &contentType) override {
    add("binary " + contentType + " " + std::to_string(data.size()));
  }
  void networkStream(const Stream &, const QELProjectTimecode &timecode,
                     const std::optional<std::string> &information) override {
    add("heartbeat " + textOf(timecode, information));
  }
  void networkStreamIsReady(const Stream &) override { add("ready"); }
  void networkStreamWasTerminated(const Stream &) override { add("terminated"); }
};

class ClientObserver final : public QELNKLegacyClientDelegate, public Told {
 public:
  void networkClientIsReady(const Client &) override { add("ready"); }
  void networkClient(const Client &, const std::string &string) override { add("string " + string); }
  void networkClient(const Client &, const Data &data, const std::string &contentType) override {
    add("binary " + contentType + " " + std::to_string(data.size()));
  }
  void networkClient(const Client &, const QELProjectTimecode &timecode,
                     const std::optional<std::string> &information) override {
    add("heartbeat " + textOf(timecode, information));
  }
  void networkClientWasTerminated(const Client &, bool willReconnect) override {
    add("terminated " + std::to_string(willReconnect));
  }
  void networkClient(const Client &, int64_t error, bool willRetry) override {
    add("error " + std::to_string(error) + " " + std::to_string(willRetry));
  }
  void networkClientHeartbeatNotification(const Client &, bool lost) override { add("lost " + std::to_string(lost)); }
  void networkClientServiceUpdatedTXTRecordData(const Client &) override { add("txt"); }
};

class ServerObserver final : public QELNKLegacyServerDelegate, public Told {
 public:
  void networkService(const Server &, const Stream &, const std::string &string) override { add("string " + string); }
  void networkService(const Server &, const Stream &, const QELProjectTimecode &timecode,
                      const std::optional<std::string> &information) override {
    add("heartbeat " + textOf(timecode, information));
  }
  void networkServiceNetworkStreamIsReady(const Server &, const Stream &) override { add("ready"); }
  void networkServiceNetworkStreamWasTerminated(const Server &, const Stream &) override { add("terminated"); }
};

/// `options` with one of them changed.
Value with(Value options, std::string_view key, const Value &value);

}  // namespace qelnk::test
