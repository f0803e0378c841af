#pragma once

#include <QELNetworkKit/ByteStream.h>

#include <memory>
#include <string>
#include <string_view>

namespace qelnk::test {

/// What a connection runs over.
enum class Transport { memory, tcp };
std::pair<StreamPair, StreamPair> connectedStreams(Transport transport);

/// The handshake of a peer, as it is on the wire.
std::string handshakeBytes(std::string_view host, std::string_view ipv4, std::string_view appID);
std::string block(std::string_view payload, std::string_view contentType);
inline std::string zeroed(std::string_view text) { return std::string(text) + '\0'; }

/// The other end of a connection, by hand. Threads: the main one, whose run loop it is served by.
class RawPeer {
 public:
  explicit RawPeer(StreamPair streams);
  ~RawPeer();
  RawPeer(const RawPeer &) = delete;
  RawPeer &operator=(const RawPeer &) = delete;

  /// Sends all of it; turns the main loop while there is no room.
  void send(std::string_view bytes);
  /// What has come so far.
  const std::string &received() const { return state_->received; }
  bool hasEnded() const { return state_->ended; }
  /// Whether it takes what comes; it does at first.
  void setReading(bool reading);
  void close();

 private:
  struct State {
    StreamPair streams;
    std::string received;
    bool reading = true, ended = false;
    void read();
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace qelnk::test
