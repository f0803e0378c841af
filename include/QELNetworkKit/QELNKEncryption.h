#pragma once

#include <QELNetworkKit/Export.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

class QELNKSocket;

/// Two keys that belong together (Curve25519), each as the 40 printable characters in which ZeroMQ writes keys.
struct QELNK_EXPORT QELNKKeyPair {
  /// May be told to anybody.
  std::string publicKey;
  /// Stays with whom it belongs to.
  std::string secretKey;

  /// A new pair. Throws ZMQException where this machine's ZeroMQ cannot encrypt.
  static QELNKKeyPair generate();
  /// The pair of a secret key. Throws ZMQException where it is none.
  static QELNKKeyPair pairOfSecretKey(const std::string &secretKey);
};

/// How an endpoint's connections are encrypted and who may make them; see QELNKSocket::setEncryption(). Between two
/// endpoints either both encrypt or neither does: connections of others never become ready.
///
///     // The server's machine; keys come from a file that only the server's user can read.
///     server->setEncryption({.keys = serverKeys, .allowedKeys = {studioKey, galleryKey}});
///     // A client's.
///     client->setEncryption({.keys = studioKeys, .serverKey = serverKeys.publicKey});
struct QELNKEncryption {
  /// Told of a peer that was refused, by its address, such as "192.168.1.7", and its public key. On the context's
  /// response queue, once a minute at most for each of them.
  using RefusedBlock = std::function<void(const std::shared_ptr<QELNKSocket> &endpoint, const std::string &address,
                                          const std::string &publicKey)>;

  /// The endpoint's own.
  QELNKKeyPair keys;
  /// For an endpoint that connects: the public key of the one that it connects to, which nobody else can play then.
  /// Empty for an endpoint that binds.
  std::string serverKey = {};
  /// For an endpoint that binds: the public keys of those who may connect; empty for whoever knows this endpoint's.
  std::vector<std::string> allowedKeys = {};
  /// For an endpoint that binds and has allowed keys; none is needed, for the log has it as well.
  RefusedBlock refusedBlock = {};
};
