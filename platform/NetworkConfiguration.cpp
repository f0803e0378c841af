#include "platform/NetworkConfiguration.h"

#include <QELNetworkKit/Mutex.h>

#include <utility>

namespace qelnk {

namespace {

Mutex openerMutex;

NetworkConfiguration::Opener &theOpener() QELNK_REQUIRES(openerMutex) {
  static auto &opener = *new NetworkConfiguration::Opener;
  return opener;
}

}  // namespace

std::unique_ptr<NetworkConfiguration> NetworkConfiguration::open() {
  Opener opener;
  {
    const Lock lock(openerMutex);
    opener = theOpener();
  }
  if (opener) return opener();
  auto managed = ofNetworkManager();
  return managed ? std::move(managed) : ofKernel();
}

void NetworkConfiguration::setOpener(Opener opener) {
  const Lock lock(openerMutex);
  theOpener().swap(opener);
}

}  // namespace qelnk
