#include "legacy/IncomingMessages.h"

#include <gtest/gtest.h>

#include <random>

#include "legacy/RawPeer.h"

using namespace qelnk;
using namespace qelnk::test;
using namespace std::string_literals;

namespace {

std::string textOf(const IncomingMessages::Message &message) {
  using Kind = IncomingMessages::Kind;
  const std::string text(message.text());
  switch (message.kind) {
    case Kind::handshake:
      return "handshake";
    case Kind::host:
      return "host=" + text;
    case Kind::ipv4:
      return "ipv4=" + text;
    case Kind::appID:
      return "appID=" + text;
    case Kind::heartbeat:
      return "heartbeat=" + text + "|" + message.information().value_or("-");
    case Kind::binaryHeader:
      return "header=" + text;
    case Kind::string:
      return text;
    case Kind::binary:
      return "binary=" + message.string + "|" + std::string(message.data.text());
    case Kind::invalidText:
      return "invalid";
    case Kind::stringTooLong:
      return "string too long";
    case Kind::binaryTooLong:
      return "block too long";
  }
  return "";
}

/// Hands `bytes` over in the given chunks; behind the last cut in chunks as large as they are read.
std::vector<std::string> messagesOf(std::string_view bytes, const std::vector<size_t> &cuts = {},
                                    IncomingMessages::Limits limits = {}) {
  IncomingMessages incoming;
  incoming.setLimits(limits);
  std::vector<std::string> texts;
  IncomingMessages::Message message;
  size_t at = 0;
  for (size_t next = 0; at < bytes.size(); ++next) {
    const size_t wanted = next < cuts.size() ? cuts[next] : IncomingMessages::chunkSize;
    const auto chunk = bytes.substr(at, std::min(wanted, IncomingMessages::chunkSize));
    incoming.append({reinterpret_cast<const uint8_t *>(chunk.data()), chunk.size()});
    while (incoming.next(message)) texts.push_back(textOf(message));
    at += chunk.size();
  }
  return texts;
}

using Texts = std::vector<std::string>;

}  // namespace

TEST(IncomingMessages, ClassifiesStrings) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"handshake", "handshake"},
      {"handshakes", "handshakes"},
      {"host Studio A", "host=Studio A"},
      {"host ", "host="},
      {"hostess", "hostess"},
      {"ipv4", "ipv4="},
      {"ipv4 ", "ipv4="},
      {"ipv4 10.1.2.3", "ipv4=10.1.2.3"},
      {"ipv4-10.1.2.3", "ipv4=10.1.2.3"},
      {"ipv4é10.1.2.3", "ipv4=10.1.2.3"},
      {"ipv", "ipv"},
      {"appID com.kestrova.live", "appID=com.kestrova.live"},
      {"appIDs", "appIDs"},
      {"heartbeat 10:00:00:00 25", "heartbeat=10:00:00:00 25|-"},
      {"heartbeat 10:00:00:00 25 on air", "heartbeat=10:00:00:00 25|on air"},
      {"heartbeat 10:00:00:00 25 ", "heartbeat=10:00:00:00 25|"},
      {"heartbeat a b c", "heartbeat=a b c|-"},  // shorter than 13 characters
      {"heartbeat a b 5678901234", "heartbeat=a b|5678901234"},
      {"heartbeat é b 678901", "heartbeat=é b 678901|-"},  // 12 characters, 13 bytes
      {"heartbeat 0123456789012", "heartbeat=0123456789012|-"},
      {"heartbeat", "heartbeat"},
      {"!bin! 5", "header=5"},
      {"!bin!", "!bin!"},
      {"ÄÖÜ €", "ÄÖÜ €"},
      {"\xff\xfe", "invalid"},
      {"host \xff", "invalid"}};
  for (const auto &[string, expected] : cases) EXPECT_EQ(messagesOf(zeroed(string)), Texts{expected}) << string;
}

TEST(IncomingMessages, DeliversTheSameHoweverItIsSplit) {
  std::string payload(5000, 'p');
  for (size_t i = 0; i < payload.size(); i += 3) payload[i] = 0;
  const std::string script = handshakeBytes("a", "1.2.3.4", "x") + zeroed("first") + block("\0\0\0"s, "T with spaces") +
                             zeroed("") + zeroed("second") + block(payload, "big") + zeroed(std::string(3000, 'l')) +
                             block("!bin! 9 x\0"s, "nested") + block("1", "one") + block("2", "") +
                             zeroed("heartbeat 10:00:00:00 25 info") + zeroed("last");
  const Texts expected = {"handshake",
                          "host=a",
                          "ipv4=1.2.3.4",
                          "appID=x",
                          "first",
                          "header=3 T with spaces",
                          "binary=T with spaces|\0\0\0"s,
                          "second",
                          "header=5000 big",
                          "binary=big|" + payload,
                          std::string(3000, 'l'),
                          "header=10 nested",
                          "binary=nested|!bin! 9 x\0"s,
                          "header=1 one",
                          "binary=one|1",
                          "header=1 ",
                          "binary=|2",
                          "heartbeat=10:00:00:00 25|info",
                          "last"};
  EXPECT_EQ(messagesOf(script), expected);
  EXPECT_EQ(messagesOf(script, std::vector<size_t>(script.size(), 1)), expected);
  std::mt19937 random(4711);
  for (int round = 0; round < 500; ++round) {
    std::vector<size_t> cuts;
    const size_t longest = round % 2 ? 10 : 3000;
    for (size_t sum = 0; sum < script.size(); sum += cuts.back()) cuts.push_back(1 + random() % longest);
    ASSERT_EQ(messagesOf(script, cuts), expected) << "round " << round;
  }
}

TEST(IncomingMessages, HeadersThatAreNoHeaders) {
  // Without a space behind the length there is no block: what follows is taken as ever.
  EXPECT_EQ(messagesOf(zeroed("!bin! 5") + zeroed("after")), (Texts{"header=5", "after"}));
  EXPECT_EQ(messagesOf(block("", "T") + zeroed("after")), (Texts{"header=0 T", "after"}));
  EXPECT_EQ(messagesOf(zeroed("!bin! much T") + zeroed("after")), (Texts{"header=much T", "after"}));
  // These are never complete.
  for (const std::string length : {"-3", "99999999999999999999", "9223372036854775807"})
    EXPECT_EQ(messagesOf(zeroed("!bin! " + length + " T") + std::string(100000, 0)), Texts{"header=" + length + " T"});
  // The leading number counts.
  EXPECT_EQ(messagesOf(zeroed("!bin! 2x T") + "ab\0"s + zeroed("after")),
            (Texts{"header=2x T", "binary=T|ab", "after"}));
}

TEST(IncomingMessages, KeepsToItsLimits) {
  const IncomingMessages::Limits limits{10, 100};
  const std::string ten(10, 'a'), hundred(100, 'b');
  EXPECT_EQ(messagesOf(zeroed(ten) + block(hundred, ""), {}, limits),
            (Texts{ten, "header=100 ", "binary=|" + hundred}));
  EXPECT_EQ(messagesOf(zeroed(ten + "a"), {}, limits), Texts{"string too long"});
  EXPECT_EQ(messagesOf(ten + "a", std::vector<size_t>(11, 1), limits), Texts{"string too long"});
  for (const std::string length : {"101", "-1", "9223372036854775807"})
    EXPECT_EQ(messagesOf(zeroed("!bin! " + length + " "), {}, {30, 100}), Texts{"block too long"});
}
