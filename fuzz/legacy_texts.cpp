// The small forms of the legacy protocol: timecodes, a service's TXT record, and the options of its streams.

#include <QELNetworkKit/MPMessagePack.h>
#include <QELNetworkKit/NetService.h>
#include <QELNetworkKit/QELNKLegacyClient.h>
#include <QELNetworkKit/QELNKLegacyStream.h>
#include <QELNetworkKit/QELProjectTimecode.h>

#include "Fuzz.h"

using qelnk::NetService;

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::span bytes(data, size);
  const std::string text(fuzz::textOf(bytes));

  const auto timecode = QELProjectTimecode::timecodeWithString(text);
  fuzz::require(timecode.XMLRepresentation() == text, "a timecode keeps its text");
  QELNKLegacyStream::isWritable(text);

  const auto record = NetService::dictionaryFromTXTRecordData(text);
  const auto written = NetService::dataFromTXTRecordDictionary(record);
  fuzz::require(NetService::dictionaryFromTXTRecordData(written) == record, "a TXT record is written as it was read");

  if (auto options = qelnk::mp_dict(bytes)) {
    options->erase("multiThreaded");  // which would start a thread
    const auto client = QELNKLegacyClient::create("name", "host", 1, {}, *options);
    fuzz::require(client->options() == *options, "options are kept");
    if (const qelnk::Value *appID = options->find("appID"); appID && appID->isString())
      fuzz::require(client->appID() == appID->string(), "the application ID is the options'");
    if (const qelnk::Value *address = options->find("address")) client->setPeerAddressFromData(address->data());
    client->peerAddress();
    client->peerIPv4Address();
    client->peerPort();
  }
  return 0;
}
