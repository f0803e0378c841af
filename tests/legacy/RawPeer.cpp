#include "legacy/RawPeer.h"

#include <QELNetworkKit/RunLoop.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "support/TestSupport.h"

namespace qelnk::test {

std::pair<StreamPair, StreamPair> connectedStreams(Transport transport) {
  if (transport == Transport::memory) return streamsInMemory(8192);
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int a = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int small = 16384;  // so that little fills the connection
  for (const int end : {listener, a})
    for (const int buffer : {SO_SNDBUF, SO_RCVBUF}) setsockopt(end, SOL_SOCKET, buffer, &small, sizeof small);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto *generic = reinterpret_cast<sockaddr *>(&address);
  EXPECT_EQ(bind(listener, generic, size), 0);
  EXPECT_EQ(listen(listener, 1), 0);
  getsockname(listener, generic, &size);
  EXPECT_EQ(connect(a, generic, size), 0);
  const int b = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  ::close(listener);
  return {streamsWithSocket(a), streamsWithSocket(b)};
}

std::string handshakeBytes(std::string_view host, std::string_view ipv4, std::string_view appID) {
  return zeroed("handshake") + zeroed("host " + std::string(host)) + zeroed("ipv4 " + std::string(ipv4)) +
         zeroed("appID " + std::string(appID));
}

std::string block(std::string_view payload, std::string_view contentType) {
  return zeroed("!bin! " + std::to_string(payload.size()) + " " + std::string(contentType)) + zeroed(payload);
}

void RawPeer::State::read() {
  std::array<uint8_t, 4096> chunk;
  while (reading && streams.input->hasBytesAvailable()) {
    const ssize_t count = streams.input->read(chunk);
    if (count <= 0) return;
    received.append(reinterpret_cast<const char *>(chunk.data()), size_t(count));
  }
}

RawPeer::RawPeer(StreamPair streams) {
  state_->streams = std::move(streams);
  state_->streams.input->setEventTarget([weak = std::weak_ptr(state_)](StreamEvent event) {
    const auto state = weak.lock();
    if (!state) return;
    if (event == StreamEvent::bytesAvailable) state->read();
    if (event == StreamEvent::end || event == StreamEvent::error) state->ended = true;
  });
  bool opened = false;
  state_->streams.output->setEventTarget([&](StreamEvent event) { opened |= event == StreamEvent::opened; });
  for (ByteStream *stream : {static_cast<ByteStream *>(state_->streams.input.get()),
                             static_cast<ByteStream *>(state_->streams.output.get())}) {
    stream->schedule(RunLoop::main());
    stream->open();
  }
  EXPECT_TRUE(eventually([&] { return opened; }));
  state_->streams.output->setEventTarget(nullptr);
}

RawPeer::~RawPeer() { close(); }

void RawPeer::send(std::string_view bytes) {
  EXPECT_TRUE(eventually([&] {
    const ssize_t count =
        state_->streams.output->write({reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()});
    if (count < 0) return true;
    bytes.remove_prefix(size_t(count));
    return bytes.empty();
  }));
}

void RawPeer::setReading(bool reading) {
  state_->reading = reading;
  state_->read();
}

void RawPeer::close() {
  state_->streams.input->close();
  state_->streams.output->close();
}

}  // namespace qelnk::test
