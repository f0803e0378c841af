#include "platform/NetworkConfiguration.h"

#include <mutex>
#include <utility>

namespace qelnk {

namespace {

std::mutex openerMutex;

NetworkConfiguration::Opener &theOpener() {
  static auto &opener = *new NetworkConfiguration::Opener;
  return opener;
}

}  // namespace

std::unique_ptr<NetworkConfiguration> NetworkConfiguration::open() {
  Opener opener;
  {
    const std::lock_guard lock(openerMutex);
    opener = theOpener();
  }
  if (opener) return opener();
  auto managed = ofNetworkManager();
  return managed ? std::move(managed) : ofKernel();
}

void NetworkConfiguration::setOpener(Opener opener) {
  const std::lock_guard lock(openerMutex);
  theOpener().swap(opener);
}

}  // namespace qelnk
