// What comes back to a ping. The system's calls stand here in place of the real ones, so a whole run meets what the
// input makes up: packets, and replies to its own requests with some of their bytes changed.

#include "netutil/Ping.h"

#include <QELNetworkKit/qelNKPing.h>
#include <fcntl.h>
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "Fuzz.h"

namespace {

constexpr int64_t mostRequests = 32;  // of a run that has no end of its own

struct Network {
  explicit Network(fuzz::Input from) : input(from) {}

  fuzz::Input input;
  bool isRaw = true;  // whether the system gives sockets of that kind
  int64_t requests = 0;
  std::vector<uint8_t> request;  // the last one

  std::vector<uint8_t> packet();
};
Network *network = nullptr;

void writeChecksum(std::vector<uint8_t> &message) {
  if (message.size() < 4) return;
  message[2] = message[3] = 0;
  uint32_t sum = 0;
  for (size_t i = 0; i < message.size(); ++i) sum += i % 2 ? message[i] : uint32_t(message[i]) << 8;
  while (sum >> 16) sum = (sum >> 16) + (sum & 0xFFFF);
  message[2] = uint8_t(~sum >> 8);
  message[3] = uint8_t(~sum);
}

std::vector<uint8_t> headerFor(size_t size, uint8_t optionWords) {
  std::vector<uint8_t> header(20 + 4U * optionWords);
  header[0] = uint8_t(0x40 | (5 + optionWords));
  header[2] = uint8_t((header.size() + size) >> 8);
  header[3] = uint8_t(header.size() + size);
  header[9] = IPPROTO_ICMP;
  header[12] = header[16] = 127;
  header[15] = header[19] = 1;
  return header;
}

/// A byte of kinds, then what that needs: 1 our request answered, else bytes as they are; 2 that in an error's place;
/// 4 some bytes changed; 8 cut; 16 IP options; 32 the checksum as it comes out.
std::vector<uint8_t> Network::packet() {
  const uint8_t kinds = input.byte();
  std::vector<uint8_t> message;
  if (kinds & 1) {
    message = request;
    // A request whose header was built is behind it; an answer has its type.
    if (message.size() > 28 && message[0] == 0x45) message.erase(message.begin(), message.begin() + 20);
    if (!message.empty()) message[0] = message[0] == ICMP_ECHO ? uint8_t(ICMP_ECHOREPLY) : uint8_t(message[0] + 1);
    writeChecksum(message);
  } else {
    const auto bytes = input.bytes(input.byte());
    message.assign(bytes.begin(), bytes.end());
  }
  if (kinds & 2) {
    const auto inner = headerFor(message.size(), 0);
    std::vector<uint8_t> error{input.byte(), input.byte(), 0, 0, 0, 0, 0, 0};
    error.insert(error.end(), inner.begin(), inner.end());
    error.insert(error.end(), message.begin(), message.end());
    message = error;
  }
  if (kinds & 4)
    for (uint8_t changes = input.byte() % 8; changes > 0; --changes) {
      const size_t at = input.byte();
      const uint8_t byte = input.byte();
      if (at < message.size()) message[at] = byte;
    }
  if (kinds & 8) message.resize(std::min<size_t>(message.size(), input.byte()));
  if (kinds & 32) writeChecksum(message);
  if (!isRaw) return message;
  const uint8_t words = kinds & 16 ? input.byte() % 11 : 0;
  auto packet = headerFor(message.size(), words);
  const auto options = input.bytes(4U * words);
  std::ranges::copy(options, packet.begin() + 20);
  packet.insert(packet.end(), message.begin(), message.end());
  return packet;
}

}  // namespace

// --- The system's calls ---

extern "C" {

int socket(int, int type, int) {
  if ((type & SOCK_RAW) == SOCK_RAW && !network->isRaw) {
    errno = EPERM;
    return -1;
  }
  return open("/dev/null", O_RDWR | O_CLOEXEC);
}
int setsockopt(int, int, int, const void *, socklen_t) { return 0; }
int bind(int, const sockaddr *, socklen_t) { return 0; }
int connect(int, const sockaddr *, socklen_t) { return 0; }
int getsockname(int, sockaddr *, socklen_t *) { return 0; }
ssize_t recv(int, void *, size_t, int) {
  errno = EAGAIN;
  return -1;
}

ssize_t sendto(int, const void *bytes, size_t size, int, const sockaddr *, socklen_t) {
  const auto *begin = static_cast<const uint8_t *>(bytes);
  network->request.assign(begin, begin + size);
  ++network->requests;
  return ssize_t(size);
}

/// Nothing is waited for: while there is input there is something to receive, and then the time is over.
int ppoll(pollfd *, nfds_t, const timespec *, const sigset_t *) { return network->input.empty() ? 0 : 1; }

ssize_t recvmsg(int, msghdr *message, int) {
  const auto packet = network->packet();
  const size_t size = std::min(packet.size(), message->msg_iov[0].iov_len);
  if (size != 0) std::memcpy(message->msg_iov[0].iov_base, packet.data(), size);
  sockaddr_in from{};
  from.sin_family = AF_INET;
  from.sin_addr.s_addr = htonl(network->input.byte() == 255 ? 0x0A000001 : INADDR_LOOPBACK);
  std::memcpy(message->msg_name, &from, sizeof from);
  timeval at{};
  gettimeofday(&at, nullptr);
  message->msg_controllen = CMSG_SPACE(sizeof at);
  cmsghdr *const control = CMSG_FIRSTHDR(message);
  control->cmsg_level = SOL_SOCKET;
  control->cmsg_type = SCM_TIMESTAMP;
  control->cmsg_len = CMSG_LEN(sizeof at);
  std::memcpy(CMSG_DATA(control), &at, sizeof at);
  return ssize_t(size);
}
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Network all(fuzz::Input(data, size));
  network = &all;
  // The command line, of small words, is the input's as well.
  std::vector<std::string> words{"ping"};
  for (uint8_t count = all.input.byte() % 8; count > 0; --count) {
    std::string word(fuzz::textOf(all.input.bytes(all.input.byte() % 8)));
    word.erase(std::min(word.find('\0'), word.size()));
    words.push_back(std::move(word));
  }
  words.emplace_back("127.0.0.1");
  all.isRaw = all.input.byte() % 4 != 0;

  std::optional<qelnk::Ping> ping;
  try {
    auto options = qelnk::PingOptions::parse(words, true);
    // What asks the real network for something, or takes its time.
    const uint32_t left = QELNKPingBoundInterface | QELNKPingSource | QELNKPingSweep;
    if (options.has(left) || options.host != "127.0.0.1") return 0;
    options.preload = std::min<int64_t>(options.preload, 4);
    options.count = std::min<int64_t>(options.count, 8);
    std::string printed;
    qelnk::PingSurroundings surroundings;
    if (all.input.byte() % 2) surroundings.print = [&](std::string_view text) { printed += text; };
    surroundings.mustFinish = [&] { return all.requests > mostRequests; };
    ping.emplace(options, surroundings);
    ping->run();
  } catch (const qelnk::PingExit &) {
  }
  if (ping) fuzz::require(ping->received() <= all.requests, "a request is answered once");
  return 0;
}
