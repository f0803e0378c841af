// What a peer sends on a legacy connection, in pieces as the input says and in large ones: the delegate is told the
// same. An input is the number of pieces, their sizes, the limits and the bytes.

#include <QELNetworkKit/ByteStream.h>
#include <QELNetworkKit/QELNKLegacyStream.h>
#include <QELNetworkKit/QELProjectTimecode.h>

#include <cstring>
#include <string>
#include <vector>

#include "Fuzz.h"

using qelnk::Value;

namespace {

/// Gives what it holds in pieces of the given sizes, and then as much as there is room for.
class Pieces final : public qelnk::InputStream {
 public:
  Pieces(std::span<const uint8_t> bytes, std::span<const uint8_t> sizes) : bytes_(bytes), sizes_(sizes) {}
  void setEventTarget(EventTarget) override {}
  void schedule(const std::shared_ptr<qelnk::RunLoop> &) override {}
  void unschedule() override {}
  void open() override {}
  void close() override {}
  std::error_code error() const override { return {}; }
  bool hasBytesAvailable() override { return !bytes_.empty(); }
  ssize_t read(std::span<uint8_t> room) override {
    size_t count = std::min(room.size(), bytes_.size());
    if (!sizes_.empty()) {
      count = std::min<size_t>(count, sizes_[0] + 1U);
      sizes_ = sizes_.subspan(1);
    }
    std::memcpy(room.data(), bytes_.data(), count);
    bytes_ = bytes_.subspan(count);
    return ssize_t(count);
  }

 private:
  std::span<const uint8_t> bytes_, sizes_;
};

/// What it was told, each as one text.
struct Delegate final : QELNKLegacyStreamDelegate {
  using Stream = std::shared_ptr<QELNKLegacyStream>;
  void networkStream(const Stream &, const std::string &string) override { told.push_back("string " + string); }
  void networkStream(const Stream &, const qelnk::Data &data, const std::string &contentType) override {
    told.push_back("binary " + contentType + ' ' + std::string(data.text()));
  }
  void networkStream(const Stream &, const QELProjectTimecode &timecode,
                     const std::optional<std::string> &information) override {
    told.push_back("heartbeat " + timecode.XMLRepresentation() + (information ? " | " + *information : ""));
  }
  void networkStreamIsReady(const Stream &stream) override {
    told.push_back("ready " + stream->peerHostName().value_or("-") + ' ' + stream->peerIPv4Address().value_or("-") +
                   ' ' + stream->peerAppID().value_or("-"));
  }
  void networkStreamWasTerminated(const Stream &) override { told.emplace_back("terminated"); }

  std::vector<std::string> told;
};

std::vector<std::string> toldOf(std::span<const uint8_t> bytes, std::span<const uint8_t> sizes, uint8_t limit) {
  // It has no thread, so that all is told here and now; and it is ready once the peer has shaken hands.
  const uint64_t received = QELNKLegacyStream::receivedHandshake | QELNKLegacyStream::receivedHost |
                            QELNKLegacyStream::receivedIPv4 | QELNKLegacyStream::receivedAppID;
  const auto stream = QELNKLegacyStream::create(Value::map({{"delegateOnMainThread", false},
                                                            {"testFullyConfigured", received},
                                                            {"compareFullyConfigured", received},
                                                            {"maximumStringLength", limit},
                                                            {"maximumBinaryLength", limit}}));
  const auto delegate = std::make_shared<Delegate>();
  stream->setDelegate(delegate);
  const auto input = std::make_shared<Pieces>(bytes, sizes);
  stream->setInputStream(input, nullptr);
  stream->stream(input, qelnk::StreamEvent::opened);
  while (input->hasBytesAvailable() && stream->inputStream() == input)
    stream->stream(input, qelnk::StreamEvent::bytesAvailable);
  stream->stream(input, qelnk::StreamEvent::end);
  return delegate->told;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::Input input(data, size);
  const auto sizes = input.bytes(input.byte());
  const uint8_t limit = input.byte();
  const auto told = toldOf(input.rest(), sizes, limit);
  fuzz::require(told == toldOf(input.rest(), {}, limit), "the same is told however it is split");
  fuzz::require(std::ranges::count(told, "terminated") == 1 && told.back() == "terminated",
                "a connection ends once, behind all else");
  return 0;
}
