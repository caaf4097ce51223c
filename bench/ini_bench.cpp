// One value out of a settings file of 2,000 lines: looked up when the file has just been changed,
// and again and again in a file that stays. The peer is Boost.PropertyTree, which reads the whole
// file for each look-up; it has no other way to be right.
//
// "First" writes the file anew before each look-up, outside of the time that is measured. The value
// is in the middle of the file. What counts is the ratio of the two.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "qmutils/config/QMIniFileC.h"

namespace {

constexpr int kSections = 80;
constexpr int kKeys = 23;  // a section; with its first line and a blank one, 2,000 lines

/// The file, removed at the end of the program.
struct SettingsFile {
  SettingsFile() {
    for (int section = 0; section < kSections; ++section) {
      text += "[Engine " + std::to_string(section) + "]\n";
      for (int key = 0; key < kKeys; ++key) {
        const std::string number = std::to_string(key);
        text += "Parameter" + number + " = " + std::to_string(section * 1000 + key) +
                ".25 mm per turn\n";
      }
      text += "\n";
    }
    write();
  }
  ~SettingsFile() { std::filesystem::remove(path); }
  void write() const { std::ofstream(path, std::ios::binary) << text; }

  const std::string path =
      std::filesystem::temp_directory_path() / ("ini_bench." + std::to_string(getpid()));
  std::string text;
};
const SettingsFile settings;

const char* const kExpected = "40011.25 mm per turn";

void lookUp() {
  QMIniFileC file(settings.path.c_str(), 0);
  CString value;
  if (file.Read("Engine 40", "Parameter11", nullptr, value) != QMErrors::NoError ||
      value != kExpected) {
    std::abort();
  }
}

void lookUpByPeer() {
  boost::property_tree::ptree tree;
  boost::property_tree::read_ini(settings.path, tree);
  if (tree.get_child("Engine 40").get<std::string>("Parameter11") != kExpected) std::abort();
}

template <void (*look)()>
void first(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    settings.write();
    state.ResumeTiming();
    look();
  }
}
BENCHMARK(first<lookUp>)->Name("first");
BENCHMARK(first<lookUpByPeer>)->Name("firstByPeer");

template <void (*look)()>
void repeated(benchmark::State& state) {
  // A file that has changed just now is read each time, as it might change again.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  for (auto _ : state) look();
}
BENCHMARK(repeated<lookUp>)->Name("repeated");
BENCHMARK(repeated<lookUpByPeer>)->Name("repeatedByPeer");

}  // namespace

BENCHMARK_MAIN();
