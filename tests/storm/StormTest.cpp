// Objects of every kind, used, ended and let go of by several threads and by their own callbacks, all at once; and a
// process that exits in the middle of that.

#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKLegacyClient.h>
#include <QELNetworkKit/QELNKLegacyService.h>
#include <QELNetworkKit/QELNKMonitor.h>
#include <QELNetworkKit/QELNKNetworkInterfaceDiscovery.h>
#include <QELNetworkKit/QELNKPingleton.h>
#include <QELNetworkKit/QELNKPublisher.h>
#include <QELNetworkKit/QELNKServer.h>
#include <QELNetworkKit/QELNKSubscriber.h>
#include <QELNetworkKit/QELNKWebSocket.h>
#include <QELNetworkKit/Queue.h>
#include <QELNetworkKit/RunLoop.h>
#include <QELNetworkKit/ZMQContext.h>
#include <QELNetworkKit/ZMQSocket.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>

#include "daemon/FakeDaemon.h"
#include "netutil/WebSocketServer.h"
#include "platform/RunLoopThread.h"
#include "support/TestSupport.h"

namespace qelnk::test {

using namespace std::chrono_literals;

namespace {

uint32_t dice(uint32_t sides) {
  static std::atomic<uint32_t> seed{testing::UnitTest::GetInstance()->random_seed() + 1u};
  static thread_local std::minstd_rand random(seed += 7919);
  return uint32_t(random() / 16) % sides;
}

/// The host's reference to an object.
class Actor {
 public:
  virtual ~Actor() = default;
  /// Does one of all the things that may be done with the object, on whatever thread.
  virtual void act() = 0;
  virtual void letGo() = 0;
  virtual bool isGone() const = 0;
};

void act(const std::weak_ptr<Actor> &actor) {
  if (const auto still = actor.lock()) still->act();
}

template <class T>
class Holder final : public Actor {
 public:
  using Deed = std::function<void(T &object)>;
  /// One of the deeds at a time; the first is what ends the object, whose callbacks may run already.
  void hold(std::shared_ptr<T> object, std::vector<Deed> deeds) {
    const std::lock_guard lock(mutex_);
    weakly_ = object;
    object_ = std::move(object);
    deeds_ = std::move(deeds);
  }
  void act() override {
    const auto object = get();  // whose last reference may be this one in the end
    if (!object) return;
    const uint32_t what = dice(20);
    if (what == 0)
      letGo();
    else if (what == 1)
      deeds_[0](*object);
    else
      deeds_[dice(uint32_t(deeds_.size()))](*object);
  }
  void letGo() override {
    std::shared_ptr<T> object;  // ends after the lock
    const std::lock_guard lock(mutex_);
    object.swap(object_);
  }
  bool isGone() const override { return !get() && weakly_.expired(); }
  std::shared_ptr<T> get() const {
    const std::lock_guard lock(mutex_);
    return object_;
  }

 private:
  mutable std::mutex mutex_;  // guards object_, behind which the others stay as they are
  std::shared_ptr<T> object_;
  std::weak_ptr<T> weakly_;
  std::vector<Deed> deeds_;
};

struct LegacyEcho final : QELNKLegacyServerDelegate {
  void networkService(const Server &, const Stream &stream, const std::string &string) override {
    stream->writeString(string);
  }
  void networkService(const Server &, const Stream &, const QELProjectTimecode &,
                      const std::optional<std::string> &) override {}
  void networkServiceNetworkStreamIsReady(const Server &, const Stream &stream) override {
    stream->writeString("hello");
  }
  void networkServiceNetworkStreamWasTerminated(const Server &, const Stream &) override {}
};

/// Peers that outlive the storms, and ports of those that do not.
class World {
 public:
  World() {
    // The process's service thread keeps what its first watch opens.
    const int descriptor = eventfd(0, EFD_CLOEXEC);
    serviceLoop()->watch(descriptor, Readiness::readable, [](Readiness) {})->cancel();
    close(descriptor);
    echo_->bindToPort(0, [](auto &, auto &message) { message->setResponse(message->request()); });
    publisher_->bindToPort(0);
    Value options = QELNKLegacyClient::defaultConnectOptions();
    options.set("delegateOnMainThread", false);
    legacy_ = QELNKLegacyServer::create("steady", 0, options);
    legacy_->setDelegate(observer_);
    legacy_->start();
    publishing_ = std::thread([this] {
      for (int64_t n = 0; !isOver_; ++n) {
        publisher_->publish(Value::map({{"n", n}}));
        std::this_thread::sleep_for(200us);
      }
    });
  }
  ~World() {
    isOver_ = true;
    publishing_.join();
  }

  // A steady peer's port, or one whose owner may be gone by now.
  int32_t serverPort() const { return dice(3) ? echo_->port() : server.load(); }
  int32_t publisherPort() const { return dice(3) ? publisher_->port() : publisher.load(); }
  uint64_t legacyPort() const { return uint64_t(dice(3) ? legacy_->port() : legacy.load()); }
  std::atomic<int32_t> server{1}, publisher{1}, legacy{1};

  FakeDaemon daemon{exampleWorkflows()};
  WebSocketServer webSockets{WebSocketServer::shaken([](auto &stream) { WebSocketServer::echo(stream); })};

  /// A context closes monitors that had to be left to ZeroMQ with the next socket that it makes.
  void closeMonitors() { shared_->zmqContext()->socketWithType(ZMQ_PAIR)->close(); }

  std::shared_ptr<QELNKContext> context() const {
    switch (dice(3)) {
      case 0:
        return shared_;
      case 1:
        return QELNKContext::contextWithBackgroundQueue();
      default:
        return std::make_shared<QELNKContext>(std::make_shared<ZMQContext>(1), Queue::main(), Queue::main());
    }
  }

 private:
  const std::shared_ptr<QELNKContext> shared_ = QELNKContext::contextWithBackgroundQueue();
  const std::shared_ptr<QELNKServer> echo_ = QELNKServer::create(shared_);
  const std::shared_ptr<QELNKPublisher> publisher_ = QELNKPublisher::create(shared_);
  const std::shared_ptr<LegacyEcho> observer_ = std::make_shared<LegacyEcho>();
  std::shared_ptr<QELNKLegacyServer> legacy_;
  std::atomic<bool> isOver_ = false;
  std::thread publishing_;
};

using Made = std::shared_ptr<Actor>;

Made makeServer(World &world) {
  const auto actor = std::make_shared<Holder<QELNKServer>>();
  const std::weak_ptr<Actor> weakly = actor;
  const auto bind = [&world, weakly](QELNKServer &server) {
    const auto answer = [weakly](auto &, auto &message) {
      message->setResponse(message->request());
      act(weakly);
    };
    if (server.bindToPort(0, answer)) world.server = server.port();
  };
  auto server = QELNKServer::create(world.context());
  bind(*server);
  actor->hold(server, {[](auto &it) { it.disconnect(); }, bind, [](auto &it) { it.setFallbackResponse(Value(1)); },
                       [](auto &it) { it.setMessageBlock(nullptr); }});
  return actor;
}

Made makeClient(World &world) {
  const auto actor = std::make_shared<Holder<QELNKClient>>();
  const std::weak_ptr<Actor> weakly = actor;
  const auto told = [weakly](auto &, auto &) { act(weakly); };
  const auto connect = [&world, weakly](QELNKClient &client) {
    client.connectToHost("127.0.0.1", world.serverPort(), [weakly](auto &) { act(weakly); });
  };
  const auto request = [] { return Value::map({{"n", 1}, {"t", "\xC3\xA4"}}); };
  auto client = QELNKClient::create(world.context());
  client->setSyncRequests(dice(3) == 0);
  client->setRequestTimeout(20ms);
  connect(*client);
  actor->hold(client, {[](auto &it) { it.disconnect(); }, connect, [=](auto &it) { it.sendRequest(request(), told); },
                       [=](auto &it) { it.sendRequest(request(), told, 1ms); },
                       [=](auto &it) { it.cancelMessage(it.sendRequest(request(), told)); },
                       [=](auto &it) { it.scheduleMessage(std::make_shared<QELNKMessage>(told)); }});
  return actor;
}

Made makePublisher(World &world) {
  const auto actor = std::make_shared<Holder<QELNKPublisher>>();
  const auto bind = [&world](QELNKPublisher &publisher) {
    publisher.bindToPort(0);
    world.publisher = publisher.port();
  };
  auto publisher = QELNKPublisher::create(world.context());
  bind(*publisher);
  const auto publish = [](auto &it) {
    for (int i = 0; i < 5; ++i) it.publish(Value::map({{"n", i}}));
  };
  actor->hold(publisher, {[](auto &it) { it.disconnect(); }, bind, publish, publish, publish});
  return actor;
}

Made makeSubscriber(World &world) {
  const auto actor = std::make_shared<Holder<QELNKSubscriber>>();
  const std::weak_ptr<Actor> weakly = actor;
  const auto connect = [&world, weakly](QELNKSubscriber &subscriber) {
    subscriber.connectToHost("127.0.0.1", world.publisherPort(), [weakly](auto &) { act(weakly); });
  };
  auto subscriber = QELNKSubscriber::create(world.context());
  subscriber->setMessageBlock([weakly](auto &, auto &) { act(weakly); });
  connect(*subscriber);
  actor->hold(subscriber, {[](auto &it) { it.disconnect(); }, connect, [](auto &it) { it.addFilterWithInt(1); },
                           [](auto &it) {
                             it.setPendingLimit({2, 100});
                           },
                           [](auto &it) { it.pendingMessages(); }});
  return actor;
}

Made makeMonitor(World &world) {
  const auto actor = std::make_shared<Holder<QELNKMonitor>>();
  const auto context = world.context();
  const auto watched = QELNKClient::create(context);
  watched->connectToHost("127.0.0.1", world.serverPort(), nullptr);
  const auto watch = [watched](QELNKMonitor &it) { it.connectToSocket(watched, QELNKMonitorEventAll); };
  auto monitor = QELNKMonitor::create(context);
  watch(*monitor);
  // Who waits for events is released by the end alone: it is another thread that ends it, again when somebody watches
  // anew.
  const auto wait = [](QELNKMonitor &it) {
    std::atomic<bool> over = false;
    std::thread ending([&] {
      for (; !over; std::this_thread::sleep_for(1ms)) it.disconnect();
    });
    it.events();
    over = true;
    ending.join();
  };
  actor->hold(monitor, {[](auto &it) { it.disconnect(); }, watch, wait, [watched](auto &) { watched->disconnect(); }});
  return actor;
}

Made makeDaemonClient(World &world) {
  const auto actor = std::make_shared<Holder<QELNKKORVALClient>>();
  const std::weak_ptr<Actor> weakly = actor;
  const auto acts = [weakly](auto &&...) { act(weakly); };
  const auto connect = [&world, acts](QELNKKORVALClient &it) {
    it.connectToHost("127.0.0.1", world.daemon.port(), acts);
  };
  auto client = QELNKKORVALClient::create(world.context());
  client->setSyncRequests(dice(3) == 0);
  client->setRequestTimeout(50ms);
  connect(*client);
  actor->hold(client, {[](auto &it) { it.disconnect(); }, connect, [=](auto &it) { it.startProject(acts); },
                       [](auto &it) { it.updateWorkflows(); }, [=](auto &it) { it.loadProject("show.prj", acts); },
                       [=](auto &it) {
                         for (const auto &workflow : it.workflows()) {
                           it.startWorkflow(workflow);
                           it.registerWorkflow(workflow, {}, acts);
                           it.setWorkflow(workflow, Value::map({{"level", 1}}));
                         }
                       }});
  return actor;
}

/// Tells an actor of whatever a legacy server, its streams or a client report.
struct LegacyObserver final : QELNKLegacyServerDelegate, QELNKLegacyClientDelegate {
  explicit LegacyObserver(std::weak_ptr<Actor> actor) : actor(std::move(actor)) {}
  void networkService(const Server &, const Stream &stream, const std::string &) override {
    stream->writeString("b"), tell();
  }
  void networkService(const Server &, const Stream &, const QELProjectTimecode &,
                      const std::optional<std::string> &) override {
    tell();
  }
  void networkServiceNetworkStreamIsReady(const Server &, const Stream &) override { tell(); }
  void networkServiceNetworkStreamWasTerminated(const Server &, const Stream &) override { tell(); }
  void networkClientIsReady(const Client &) override { tell(); }
  void networkClient(const Client &, const std::string &) override { tell(); }
  void networkClientWasTerminated(const Client &, bool) override { tell(); }
  void networkClient(const Client &, int64_t, bool) override { tell(); }
  void networkClientHeartbeatNotification(const Client &, bool) override { tell(); }
  void networkClientServiceUpdatedTXTRecordData(const Client &) override { tell(); }
  void tell() const { act(actor); }
  const std::weak_ptr<Actor> actor;
};

Value legacyOptions() {
  Value options = QELNKLegacyClient::defaultConnectOptions();
  options.set("delegateOnMainThread", dice(2) == 0);
  options.set("autoConnectDelay", 0.0);
  options.set("autoRetryInterval", 0.001);
  return options;
}

template <class Server>
Made holdLegacyServer(World &world, const std::shared_ptr<Server> &server) {
  const auto actor = std::make_shared<Holder<Server>>();
  const auto observer = std::make_shared<LegacyObserver>(actor);
  server->setDelegate(observer);
  const auto start = [&world, observer](Server &it) {
    if (it.start()) world.legacy = it.port();
  };
  start(*server);
  actor->hold(server, {[](auto &it) { it.stop(); }, start, [](auto &it) { it.writeString("a"); },
                       [](auto &it) { it.writeBinaryData(Data(std::vector<uint8_t>(5000)), "image", true); },
                       [](auto &it) { it.sendHeartbeatAtTimecode(QELProjectTimecode()); },
                       [](auto &it) {
                         for (const auto &stream : it.streams()) stream->disconnect();
                       }});
  return actor;
}

Made makeLegacyServer(World &world) {
  return holdLegacyServer(world, QELNKLegacyServer::create("storm", 0, legacyOptions()));
}

Made makeLegacyService(World &world) {
  return holdLegacyServer(world, QELNKLegacyService::create("local.", "_storm._tcp.", "storm", 0, legacyOptions()));
}

Made makeLegacyClient(World &world) {
  const auto actor = std::make_shared<Holder<QELNKLegacyClient>>();
  const auto observer = std::make_shared<LegacyObserver>(actor);
  const bool resolves = dice(4) == 0;
  auto client = resolves ? QELNKLegacyClient::create(NetService::create("local.", "_storm._tcp.", "storm"), observer,
                                                     legacyOptions())
                         : QELNKLegacyClient::create("storm", dice(2) ? "localhost" : "127.0.0.1", world.legacyPort(),
                                                     observer, legacyOptions());
  actor->hold(client, {[](auto &it) { it.disconnect(); }, [observer](auto &it) { it.connect(); },
                       [](auto &it) { it.reconnect(); }, [](auto &it) { it.writeString("c"); },
                       [](auto &it) { it.writeBinaryData(Data(std::vector<uint8_t>(100'000)), "image", false); },
                       [](auto &it) { it.stream(it.inputStream(), StreamEvent::end); },
                       [](auto &it) { it.setOptions(legacyOptions()); }});
  return actor;
}

Made makeWebSocket(World &world) {
  struct Observer final : QELNKWebSocketDelegate {
    explicit Observer(std::weak_ptr<Actor> actor) : actor(std::move(actor)) {}
    void webSocketDidOpen(const std::shared_ptr<QELNKWebSocket> &) override { act(actor); }
    void webSocketDidClose(const std::shared_ptr<QELNKWebSocket> &) override { act(actor); }
    void webSocket(const std::shared_ptr<QELNKWebSocket> &, const std::string &) override { act(actor); }
    const std::weak_ptr<Actor> actor;
  };
  const auto actor = std::make_shared<Holder<QELNKWebSocket>>();
  const auto observer = std::make_shared<Observer>(actor);
  QELNKWebSocketOptions options;
  options.closeTimeout = 500ms;
  if (dice(2)) options.queue = Queue::serial("storm");
  const std::string url = dice(4) ? world.webSockets.url() : "ws://127.0.0.1:1";
  actor->hold(
      QELNKWebSocket::create(url, observer, options),
      {[](auto &it) { it.setDelegate({}); }, [observer](auto &it) { it.setDelegate(observer); },
       [](auto &it) { it.sendString("\xC3\xA4"); }, [](auto &it) { it.sendData(Data(std::vector<uint8_t>(100'000))); },
       [](auto &it) { it.bufferedAmount(); }});
  return actor;
}

Made makeWatch(World &) {
  struct Observer final : QELNKPingletonDelegate {
    void pingleton(const std::shared_ptr<QELNKPingleton> &, const std::string &) override {}
  };
  const auto actor = std::make_shared<Holder<Observer>>();
  auto observer = std::make_shared<Observer>();
  const auto watch = [weakly = std::weak_ptr(observer)](auto &) {
    QELNKPingleton::sharedPingleton()->startWatchingIP("127.0.0.1", weakly);
  };
  actor->hold(observer, {watch, [](auto &) { QELNKNetworkInterfaceDiscovery::interfaces(); }});
  return actor;
}

Made make(World &world) {
  using Maker = Made (*)(World &);
  static const Maker makers[] = {makeServer,       makeClient,       makePublisher,     makeSubscriber,
                                 makeMonitor,      makeDaemonClient, makeLegacyServer,  makeLegacyClient,
                                 makeLegacyClient, makeWebSocket,    makeLegacyService, makeWatch};
  return makers[dice(std::size(makers))](world);
}

/// Some actors, and threads that make them act.
class Storm {
 public:
  Storm(World &world, int steps) {
    for (int i = 0; i < 8; ++i) actors_.push_back(make(world));
    for (int i = 0; i < 3; ++i)
      threads_.emplace_back([this, steps] {
        for (int step = 0; step < steps; ++step) {
          actAny();
          if (dice(4) == 0) std::this_thread::sleep_for(std::chrono::microseconds(dice(500)));
        }
        --blowing_;
      });
  }
  void actAny() { act(actors_[dice(uint32_t(actors_.size()))]); }
  /// Serves the main loop until the threads have done their steps; then nothing may be left.
  void calmDown() {
    EXPECT_TRUE(eventually(
        [this] {
          if (dice(8) == 0) actAny();
          return blowing_ == 0;
        },
        60s))
        << "something hangs";
    for (auto &thread : threads_) thread.join();
    for (const auto &actor : actors_) actor->letGo();
    for (const auto &actor : actors_)
      EXPECT_TRUE(eventually([&] { return actor->isGone(); })) << "left over: " << typeid(*actor).name();
  }

 private:
  std::vector<Made> actors_;
  std::atomic<int> blowing_ = 3;
  std::vector<std::thread> threads_;
};

void silenceLog() {
  QLGetHandle().setSink([](LogLevel, std::string_view) {});
}

enum class Exit { onTheMainThread, onAnotherThread, quickly };

/// Has to be over at once, whatever the threads are in the middle of.
void exitInTheStorm(Exit way) {
  silenceLog();
  auto &storm = *new Storm(*new World, 1'000'000);
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(dice(60));
  while (std::chrono::steady_clock::now() < end) {
    RunLoop::current()->runOnce(1ms);
    storm.actAny();
  }
  alarm(5);
  if (way == Exit::onTheMainThread) std::exit(0);
  if (way == Exit::quickly) std::quick_exit(0);
  std::thread([] { std::exit(0); }).detach();
  RunLoop::current()->run();
}

std::string openDescriptors() {
  std::string all;
  for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    all += entry.path().filename().string() + " " + std::filesystem::read_symlink(entry.path(), gone).string() + "\n";
  }
  return all;
}

/// More of them when somebody wants to be sure.
int rounds(int usually) {
  const char *wanted = std::getenv("QELNK_STORM_ROUNDS");
  return wanted ? std::atoi(wanted) : usually;
}

}  // namespace

TEST(Storm, LeavesNothingBehind) {
  silenceLog();
  World world;
  size_t threads = 0, descriptors = 0;
  std::string before;
  const int count = rounds(60);
  for (int round = 0; round < count && !HasFailure(); ++round) {
    Storm(world, 40).calmDown();
    if (round == count / 2) {
      std::this_thread::sleep_for(3s);  // for what ends by itself, watches and closing WebSockets
      world.closeMonitors();
      threads = threadCount(), descriptors = descriptorCount(), before = openDescriptors();
    }
  }
  EXPECT_TRUE(eventually([&] {
    world.closeMonitors();
    return threadCount() <= threads && descriptorCount() <= descriptors;
  })) << threadCount()
      << " threads, " << threads << " before, and open are\n"
      << openDescriptors() << "before:\n"
      << before;
  QLGetHandle().setSink(nullptr);
}

TEST(StormDeathTest, AProcessExitsInTheMiddle) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // Threads that an exit leaves as they are, as it has to, are no leak.
  const char *options = std::getenv("TSAN_OPTIONS");
  setenv("TSAN_OPTIONS", (std::string(options ? options : "") + " report_thread_leaks=0").c_str(), 1);
  const int count = rounds(8);
  for (int round = 0; round < count && !HasFailure(); ++round)
    for (const Exit way : {Exit::onTheMainThread, Exit::onAnotherThread, Exit::quickly})
      EXPECT_EXIT(exitInTheStorm(way), testing::ExitedWithCode(0), "^$") << "way " << int(way);
}

}  // namespace qelnk::test
