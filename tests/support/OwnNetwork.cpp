#include "support/OwnNetwork.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <cstdlib>
#include <thread>

namespace qelnk::test {

void withOwnNetwork(const std::function<void()> &work) {
  std::thread([&] {
    ASSERT_EQ(unshare(CLONE_NEWNET | CLONE_FS | CLONE_NEWNS), 0);
    ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("sysfs", "/sys", "sysfs", 0, nullptr), 0);
    work();
  }).join();
}

void run(const std::string &command) { EXPECT_EQ(std::system(command.c_str()), 0) << command; }

}  // namespace qelnk::test
