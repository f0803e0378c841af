#pragma once

#include <QELNetworkKit/NetService.h>
#include <QELNetworkKit/QELNKLegacyServer.h>

#include <memory>
#include <string>
#include <utility>

/// A legacy server that publishes itself by DNS service discovery, so that clients find it by its type ("_x._tcp") and
/// name.
///
/// Without a discovery daemon on the machine it serves all the same, says so on the log, and is published once there is
/// one.
///
/// Threads: as QELNKLegacyServer. It observes its published service on the run loop of the thread that called start().
class QELNK_EXPORT QELNKLegacyService : public QELNKLegacyServer, public qelnk::NetServiceDelegate {
 public:
  /// Port 0 lets the system choose one. The options are those of QELNKLegacyStream, for every connection. Nothing
  /// listens before start().
  static std::shared_ptr<QELNKLegacyService> create(std::string domain, std::string type, std::string name,
                                                    uint16_t port, const qelnk::Value &streamOptions);
  /// The same as create().
  static std::shared_ptr<QELNKLegacyService> serviceWithDomain(std::string domain, std::string type, std::string name,
                                                               uint16_t port, const qelnk::Value &streamOptions) {
    return create(std::move(domain), std::move(type), std::move(name), port, streamOptions);
  }
  ~QELNKLegacyService() override;

  /// This machine's name, without a trailing ".local".
  static std::string defaultPublishingName();
  /// The name of this machine's domain; "local." when there is none.
  static std::string localDomain();

  /// Listens and publishes itself; without a type it only listens, without a name it is published under the machine's.
  bool start(qelnk::Error *error = nullptr) override;
  /// Withdraws the service, forgets domain and type, and ends the server.
  void stop() override;

  /// The TXT record of the service in its wire form; from start() until stop().
  void setTXTRecordData(const qelnk::Data &data);
  /// The TXT record as keys and values.
  void setTXTRecordDictionary(const qelnk::TXTRecordDictionary &dictionary);

  /// What is published; null before start() and after stop().
  std::shared_ptr<qelnk::NetService> netService() const;

  /// Says so on the log.
  void netServiceDidPublish(const std::shared_ptr<qelnk::NetService> &service) override;
  /// Says so on the log.
  void netServiceDidNotPublish(const std::shared_ptr<qelnk::NetService> &service, std::error_code error) override;

 protected:
  /// For create().
  QELNKLegacyService(std::string domain, std::string type, std::string name, uint16_t port,
                     const qelnk::Value &streamOptions);

 private:
  struct ServiceState;
  const std::unique_ptr<ServiceState> serviceState_;
};
