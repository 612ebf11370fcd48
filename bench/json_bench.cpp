// JSON costs on the verbs' path: parsing a listing reply of N entries, reading
// every entry's fields through YObject::Get, and writing a request back out.
#include <benchmark/benchmark.h>

#include <string>

#include "Qel/JSON/YObject.h"
#include "Qel/JSON/YValue.h"

namespace {

using Qel::YString;
using Qel::JSON::YArray;
using Qel::JSON::YObject;

// A listing reply as the cloud sends it: entries with two parts each.
YString ListingReply(int entries) {
  const std::string fp(72, 'a');
  std::string s = R"({"path":"/docs","cursor":"","entries":[)";
  for (int i = 0; i < entries; ++i) {
    if (i) s += ',';
    s += R"({"id":)" + std::to_string(1000 + i) + R"(,"path":"/docs/file-)" + std::to_string(i) +
         R"(.txt","name":"file-)" + std::to_string(i) +
         R"(.txt","is_folder":false,"attributes":0,"size":2097152,"modified":1700000000,"deleted":0,)"
         R"("contained":0,"part_count":2,"parts":[{"fingerprint":")" + fp +
         R"(","size":1048576,"offset":0},{"fingerprint":")" + fp + R"(","size":1048576,"offset":1048576}]})";
  }
  return s + "]}";
}

void BM_ParseListing(benchmark::State& state) {
  const YString text = ListingReply(static_cast<int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(Qel::JSON::ParseObject(text));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_ParseListing)->Arg(1)->Arg(100)->Arg(1000);

void BM_ParseAndReadListing(benchmark::State& state) {
  const YString text = ListingReply(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    const YObject reply = Qel::JSON::ParseObject(text);
    unsigned long long total = 0;
    for (const auto& entry : reply.Get<YArray>("entries", 213)) {
      const YObject& e = entry->AsObject();
      total += e.Get<unsigned long long>("size", 213) + e.Get<unsigned long long>("modified", 213);
      benchmark::DoNotOptimize(e.Get<YString>("path", 213));
      benchmark::DoNotOptimize(e.Get<bool>("is_folder", 213));
      for (const auto& part : e.Get<YArray>("parts", 213)) {
        benchmark::DoNotOptimize(part->AsObject().Get<YString>("fingerprint", 213));
      }
    }
    benchmark::DoNotOptimize(total);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_ParseAndReadListing)->Arg(100)->Arg(1000);

void BM_StringifyListing(benchmark::State& state) {
  const YObject reply = Qel::JSON::ParseObject(ListingReply(static_cast<int>(state.range(0))));
  for (auto _ : state) benchmark::DoNotOptimize(reply.Stringify());
}
BENCHMARK(BM_StringifyListing)->Arg(100);

}  // namespace
