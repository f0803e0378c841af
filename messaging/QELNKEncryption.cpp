#include <QELNetworkKit/QELNKEncryption.h>
#include <QELNetworkKit/ZMQException.h>

#include <zmq.h>

#include <array>
#include <cerrno>

namespace {

// A printable key and its zero byte.
using Key = std::array<char, 41>;

void require(int result) {
  if (result == 0) return;
  const int error = zmq_errno();
  throw ZMQException(zmq_strerror(error), error);
}

}  // namespace

QELNKKeyPair QELNKKeyPair::generate() {
  Key publicKey{}, secretKey{};
  require(zmq_curve_keypair(publicKey.data(), secretKey.data()));
  return {publicKey.data(), secretKey.data()};
}

QELNKKeyPair QELNKKeyPair::pairOfSecretKey(const std::string &secretKey) {
  if (secretKey.size() + 1 != Key().size()) throw ZMQException(zmq_strerror(EINVAL), EINVAL);
  Key publicKey{};
  require(zmq_curve_public(publicKey.data(), secretKey.c_str()));
  return {publicKey.data(), secretKey};
}
