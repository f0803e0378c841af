// MessagePack and JSON of value trees, beside msgpack-cxx and nlohmann-json in the same run.

#include <QELNetworkKit/JSON.h>
#include <QELNetworkKit/MPMessagePack.h>
#include <benchmark/benchmark.h>

#include <msgpack.hpp>
#include <nlohmann/json.hpp>

#include "Documents.h"

namespace {

using qelnk::Data;
using qelnk::Value;

void setBytes(benchmark::State &state, size_t size) { state.SetBytesProcessed(int64_t(state.iterations() * size)); }

void decodeOurs(benchmark::State &state, const Data &bytes) {
  for (auto _ : state) benchmark::DoNotOptimize(qelnk::mp_object(bytes.span()));
  setBytes(state, bytes.size());
}

// Copying mode, which is the default: strings and buffers are taken into the handle's zone.
void decodeMsgpack(benchmark::State &state, const Data &bytes) {
  for (auto _ : state) {
    const msgpack::object_handle handle = msgpack::unpack(reinterpret_cast<const char *>(bytes.data()), bytes.size());
    benchmark::DoNotOptimize(handle.get());
  }
  setBytes(state, bytes.size());
}

void encodeOurs(benchmark::State &state, const Value &tree) {
  size_t size = 0;
  for (auto _ : state) {
    const Data bytes = MPMessagePackWriter::writeObject(tree);
    benchmark::DoNotOptimize(bytes.data());
    size = bytes.size();
  }
  setBytes(state, size);
}

void encodeMsgpack(benchmark::State &state, const Data &bytes) {
  const msgpack::object_handle tree = msgpack::unpack(reinterpret_cast<const char *>(bytes.data()), bytes.size());
  for (auto _ : state) {
    msgpack::sbuffer buffer;
    msgpack::pack(buffer, tree.get());
    benchmark::DoNotOptimize(buffer.data());
  }
  setBytes(state, bytes.size());
}

void jsonReadOurs(benchmark::State &state, const std::string &text) {
  for (auto _ : state) benchmark::DoNotOptimize(qelnk::jsonObject(text));
  setBytes(state, text.size());
}

void jsonReadNlohmann(benchmark::State &state, const std::string &text) {
  for (auto _ : state) benchmark::DoNotOptimize(nlohmann::json::parse(text));
  setBytes(state, text.size());
}

void jsonWriteOurs(benchmark::State &state, const Value &tree) {
  for (auto _ : state) benchmark::DoNotOptimize(qelnk::jsonData(tree));
}

void jsonWriteNlohmann(benchmark::State &state, const std::string &text) {
  const auto tree = nlohmann::json::parse(text);
  for (auto _ : state) benchmark::DoNotOptimize(tree.dump());
}

void registerDocument(const std::string &name, const Value &tree) {
  static std::vector<std::unique_ptr<std::pair<Data, Value>>> kept;
  kept.push_back(std::make_unique<std::pair<Data, Value>>(MPMessagePackWriter::writeObject(tree), tree));
  const Data &bytes = kept.back()->first;
  const Value &kept_tree = kept.back()->second;
  const auto add = [&](const std::string &group, const char *peer, auto body) {
    benchmark::RegisterBenchmark((group + "/" + name + "/" + peer).c_str(), body);
  };
  add("decode", "qelnk", [&bytes](auto &state) { decodeOurs(state, bytes); });
  add("decode", "msgpack-cxx", [&bytes](auto &state) { decodeMsgpack(state, bytes); });
  add("encode", "qelnk", [&kept_tree](auto &state) { encodeOurs(state, kept_tree); });
  add("encode", "msgpack-cxx", [&bytes](auto &state) { encodeMsgpack(state, bytes); });
  if (name == "buffer") return;  // has no form in JSON
  static std::vector<std::unique_ptr<std::string>> texts;
  texts.push_back(std::make_unique<std::string>(qelnk::jsonData(tree)->text()));
  const std::string &text = *texts.back();
  add("json-in", "qelnk", [&text](auto &state) { jsonReadOurs(state, text); });
  add("json-in", "nlohmann", [&text](auto &state) { jsonReadNlohmann(state, text); });
  add("json-out", "qelnk", [&kept_tree](auto &state) { jsonWriteOurs(state, kept_tree); });
  add("json-out", "nlohmann", [&text](auto &state) { jsonWriteNlohmann(state, text); });
}

}  // namespace

int main(int argc, char **argv) {
  for (const auto &[name, tree] : benchmarkDocuments()) registerDocument(name, tree);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
}
