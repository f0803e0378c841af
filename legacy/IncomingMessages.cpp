#include "legacy/IncomingMessages.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "encoding/Text.h"

namespace qelnk {

namespace {

// A block's length is the peer's word: so much memory is set aside for it at once, the rest as it comes.
constexpr uint64_t reservedAtOnce = uint64_t(1) << 20;
constexpr size_t keptWhenEmpty = 16384;
// A heartbeat's text that is shorter has no information behind its timecode.
constexpr size_t shortestWithInformation = 13;

bool isContinuation(char c) { return (uint8_t(c) & 0xC0) == 0x80; }

size_t countOfCharacters(std::string_view text) {
  return size_t(std::count_if(text.begin(), text.end(), [](char c) { return !isContinuation(c); }));
}

/// The text from the character with this index on; empty when it is shorter.
std::string_view fromCharacter(std::string_view text, size_t index) {
  size_t at = 0;
  for (; index > 0 && at < text.size(); --index) {
    ++at;
    while (at < text.size() && isContinuation(text[at])) ++at;
  }
  return text.substr(at);
}

/// Whether `text` begins so. The length is known, so that no call is made.
template <size_t size>
bool begins(std::string_view text, const char (&prefix)[size]) {
  return text.size() >= size - 1 && std::memcmp(text.data(), prefix, size - 1) == 0;
}

/// Takes `prefix` off; whether it was there.
template <size_t size>
bool take(std::string_view &text, const char (&prefix)[size]) {
  if (!begins(text, prefix)) return false;
  text.remove_prefix(size - 1);
  return true;
}

/// Says what a message is whose string is to be `string`. Nearly all are told from those of the protocol by their first
/// character.
void classify(std::string_view string, IncomingMessages::Message &message) {
  using Kind = IncomingMessages::Kind;
  std::string_view rest = string;
  message.kind = detail::isUTF8(string) ? Kind::string : Kind::invalidText;
  message.informationBegin = std::string::npos;
  switch (message.kind == Kind::string ? string.front() : '\0') {
    case 'h':
      if (string == "handshake")
        message.kind = Kind::handshake;
      else if (take(rest, "host "))
        message.kind = Kind::host;
      else if (take(rest, "heartbeat "))
        message.kind = Kind::heartbeat;
      break;
    case 'i':
      if (!begins(rest, "ipv4")) break;
      message.kind = Kind::ipv4;
      rest = fromCharacter(rest, 5);
      break;
    case 'a':
      if (take(rest, "appID ")) message.kind = Kind::appID;
      break;
    case '!':
      if (take(rest, "!bin! ")) message.kind = Kind::binaryHeader;
      break;
    default:
      break;
  }
  if (message.kind == Kind::heartbeat) {
    const size_t first = countOfCharacters(rest) >= shortestWithInformation ? rest.find(' ') : std::string_view::npos;
    const size_t second = first == std::string_view::npos ? first : rest.find(' ', first + 1);
    if (second != std::string_view::npos) {
      message.informationBegin = string.size() - rest.size() + second + 1;
      rest = rest.substr(0, second);
    }
  }
  message.textBegin = size_t(rest.data() - string.data());
  message.textEnd = message.textBegin + rest.size();
}

}  // namespace

void IncomingMessages::append(std::span<const uint8_t> chunk) {
  unsearched_ = chunk.size();
  if (pending_ > block_.size()) {
    const auto part = chunk.first(size_t(std::min<uint64_t>(chunk.size(), pending_ - block_.size())));
    block_.append(part);
    chunk = chunk.subspan(part.size());
  }
  if (begin_ > 0) incoming_.erase(incoming_.begin(), incoming_.begin() + ptrdiff_t(begin_));
  begin_ = 0;
  incoming_.insert(incoming_.end(), chunk.begin(), chunk.end());
}

bool IncomingMessages::next(Message &message) {
  return pending_ > 0 ? checkIncomingBinaryData(message) : completeString(message);
}

bool IncomingMessages::checkIncomingBinaryData(Message &message) {
  if (block_.size() < pending_) return false;
  message.kind = Kind::binary;
  message.textBegin = message.textEnd = 0;
  message.data = std::exchange(block_, {});
  message.string = std::exchange(contentType_, {});
  pending_ = 0;
  unsearched_ = std::min(incoming_.size() - begin_, chunkSize);
  return true;
}

/// Empty strings are left out.
bool IncomingMessages::completeString(Message &message) {
  for (;;) {
    const uint8_t *const start = incoming_.data() + begin_, *const end = incoming_.data() + incoming_.size();
    const void *const found = unsearched_ ? std::memchr(end - unsearched_, 0, unsearched_) : nullptr;
    const auto buffered = size_t(end - start);
    // The string ends at the first zero of all that is buffered, what is consumed at the one that was found.
    size_t length = found ? size_t(static_cast<const uint8_t *>(found) - start) : buffered;
    if (unsearched_ < buffered && found) length = strnlen(reinterpret_cast<const char *>(start), length);
    if (limits_.string && length > limits_.string) {
      clear();
      message = {};
      message.kind = Kind::stringTooLong;
      return true;
    }
    if (!found) {
      unsearched_ = 0;
      return false;
    }
    unsearched_ = size_t(end - static_cast<const uint8_t *>(found)) - 1;
    if (length > 0) {
      const std::string_view string(reinterpret_cast<const char *>(start), length);
      classify(string, message);
      message.string = string;
    }
    consume(buffered - unsearched_);
    if (length == 0) continue;
    if (message.kind == Kind::binaryHeader) receiveHeader(message);
    return true;
  }
}

/// Prepares for the block that a header announces. One without a space behind the length, or of no bytes, announces
/// none: what follows is taken as ever.
void IncomingMessages::receiveHeader(Message &message) {
  const std::string_view text = message.text();
  const size_t space = text.find(' ');
  if (space == std::string_view::npos) return;
  pending_ = uint64_t(Value(text).integerValue());
  if (limits_.binary && pending_ > limits_.binary) {
    clear();
    message.kind = Kind::binaryTooLong;
    return;
  }
  if (pending_ == 0) return;
  contentType_ = text.substr(space + 1);
  const size_t here = size_t(std::min<uint64_t>(incoming_.size() - begin_, pending_));
  block_.reserve(size_t(std::min(pending_, reservedAtOnce)));
  block_.append({incoming_.data() + begin_, here});
  consume(here);
}

void IncomingMessages::consume(size_t count) {
  begin_ += count;
  if (begin_ < incoming_.size()) return;
  begin_ = 0;
  if (incoming_.capacity() > keptWhenEmpty)
    incoming_ = {};
  else
    incoming_.clear();
}

void IncomingMessages::clear() {
  incoming_ = {};
  begin_ = unsearched_ = 0;
  pending_ = 0;
  block_.clear();
  contentType_.clear();
}

}  // namespace qelnk
