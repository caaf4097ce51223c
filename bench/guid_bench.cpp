// A GUID read from its text and written to a stream. The peer is libuuid, writing its text to the
// same kind of stream.
//
// What counts is the ratio of the two.
#include <benchmark/benchmark.h>
#include <uuid/uuid.h>

#include <sstream>

#include "qmutils/data/GuidC.h"

namespace {

constexpr char kText[] = "6b29fc40-ca47-1067-b31d-00dd010662da";

void qmutilsFromString(benchmark::State& state) {
  GuidC guid;
  for (auto _ : state) {
    const char* text = kText;
    benchmark::DoNotOptimize(text);
    benchmark::DoNotOptimize(guid.FromString(text));
    benchmark::DoNotOptimize(guid);
  }
}

void libuuidParse(benchmark::State& state) {
  uuid_t guid;
  for (auto _ : state) {
    const char* text = kText;
    benchmark::DoNotOptimize(text);
    benchmark::DoNotOptimize(uuid_parse(text, guid));
    benchmark::DoNotOptimize(guid);
  }
}

void qmutilsToString(benchmark::State& state) {
  GuidC guid;
  if (guid.FromString(kText) != QMErrors::NoError) state.SkipWithError("not parsed");
  std::ostringstream os;
  for (auto _ : state) {
    os.seekp(0);
    benchmark::DoNotOptimize(guid);
    benchmark::DoNotOptimize(guid.ToString(os, false));
  }
  if (os.view() != kText) state.SkipWithError("not written");
}

void libuuidUnparse(benchmark::State& state) {
  uuid_t guid;
  if (uuid_parse(kText, guid) != 0) state.SkipWithError("not parsed");
  std::ostringstream os;
  for (auto _ : state) {
    os.seekp(0);
    benchmark::DoNotOptimize(guid);
    char text[UUID_STR_LEN];
    uuid_unparse_lower(guid, text);
    os.write(text, UUID_STR_LEN - 1);
  }
  if (os.view() != kText) state.SkipWithError("not written");
}

BENCHMARK(qmutilsFromString);
BENCHMARK(libuuidParse);
BENCHMARK(qmutilsToString);
BENCHMARK(libuuidUnparse);

}  // namespace

BENCHMARK_MAIN();
