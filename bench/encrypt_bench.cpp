// A file of some megabytes encoded and decoded between streams in memory. The peer copies as many
// bytes from one buffer to another, which is the least that any transformation has to do.
//
// The destination has its full size before, so that the growth of the standard library's streams is
// not measured. What counts is the ratio of the two.
#include <benchmark/benchmark.h>

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "qmutils/data/QMGUIDEncryptC.h"

namespace {

constexpr std::size_t kSize = 8 << 20;

std::string sample() {
  std::string bytes(kSize, '\0');
  for (std::size_t i = 0; i < kSize; ++i) bytes[i] = static_cast<char>(i * 31 + i / 251);
  return bytes;
}

using Form = QMErrors::QMErrorT (*)(std::iostream&, std::iostream&, const GUID&);

void rewindAndRun(benchmark::State& state, Form form, std::stringstream& src,
                  std::stringstream& dst) {
  for (auto _ : state) {
    src.clear();
    src.seekg(0);
    dst.clear();
    dst.seekp(0);
    if (form(src, dst, QMGUIDEncryptC::PUBLIC_KEY) != QMErrors::NoError) {
      state.SkipWithError("failed");
    }
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}

void encode(benchmark::State& state) {
  std::stringstream plain(sample()), encoded(sample());
  rewindAndRun(state, QMGUIDEncryptC::Encode, plain, encoded);
}

void decode(benchmark::State& state) {
  std::stringstream plain(sample()), encoded;
  if (QMGUIDEncryptC::Encode(plain, encoded, QMGUIDEncryptC::PUBLIC_KEY) != QMErrors::NoError) {
    state.SkipWithError("failed");
  }
  rewindAndRun(state, QMGUIDEncryptC::Decode, encoded, plain);
}

void memoryCopy(benchmark::State& state) {
  const std::string from = sample();
  std::vector<char> to(kSize);
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), kSize);
    benchmark::DoNotOptimize(to.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}

BENCHMARK(encode);
BENCHMARK(decode);
BENCHMARK(memoryCopy);

}  // namespace

BENCHMARK_MAIN();
