// Typed values as text and back. The peer builds a string stream each time and imbues it with the
// same locale for the same result.
//
// What counts is the ratio of the two.
#include <benchmark/benchmark.h>

#include <locale>
#include <sstream>
#include <string>

#include "qmutils/data/QMMixedDataC.h"

namespace {

constexpr double kValue = 1234.5678;
constexpr char kText[] = "1234.567800 mm";

QMMixedDataC millimetres(const char* locale) {
  QMMixedDataC value(CMDFormat::MD_TYPE_DOUBLE | CMDFormat::MD_UNIT_MM, 0, 6);
  value.SetLocale(locale);
  return value;
}

void doubleToText(benchmark::State& state, const char* locale) {
  QMMixedDataC value = millimetres(locale);
  value.SetValue(kValue);
  CString text;
  for (auto _ : state) {
    value.AToString(text, 1);
    benchmark::DoNotOptimize(text);
  }
  if (text != kText) state.SkipWithError("another text");
}

void doubleToTextByOstringstream(benchmark::State& state, const char* locale) {
  std::string text;
  for (auto _ : state) {
    std::ostringstream os;
    os.imbue(std::locale(locale));
    os.fill('0');
    os.setf(std::ios::fixed | std::ios::showpoint);
    os.precision(6);
    os << kValue << " mm";
    text = os.str();
    benchmark::DoNotOptimize(text);
  }
  if (text != kText) state.SkipWithError("another text");
}

void textToDouble(benchmark::State& state, const char* locale) {
  const QMMixedDataC value = millimetres(locale);
  double number = 0;
  for (auto _ : state) {
    value.FromString(kText, number, 1);
    benchmark::DoNotOptimize(number);
  }
  if (number != kValue) state.SkipWithError("another number");
}

void textToDoubleByIstringstream(benchmark::State& state, const char* locale) {
  double number = 0;
  for (auto _ : state) {
    std::istringstream is(kText);
    is.imbue(std::locale(locale));
    is >> number;
    benchmark::DoNotOptimize(number);
  }
  if (number != kValue) state.SkipWithError("another number");
}

BENCHMARK_CAPTURE(doubleToText, C, "C");
BENCHMARK_CAPTURE(doubleToTextByOstringstream, C, "C");
BENCHMARK_CAPTURE(doubleToText, named, "C.utf8");
BENCHMARK_CAPTURE(doubleToTextByOstringstream, named, "C.utf8");
BENCHMARK_CAPTURE(doubleToText, environment, "");
BENCHMARK_CAPTURE(doubleToTextByOstringstream, environment, "");
BENCHMARK_CAPTURE(textToDouble, C, "C");
BENCHMARK_CAPTURE(textToDoubleByIstringstream, C, "C");
BENCHMARK_CAPTURE(textToDouble, named, "C.utf8");
BENCHMARK_CAPTURE(textToDoubleByIstringstream, named, "C.utf8");

}  // namespace

BENCHMARK_MAIN();
