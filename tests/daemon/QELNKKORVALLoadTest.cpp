#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKKORVALClient.h>
#include <QELNetworkKit/Queue.h>
#include <QELNetworkKit/RunLoop.h>
#include <QELNetworkKit/ZMQContext.h>
#include <QELNetworkKit/ZMQSocket.h>
#include <gtest/gtest.h>
#include <zmq.h>

#include <atomic>
#include <future>
#include <thread>

#include "daemon/FakeDaemon.h"
#include "support/TestSupport.h"

using namespace qelnk;
using namespace qelnk::test;
using namespace std::chrono_literals;

namespace {

std::shared_ptr<QELNKKORVALClient> newClient() {
  return QELNKKORVALClient::create(QELNKContext::contextWithBackgroundQueue());
}

std::vector<std::string> commandsOf(const std::vector<Value> &requests) {
  std::vector<std::string> commands;
  for (const Value &request : requests) commands.emplace_back(request["command"].string());
  return commands;
}

/// Runs all that is on the client's response queue.
void drain(const QELNKClient &client) {
  std::promise<void> done;
  client.context()->responseQueue()->async([&] { done.set_value(); });
  done.get_future().wait();
}

}  // namespace

TEST(KORVALLoad, BringsTheWholeMirrorBeforeItReportsConnected) {
  FakeDaemon daemon(exampleWorkflows());
  const auto client = connectedClient(daemon);
  EXPECT_EQ(client->projectName(), "show");
  EXPECT_EQ(client->projectFile(), "show.prj");
  EXPECT_FALSE(client->running());
  ASSERT_EQ(client->numberOfWorkflows(), 3u);
  EXPECT_EQ(client->workflowWithIndex(0)->uid(), "a");
  EXPECT_EQ(client->workflowWithIndex(3), nullptr);
  EXPECT_EQ(client->workflowWithID("b"), client->workflowWithName("workflow b"));
  EXPECT_EQ(client->workflowWithID("d"), nullptr);
  EXPECT_EQ(client->workflowWithID("a")->numberOfPorts(), 4u);
  EXPECT_EQ(client->workflowWithID("a")->portWithID("in")->intValue(), 1);
  EXPECT_EQ(client->workflowWithID("b")->portWithID("text")->stringValue(), "x");

  const auto requests = daemon.requests();
  EXPECT_EQ(commandsOf(requests), (std::vector<std::string>{"getProject", "getWorkflows", "getExposedPorts",
                                                            "getExposedPorts", "getExposedPorts"}));
  for (size_t i = 0; i < requests.size(); ++i) {
    EXPECT_EQ(requests[i]["messageID"], Value(i));
    EXPECT_EQ(requests[i]["timestamp"].kind(), Kind::float64);
    EXPECT_NEAR(requests[i]["timestamp"].doubleValue(), Clock::system()->wallTime() * 1000, 60e3);
    EXPECT_EQ(requests[i].contains("data"), i > 1);
  }
  EXPECT_EQ(requests[3]["data"], Value::map({{"id", "b"}}));
}

TEST(KORVALLoad, OfAProjectWithoutWorkflowsReportsConnected) {
  FakeDaemon daemon;
  EXPECT_EQ(connectedClient(daemon)->numberOfWorkflows(), 0u);
}

TEST(KORVALLoad, WaitsForTheLastPorts) {
  FakeDaemon daemon(exampleWorkflows());
  daemon.setScript([](const Value &request, std::vector<Value> answers) {
    return request["data"]["id"] == Value("b") ? std::vector<Value>() : answers;
  });
  std::atomic<bool> connected{false};
  const auto client = newClient();
  client->connectToHost("localhost", daemon.port(), [&](const auto &) { connected = true; });
  // Requests are answered in order, so the last one's answer is on its way before the next command's.
  ASSERT_TRUE(eventually([&] { return daemon.count("getExposedPorts") == 3; }));
  std::atomic<bool> started{false};
  client->startProject([&](const auto &, const auto &) { started = true; });
  ASSERT_TRUE(eventually([&] { return started.load(); }));
  EXPECT_FALSE(connected);
  daemon.send(answerTo(daemon.requests("getExposedPorts")[1]));
  EXPECT_TRUE(eventually([&] { return connected.load(); }));
}

/// The daemon falls silent at the request of this number: the project, the workflows, or one of the three lists of
/// ports.
class KORVALLoadCut : public testing::TestWithParam<size_t> {
 protected:
  FakeDaemon daemon_{exampleWorkflows()};

  /// Has `then` called, on the daemon's thread, in place of the answer.
  void cutAt(std::function<void()> then) {
    daemon_.setScript([this, then](const Value &request, std::vector<Value> answers) {
      if (request["messageID"] != Value(GetParam())) return answers;
      daemon_.fallSilent();
      if (then) then();
      return std::vector<Value>();
    });
  }
  bool isCut() const { return daemon_.requests().size() > GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(AtEachStep, KORVALLoadCut, testing::Range(size_t(0), size_t(5)));

TEST_P(KORVALLoadCut, EndsAtDisconnectWithOneLineAndWithoutConnected) {
  CapturedLog log(LogLevel::error);
  cutAt(nullptr);
  const auto client = newClient();
  client->connectToHost("localhost", daemon_.port(), [](const auto &) { ADD_FAILURE() << "not connected"; });
  ASSERT_TRUE(eventually([&] { return isCut(); }));
  client->disconnect();
  EXPECT_TRUE(eventually([&] { return log.contains("QELNKKORVALClient could not load the "); }));
  ASSERT_TRUE(eventually([&] { return client->pendingMessages() == 0; }));
  drain(*client);
  EXPECT_EQ(log.count("could not load"), 1u);
}

TEST_P(KORVALLoadCut, EndsAtATimeout) {
  CapturedLog log(LogLevel::error);
  cutAt(nullptr);
  const auto clock = std::make_shared<ManualClock>();
  const auto client = newClient();
  client->setClock(clock);
  client->setRequestTimeout(std::chrono::seconds(5));
  client->connectToHost("localhost", daemon_.port(), [](const auto &) { ADD_FAILURE() << "not connected"; });
  ASSERT_TRUE(eventually([&] { return isCut(); }));
  EXPECT_TRUE(eventually([&] {
    clock->advance(std::chrono::seconds(1));
    return log.contains("QELNKKORVALClient could not load the ");
  }));
  EXPECT_TRUE(eventually([&] { return client->pendingMessages() == 0; }));
  drain(*client);
  EXPECT_EQ(log.count("could not load"), 1u);
}

TEST_P(KORVALLoadCut, IsMadeUpForOnceTheDaemonIsBack) {
  const CapturedLog log(LogLevel::error);
  for (const bool restarts : {false, true}) {
    auto daemon = std::make_unique<FakeDaemon>(exampleWorkflows());
    const int32_t port = daemon->port();
    std::atomic<bool> cut{false}, connected{false};
    daemon->setScript([&](const Value &request, std::vector<Value> answers) {
      cut = cut || request["messageID"] == Value(GetParam());
      return cut ? std::vector<Value>() : answers;
    });
    const auto client = newClient();
    client->setSocketBlock([](auto &, ZMQSocket &socket) { socket.setInt(10, ZMQ_RECONNECT_IVL); });
    client->setRequestTimeout(200ms);
    const size_t told = log.count("could not load the ");
    client->connectToHost("localhost", port, [&](const auto &) { connected = true; });
    ASSERT_TRUE(eventually([&] { return log.count("could not load the ") > told; }));
    EXPECT_TRUE(cut);
    if (restarts) {
      daemon = nullptr;
      daemon = std::make_unique<FakeDaemon>(exampleWorkflows(), uint16_t(port));
    } else {
      daemon->setScript(nullptr);
    }
    client->setRequestTimeout(std::nullopt);
    EXPECT_TRUE(eventually([&] { return client->pendingMessages() == 0; }));
    drain(*client);
    client->updateWorkflows();
    ASSERT_TRUE(eventually([&] { return connected.load(); }));
    ASSERT_EQ(client->numberOfWorkflows(), 3u);
    EXPECT_EQ(client->workflowWithID("a")->numberOfPorts(), 4u);
    EXPECT_EQ(client->workflowWithID("b")->numberOfPorts(), 2u);
    daemon->send(Value::map(
        {{"messageID", -1}, {"command", "portValueUpdate"}, {"data", Value::map({{"id", "in"}, {"value", 9}})}}));
    EXPECT_TRUE(eventually([&] { return client->workflowWithID("a")->portWithID("in")->intValue() == 9; }));
  }
}

TEST_P(KORVALLoadCut, ReleasesASynchronousCaller) {
  CapturedLog log(LogLevel::off);
  const auto client = newClient();
  client->setSyncRequests(true);
  cutAt([client] { client->disconnect(); });
  client->connectToHost("localhost", daemon_.port(), [](const auto &) { ADD_FAILURE() << "not connected"; });
  client->startProject([](const auto &, const auto &message) { EXPECT_EQ(message->error().code, ENOTCONN); });
}

TEST_P(KORVALLoadCut, ReleasesASynchronousCallerAtATimeout) {
  CapturedLog log(LogLevel::error);
  const auto client = newClient();
  client->setSyncRequests(true);
  client->setRequestTimeout(std::chrono::milliseconds(20));
  cutAt(nullptr);
  client->connectToHost("localhost", daemon_.port(), [](const auto &) { ADD_FAILURE() << "not connected"; });
  EXPECT_TRUE(log.contains("QELNKKORVALClient could not load the "));
}

TEST_P(KORVALLoadCut, EndsWhenTheClientIsLetGo) {
  CapturedLog log(LogLevel::off);
  LastReference client(newClient());
  cutAt([&] { client.letGo(); });
  client->connectToHost("localhost", daemon_.port(), [](const auto &) { ADD_FAILURE() << "not connected"; });
  EXPECT_TRUE(eventually([&] { return client.isDestroyed(); }));
}

TEST(KORVALLoad, LetsTheClientGoInItsConnectedCallback) {
  FakeDaemon daemon(exampleWorkflows());
  LastReference client(newClient());
  client->connectToHost("localhost", daemon.port(), [&](const auto &) { client.letGo(); });
  EXPECT_TRUE(eventually([&] { return client.isDestroyed(); }));
}

TEST(KORVALLoad, OfAnotherProjectReplacesTheWorkflows) {
  FakeDaemon daemon(exampleWorkflows());
  const auto client = connectedClient(daemon);
  const auto removed = client->workflowWithID("a");
  daemon.setWorkflows({{workflowDescription("z"), {portDescription("new", "output", "int_")}}});
  std::atomic<int> loaded{0};
  client->loadProject("other.prj", [&](const auto &) { ++loaded; });
  ASSERT_TRUE(eventually([&] { return loaded == 1; }));
  EXPECT_EQ(daemon.requests("openProject")[0]["data"], Value::map({{"name", "other.prj"}}));
  ASSERT_EQ(client->numberOfWorkflows(), 1u);

  // The old workflow is on its own now: a push does not reach its ports, not even one added later.
  const auto late = removed->addPortWithDescription(portDescription("late", "output", "int_"));
  for (const char *id : {"in", "late", "new"})
    daemon.send(Value::map(
        {{"messageID", -1}, {"command", "portValueUpdate"}, {"data", Value::map({{"id", id}, {"value", 9}})}}));
  EXPECT_TRUE(eventually([&] { return client->workflowWithID("z")->portWithID("new")->intValue() == 9; }));
  EXPECT_EQ(removed->portWithID("in")->intValue(), 1);
  EXPECT_EQ(late->intValue(), 0);
  EXPECT_EQ(loaded, 1);
}

TEST_P(KORVALLoadCut, GivesWayToAProjectOpenedMeanwhile) {
  daemon_.setScript([held = std::make_shared<std::vector<Value>>()](const Value &request, std::vector<Value> answers) {
    // The answer comes only once the daemon has been asked to open the other project.
    if (request["messageID"] == Value(GetParam())) held->swap(answers);
    if (request["command"] == Value("openProject")) answers.insert(answers.begin(), held->begin(), held->end());
    return answers;
  });
  std::atomic<int> connected{0}, loaded{0};
  size_t complete = 0;
  const auto client = newClient();
  client->connectToHost("localhost", daemon_.port(), [&](const auto &) { ++connected; });
  ASSERT_TRUE(eventually([&] { return isCut(); }));
  client->loadProject("other.prj", [&](const auto &of) {
    complete = static_cast<QELNKKORVALClient &>(*of).numberOfWorkflows();
    ++loaded;
  });
  ASSERT_TRUE(eventually([&] { return loaded == 1 && client->pendingMessages() == 0; }));
  drain(*client);
  EXPECT_EQ(complete, 3u);
  EXPECT_EQ(client->numberOfWorkflows(), 3u);
  EXPECT_EQ(loaded, 1);
  EXPECT_EQ(connected, 0);
}

TEST(KORVALLoad, ComesAfterAnOpeningThatFailed) {
  FakeDaemon daemon(exampleWorkflows());
  const auto client = connectedClient(daemon);
  daemon.setScript([](const Value &request, std::vector<Value> answers) {
    return request["command"] == Value("openProject") ? std::vector<Value>() : answers;
  });
  const CapturedLog log;
  client->setRequestTimeout(20ms);
  client->loadProject("slow.prj", [client](const auto &) { ADD_FAILURE(); });
  ASSERT_TRUE(eventually([&] { return log.contains("could not load project slow.prj") && !client->connectedBlock(); }));
  client->setRequestTimeout(std::nullopt);
  std::atomic<bool> loaded{false};
  client->setConnectedBlock([&](const auto &) { loaded = true; });
  client->updateWorkflows();
  EXPECT_TRUE(eventually([&] { return loaded.load(); }));
}

// Each may take a byte in the answer, and a kilobyte here.
TEST(KORVALLoad, RefusesMoreWorkflowsOrPortsThanAnybodyHas) {
  for (const auto &[command, count] : {std::pair("getWorkflows", 65'537), {"getExposedPorts", (1 << 20) + 1}}) {
    const CapturedLog log(LogLevel::error);
    FakeDaemon daemon(exampleWorkflows());
    Value many = Value::list();
    for (int i = 0; i < count; ++i) many.append(Value::map());
    if (command == std::string("getExposedPorts")) many = Value::map({{"data", many}});
    int asked = 0;
    daemon.setScript([command = command, many, asked](const Value &request, std::vector<Value> answers) mutable {
      if (request["command"] != Value(command) || asked++ > 0) return answers;
      return std::vector<Value>{answerTo(request, many)};
    });
    const auto client = newClient();
    std::atomic<bool> connected{false};
    client->connectToHost("127.0.0.1", daemon.port(), [&](auto &) { connected = true; });
    EXPECT_TRUE(eventually([&] { return log.contains("the daemon tells of more than"); }));
    drain(*client);
    EXPECT_EQ(client->numberOfWorkflows(), 0u);
    EXPECT_FALSE(connected);
    client->disconnect();
  }
}

// The callbacks of a connection that has ended may be called when there is the next one.
TEST(KORVALLoad, IsNotDisturbedByWhatIsLeftOfTheConnectionBefore) {
  const CapturedLog log;
  FakeDaemon daemon(exampleWorkflows());
  const auto client = QELNKKORVALClient::create(
      std::make_shared<QELNKContext>(std::make_shared<ZMQContext>(1), Queue::main(), Queue::main()));
  int connected = 0;
  const auto connect = [&] { client->connectToHost("127.0.0.1", daemon.port(), [&](auto &) { ++connected; }); };
  connect();
  ASSERT_TRUE(eventually([&] { return connected == 1; }));
  daemon.setScript([](const Value &request, std::vector<Value> answers) {
    return request["command"] == Value("openProject") ? std::vector<Value>() : answers;
  });
  client->loadProject("other", [](auto &) { ADD_FAILURE(); });
  client->disconnect();
  connect();
  EXPECT_TRUE(eventually([&] { return connected == 2; }));
  EXPECT_TRUE(log.contains("could not load project other: Client disconnected"));

  client->quit();
  while (client->pendingMessages() > 0) std::this_thread::sleep_for(1ms);  // its callback waits here meanwhile
  client->disconnect();
  connect();
  EXPECT_TRUE(eventually([&] { return connected == 3; }));
  bool answered = false;
  client->sendRequest(client->requestForCommand("getProject"),
                      [&](auto &, auto &message) { answered = message->response().has_value(); });
  EXPECT_TRUE(eventually([&] { return answered; }));
}

TEST(KORVALLoad, IsNotStoppedByNonsense) {
  FakeDaemon daemon;
  daemon.setScript([](const Value &request, std::vector<Value> answers) {
    const Value list = Value::list({1, Value(), Value::map(), "text"});
    if (request["command"] == Value("getProject")) return std::vector<Value>{answerTo(request, "text")};
    if (request["command"] == Value("getWorkflows")) return std::vector<Value>{answerTo(request, list)};
    if (request["command"] == Value("getExposedPorts"))
      return std::vector<Value>{answerTo(request, Value::map({{"data", list}}))};
    return answers;
  });
  const auto client = connectedClient(daemon);
  EXPECT_EQ(client->projectName(), std::nullopt);
  ASSERT_EQ(client->numberOfWorkflows(), 1u);
  EXPECT_EQ(client->workflowWithIndex(0)->numberOfPorts(), 1u);
}
