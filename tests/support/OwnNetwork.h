#pragma once

#include <functional>
#include <string>

namespace qelnk::test {

/// Runs `work` on a thread with a network of its own, where nothing is up; threads that it starts are there too.
/// AvahiNetwork::missing() tells where that cannot be had.
void withOwnNetwork(const std::function<void()> &work);

/// Runs a shell command, which has to succeed, where the calling thread is.
void run(const std::string &command);

}  // namespace qelnk::test
