#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/QELNKLegacyService.h>

#include "legacy/LocalHost.h"
#include "platform/LogFormat.h"

using qelnk::logDefault;
using qelnk::NetService;
using qelnk::Value;

struct QELNK_HIDDEN QELNKLegacyService::ServiceState {
  mutable qelnk::Mutex mutex;
  std::string domain QELNK_GUARDED_BY(mutex), type QELNK_GUARDED_BY(mutex);
  std::shared_ptr<NetService> netService QELNK_GUARDED_BY(mutex);
};

QELNKLegacyService::QELNKLegacyService(std::string domain, std::string type, std::string name, uint16_t port,
                                       const Value &streamOptions)
    : QELNKLegacyServer(std::move(name), port, streamOptions), serviceState_(std::make_unique<ServiceState>()) {
  serviceState_->domain = std::move(domain);
  serviceState_->type = std::move(type);
}

QELNKLegacyService::~QELNKLegacyService() = default;

std::shared_ptr<QELNKLegacyService> QELNKLegacyService::create(std::string domain, std::string type, std::string name,
                                                               uint16_t port, const Value &streamOptions) {
  return own(new QELNKLegacyService(std::move(domain), std::move(type), std::move(name), port, streamOptions));
}

std::string QELNKLegacyService::defaultPublishingName() { return qelnk::publishingName(); }
std::string QELNKLegacyService::localDomain() { return qelnk::localDomainName(); }

bool QELNKLegacyService::start(qelnk::Error *error) {
  if (!QELNKLegacyServer::start(error)) return false;
  if (error) *error = {};
  std::shared_ptr<NetService> service;
  {
    const qelnk::Lock lock(serviceState_->mutex);
    if (serviceState_->type.empty() || serviceState_->netService) return true;
    const std::string given = name();
    service = NetService::create(serviceState_->domain, serviceState_->type,
                                 given.empty() ? defaultPublishingName() : given, port());
    serviceState_->netService = service;
  }
  service->setDelegate(std::static_pointer_cast<QELNKLegacyService>(shared_from_this()));
  logDefault("Publishing net service {} (port = {})", service->name(), port());
  service->publish();
  return true;
}

void QELNKLegacyService::stop() {
  std::shared_ptr<NetService> service;
  {
    const qelnk::Lock lock(serviceState_->mutex);
    service = std::exchange(serviceState_->netService, nullptr);
    serviceState_->domain.clear();
    serviceState_->type.clear();
  }
  if (service) service->stop();
  QELNKLegacyServer::stop();
}

void QELNKLegacyService::setTXTRecordData(const qelnk::Data &data) {
  if (const auto service = netService()) service->setTXTRecordData(std::string(data.text()));
}

void QELNKLegacyService::setTXTRecordDictionary(const qelnk::TXTRecordDictionary &dictionary) {
  setTXTRecordData(qelnk::Data(NetService::dataFromTXTRecordDictionary(dictionary)));
}

std::shared_ptr<NetService> QELNKLegacyService::netService() const {
  const qelnk::Lock lock(serviceState_->mutex);
  return serviceState_->netService;
}

void QELNKLegacyService::netServiceDidPublish(const std::shared_ptr<NetService> &service) {
  logDefault("Published net service {} on port {}", service->name(), service->port());
}

void QELNKLegacyService::netServiceDidNotPublish(const std::shared_ptr<NetService> &service, std::error_code error) {
  logDefault("Error publishing net service {} ({})", service->name(), error.message());
}
