#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKOrlinDaemonSpawner.h>
#include <QELNetworkKit/RunLoop.h>
#include <QELNetworkKit/UserSettings.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include "daemon/DaemonPlaces.h"
#include "daemon/FakeDaemon.h"
#include "support/TestSupport.h"

using namespace qelnk;
using namespace qelnk::test;
namespace fs = std::filesystem;

namespace {

/// A daemon bundle in a folder of its own, whose `java` is a shell script that notes its arguments and open descriptors
/// and then goes on with `body`.
class Bundle {
 public:
  explicit Bundle(const std::string &body = "exec sleep 600") : folder_(makeFolder()) {
    const fs::path java = path() / "Contents/PlugIns/jdk1.8.0_131.jdk/Contents/Home/jre/bin/java";
    fs::create_directories(java.parent_path());
    std::ofstream(project()) << "{}";
    std::ofstream(java)
        << "#!/bin/sh\nnotes='" << folder_.string() << "'/$$\n"
        << "ls /proc/$$/fd > $notes.fds\nprintf '%s\\n' \"$@\" > $notes.new\nmv $notes.new $notes.args 2>&-\n"
        << body << "\n";
    fs::permissions(java, fs::perms::owner_all);
  }
  ~Bundle() {
    EXPECT_TRUE(eventually([this] {  // a script that was ended may have left a program that still writes
      std::error_code error;
      fs::remove_all(folder_, error);
      return !fs::exists(folder_);
    }));
  }

  fs::path path() const { return folder_ / "Orlin Daemon" / "orlin Daemon.app"; }
  fs::path project() const { return folder_ / "show.prj"; }
  /// What the daemon noted, once it has.
  std::vector<std::string> arguments(const QELNKOrlinDaemon &daemon) const { return lines(daemon, ".args"); }
  std::vector<std::string> descriptors(const QELNKOrlinDaemon &daemon) const { return lines(daemon, ".fds"); }

 private:
  static fs::path makeFolder() {
    std::string name = (fs::temp_directory_path() / "qelnk-daemon-XXXXXX").string();
    return mkdtemp(name.data());
  }
  std::vector<std::string> lines(const QELNKOrlinDaemon &daemon, const char *what) const {
    const std::string notes = (folder_ / std::to_string(daemon.task()->pid())).string();
    EXPECT_TRUE(eventually([&] { return fs::exists(notes + ".args"); }));
    std::ifstream file(notes + what);
    std::vector<std::string> found;
    for (std::string line; std::getline(file, line);) found.push_back(line);
    return found;
  }
  fs::path folder_;
};

void end(const QELNKOrlinDaemon &daemon) {
  if (const auto process = daemon.task()) process->signal(SIGKILL);
}

class OrlinDaemonSpawner : public testing::Test {
 protected:
  Bundle bundle_;
  QELNKOrlinDaemonSpawner spawner_{bundle_.path().string(), 5000};

  std::shared_ptr<QELNKOrlinDaemon> spawn(const Value &properties = {}) {
    return spawner_.spawnDaemonWithProject(bundle_.project().string(), properties);
  }
  ~OrlinDaemonSpawner() override {
    for (const auto &daemon : spawner_.daemons()) end(*daemon);
    spawner_.stopAllDaemons();
  }
};

}  // namespace

TEST_F(OrlinDaemonSpawner, LaunchesWithItsArguments) {
  const auto expected = [&](std::string first, std::vector<std::string> behindPort, const std::string &port) {
    std::vector<std::string> list{"-Dcom.kestrova.orlin.pluginroot=../../../plugins",
                                  "-Dcom.kestrova.orlin.pluginmask=",
                                  "-Djava.net.preferIPv4Stack=true",
                                  "-noverify",
                                  "-jar",
                                  bundle_.path().string() + "/Contents/Java/orlin-Daemon.jar",
                                  "-ffpath",
                                  bundle_.path().parent_path().string() + "/tools",
                                  "-tcp",
                                  port};
    if (!first.empty()) list.insert(list.begin(), first);
    list.insert(list.end(), behindPort.begin(), behindPort.end());
    list.push_back(bundle_.project().string());
    return list;
  };
  const auto plain = spawn();
  EXPECT_EQ(bundle_.arguments(*plain), expected("", {}, "5000"));
  EXPECT_EQ(plain->webSocketPort(), 0);
  const auto zero = spawn(Value::map({{"maxHeapSize", 0}, {"webSocket", 0}}));
  EXPECT_EQ(bundle_.arguments(*zero), expected("", {}, "5001"));
  const auto full = spawn(Value::map({{QELNKOrlinDaemonMaxHeapSize, 2048}, {QELNKOrlinDaemonWebSocketPort, 8080}}));
  EXPECT_EQ(bundle_.arguments(*full), expected("-Xmx2048m", {"-web", "8080"}, "5002"));
  EXPECT_EQ(full->webSocketPort(), 8080);
}

TEST_F(OrlinDaemonSpawner, GivesTheFirstPortThatNoneOfItsDaemonsUses) {
  const CapturedLog log;
  const auto first = spawn(), second = spawn();
  EXPECT_EQ(second->port(), 5001);
  EXPECT_EQ(spawn()->port(), 5002);
  EXPECT_EQ(spawner_.runningDaemons(), 3u);
  const std::string text = "orlin daemon with project " + bundle_.project().string() + " on port 5000";
  EXPECT_EQ(first->description(), text);
  EXPECT_TRUE(log.contains("Starting orlin daemon task with arguments "));
  EXPECT_TRUE(log.contains("Started orlin daemon " + text + ", 1 running"));
  end(*first);
  ASSERT_TRUE(eventually([&] { return spawner_.runningDaemons() == 2; }));
  EXPECT_TRUE(log.contains("Exited orlin daemon " + text + ", 2 running"));
  EXPECT_EQ(spawn()->port(), 5000);
}

TEST_F(OrlinDaemonSpawner, GivesItsDaemonsNoDescriptors) {
  int inheritable[2];
  ASSERT_EQ(pipe(inheritable), 0);
  const auto open = bundle_.descriptors(*spawn());
  for (const int descriptor : inheritable) {
    EXPECT_EQ(std::count(open.begin(), open.end(), std::to_string(descriptor)), 0);
    close(descriptor);
  }
}

TEST_F(OrlinDaemonSpawner, StartsNothingForAProjectThatIsNotThere) {
  const CapturedLog log;
  const auto client = spawner_.spawnConnectedDaemonWithProject(
      "/nowhere/show.prj", Value::map({{"syncRequests", true}, {"webSocket", 8080}}),
      [](const auto &) { ADD_FAILURE() << "not connected"; }, QELNKContext::contextWithBackgroundQueue());
  EXPECT_EQ(client->daemon()->port(), 0);
  EXPECT_EQ(client->daemon()->task(), nullptr);
  EXPECT_EQ(spawner_.runningDaemons(), 0u);
  EXPECT_TRUE(client->syncRequests());
  client->startProject([](const auto &, const auto &message) { EXPECT_TRUE(message->error()); });
  client->quit();
  spawner_.stopAllDaemons();
  EXPECT_TRUE(log.contains("there is no project /nowhere/show.prj"));
  EXPECT_EQ(spawner_.spawnConnectedDaemonWithProject(bundle_.project().string(), {}, nullptr, nullptr), nullptr);
  EXPECT_FALSE(log.contains("Starting"));
}

TEST_F(OrlinDaemonSpawner, TellsOfADaemonThatNobodyCanReach) {
  const CapturedLog log;
  QELNKOrlinDaemonSpawner spawner(bundle_.path().string(), 0);
  const auto client =
      spawner.spawnConnectedDaemonWithProject(bundle_.project().string(), Value::map({{"syncRequests", true}}), nullptr,
                                              QELNKContext::contextWithBackgroundQueue());
  EXPECT_TRUE(log.contains("QELNKOrlinDaemonSpawner has no base port"));
  client->quit();  // tells nobody, and waits for nobody
  EXPECT_TRUE(log.contains("cannot tell orlin daemon"));
  end(*client->daemon());
  spawner.stopAllDaemons();
}

TEST_F(OrlinDaemonSpawner, ThrowsWhereJavaIsMissing) {
  const CapturedLog log;
  QELNKOrlinDaemonSpawner spawner("/nowhere/orlin Daemon.app", 5000);
  EXPECT_THROW(spawner.spawnDaemonWithProject(bundle_.project().string(), {}), ProcessError);
  EXPECT_TRUE(log.contains("QELNKOrlinDaemonSpawner could not start orlin daemon: "));
  EXPECT_EQ(spawner.runningDaemons(), 0u);
}

TEST_F(OrlinDaemonSpawner, WaitsForItsDaemonsToStop) {
  spawner_.stopAllDaemons();
  const auto first = spawn(), second = spawn();
  std::atomic<bool> stopped{false};
  std::jthread waiting([&] {
    spawner_.stopAllDaemons();
    stopped = true;
  });
  end(*first);
  ASSERT_TRUE(eventually([&] { return spawner_.runningDaemons() == 1; }));
  EXPECT_FALSE(stopped);
  end(*second);
  waiting.join();
  EXPECT_TRUE(stopped);
  EXPECT_EQ(spawner_.runningDaemons(), 0u);
}

TEST(OrlinDaemonSpawnerLife, TracksDaemonsThatEndAtOnceOrOutliveIt) {
  const CapturedLog log;
  const Bundle quick("exit 3");
  auto spawner = std::make_unique<QELNKOrlinDaemonSpawner>(quick.path().string(), 0);
  for (int i = 0; i < 20; ++i) spawner->spawnDaemonWithProject(quick.project().string(), {});
  spawner->stopAllDaemons();
  int running = 0;
  for (const std::string &line : log.lines()) {
    running += line.starts_with("Started") ? 1 : line.starts_with("Exited") ? -1 : 0;
    ASSERT_GE(running, 0) << "ended before it was started";
  }
  const Bundle slow;
  spawner = std::make_unique<QELNKOrlinDaemonSpawner>(slow.path().string(), 6000);
  const auto daemon = spawner->spawnDaemonWithProject(slow.project().string(), {});
  spawner = nullptr;
  end(*daemon);
  EXPECT_TRUE(eventually([&] { return log.contains("on port 6000, 0 running"); }));
}

// The client of a launched daemon.

TEST(KORVALDaemonClient, ConnectsAndQuits) {
  FakeDaemon peer(exampleWorkflows());
  const Bundle bundle;
  QELNKOrlinDaemonSpawner spawner(bundle.path().string(), peer.port());
  std::atomic<bool> connected{false};
  const auto client = spawner.spawnConnectedDaemonWithProject(
      bundle.project().string(), {},
      [&](const std::shared_ptr<QELNKKORVALDaemonClient> &of) { connected = of->numberOfWorkflows() == 3; },
      QELNKContext::contextWithBackgroundQueue());
  ASSERT_TRUE(eventually([&] { return connected.load(); }));
  peer.setScript([daemon = client->daemon()](const Value &request, std::vector<Value> answers) {
    if (request["command"] == Value("quit")) end(*daemon);
    return answers;
  });
  client->quit();
  EXPECT_EQ(client->daemon()->task(), nullptr);
  EXPECT_TRUE(eventually([&] { return !client->socket() && spawner.runningDaemons() == 0; }));
}

TEST(KORVALDaemonClient, EndsWithItsDaemon) {
  const CapturedLog log;
  const int32_t port = FakeDaemon().port();  // where nobody listens
  const Bundle dying("exit 3");
  QELNKOrlinDaemonSpawner spawner(dying.path().string(), port);
  for (const bool sync : {true, false}) {  // connecting would wait for ever
    const auto client = spawner.spawnConnectedDaemonWithProject(
        dying.project().string(), Value::map({{"syncRequests", sync}}), [](auto &) { ADD_FAILURE(); },
        QELNKContext::contextWithBackgroundQueue());
    EXPECT_TRUE(eventually([&] { return client->pendingMessages() == 0 && !client->socket(); }));
    client->quit();
  }
  EXPECT_TRUE(eventually([&] { return log.count("ended with exit code 3") == 2; }));
}

TEST(KORVALDaemonClient, OfADaemonThatHasEndedBeforeItConnectsEnds) {
  const CapturedLog quiet(LogLevel::off);
  const int32_t port = FakeDaemon().port();
  const Bundle dying("exit 3");
  QELNKOrlinDaemonSpawner spawner(dying.path().string(), port);
  const auto daemon = spawner.spawnDaemonWithProject(dying.project().string(), {});
  const auto client = QELNKKORVALDaemonClient::create(QELNKContext::contextWithBackgroundQueue(), daemon);
  ASSERT_TRUE(eventually([&] { return spawner.runningDaemons() == 0; }));
  client->setSyncRequests(true);
  client->connectToHost("localhost", port, [](auto &) { ADD_FAILURE(); });
  EXPECT_TRUE(eventually([&] { return client->pendingMessages() == 0 && !client->socket(); }));
}

TEST(KORVALDaemonClient, QuitsADaemonThatDoesNotListenYet) {
  const CapturedLog quiet(LogLevel::off);
  const int32_t port = FakeDaemon().port();
  const Bundle bundle;
  QELNKOrlinDaemonSpawner spawner(bundle.path().string(), port);
  const auto client = spawner.spawnConnectedDaemonWithProject(bundle.project().string(), {}, nullptr,
                                                              QELNKContext::contextWithBackgroundQueue());
  std::thread quitting([&] { client->quit(); });
  ASSERT_TRUE(eventually([&] { return client->pendingMessages() == 1; })) << "getProject waits, quit counts as sent";
  const FakeDaemon peer({}, uint16_t(port));
  EXPECT_TRUE(eventually([&] { return peer.count("quit") == 1; }));
  end(*client->daemon());
  quitting.join();
  EXPECT_EQ(client->daemon()->task(), nullptr);
}

TEST(KORVALDaemonClient, OfADaemonThatSomebodyElseRunsQuitsItToo) {
  FakeDaemon peer;
  const auto daemon = std::make_shared<QELNKOrlinDaemon>("show.prj", peer.port(), 0, nullptr);
  const auto client = QELNKKORVALDaemonClient::create(QELNKContext::contextWithBackgroundQueue(), daemon);
  client->setSyncRequests(true);
  client->connectToHost("localhost", peer.port(), nullptr);
  client->quit();
  EXPECT_TRUE(eventually([&] { return peer.count("quit") == 1 && !client->socket(); }));
}

// The shared spawner and client.

TEST(DaemonPlaces, FindTheHostsFolderAndTheDaemonsBundle) {
  EXPECT_EQ(folderOfHost("/apps/Show.app/Contents/MacOS/show"), "/apps");
  EXPECT_EQ(folderOfHost("/apps/Show.app/Contents/Plug/Ins/In.app/Contents/in"), "/apps/Show.app/Contents/Plug/Ins");
  EXPECT_EQ(folderOfHost("/usr/bin/show"), "/usr/bin");
  EXPECT_EQ(folderOfHost("/apps/Show.app/show"), "/apps/Show.app");
  EXPECT_EQ(folderOfHost("show"), "");

  unsetenv("QELNK_ORLIN_DAEMON");
  EXPECT_EQ(daemonBundle(""), fs::read_symlink("/proc/self/exe").parent_path() / "Orlin Daemon/orlin Daemon.app");
  setenv("QELNK_ORLIN_DAEMON", "/variable.app", 1);
  EXPECT_EQ(daemonBundle(""), "/variable.app");
  UserSettings::standard().set("orlinDaemonPath", "/setting.app");
  EXPECT_EQ(daemonBundle(""), "/setting.app");
  EXPECT_EQ(daemonBundle("/given.app"), "/given.app");
  UserSettings::standard().remove("orlinDaemonPath");
  unsetenv("QELNK_ORLIN_DAEMON");
}

TEST(SharedDaemon, IsLaunchedOnceAndConnectedForEveryCaller) {
  FakeDaemon peer(exampleWorkflows());
  const Bundle bundle;
  UserSettings::standard().set("orlinBasePort", int64_t(peer.port()));
  QELNKOrlinDaemonSpawner::setSharedDaemonPath(bundle.path().string());
  std::shared_ptr<QELNKKORVALDaemonClient> elsewhere;
  size_t workflows = 0;
  std::thread other([&] {
    elsewhere = QELNKOrlinDaemonSpawner::sharedClient();
    workflows = elsewhere->numberOfWorkflows();
  });
  std::shared_ptr<QELNKKORVALDaemonClient> nested;
  RunLoop::main()->perform([&] { nested = QELNKOrlinDaemonSpawner::sharedClient(); });
  const auto client = QELNKOrlinDaemonSpawner::sharedClient();
  EXPECT_EQ(nested, client);
  EXPECT_EQ(client->numberOfWorkflows(), 3u);
  EXPECT_TRUE(client->syncRequests());
  EXPECT_EQ(fs::path(client->daemon()->project()).filename(), "Empty.prj");
  other.join();
  EXPECT_EQ(elsewhere, client);
  EXPECT_EQ(workflows, 3u);
  end(*client->daemon());
  QELNKOrlinDaemonSpawner::sharedSpawner()->stopAllDaemons();
}
