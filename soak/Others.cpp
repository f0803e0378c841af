// WebSockets that come and go, and keep-alive watches of addresses of this machine.

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "Part.h"

using namespace std::chrono_literals;
using qelnk::Value;

namespace soak {
namespace {

/// Hears a simulated daemon's pushes; the counter of one connection leaves no number out.
struct Viewer final : QELNKWebSocketDelegate {
  int64_t frames = -1;
  bool hasEnded = false, released = false;

  void webSocketDidOpen(const std::shared_ptr<QELNKWebSocket> &webSocket) override {
    ++counters().opened;
    webSocket->sendString(R"({"command":"getProject","messageID":1})");
  }
  void webSocketDidClose(const std::shared_ptr<QELNKWebSocket> &) override {}
  void webSocket(const std::shared_ptr<QELNKWebSocket> &, const std::string &text) override {
    if (released) finding("web-sockets", "a text came after the WebSocket had gone");
    const auto message = qelnk::jsonObject(text);
    if (!message) return finding("web-sockets", "a text that is no JSON: " + text.substr(0, 200));
    ++counters().texts;
    const Value &data = (*message)["data"];
    if (data["id"].string() != "frames") return;
    const int64_t number = data["value"].integerValue();
    if (frames >= 0 && number != frames + 1)
      finding("web-sockets", "frame " + std::to_string(number) + " came after " + std::to_string(frames));
    frames = number;
  }
  void closed(uint16_t code, const std::string &reason) {
    hasEnded = true;
    failure("web-sockets", "closed with " + std::to_string(code) + ": " + reason);
  }
};

class WebSockets final : public Part {
 public:
  explicit WebSockets(const Setting &setting) : Part(setting), seats_(size_t(setting.count)) {}

  void beat() override {
    for (auto &seat : seats_) {
      if (seat.webSocket && (!goes() || now() > seat.end || seat.viewer->hasEnded)) {
        seat.webSocket = nullptr;
        seat.viewer->released = true;
        if (seat.viewer.use_count() > 1) finding("web-sockets", "somebody keeps the observer of a WebSocket");
        seat.viewer = nullptr;
      } else if (!seat.webSocket && goes() && oneIn(20)) {
        seat = make();
      }
    }
  }
  bool isQuiet() const override {
    return std::none_of(seats_.begin(), seats_.end(), [](auto &seat) { return seat.webSocket; });
  }

 private:
  struct Seat {
    std::shared_ptr<QELNKWebSocket> webSocket;
    std::shared_ptr<Viewer> viewer;
    Time end;
  };

  Seat make() {
    Seat seat{nullptr, std::make_shared<Viewer>(), after(200, 15'000)};
    QELNKWebSocketOptions options;
    options.closedBlock = [viewer = std::weak_ptr(seat.viewer)](auto &, uint16_t code, auto &reason, bool) {
      if (const auto told = viewer.lock()) told->closed(code, reason);
    };
    seat.webSocket = QELNKWebSocket::create("ws://127.0.0.1:" + std::to_string(setting_.port), seat.viewer, options);
    return seat;
  }

  std::vector<Seat> seats_;
};

/// An observer of one address, which always answers.
struct Watcher final : QELNKPingletonDelegate {
  void pingleton(const std::shared_ptr<QELNKPingleton> &, const std::string &address) override {
    failure("watches", address + " is told to be unreachable");
  }
};

class Watches final : public Part {
 public:
  explicit Watches(const Setting &setting) : Part(setting), seats_(mayPing() ? size_t(setting.count) : 0) {
    if (!mayPing()) tell("note", Value::map({{"what", "no right to ping: there are no watches"}}));
  }

  void beat() override {
    for (size_t i = 0; i < seats_.size(); ++i) {
      Seat &seat = seats_[i];
      if (seat.watcher && (!goes() || now() > seat.end)) {
        seat.watcher = nullptr;
        ++counters().watched;
      } else if (!seat.watcher && goes() && oneIn(50)) {
        seat = {std::make_shared<Watcher>(), after(1'000, 15'000)};
        QELNKPingleton::sharedPingleton()->startWatchingIP("127.0.0." + std::to_string(2 + i), seat.watcher);
      }
    }
  }

 private:
  struct Seat {
    std::shared_ptr<Watcher> watcher;
    Time end;
  };

  static bool mayPing() {
    for (const int type : {SOCK_DGRAM, SOCK_RAW}) {
      const int descriptor = socket(AF_INET, type | SOCK_CLOEXEC, IPPROTO_ICMP);
      if (descriptor < 0) continue;
      close(descriptor);
      return true;
    }
    return false;
  }

  std::vector<Seat> seats_;
};

}  // namespace

std::unique_ptr<Part> webSockets(const Setting &setting) { return std::make_unique<WebSockets>(setting); }
std::unique_ptr<Part> watches(const Setting &setting) { return std::make_unique<Watches>(setting); }

}  // namespace soak
