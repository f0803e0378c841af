#pragma once

#include <QELNetworkKit/QELNKLegacyServer.h>
#include <QELNetworkKit/QELNKLegacyStream.h>
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "Support.h"

/// Legacy connections over the loopback, by system calls at one end.
namespace bench {

/// Two ends of a connection over the loopback.
inline std::pair<int, int> connection() {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto *generic = reinterpret_cast<sockaddr *>(&address);
  require(bind(listener, generic, size) == 0 && listen(listener, 1) == 0, "listen");
  getsockname(listener, generic, &size);
  const int a = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  require(connect(a, generic, size) == 0, "connect");
  const int b = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  close(listener);
  const int on = 1;
  for (const int end : {a, b}) setsockopt(end, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return {a, b};
}

inline constexpr std::string_view theHandshake("handshake\0host bench\0ipv4 127.0.0.1\0appID bench\0", 48);

/// Does what a peer by hand does on a connection to one of ours before both are ready.
inline void shakeHands(int socket) {
  require(write(socket, theHandshake.data(), theHandshake.size()) == ssize_t(theHandshake.size()), "write");
  for (int strings = 4; strings > 0;) {
    char byte = 1;
    require(read(socket, &byte, 1) == 1, "handshake");
    strings -= byte == 0;
  }
}

class Nobody final : public QELNKLegacyServerDelegate {
 public:
  void networkService(const Server &, const Stream &, const std::string &) override {}
  void networkService(const Server &, const Stream &, const QELProjectTimecode &,
                      const std::optional<std::string> &) override {}
  void networkServiceNetworkStreamIsReady(const Server &, const Stream &) override { ++ready; }
  void networkServiceNetworkStreamWasTerminated(const Server &, const Stream &) override {}
  std::atomic<int> ready{0};
};

/// What these sockets have received and nobody has read goes.
inline void drainAll(const std::vector<int> &sockets) {
  std::array<char, 65536> room;
  for (const int socket : sockets)
    while (recv(socket, room.data(), room.size(), MSG_DONTWAIT) == ssize_t(room.size())) {
    }
}

/// So many peers of a server that do not read; each sends its handshake.
inline std::vector<int> connectPeers(uint16_t port, int count) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  std::vector<int> peers;
  for (int i = 0; i < count; ++i) {
    peers.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    require(connect(peers.back(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0, "connect");
    require(write(peers.back(), theHandshake.data(), theHandshake.size()) > 0, "write");
  }
  return peers;
}

/// A server of ours whose connections share a thread, with so many peers that do not read.
class Crowd {
 public:
  explicit Crowd(int count) : observer_(std::make_shared<Nobody>()) {
    qelnk::Value options = QELNKLegacyStream::defaultPlayoutOptionsForAppID("bench");
    options.set("delegateOnMainThread", false);
    server = QELNKLegacyServer::create("bench", 0, options);
    server->setDelegate(observer_);
    require(server->start(), "start");
    const double memoryBefore = residentKiB();
    const auto begin = Clock::now();
    std::thread peers([&] { peers_ = connectPeers(uint16_t(server->port()), count); });
    while (observer_->ready < count) qelnk::RunLoop::current()->runOnce(std::chrono::milliseconds(1));
    peers.join();
    secondsToAccept = seconds(Clock::now() - begin);
    memoryEach = (residentKiB() - memoryBefore) / count;
  }
  ~Crowd() {
    server.reset();
    for (const int peer : peers_) close(peer);
  }
  void drain() { drainAll(peers_); }

  /// Returns once the heartbeat and all that it has brought is done: the writes, then what follows them.
  void beat(const QELProjectTimecode &timecode, const std::string &comment) {
    server->sendHeartbeatAtTimecode(timecode, comment);
    const auto thread = QELNKLegacyStreamThread::singleThreaded();
    std::promise<void> done;
    const auto afterWrites = [&] { thread->performSelectorOnTarget([&] { done.set_value(); }, false); };
    thread->performSelectorOnTarget(afterWrites, false);
    done.get_future().wait();
  }

  std::shared_ptr<QELNKLegacyServer> server;
  double secondsToAccept = 0, memoryEach = 0;

 private:
  std::vector<int> peers_;
  std::shared_ptr<Nobody> observer_;
};

/// The same by system calls: a thread that waits in epoll accepts, and answers each peer's handshake with its own.
class BareCrowd {
 public:
  explicit BareCrowd(int count) : expected_(count), listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto *generic = reinterpret_cast<sockaddr *>(&address);
    require(bind(listener_, generic, size) == 0 && listen(listener_, SOMAXCONN) == 0, "listen");
    getsockname(listener_, generic, &size);
    std::thread server([this] { serve(); });
    peers_ = connectPeers(ntohs(address.sin_port), count);
    server.join();
  }
  ~BareCrowd() {
    for (const auto *sockets : {&connections_, &peers_})
      for (const int each : *sockets) close(each);
    close(listener_);
    close(epoll_);
  }
  BareCrowd(const BareCrowd &) = delete;
  BareCrowd &operator=(const BareCrowd &) = delete;

  void drain() { drainAll(peers_); }
  void beat(const std::string &bytes) {
    for (const int each : connections_) require(send(each, bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0, "send");
  }

 private:
  void watch(int descriptor) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    require(epoll_ctl(epoll_, EPOLL_CTL_ADD, descriptor, &event) == 0, "epoll_ctl");
  }
  void serve() {
    watch(listener_);
    epoll_event events[64];
    while (ready_ < expected_) {
      const int count = epoll_wait(epoll_, events, 64, -1);
      for (int i = 0; i < count; ++i) events[i].data.fd == listener_ ? accept() : take(events[i].data.fd);
    }
  }
  void accept() {
    const int on = 1, connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    require(connection >= 0, "accept");
    setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    connections_.push_back(connection);
    watch(connection);
  }
  void take(int connection) {
    std::array<char, 2048> room;
    const ssize_t count = recv(connection, room.data(), room.size(), 0);
    require(count > 0, "recv");
    int &strings = strings_[connection];
    strings += int(std::count(room.begin(), room.begin() + count, '\0'));
    if (strings < 4) return;
    require(send(connection, theHandshake.data(), theHandshake.size(), MSG_NOSIGNAL) > 0, "send");
    ++ready_;
  }

  const int expected_, listener_, epoll_ = epoll_create1(EPOLL_CLOEXEC);
  int ready_ = 0;
  std::map<int, int> strings_;
  std::vector<int> connections_, peers_;
};

}  // namespace bench
