#include "LegacyView.h"

#include <QELNetworkKit/JSON.h>
#include <openssl/evp.h>

#include "Base64.h"
#include "Exit.h"
#include "Notation.h"

namespace tool {
namespace {

using qelnk::Value;

Value orNull(const std::optional<std::string> &text) { return text ? Value(*text) : Value(); }

std::string sha256(const qelnk::Data &data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  if (EVP_Digest(data.data(), data.size(), digest, &size, EVP_sha256(), nullptr) != 1)
    throw Failure(Exit::system, "no SHA-256 to be had");
  constexpr char digits[] = "0123456789abcdef";
  std::string text;
  for (unsigned index = 0; index < size; ++index) {
    text += digits[digest[index] >> 4];
    text += digits[digest[index] & 15];
  }
  return text;
}

/// The value of a TXT entry: text, but bytes where it is none.
Value txtValue(const std::optional<std::string> &value) {
  if (!value) return {};
  const bool isText = qelnk::jsonData(Value(*value), nullptr, qelnk::JSONTopLevel::any).has_value();
  return isText ? Value(*value) : Value(qelnk::Data(*value));
}

}  // namespace

void showReady(Output &output, const QELNKLegacyStream &stream) {
  const auto hostName = stream.peerHostName(), ipv4 = stream.peerIPv4Address(), appID = stream.peerAppID(),
             address = stream.peerAddress();
  if (output.json())
    return output.event("ready", {{"peer", Value::map({{"hostName", orNull(hostName)},
                                                       {"ipv4", orNull(ipv4)},
                                                       {"appID", orNull(appID)},
                                                       {"address", orNull(address)}})}});
  std::string text =
      "ready: " + appID.value_or("an unknown application") + " on " + hostName.value_or("an unknown host");
  if (ipv4) text += " (" + *ipv4 + ")";
  if (address) text += " from " + *address;
  output.line(text);
}

void showString(Output &output, const std::string &text) {
  if (output.json()) return output.event("string", {{"text", text}});
  output.line(text);
}

void showBinary(Output &output, const qelnk::Data &data, const std::string &contentType) {
  if (output.json())
    return output.event("binary", {{"contentType", contentType}, {"length", data.size()}, {"sha256", sha256(data)}});
  output.line("binary: " + contentType + ", " + std::to_string(data.size()) + " bytes, SHA-256 " + sha256(data));
}

void showHeartbeat(Output &output, const QELProjectTimecode &timecode, const std::optional<std::string> &information) {
  const std::string &text = timecode.XMLRepresentation();
  if (output.json()) return output.event("heartbeat", {{"timecode", text}, {"info", orNull(information)}});
  output.line("heartbeat: " + text + (information ? "  " + *information : ""));
}

void showTerminated(Output &output, std::optional<bool> willReconnect) {
  if (output.json() && willReconnect) return output.event("terminated", {{"willReconnect", *willReconnect}});
  if (output.json()) return output.event("terminated");
  output.line(willReconnect.value_or(false) ? "terminated, reconnecting" : "terminated");
}

void showConnectError(Output &output, int64_t code, bool willRetry) {
  if (output.json()) return output.event("connectError", {{"code", code}, {"willRetry", willRetry}});
  output.line("connect error " + std::to_string(code) + ": " + connectErrorText(code) +
              (willRetry ? ", trying again" : ""));
}

void showLostHeartbeat(Output &output, bool lost) {
  if (output.json()) return output.event("lostHeartbeat", {{"lost", lost}});
  output.line(lost ? "heartbeats are missing" : "heartbeats have come back");
}

void showTXT(Output &output, const qelnk::TXTRecordDictionary &record) {
  Value map = Value::map();
  for (const auto &[key, value] : record) map.set(key, notationOf(txtValue(value)));
  if (output.json()) return output.event("txt", {{"record", map}});
  output.line("TXT record: " + plainJSON(map));
}

void showDropped(Output &output, const std::string &contentType) {
  if (output.json()) return output.event("dropped", {{"contentType", contentType}});
  output.line("dropped: " + contentType);
}

std::string connectErrorText(int64_t code) {
  switch (code) {
    case QELNKLegacyClient::alreadyConnected:
      return "connected already";
    case QELNKLegacyClient::noStreams:
      return "no such host or port";
    case QELNKLegacyClient::timedOut:
      return "timed out";
    case QELNKLegacyClient::refused:
      return "refused";
    default:
      return "unknown error";
  }
}

}  // namespace tool
