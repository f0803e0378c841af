#include "platform/TXTRecord.h"

#include <QELNetworkKit/NetService.h>

#include <algorithm>

#include "platform/AsciiCase.h"
#include "platform/LogFormat.h"

namespace qelnk {

namespace {

constexpr size_t longestEntry = 255;

}  // namespace

bool TXTRecordKeyOrder::operator()(std::string_view a, std::string_view b) const {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                      [](char x, char y) { return lowerCase(x) < lowerCase(y); });
}

std::vector<std::string> txtEntries(std::string_view data) {
  std::vector<std::string> entries;
  while (!data.empty()) {
    const size_t length = static_cast<unsigned char>(data.front());
    data.remove_prefix(1);
    if (length > data.size()) break;
    if (length) entries.emplace_back(data.substr(0, length));
    data.remove_prefix(length);
  }
  return entries;
}

std::string txtData(const std::vector<std::string> &entries) {
  std::string data;
  for (const std::string &entry : entries) (data += char(entry.size())) += entry;
  return data;
}

std::string NetService::dataFromTXTRecordDictionary(const TXTRecordDictionary &dictionary) {
  std::vector<std::string> entries;
  for (const auto &[key, value] : dictionary) {
    std::string entry = value ? key + '=' + *value : key;
    if (key.empty() || key.find('=') != std::string::npos || entry.size() > longestEntry)
      logError("NetService left the entry \"{}\" out of a TXT record that cannot hold it", key);
    else
      entries.push_back(std::move(entry));
  }
  return txtData(entries);
}

TXTRecordDictionary NetService::dictionaryFromTXTRecordData(std::string_view data) {
  TXTRecordDictionary dictionary;
  for (const std::string &entry : txtEntries(data)) {
    const size_t end = entry.find('=');
    if (end == 0) continue;
    dictionary.try_emplace(entry.substr(0, end),
                           end == std::string::npos ? std::nullopt : std::optional(entry.substr(end + 1)));
  }
  return dictionary;
}

}  // namespace qelnk
