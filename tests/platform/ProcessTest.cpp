#include <QELNetworkKit/Process.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "platform/RunLoopThread.h"
#include "platform/Semaphore.h"
#include "support/TestSupport.h"

namespace qelnk {

using namespace std::chrono_literals;
using test::eventually;

namespace {

std::shared_ptr<Process> shell(const std::string &command, Process::TerminationHandler onExit = nullptr) {
  return Process::launch("/bin/sh", {"-c", command}, std::move(onExit));
}

/// From here on the service thread has its own descriptors, and none of a child's.
void startServiceThread() {
  const auto child = Process::launch("/bin/sleep", {"60"});
  serviceLoop()->performAndWait([] {});  // only a child that still runs is watched
  child->signal(SIGKILL);
  child->waitUntilExit();
  for (int turn = 0; turn < 2; ++turn) serviceLoop()->performAndWait([] {});
}

/// How the host treats a signal, put back afterwards.
class SignalAction {
 public:
  SignalAction(int number, void (*handler)(int)) : number_(number) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigaction(number, &action, &before_);
  }
  ~SignalAction() { sigaction(number_, &before_, nullptr); }

 private:
  const int number_;
  struct sigaction before_ {};
};

}  // namespace

TEST(Process, TellsHowItEnded) {
  const auto child = shell("exit 7");
  child->waitUntilExit();
  EXPECT_FALSE(child->isRunning());
  ASSERT_TRUE(child->status());
  EXPECT_EQ(child->status()->code, 7);
  EXPECT_FALSE(child->status()->signalled);
  EXPECT_FALSE(child->signal(SIGTERM));
  child->waitUntilExit();

  const auto sleeper = Process::launch("/bin/sleep", {"20"});
  EXPECT_TRUE(sleeper->isRunning());
  EXPECT_FALSE(sleeper->status());
  EXPECT_TRUE(sleeper->signal(SIGTERM));
  sleeper->waitUntilExit();
  ASSERT_TRUE(sleeper->status());
  EXPECT_EQ(sleeper->status()->code, SIGTERM);
  EXPECT_TRUE(sleeper->status()->signalled);
}

TEST(Process, MissingExecutableIsAnError) {
  for (const std::string path : {"/no/such/file", "sh", ""}) {
    try {
      Process::launch(path, {});
      ADD_FAILURE() << path << " was started";
    } catch (const ProcessError &error) {
      EXPECT_EQ(error.errorNumber(), ENOENT);
      EXPECT_NE(std::string(error.what()).find(path + ": No such file"), std::string::npos) << error.what();
    }
  }
}

TEST(Process, HandlerIsCalledOnceThoughNobodyHoldsTheProcess) {
  const test::CapturedLog log;
  std::atomic<int> calls = 0;
  for (int n = 0; n < 20; ++n)
    shell("exit 3", [&](const std::shared_ptr<Process> &process) {
      EXPECT_FALSE(process->isRunning());
      EXPECT_EQ(process->status()->code, 3);
      process->waitUntilExit();
      ++calls;
      throw std::runtime_error("handler");
    });
  EXPECT_TRUE(eventually([&] { return calls == 20; }));
  shell("exit 0")->waitUntilExit();
  EXPECT_EQ(calls, 20);
  EXPECT_TRUE(eventually([&] { return log.count("Process termination handler threw: handler") == 20; }));
}

TEST(Process, HandlerMayWaitForAnotherProcess) {
  const auto other = Process::launch("/bin/sleep", {"20"});
  std::atomic<bool> done = false;
  shell("exit 0", [&](const auto &) {
    other->signal(SIGKILL);
    other->waitUntilExit();
    done = true;
  });
  EXPECT_TRUE(eventually([&] { return done.load(); }));
}

TEST(Process, HandlerStillComesWhenAWaiterSawTheEndFirst) {
  for (int round = 0; round < 100; ++round) {
    Semaphore told;
    const auto child = shell("exit 1", [&](const auto &) { told.signal(); });
    child->waitUntilExit();
    EXPECT_EQ(child->status()->code, 1);
    told.wait();
  }
}

TEST(Process, EndIsSeenThoughTheHostReapsOrIgnoresIt) {
  std::atomic<int> calls = 0;
  const auto count = [&](const auto &) { ++calls; };
  {
    const SignalAction ignored(SIGCHLD, SIG_IGN);
    for (int n = 0; n < 40; ++n) {
      const auto child = shell("exit 5", count);
      if (n % 2) child->waitUntilExit();
    }
    EXPECT_TRUE(eventually([&] { return calls == 40; }));
  }
  std::atomic<bool> over = false;
  std::thread rival([&] {
    while (!over) waitpid(-1, nullptr, 0);
  });
  for (int n = 0; n < 40; ++n) {
    const auto child = shell("exit 5", count);
    if (n % 2) child->waitUntilExit();
    EXPECT_EQ(child->status().value_or(Process::Status{5}).code, 5);
  }
  EXPECT_TRUE(eventually([&] { return calls == 80; }));
  over = true;
  rival.join();
}

TEST(Process, ChildInheritsNoDescriptorAndNoSignalState) {
  const int inheritable = open("/dev/null", O_RDONLY);
  const SignalAction ignored(SIGPIPE, SIG_IGN);
  sigset_t blocked, before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  const auto child = shell("[ -e /proc/self/fd/1 ] || exit 1; [ ! -e /proc/self/fd/" + std::to_string(inheritable) +
                           " ] || exit 2; grep -q 'SigBlk:.0*$' /proc/self/status || exit 3; "
                           "grep -q 'SigIgn:.*0000000$' /proc/self/status || exit 4");
  child->waitUntilExit();
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  close(inheritable);
  EXPECT_EQ(child->status()->code, 0);
}

TEST(Process, ManyChildrenLeaveNothingBehind) {
  startServiceThread();
  const size_t descriptors = test::descriptorCount(), threads = test::threadCount();
  std::atomic<int> calls = 0;
  std::vector<std::shared_ptr<Process>> held;
  for (int n = 0; n < 500; ++n) {
    auto child = Process::launch("/bin/true", {}, [&](const auto &) { ++calls; });
    if (n % 2) held.push_back(std::move(child));
  }
  EXPECT_TRUE(eventually([&] { return calls == 500; }));
  EXPECT_TRUE(
      eventually([&] { return test::descriptorCount() <= descriptors; }));  // the first child's may have counted
  EXPECT_EQ(test::threadCount(), threads);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was not reaped";
}

TEST(Process, WithoutDescriptorsNoChildIsLeftAlone) {
  startServiceThread();
  // Once with descriptors: the undefined-behaviour sanitizer takes one to look at a class for the first time.
  EXPECT_THROW(Process::launch("/no/such/program", {}), ProcessError);
  rlimit before;
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit few{64, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few);
  std::vector<int> taken;
  while (taken.empty() || taken.back() >= 0) taken.push_back(dup(0));
  try {
    Process::launch("/bin/sleep", {"20"});
    ADD_FAILURE() << "started";
  } catch (const ProcessError &error) {
    EXPECT_EQ(error.errorNumber(), EMFILE);
  }
  for (int fd : taken) close(fd);
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "the child was not ended";
}

}  // namespace qelnk
