// MessagePack and JSON of value trees, beside msgpack-cxx, nlohmann-json, RapidJSON and Boost.JSON in the same run.

#include <QELNetworkKit/JSON.h>
#include <QELNetworkKit/MPMessagePack.h>
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <boost/json.hpp>
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

// Exact doubles and valid UTF-8, which is what ours and nlohmann-json see to, are options here.
constexpr unsigned strict = rapidjson::kParseFullPrecisionFlag | rapidjson::kParseValidateEncodingFlag;

template <unsigned flags>
void jsonReadRapid(benchmark::State &state, const std::string &text) {
  for (auto _ : state) {
    rapidjson::Document document;
    document.Parse<flags>(text.data(), text.size());
    benchmark::DoNotOptimize(document.HasParseError());
  }
  setBytes(state, text.size());
}

void jsonReadBoost(benchmark::State &state, const std::string &text) {
  for (auto _ : state) benchmark::DoNotOptimize(boost::json::parse(text));
  setBytes(state, text.size());
}

/// The way for trees that are read and never changed: their memory is taken in large blocks and freed at once.
void jsonReadBoostMonotonic(benchmark::State &state, const std::string &text) {
  for (auto _ : state) {
    boost::json::monotonic_resource memory;
    benchmark::DoNotOptimize(boost::json::parse(text, &memory));
  }
  setBytes(state, text.size());
}

void jsonWriteOurs(benchmark::State &state, const Value &tree) {
  for (auto _ : state) benchmark::DoNotOptimize(qelnk::jsonData(tree));
}

void jsonWriteNlohmann(benchmark::State &state, const std::string &text) {
  const auto tree = nlohmann::json::parse(text);
  for (auto _ : state) benchmark::DoNotOptimize(tree.dump());
}

void jsonWriteRapid(benchmark::State &state, const std::string &text) {
  rapidjson::Document tree;
  tree.Parse<strict>(text.data(), text.size());
  for (auto _ : state) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    tree.Accept(writer);
    benchmark::DoNotOptimize(buffer.GetString());
  }
}

void jsonWriteBoost(benchmark::State &state, const std::string &text) {
  const boost::json::value tree = boost::json::parse(text);
  for (auto _ : state) benchmark::DoNotOptimize(boost::json::serialize(tree));
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
  add("json-in", "rapidjson", [&text](auto &state) { jsonReadRapid<0>(state, text); });
  add("json-in", "rapidjson-strict", [&text](auto &state) { jsonReadRapid<strict>(state, text); });
  add("json-in", "boost", [&text](auto &state) { jsonReadBoost(state, text); });
  add("json-in", "boost-monotonic", [&text](auto &state) { jsonReadBoostMonotonic(state, text); });
  add("json-out", "qelnk", [&kept_tree](auto &state) { jsonWriteOurs(state, kept_tree); });
  add("json-out", "nlohmann", [&text](auto &state) { jsonWriteNlohmann(state, text); });
  add("json-out", "rapidjson", [&text](auto &state) { jsonWriteRapid(state, text); });
  add("json-out", "boost", [&text](auto &state) { jsonWriteBoost(state, text); });
}

}  // namespace

int main(int argc, char **argv) {
  // Freed memory is kept, as it is in a process that has once freed a large block. Otherwise who pays for fresh pages
  // depends on what the others have left behind: the same work then takes up to three times as long.
  if (mallopt(M_MMAP_THRESHOLD, 32 << 20) == 0 || mallopt(M_TRIM_THRESHOLD, 64 << 20) == 0) return 1;
  for (const auto &[name, tree] : benchmarkDocuments()) registerDocument(name, tree);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
}
