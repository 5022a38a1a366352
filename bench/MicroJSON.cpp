// What a large batch and a large answer cost, next to the same work by RapidJSON's own document and by nlohmann's.
#include <benchmark/benchmark.h>
#include <rapidjson/document.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Services/DataParser.h"
#include "Services/QueryParser.h"
#include "platform/foundation/formats/JSON.h"
#include "platform/foundation/value/Dictionary.h"

namespace {

using namespace kestrine;

constexpr int kElements = 10'000;

std::string valueOf(std::string_view property, int element) {
  return std::string(property) + " of ordinary length, " + std::to_string(element);
}

const std::vector<SyncFilesInTableAndCloudQuery>& batch() {
  static const auto& queries = *[] {
    auto* made = new std::vector<SyncFilesInTableAndCloudQuery>(kElements);
    for (int i = 0; i < kElements; ++i) {
      for (const auto& field : kFieldsOf<SyncFilesInTableAndCloudQuery>)
        (*made)[static_cast<std::size_t>(i)].*field.member = valueOf(field.property, i);
    }
    return made;
  }();
  return queries;
}

/// Files to transfer, as the server sends them.
const std::string& answer() {
  static const std::string& text = *[] {
    platform::Array files;
    for (int i = 0; i < kElements; ++i) {
      platform::Dictionary file;
      for (const auto& field : kFieldsOf<FileToTransfer>) {
        if (field.key != kNeverFilled) file.emplace(field.key, valueOf(field.property, i));
      }
      files.emplace_back(std::move(file));
    }
    return new std::string(platform::jsonText(platform::Dictionary{{"FileToTransfer", std::move(files)}, {"ReturnStatus", "1"}}));
  }();
  return text;
}

// What is worked on is made before the clock runs.

void buildBatch(benchmark::State& state) {
  batch();
  for ([[maybe_unused]] auto _ : state) {
    const platform::Object body = QueryParser::parseSyncFilesInTableAndCloudQuery(batch());
    benchmark::DoNotOptimize(platform::prettyJSONText(body.objectForKey("syncData")));
  }
}

void buildBatchByRapidJSON(benchmark::State& state) {
  batch();
  for ([[maybe_unused]] auto _ : state) {
    rapidjson::Document document(rapidjson::kArrayType);
    auto& allocator = document.GetAllocator();
    for (const auto& query : batch()) {
      rapidjson::Value element(rapidjson::kObjectType);
      for (const auto& field : kFieldsOf<SyncFilesInTableAndCloudQuery>) {
        const std::string& text = *(query.*field.member);
        element.AddMember(rapidjson::StringRef(field.key.data(), field.key.size()),
                          rapidjson::Value(text.data(), static_cast<rapidjson::SizeType>(text.size()), allocator), allocator);
      }
      document.PushBack(element, allocator);
    }
    rapidjson::StringBuffer buffer;
    rapidjson::PrettyWriter writer(buffer);
    writer.SetIndent(' ', 2);
    document.Accept(writer);
    benchmark::DoNotOptimize(buffer.GetString());
  }
}

void buildBatchByNlohmann(benchmark::State& state) {
  batch();
  for ([[maybe_unused]] auto _ : state) {
    auto document = nlohmann::json::array();
    for (const auto& query : batch()) {
      auto element = nlohmann::json::object();
      for (const auto& field : kFieldsOf<SyncFilesInTableAndCloudQuery>) element[std::string(field.key)] = *(query.*field.member);
      document.push_back(std::move(element));
    }
    benchmark::DoNotOptimize(document.dump(2));
  }
}

void readAnswer(benchmark::State& state) {
  answer();
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(platform::readJSON(answer()));
  }
}

void readAnswerIntoRecords(benchmark::State& state) {
  answer();
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(DataParser::parseGetSharedFilesTransferDataResponseData(platform::readJSON(answer())));
  }
}

void readAnswerByRapidJSON(benchmark::State& state) {
  answer();
  for ([[maybe_unused]] auto _ : state) {
    rapidjson::Document document;
    document.Parse<rapidjson::kParseValidateEncodingFlag>(answer().data(), answer().size());
    if (document.HasParseError()) state.SkipWithError("not read");
    benchmark::DoNotOptimize(document);
  }
}

void readAnswerByNlohmann(benchmark::State& state) {
  answer();
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(nlohmann::json::parse(answer()));
  }
}

BENCHMARK(buildBatch)->Name("json: build a batch of 10,000")->Unit(benchmark::kMillisecond);
BENCHMARK(buildBatchByRapidJSON)->Name("json: build a batch of 10,000, RapidJSON's document")->Unit(benchmark::kMillisecond);
BENCHMARK(buildBatchByNlohmann)->Name("json: build a batch of 10,000, nlohmann")->Unit(benchmark::kMillisecond);
BENCHMARK(readAnswer)->Name("json: read an answer of 10,000")->Unit(benchmark::kMillisecond);
BENCHMARK(readAnswerIntoRecords)->Name("json: read an answer of 10,000 into records")->Unit(benchmark::kMillisecond);
BENCHMARK(readAnswerByRapidJSON)->Name("json: read an answer of 10,000, RapidJSON's document")->Unit(benchmark::kMillisecond);
BENCHMARK(readAnswerByNlohmann)->Name("json: read an answer of 10,000, nlohmann")->Unit(benchmark::kMillisecond);

}  // namespace
