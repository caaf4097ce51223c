// A message made into its text and read back. The peer does the same with snprintf and sscanf.
//
// What counts is the ratio of the two.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <sstream>

#include "qmutils/comms/QMCommMsgC.h"
#include "qmutils/comms/QMMessageText.h"

namespace {

constexpr char kString[] = "C:\\Jobs\\Image Control\\a1b2.txt";
constexpr char kQualifier[] = "Default";

void createAndExtract(benchmark::State& state) {
  int type = 3, code = 135, val = 4096;
  unsigned short id = 1;
  char text[256], string[257], qualifier[257];
  for (auto _ : state) {
    ++val;
    QMCreateMessage(type, code, id, val, kString, kQualifier, text, sizeof text);
    benchmark::DoNotOptimize(text);
    QMExtractMessage(text, &type, &code, &id, &val, string, sizeof string, qualifier,
                     sizeof qualifier);
    benchmark::DoNotOptimize(string);
    benchmark::DoNotOptimize(qualifier);
  }
}

void snprintfAndSscanf(benchmark::State& state) {
  int type = 3, code = 135, val = 4096;
  unsigned short id = 1;
  char text[256], string[257], qualifier[257];
  for (auto _ : state) {
    ++val;
    std::snprintf(text, sizeof text, "%d;%d;%d;%d;%s;%s", type, code, id, val, kString, kQualifier);
    benchmark::DoNotOptimize(text);
    std::sscanf(text, "%d;%d;%hu;%d;%256[^;];%256[^\n]", &type, &code, &id, &val, string,
                qualifier);
    benchmark::DoNotOptimize(string);
    benchmark::DoNotOptimize(qualifier);
  }
}

void xmlElement(benchmark::State& state) {
  QMCommMsgC message;
  message.m_Type = 3;
  message.m_Code = 135;
  message.SetMessageString(kString);
  message.SetQualifierString(kQualifier);
  for (auto _ : state) {
    std::stringstream stream;
    stream << message;
    stream >> message;
    benchmark::DoNotOptimize(message.GetMessageString());
  }
}

BENCHMARK(createAndExtract);
BENCHMARK(snprintfAndSscanf);
BENCHMARK(xmlElement);

}  // namespace

BENCHMARK_MAIN();
