// Broadcasts: a publisher of numbered messages, and subscribers that come and go. As long as a subscriber is connected
// its messages come in order, none twice, and none is missing but those that it has counted as dropped.

#include <unistd.h>

#include <thread>
#include <vector>

#include "Part.h"

using namespace std::chrono_literals;
using qelnk::Value;

namespace soak {
namespace {

class Publisher final : public Part {
 public:
  explicit Publisher(const Setting &setting) : Part(setting), run_(int64_t(qelnk::Clock::system()->wallTime() * 1e3)) {
    try {
      publisher_->bindToPort(setting.port);
    } catch (const std::exception &problem) {
      finding("publisher", problem.what());
    }
  }

  void beat() override {
    if (!goes() || !oneIn(setting_.pace)) return;
    for (int i = 0; i < 8; ++i) {
      const bool isLong = oneIn(500);
      auto message =
          Value::map({{"run", run_}, {"number", ++number_}, {"pad", std::string(isLong ? 50'000 : 20, 'p')}});
      if (!publisher_->publish(message)) finding("publisher", "could not publish");
      ++counters().published;
    }
  }

 private:
  const std::shared_ptr<QELNKPublisher> publisher_ = QELNKPublisher::create(QELNKContext::sharedContext());
  const int64_t run_;  // another one for each process
  int64_t number_ = 0;
};

/// What one subscriber has heard; its callbacks come one after the other.
struct Heard {
  std::string name;
  int64_t run = 0, last = 0;
  uint64_t missing = 0;
  int connects = 0;
  bool isSlow = false;
  std::atomic<bool> released{false};

  void take(const QELNKSubscriber &subscriber, const Value &message) {
    if (released) finding("subscribers", name + " was told a message after it had gone");
    const int64_t number = message["number"].integerValue(), from = message["run"].integerValue();
    const bool isNewRun = from != run;
    if (from < run) finding("subscribers", name + " heard again of a publisher that is gone");
    if (!isNewRun && number <= last)
      finding("subscribers", name + " heard message " + std::to_string(number) + " after " + std::to_string(last));
    if (!isNewRun && number > last + 1) miss(subscriber, uint64_t(number - last - 1));
    run = from;
    last = number;
    ++counters().received;
    if (isSlow) std::this_thread::sleep_for(3ms);
  }

  void miss(const QELNKSubscriber &subscriber, uint64_t count) {
    missing += count;
    const uint64_t dropped = subscriber.droppedMessages();
    if (missing > dropped) {
      failure("subscribers", name + " misses " + std::to_string(count) + " messages, " + std::to_string(dropped) +
                                 " in all are counted as dropped");
      missing = dropped;  // told
    }
  }
};

struct Listener {
  std::shared_ptr<QELNKSubscriber> subscriber;
  std::shared_ptr<Heard> heard;
  bool onMain = false;
  Time end;
};

class Subscribers final : public Part {
 public:
  explicit Subscribers(const Setting &setting) : Part(setting), listeners_(size_t(setting.count)) {}

  void beat() override {
    for (auto &listener : listeners_) {
      if (listener.subscriber && (!goes() || now() > listener.end))
        letGo(listener);
      else if (!listener.subscriber && goes() && oneIn(20))
        listener = make(&listener == &listeners_.front());
    }
  }
  bool isQuiet() const override {
    return std::none_of(listeners_.begin(), listeners_.end(), [](auto &listener) { return listener.subscriber; });
  }

 private:
  Listener make(bool isSlow) {
    const auto context = isSlow ? QELNKContext::contextWithBackgroundQueue() : anyContext();
    Listener listener{QELNKSubscriber::create(context), std::make_shared<Heard>(),
                      context == QELNKContext::sharedContext(), after(1'000, 20'000)};
    listener.heard->name = "subscriber " + std::to_string(++names_);
    listener.heard->isSlow = isSlow;
    auto &subscriber = *listener.subscriber;
    if (isSlow) subscriber.setPendingLimit({.messages = 50});
    if (oneIn(3)) subscriber.addFilter(qelnk::Data(std::string("{\"run\"")));
    subscriber.setMessageBlock([heard = listener.heard](auto &told, auto &message) { heard->take(*told, message); });
    subscriber.connectToHost("127.0.0.1", setting_.port, [heard = listener.heard](auto &) { ++heard->connects; });
    return listener;
  }

  void letGo(Listener &listener) {
    counters().dropped += listener.subscriber->droppedMessages();
    const bool disconnects = !listener.onMain && oneIn(2);
    if (disconnects) listener.subscriber->disconnect();  // returns once no callback comes any more
    listener.subscriber = nullptr;
    listener.heard->released = listener.onMain || disconnects;
    listener.heard = nullptr;
  }

  std::vector<Listener> listeners_;
  int names_ = 0;
};

}  // namespace

std::unique_ptr<Part> publisher(const Setting &setting) { return std::make_unique<Publisher>(setting); }
std::unique_ptr<Part> subscribers(const Setting &setting) { return std::make_unique<Subscribers>(setting); }

}  // namespace soak
