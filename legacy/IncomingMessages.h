#pragma once

#include <QELNetworkKit/Value.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qelnk {

/// Takes what a peer sends apart into messages: strings that end in a zero byte, and binary blocks that a header string
/// announces.
///
/// Bytes are handed over as they were read, a chunk at a time, and only a new chunk is searched for ends of strings.
///
/// Threads: like a standard container.
class IncomingMessages {
 public:
  enum class Kind {
    handshake,
    host,          ///< text(): the peer's name
    ipv4,          ///< text(): the peer's address, or empty
    appID,         ///< text(): the peer's application ID
    heartbeat,     ///< text(): the timecode; information(): what follows it, if anything
    binaryHeader,  ///< text(): what follows its mark; a block is to come, but for a header that cannot be read
    string,        ///< text(): all of it
    binary,        ///< data, and the content type as string
    invalidText,   ///< a string that is not UTF-8
    stringTooLong,
    binaryTooLong
  };
  struct Message {
    Kind kind = Kind::string;
    std::string string;
    Data data;
    size_t textBegin = 0, textEnd = 0;            // within `string`
    size_t informationBegin = std::string::npos;  // where there is some

    std::string_view text() const { return std::string_view(string).substr(textBegin, textEnd - textBegin); }
    std::optional<std::string> information() const {
      return informationBegin == std::string::npos ? std::nullopt : std::optional(string.substr(informationBegin));
    }
  };
  /// Longest string and binary block, in bytes; 0 for any.
  struct Limits {
    uint64_t string = 0, binary = 0;
  };
  /// How much of what is buffered is searched for ends of strings behind a binary block.
  static constexpr size_t chunkSize = 2048;

  void setLimits(Limits limits) { limits_ = limits; }
  /// Hands over a chunk that was read.
  void append(std::span<const uint8_t> chunk);
  /// Puts the next complete message into `message`, whose memory is used again; false when more has to be read.
  bool next(Message &message);
  void clear();

  /// Bytes that are held, and the length of the binary block that is being received, 0 when none.
  uint64_t buffered() const { return incoming_.size() - begin_ + block_.size(); }
  uint64_t binaryDataPending() const { return pending_; }
  const std::string &binaryContentType() const { return contentType_; }

 private:
  bool checkIncomingBinaryData(Message &message);
  bool completeString(Message &message);
  void receiveHeader(Message &message);
  void consume(size_t count);

  Limits limits_;
  std::vector<uint8_t> incoming_;
  size_t begin_ = 0;       // of what has not been consumed
  size_t unsearched_ = 0;  // at its end
  uint64_t pending_ = 0;
  Data block_;  // what has come of it
  std::string contentType_;
};

}  // namespace qelnk
