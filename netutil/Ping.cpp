#include "netutil/Ping.h"

#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/qelNKPing.h>
#include <arpa/inet.h>
#include <fmt/format.h>
#include <linux/filter.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <set>
#include <thread>
#include <utility>

// The library writes to variables of its own, of which the exported names are second names: a host that happens to have
// a variable of one of these names shall not find the ping writing to it.
#define QELNK_EXPORTED(type, name, value)                               \
  extern "C" {                                                          \
  type qelnk_##name = value;                                            \
  extern QELNK_EXPORT type name __attribute__((alias("qelnk_" #name))); \
  }
QELNK_EXPORTED(int64_t, ntransmitted, 0)
QELNK_EXPORTED(int64_t, nreceived, 0)
QELNK_EXPORTED(double, tmin, 999999999.0)
QELNK_EXPORTED(double, tmax, 0)
QELNK_EXPORTED(double, tsum, 0)
QELNK_EXPORTED(double, tsumsq, 0)
QELNK_EXPORTED(uint32_t, options, 0)
QELNK_EXPORTED(int32_t, interval, 1000)
QELNK_EXPORTED(int32_t, waittime, 10000)

namespace qelnk {

using namespace std::chrono_literals;

namespace {

constexpr int icmpFilter = 1;  // ICMP_FILTER, whose header does not go with the others
constexpr int largestDescriptor = 1024;
constexpr int mostPackets = 1024;
constexpr size_t timeSize = 8, headerSize = 8, ipHeaderSize = 20;
constexpr auto fullBufferPause = 20ms;

Mutex publishedMutex;

/// Writes one of the exported numbers, which others may be looking at.
template <class Number, class Value>
void publish(Number &exported, Value value) {
  std::atomic_ref<Number>(exported).store(Number(value), std::memory_order_relaxed);
}

uint16_t checksumOf(std::span<const uint8_t> bytes) {
  uint32_t sum = 0;
  for (size_t i = 0; i < bytes.size(); i += 2) {
    uint16_t word = 0;
    std::memcpy(&word, bytes.data() + i, std::min<size_t>(2, bytes.size() - i));
    sum += word;
  }
  sum = (sum >> 16) + (sum & 0xFFFF);
  sum += sum >> 16;
  return uint16_t(~sum);
}

template <class Number>
void put(std::vector<uint8_t> &bytes, size_t at, Number number) {
  std::memcpy(bytes.data() + at, &number, sizeof number);
}
template <class Number>
Number take(std::span<const uint8_t> bytes, size_t at) {
  Number number{};
  if (at + sizeof number <= bytes.size()) std::memcpy(&number, bytes.data() + at, sizeof number);
  return number;
}

/// Of the header that `packet` begins with; 0 when that is none.
size_t ipHeaderLength(std::span<const uint8_t> packet) {
  const size_t length = packet.empty() ? 0 : size_t(packet[0] & 0xF) * 4;
  return length >= ipHeaderSize && length <= packet.size() ? length : 0;
}

timeval now() {
  timeval time{};
  gettimeofday(&time, nullptr);
  return time;
}

uint32_t millisecondsOfDay() {
  const timeval time = now();
  return uint32_t(time.tv_sec % 86400 * 1000 + time.tv_usec / 1000);
}

/// A number for the requests of a run, which no other run of this process has meanwhile: the process's, if it is free.
std::shared_ptr<const uint16_t> reserveIdentifier() {
  struct Taken {
    Mutex mutex;
    std::set<uint16_t> identifiers QELNK_GUARDED_BY(mutex);
  };
  static auto &taken = *new Taken;
  const Lock lock(taken.mutex);
  auto candidate = uint16_t(getpid());
  while (!taken.identifiers.insert(candidate).second) {
    if (taken.identifiers.size() > UINT16_MAX) throw PingExit(PingExit::system, "socket: too many pings at once");
    ++candidate;
  }
  return {new uint16_t(candidate), [](const uint16_t *number) {
            const Lock inner(taken.mutex);
            taken.identifiers.erase(*number);
            delete number;
          }};
}

sockaddr_in addressOf(const std::string &host) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) == 1) return address;
  addrinfo wanted{}, *found = nullptr;
  wanted.ai_family = AF_INET;
  const int failure = getaddrinfo(host.c_str(), nullptr, &wanted, &found);
  if (failure != 0)
    throw PingExit(PingExit::unknownHost, fmt::format("cannot resolve {}: {}", host, gai_strerror(failure)));
  std::memcpy(&address, found->ai_addr, sizeof address);
  freeaddrinfo(found);
  return address;
}

std::string textOf(const in_addr &address) {
  std::array<char, INET_ADDRSTRLEN> text{};
  return inet_ntop(AF_INET, &address, text.data(), text.size());
}

struct ErrorName {
  uint8_t type;
  int code;  // -1: any
  const char *name;
};
constexpr ErrorName errorNames[] = {{ICMP_DEST_UNREACH, ICMP_NET_UNREACH, "Destination Net Unreachable"},
                                    {ICMP_DEST_UNREACH, ICMP_HOST_UNREACH, "Destination Host Unreachable"},
                                    {ICMP_DEST_UNREACH, ICMP_PROT_UNREACH, "Destination Protocol Unreachable"},
                                    {ICMP_DEST_UNREACH, ICMP_PORT_UNREACH, "Destination Port Unreachable"},
                                    {ICMP_DEST_UNREACH, ICMP_FRAG_NEEDED, "frag needed and DF set"},
                                    {ICMP_DEST_UNREACH, ICMP_SR_FAILED, "Source Route Failed"},
                                    {ICMP_DEST_UNREACH, ICMP_PKT_FILTERED, "Communication prohibited by filter"},
                                    {ICMP_DEST_UNREACH, -1, "Destination Unreachable"},
                                    {ICMP_SOURCE_QUENCH, -1, "Source Quench"},
                                    {ICMP_REDIRECT, ICMP_REDIR_NET, "Redirect Network"},
                                    {ICMP_REDIRECT, ICMP_REDIR_HOST, "Redirect Host"},
                                    {ICMP_REDIRECT, -1, "Redirect"},
                                    {ICMP_TIME_EXCEEDED, ICMP_EXC_TTL, "Time to live exceeded"},
                                    {ICMP_TIME_EXCEEDED, -1, "Frag reassembly time exceeded"},
                                    {ICMP_PARAMETERPROB, -1, "Parameter problem"}};

}  // namespace

// --- The socket ---

Ping::Ping(PingOptions options, PingSurroundings surroundings)
    : options_(std::move(options)),
      surroundings_(std::move(surroundings)),
      dataSize_(options_.has(QELNKPingSweep) ? options_.sweepMinimum : options_.dataSize),
      interval_(options_.interval) {
  publish(qelnk_options, options_.flags);
  publish(qelnk_interval, options_.interval);
  publish(qelnk_waittime, options_.waittime);
  destination_ = addressOf(options_.host);
  if (destination_.sin_addr.s_addr == INADDR_ANY) destination_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);  // who answers
  isMulticast_ = IN_MULTICAST(ntohl(destination_.sin_addr.s_addr));
  if (isMulticast_ && isFlood()) throw PingExit(PingExit::usage, "-f flag cannot be used with multicast destination");
  if (!isMulticast_ && options_.has(QELNKPingMulticastInterface | QELNKPingNoLoopback | QELNKPingMulticastTTL))
    throw PingExit(PingExit::usage, "-I, -L, -T flags cannot be used with unicast destination");
  setUp();
}

void Ping::setUp() {
  if (socket_ >= 0) close(std::exchange(socket_, -1));
  try {
    openSocket();
    setSocketOptions();
    bindSocket();
    filterReplies();
  } catch (...) {
    if (socket_ >= 0) close(socket_);
    socket_ = -1;
    throw;
  }
  // Of many raw sockets the system then looks only at the sender's, where it would copy each reply for all of them.
  isConnected_ = isRaw_ && !isMulticast_ && !surroundings_.print &&
                 connect(socket_, reinterpret_cast<const sockaddr *>(&destination_), sizeof destination_) == 0;
}

Ping::~Ping() {
  if (socket_ >= 0) close(socket_);
}

void Ping::openSocket() {
  const auto open = [&](int type) {
    isRaw_ = type == SOCK_RAW;
    socket_ = ::socket(AF_INET, type | SOCK_CLOEXEC, IPPROTO_ICMP);
    return socket_ >= 0;
  };
  const bool isRoot = geteuid() == 0;  // which may lack the right, as others may have it
  if (!open(isRoot ? SOCK_RAW : SOCK_DGRAM) && !open(isRoot ? SOCK_DGRAM : SOCK_RAW)) throw PingExit::ofCall("socket");
  // A tool that was given root's rights has no more use for them.
  if (surroundings_.isTool && getuid() != geteuid() && setuid(getuid()) != 0) throw PingExit::ofCall("setuid");
}

bool Ping::isFlood() const { return options_.has(QELNKPingFlood); }

/// The system adds no options, such as the route's, to a header that was built.
bool Ping::buildsHeader() const {
  return isRaw_ && options_.has(QELNKPingDontFragment) && !options_.has(QELNKPingRecordRoute);
}

template <class Value>
void Ping::setOption(int level, int name, const Value &value, const char *text) {
  if (setsockopt(socket_, level, name, &value, sizeof value) < 0)
    throw PingExit::ofCall(std::string("setsockopt ") + text);
}

void Ping::setSocketOptions() {
  const int on = 1;
  if (options_.has(QELNKPingBoundInterface)) {
    const std::string &name = options_.boundInterface;
    if (if_nametoindex(name.c_str()) == 0) throw PingExit(PingExit::other, "bad interface name");
    if (setsockopt(socket_, SOL_SOCKET, SO_BINDTODEVICE, name.c_str(), socklen_t(name.size())) < 0)
      throw PingExit::ofCall("setsockopt SO_BINDTODEVICE");
  }
  if (options_.has(QELNKPingDebug)) setsockopt(socket_, SOL_SOCKET, SO_DEBUG, &on, sizeof on);
  if (options_.has(QELNKPingBypassRouting)) setsockopt(socket_, SOL_SOCKET, SO_DONTROUTE, &on, sizeof on);
  if (options_.has(QELNKPingTypeOfService)) setOption(IPPROTO_IP, IP_TOS, int(options_.typeOfService), "IP_TOS");
  if (options_.has(QELNKPingTTL)) setOption(IPPROTO_IP, IP_TTL, int(options_.ttl), "IP_TTL");
  if (options_.has(QELNKPingNoLoopback)) setOption(IPPROTO_IP, IP_MULTICAST_LOOP, 0, "IP_MULTICAST_LOOP");
  if (options_.has(QELNKPingMulticastTTL))
    setOption(IPPROTO_IP, IP_MULTICAST_TTL, int(options_.multicastTTL), "IP_MULTICAST_TTL");
  if (options_.has(QELNKPingMulticastInterface))
    setOption(IPPROTO_IP, IP_MULTICAST_IF, options_.multicastInterface, "IP_MULTICAST_IF");
  if (options_.has(QELNKPingRecordRoute)) {
    std::array<uint8_t, 40> route{};
    route[0] = IPOPT_NOP;
    route[1] = IPOPT_RR;
    route[2] = uint8_t(route.size() - 1);
    route[3] = IPOPT_MINOFF;
    setOption(IPPROTO_IP, IP_OPTIONS, route, "IP_OPTIONS");
  }
  if (options_.has(QELNKPingDontFragment)) {
    if (buildsHeader())
      setOption(IPPROTO_IP, IP_HDRINCL, on, "IP_HDRINCL");
    else
      setOption(IPPROTO_IP, IP_MTU_DISCOVER, int(IP_PMTUDISC_DO), "IP_MTU_DISCOVER");
  }
  setOption(SOL_SOCKET, SO_TIMESTAMP, on, "SO_TIMESTAMP");
  if (!isRaw_) setOption(IPPROTO_IP, IP_RECVTTL, on, "IP_RECVTTL");
}

/// A datagram socket's requests bear its port as their identifier, whatever is written into them.
void Ping::bindSocket() {
  sockaddr_in source{};
  source.sin_family = AF_INET;
  if (options_.has(QELNKPingSource)) source = addressOf(options_.source);
  if (!identifier_) identifier_ = reserveIdentifier();
  const auto bindTo = [&](uint16_t port) {
    source.sin_port = htons(port);
    return bind(socket_, reinterpret_cast<const sockaddr *>(&source), sizeof source) == 0;
  };
  bool isBound = bindTo(isRaw_ ? 0 : *identifier_);
  if (!isBound && !isRaw_ && errno == EADDRINUSE) isBound = bindTo(0);  // another program's: the system chooses
  if (!isBound) throw PingExit::ofCall("bind");
  if (isRaw_) return;
  socklen_t size = sizeof source;
  getsockname(socket_, reinterpret_cast<sockaddr *>(&source), &size);
  identifier_ = std::make_shared<uint16_t>(ntohs(source.sin_port));
}

/// A raw socket hears all of the machine's ICMP: only the replies to this run are let through, and errors when somebody
/// reads of them. The types are looked at before anything is copied for this socket.
void Ping::filterReplies() {
  if (!isRaw_) return;
  uint32_t types = 1U << replyType();
  if (surroundings_.print)
    for (const int error :
         {ICMP_DEST_UNREACH, ICMP_SOURCE_QUENCH, ICMP_REDIRECT, ICMP_TIME_EXCEEDED, ICMP_PARAMETERPROB})
      types |= 1U << error;
  setOption(SOL_RAW, icmpFilter, uint32_t(~types), "ICMP_FILTER");
  std::array<sock_filter, 7> program{{
      BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0),  // behind the IP header
      BPF_STMT(BPF_LD | BPF_B | BPF_IND, 0),   // the type
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, replyType(), 0, 2),
      BPF_STMT(BPF_LD | BPF_H | BPF_IND, 4),  // the identifier
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, *identifier_, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, UINT32_MAX),
      BPF_STMT(BPF_RET | BPF_K, 0),
  }};
  const sock_fprog filter{uint16_t(program.size()), program.data()};
  setOption(SOL_SOCKET, SO_ATTACH_FILTER, filter, "SO_ATTACH_FILTER");
  // What came before, which may have filled the socket.
  uint8_t rest = 0;
  while (recv(socket_, &rest, sizeof rest, MSG_DONTWAIT) >= 0) continue;
}

/// Of what stands before the data in a request that is no echo request.
size_t Ping::queryLength() const {
  if (options_.has(QELNKPingTime)) return 12;
  return options_.has(QELNKPingMask) ? 4 : 0;
}

uint8_t Ping::replyType() const {
  if (options_.has(QELNKPingMask)) return ICMP_ADDRESSREPLY;
  return options_.has(QELNKPingTime) ? ICMP_TIMESTAMPREPLY : ICMP_ECHOREPLY;
}

// --- Sending ---

void Ping::print(std::string_view text) const {
  if (surroundings_.print) surroundings_.print(text);
}

void Ping::printError(std::string_view text) const {
  if (surroundings_.printError) surroundings_.printError(text);
}

void Ping::warn(const std::string &text) const {
  printError(std::string(program_invocation_short_name) + ": " + text + '\n');
}

void Ping::printBanner() const {
  std::string text = fmt::format("PING {} ({})", options_.host, textOf(destination_.sin_addr));
  if (options_.has(QELNKPingSweep))
    text += fmt::format(": ({} ... {}) data bytes", options_.sweepMinimum, options_.sweepMaximum);
  else
    text += fmt::format(": {} data bytes", dataSize_);
  print(text + '\n');
}

Ping::Bytes Ping::request() const {
  const size_t query = queryLength();
  const Sent &sent = sent_[size_t(transmitted_) % remembered];
  const size_t timeLength = sent.isTimed ? timeSize : 0;
  Bytes bytes(headerSize + query + dataSize_);
  bytes[0] = uint8_t(options_.has(QELNKPingTime)   ? ICMP_TIMESTAMP
                     : options_.has(QELNKPingMask) ? ICMP_ADDRESS
                                                   : ICMP_ECHO);
  put(bytes, 4, htons(*identifier_));
  put(bytes, 6, htons(uint16_t(transmitted_)));
  if (options_.has(QELNKPingTime)) put(bytes, headerSize, htonl(millisecondsOfDay()));
  uint8_t *const data = bytes.data() + headerSize + query;
  for (size_t i = timeLength; i < dataSize_; ++i)
    data[i] = options_.pattern.empty() ? uint8_t(i) : options_.pattern[(i - timeLength) % options_.pattern.size()];
  if (sent.isTimed) {
    put(bytes, headerSize + query, htonl(sent.seconds));
    put(bytes, headerSize + query + 4, htonl(sent.microseconds));
  }
  put(bytes, 2, checksumOf(bytes));
  return bytes;
}

void Ping::sendRequest() {
  const timeval time = now();
  const size_t slot = size_t(transmitted_) % remembered;
  sent_[slot] = {uint32_t(time.tv_sec), uint32_t(time.tv_usec), dataSize_ >= timeSize,
                 std::chrono::steady_clock::now()};
  isTiming_ |= sent_[slot].isTimed;
  seen_.reset(slot);
  Bytes bytes = request();
  const size_t size = bytes.size();
  if (buildsHeader()) {
    ip header{};
    header.ip_v = 4;
    header.ip_hl = ipHeaderSize / 4;
    header.ip_tos = options_.typeOfService;
    header.ip_len = htons(uint16_t(ipHeaderSize + size));
    header.ip_off = htons(IP_DF);
    if (isMulticast_)
      header.ip_ttl = options_.has(QELNKPingMulticastTTL) ? options_.multicastTTL : 1;
    else
      header.ip_ttl = options_.has(QELNKPingTTL) ? options_.ttl : uint8_t(MAXTTL);
    header.ip_p = IPPROTO_ICMP;
    header.ip_dst = destination_.sin_addr;
    const auto *begin = reinterpret_cast<const uint8_t *>(&header);
    header.ip_sum = checksumOf({begin, ipHeaderSize});
    bytes.insert(bytes.begin(), begin, begin + ipHeaderSize);
  }
  const auto send = [&] {
    return sendto(socket_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&destination_),
                  sizeof destination_);
  };
  ssize_t count = send();
  if (count < 0 && isConnected_) {  // perhaps because the own address has changed, which connecting has fixed
    try {
      setUp();
      count = send();
    } catch (const PingExit &failure) {
      warn(failure.what());
    }
  }
  if (count < 0 && errno == ENOBUFS && isFlood()) {
    std::this_thread::sleep_for(fullBufferPause);
    return;
  }
  if (count < 0)
    warn(fmt::format("sendto: {}", std::generic_category().message(errno)));
  else if (size_t(count) != bytes.size())
    warn(fmt::format("{}: partial write: {} of {} bytes", options_.host, count, bytes.size()));
  publish(qelnk_ntransmitted, ++transmitted_);
  if (options_.has(QELNKPingSweep)) {
    isSwept_ = options_.sweepIncrement > options_.sweepMaximum - dataSize_;
    dataSize_ = isSwept_ ? options_.sweepMinimum : dataSize_ + options_.sweepIncrement;
  }
  if (isFlood() && !options_.has(QELNKPingQuiet)) print(".");
}

// --- Receiving ---

std::string Ping::nameOf(const in_addr &address) const {
  std::string text = textOf(address);
  if (options_.has(QELNKPingNumeric) || !surroundings_.isTool) return text;
  sockaddr_in socketAddress{};
  socketAddress.sin_family = AF_INET;
  socketAddress.sin_addr = address;
  std::array<char, NI_MAXHOST> name{};
  const int failure = getnameinfo(reinterpret_cast<const sockaddr *>(&socketAddress), sizeof socketAddress, name.data(),
                                  name.size(), nullptr, 0, NI_NAMEREQD);
  return failure ? text : fmt::format("{} ({})", name.data(), text);
}

/// What these return is whether a request was answered for the first time.
bool Ping::receive() {
  std::array<uint8_t, 65536> buffer;
  alignas(cmsghdr) std::array<char, 256> control;
  sockaddr_in from{};
  iovec part{buffer.data(), buffer.size()};
  msghdr message{};
  message.msg_name = &from;
  message.msg_namelen = sizeof from;
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  const ssize_t count = recvmsg(socket_, &message, MSG_DONTWAIT);
  if (count < 0) {
    if (errno != EINTR && errno != EAGAIN) warn(fmt::format("recvmsg: {}", std::generic_category().message(errno)));
    return false;
  }
  timeval at = now();
  int ttl = 0;
  for (cmsghdr *c = CMSG_FIRSTHDR(&message); c; c = CMSG_NXTHDR(&message, c)) {
    if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMP) std::memcpy(&at, CMSG_DATA(c), sizeof at);
    if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_TTL) std::memcpy(&ttl, CMSG_DATA(c), sizeof ttl);
  }
  std::span<const uint8_t> bytes(buffer.data(), size_t(count)), ipOptions;
  if (isRaw_) {
    const size_t header = ipHeaderLength(bytes);
    if (header == 0 || bytes.size() < header + headerSize) return false;
    ttl = bytes[8];
    ipOptions = bytes.subspan(ipHeaderSize, header - ipHeaderSize);
    bytes = bytes.subspan(header);
    if (checksumOf(bytes) != 0) return false;  // the system hands it over all the same
  }
  if (bytes.size() < headerSize) {
    if (options_.has(QELNKPingVerbose))
      warn(fmt::format("packet too short ({} bytes) from {}", bytes.size(), nameOf(from.sin_addr)));
    return false;
  }
  return handle(bytes, from, ttl, at, ipOptions);
}

bool Ping::handle(Span message, const sockaddr_in &from, int ttl, timeval at, Span ipOptions) {
  const uint8_t type = message[0];
  const bool isOurs = ntohs(take<uint16_t>(message, 4)) == *identifier_;
  if (type != replyType()) {
    if (surroundings_.print) handleError(message, from);
    return false;
  }
  return isOurs && (isMulticast_ || from.sin_addr.s_addr == destination_.sin_addr.s_addr) &&
         handleReply(message, from, ttl, at, ipOptions);
}

/// Only of a request that is still remembered, and bears the time at which that was sent: a late reply to another run
/// of the same number is no reply to this one.
bool Ping::handleReply(Span message, const sockaddr_in &from, int ttl, timeval at, Span ipOptions) {
  const uint16_t sequence = ntohs(take<uint16_t>(message, 6));
  const auto age = uint16_t(uint16_t(transmitted_ - 1) - sequence);
  if (transmitted_ == 0 || age >= std::min<int64_t>(transmitted_, remembered)) return false;
  const size_t slot = sequence % remembered;
  const Sent &sent = sent_[slot];
  double time = 0;
  if (sent.isTimed) {
    const size_t place = headerSize + queryLength();
    const bool bearsTime = message.size() >= place + timeSize;
    if (!bearsTime && queryLength() == 0) return false;  // cut off; but nobody echoes what is in the other requests
    if (bearsTime && (ntohl(take<uint32_t>(message, place)) != sent.seconds ||
                      ntohl(take<uint32_t>(message, place + 4)) != sent.microseconds))
      return false;
    time = double(int64_t(at.tv_sec) - int64_t(sent.seconds)) * 1000 +
           double(int64_t(at.tv_usec) - int64_t(sent.microseconds)) / 1000;
    // The clock may have been set meanwhile.
    const std::chrono::duration<double, std::milli> atMost = std::chrono::steady_clock::now() - sent.at;
    if (time < 0 || time > atMost.count()) time = atMost.count();
    if (time > options_.waittime) {
      ++late_;
      return false;
    }
  }
  const bool isDuplicate = seen_.test(slot);
  seen_.set(slot);
  if (isDuplicate)
    ++duplicates_;
  else
    publish(qelnk_nreceived, ++received_);
  surroundings_.replied();
  if (sent.isTimed) {
    sum_ += time;
    sumOfSquares_ += time * time;
    shortest_ = std::min(shortest_, time);
    longest_ = std::max(longest_, time);
    const Lock lock(publishedMutex);
    publish(qelnk_tsum, qelnk_tsum + time);
    publish(qelnk_tsumsq, qelnk_tsumsq + time * time);
    if (time < qelnk_tmin) publish(qelnk_tmin, time);
    if (time > qelnk_tmax) publish(qelnk_tmax, time);
  }
  if (surroundings_.print && !options_.has(QELNKPingQuiet))
    printReply(message, from, sequence, ttl, sent.isTimed ? std::optional(time) : std::nullopt, isDuplicate, ipOptions);
  return !isDuplicate;
}

void Ping::printReply(Span message, const sockaddr_in &from, uint16_t sequence, int ttl, std::optional<double> time,
                      bool isDuplicate, Span ipOptions) const {
  if (isFlood()) return print("\b");
  std::string line =
      fmt::format("{} bytes from {}: icmp_seq={} ttl={}", message.size(), textOf(from.sin_addr), sequence, ttl);
  if (time) line += fmt::format(" time={:.3f} ms", *time);
  if (isDuplicate) line += " (DUP!)";
  if (options_.has(QELNKPingBell)) line += '\a';
  print(line + routeIn(ipOptions) + '\n');
}

/// The route that a reply has recorded, an address a line; empty when there is none.
std::string Ping::routeIn(Span ipOptions) const {
  std::string text;
  while (ipOptions.size() > 2 && ipOptions[0] == IPOPT_NOP) ipOptions = ipOptions.subspan(1);
  if (ipOptions.size() < 3 || ipOptions[0] != IPOPT_RR) return text;
  const size_t end = std::min<size_t>({ipOptions[1], size_t(ipOptions[2] - 1), ipOptions.size()});
  for (size_t at = 3; at + 4 <= end; at += 4)
    text += (text.empty() ? "\nRR: \t" : "\n\t") + nameOf({take<uint32_t>(ipOptions, at)});
  return text;
}

/// What somebody on the way says of one of our requests.
void Ping::handleError(Span message, const sockaddr_in &from) const {
  if (options_.has(QELNKPingQuiet) || (options_.has(QELNKPingSomewhatQuiet) && !options_.has(QELNKPingVerbose))) return;
  const auto inner = message.subspan(headerSize);
  const size_t header = ipHeaderLength(inner);
  if (header == 0 || inner.size() < header + headerSize) return;
  const auto request = inner.subspan(header);
  const auto target = take<uint32_t>(inner, 16);
  const bool isOurs = inner[9] == IPPROTO_ICMP && ntohs(take<uint16_t>(request, 4)) == *identifier_ &&
                      target == destination_.sin_addr.s_addr;
  if (!isOurs) return;
  const auto *name = std::find_if(std::begin(errorNames), std::end(errorNames), [&](const ErrorName &each) {
    return each.type == message[0] && (each.code < 0 || each.code == message[1]);
  });
  if (name == std::end(errorNames)) return;
  std::string text =
      fmt::format("{} bytes from {}: {}\n", message.size() + ipHeaderSize, nameOf(from.sin_addr), name->name);
  if (options_.has(QELNKPingVerbose)) {
    const auto word = [&](size_t at) { return ntohs(take<uint16_t>(inner, at)); };
    text += fmt::format(
        "Vr HL TOS  Len   ID Flg  off TTL Pro  cks      Src      Dst\n"
        " {:x}  {:x}  {:02x} {:04x} {:04x}   {:x} {:04x}  {:02x}  {:02x} {:04x} {} {}\n",
        inner[0] >> 4, inner[0] & 0xF, inner[1], word(2), word(4), word(6) >> 13, word(6) & 0x1FFF, inner[8], inner[9],
        word(10), textOf({take<uint32_t>(inner, 12)}), textOf({target}));
  }
  print(text);
}

// --- The run ---

void Ping::printStatus() const {
  std::string text = fmt::format("\r{}/{} packets received ({:.1f}%)", received_, transmitted_,
                                 transmitted_ ? double(received_) * 100 / double(transmitted_) : 0.0);
  if (received_ && isTiming_)
    text += fmt::format(" {:.3f} min / {:.3f} avg / {:.3f} max", shortest_, sum_ / double(received_ + duplicates_),
                        longest_);
  printError(text + '\n');
}

/// Waits for a reply at most the rest of the interval, but with two for its whole seconds, whatever the interval is: so
/// requests go out every two seconds, and no sooner. What is left over of a second is below a tenth. Returns whether a
/// reply is missed.
bool Ping::waitForReply() {
  const timeval time = now();
  int64_t seconds = lastSend_.tv_sec + interval_ / 1000 - time.tv_sec;
  int64_t microseconds = lastSend_.tv_usec + interval_ % 1000 * 1000 - time.tv_usec;
  constexpr int64_t modulus = 100000;
  while (microseconds < 0) {
    microseconds += modulus;
    --seconds;
  }
  while (microseconds >= modulus) {
    microseconds -= modulus;
    ++seconds;
  }
  if (seconds < 0) microseconds = 0;
  const auto deadline = std::chrono::steady_clock::now() + 2s + std::chrono::microseconds(microseconds);
  const bool answered = waitForAnswer(deadline);
  if (isInterrupted_) return false;
  if (isDone()) return false;
  if (!answered || isFlood()) {
    if ((options_.count == 0 || transmitted_ < options_.count) && !isSwept_) {
      sendRequest();
    } else {
      if (isAlmostDone_) finish();
      isAlmostDone_ = true;
      interval_ = received_ ? std::max(2 * int32_t(longest_) / 1000, 1) * 1000 : options_.waittime;
    }
    lastSend_ = now();
    return missesReply();
  }
  return false;
}

/// Whether every reply that was asked for has come.
bool Ping::isDone() const {
  return (options_.has(QELNKPingOnce) && received_ > 0) || (options_.count && received_ >= options_.count);
}

/// Whether a request is answered before the deadline, which nothing else that arrives puts off, however much it is.
bool Ping::waitForAnswer(std::chrono::steady_clock::time_point deadline) {
  isInterrupted_ = false;
  for (int packets = 0;;) {
    const auto left = std::max(deadline - std::chrono::steady_clock::now(), 0ns);
    if (left == 0ns && ++packets > mostPackets) return false;
    const timespec limit{left / 1s, (left % 1s).count()};
    pollfd ready{socket_, POLLIN, 0};
    const int count = ppoll(&ready, 1, &limit, nullptr);
    isInterrupted_ = count < 0;  // by a signal: the run looks what it means
    if (count <= 0) return false;
    if (receive()) return true;
  }
}

bool Ping::missesReply() {
  const int64_t missed = transmitted_ - received_ - 1;
  if (missed <= mostMissed_) return false;
  mostMissed_ = missed;
  if (options_.has(QELNKPingBellOnMissed)) print("\a");
  return !options_.has(QELNKPingQuiet);
}

int32_t Ping::run() {
  if (surroundings_.isTool && socket_ >= largestDescriptor) throw PingExit(PingExit::system, "descriptor too large");
  printBanner();
  int64_t first = std::max<int64_t>(options_.preload, 1);
  if (options_.count) first = std::min(first, options_.count);
  while (first-- > 0) sendRequest();
  lastSend_ = now();
  print(fmt::format("intvl {}.{}\n", interval_ / 1000, interval_ % 1000 * 1000));
  while (!surroundings_.mustFinish()) {
    if (surroundings_.takeStatusRequest()) printStatus();
    if (waitForReply()) {
      print("ESCAPE!\n");
      publish(qelnk_ntransmitted, 0);
      publish(qelnk_nreceived, 0);
      return QELNK_PING_ESCAPE;
    }
    if (isDone()) break;
  }
  finish();
}

void Ping::finish() {
  surroundings_.willFinish();
  std::string text = fmt::format("\n--- {} ping statistics ---\n{} packets transmitted, {} packets received, ",
                                 options_.host, transmitted_, received_);
  if (duplicates_) text += fmt::format("+{} duplicates, ", duplicates_);
  if (transmitted_) {
    if (received_ > transmitted_)
      text += "-- somebody's printing up packets!";
    else
      text += fmt::format("{:.1f}% packet loss", double(transmitted_ - received_) * 100 / double(transmitted_));
  }
  if (late_) text += fmt::format(", {} packets out of wait time", late_);
  text += '\n';
  if (received_ && isTiming_) {
    const double count = double(received_ + duplicates_), average = sum_ / count;
    const double variance = std::max(0.0, sumOfSquares_ / count - average * average);
    text += fmt::format("round-trip min/avg/max/stddev = {:.3f}/{:.3f}/{:.3f}/{:.3f} ms\n", shortest_, average,
                        longest_, std::sqrt(variance));
  }
  print(text);
  throw PingExit(received_ ? 0 : 2, "");
}

}  // namespace qelnk
