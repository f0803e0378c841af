#include "messaging/zmq/Authenticator.h"

#include <QELNetworkKit/ZMQException.h>

#include "platform/Guard.h"
#include "platform/LogFormat.h"

#include <zmq.h>

#include <array>
#include <cerrno>
#include <utility>

namespace qelnk {

namespace {

constexpr const char *endpoint = "inproc://zeromq.zap.01";
constexpr size_t keySize = 32;
constexpr std::chrono::minutes toldAgainAfter(1);
constexpr size_t mostTold = 100;

// The frames of a request, with the two by which a router answers; with the mechanism goes a key.
enum Part : size_t { asker, delimiter, version, number, domain, address, identity, mechanism, key, requestSize };

// The frames of the next message; none once the context has ended.
std::vector<std::string> receive(void *socket) {
  std::vector<std::string> frames;
  for (bool more = true; more;) {
    zmq_msg_t frame;
    zmq_msg_init(&frame);
    while (zmq_msg_recv(&frame, socket, 0) < 0) {
      if (zmq_errno() == EINTR) continue;
      zmq_msg_close(&frame);
      return {};
    }
    frames.emplace_back(static_cast<const char *>(zmq_msg_data(&frame)), zmq_msg_size(&frame));
    more = zmq_msg_more(&frame) != 0;
    zmq_msg_close(&frame);
  }
  return frames;
}

bool send(void *socket, const std::vector<std::string> &frames) {
  for (size_t i = 0; i < frames.size(); ++i) {
    const int flags = i + 1 < frames.size() ? ZMQ_SNDMORE : 0;
    while (zmq_send(socket, frames[i].data(), frames[i].size(), flags) < 0)
      if (zmq_errno() != EINTR) return false;
  }
  return true;
}

std::string printableKey(const std::string &bytes) {
  std::array<char, keySize * 5 / 4 + 1> text{};
  zmq_z85_encode(text.data(), reinterpret_cast<const uint8_t *>(bytes.data()), keySize);
  return text.data();
}

}  // namespace

Authenticator::Authenticator(void *socket) {
  const int linger = 0;
  if (!socket || zmq_setsockopt(socket, ZMQ_LINGER, &linger, sizeof linger) != 0 || zmq_bind(socket, endpoint) != 0) {
    const int error = zmq_errno();
    if (socket) zmq_close(socket);
    throw ZMQException(zmq_strerror(error), error);
  }
  shared_->socket = socket;
  try {
    thread_ = std::make_unique<Thread>("qelnk-keys", [shared = shared_](std::stop_token) {
      // ZeroMQ admits everybody where nobody answers, so a question that went wrong does not end this.
      for (bool goesOn = true; goesOn;) runGuarded("A question for a key", [&] { goesOn = shared->serveOne(); });
      shared->close();
    });
  } catch (...) {
    shared_->close();
    throw;
  }
}

Authenticator::~Authenticator() {
  // Where a host's block on this very thread has let go of the context, that waits for this socket.
  if (thread_->isCurrent()) shared_->close();
}

void Authenticator::Shared::close() {
  if (void *const own = std::exchange(socket, nullptr)) zmq_close(own);
}

// Returns false once the context has ended. What is not understood gets no answer, and nobody in.
bool Authenticator::Shared::serveOne() {
  const auto request = receive(socket);
  if (request.empty()) return false;
  if (request.size() != requestSize || request[mechanism] != "CURVE" || request[key].size() != keySize) return true;
  const bool isAllowed = allows(request);
  if (!socket) return false;
  const char *const code = isAllowed ? "200" : "400", *const text = isAllowed ? "OK" : "this key is not allowed";
  return send(socket, {request[asker], "", "1.0", request[number], code, text, printableKey(request[key]), ""});
}

// Endpoints without a list ask as well, without a domain.
bool Authenticator::Shared::allows(const std::vector<std::string> &request) {
  if (request[domain].empty()) return true;
  const std::string name = printableKey(request[key]);
  Refused refused;
  {
    const Lock lock(mutex);
    const auto found = rules.find(request[domain]);
    if (found == rules.end()) return false;  // the endpoint has gone
    Rule &rule = found->second;
    if (rule.keys.contains(name)) return true;
    // Peers try again several times a second.
    const auto now = std::chrono::steady_clock::now();
    if (now - rule.toldSince > toldAgainAfter) rule.told.clear();
    if (rule.told.empty()) rule.toldSince = now;
    if (rule.told.size() >= mostTold || !rule.told.insert(request[address] + " " + name).second) return false;
    refused = rule.refused;
  }
  logError("QELNKSocket refuses {}, whose key {} is not among those allowed", request[address], name);
  if (refused) runGuarded("QELNKSocket refused block", [&] { refused(request[address], name); });
  return false;
}

std::shared_ptr<const Authenticator::Admission> Authenticator::admit(const std::vector<std::string> &keys,
                                                                     Refused refused) {
  const Lock lock(shared_->mutex);
  std::string domain = "endpoint-" + std::to_string(shared_->nextDomain++);
  shared_->rules.insert({domain, {{keys.begin(), keys.end()}, std::move(refused), {}, {}}});
  return std::make_shared<const Admission>(shared_, std::move(domain));
}

Authenticator::Admission::~Admission() {
  decltype(Shared::rules)::node_type rule;  // goes after the lock
  const Lock lock(shared_->mutex);
  rule = shared_->rules.extract(domain_);
}

}  // namespace qelnk
