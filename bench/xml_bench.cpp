// Reading and writing a 5 MB document of 50,000 elements as a QMXmlC tree. The peer is tinyxml2 on
// the same bytes.
//
// Loading includes the destruction of the tree. Both get the document as a file; the peer reads it
// into memory and parses that. The counter treeMB is the memory that the loaded document takes.
//
// Saving is shown in steps, as only ours flushes the file to the disk and renames it into place:
// into memory that grows (a string stream pays much for that) and into memory that is there, into a
// file without a flush, and as Save() does it.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <tinyxml2.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "qmutils/data/QMXmlC.h"

namespace {

constexpr int kJobs = 5000;  // of ten elements each

std::string job(int number) {
  char text[2048];
  const int length = std::snprintf(
      text, sizeof text,
      " <Job Id=\"%d\" Name=\"Morning edition, page %d of 5000\" State=\"waiting\">\n"
      "  <Plate Width=\"1030.000\" Height=\"800.000\" Resolution=\"2540\" Medium=\"Thermal\" />\n"
      "  <Page Number=\"1\" Colour=\"Cyan\" Rotation=\"0\">\n"
      "   <File>\\\\spool\\editions\\2006-11-04\\morning\\page-%04d-cyan.tif</File>\n"
      "   <Separation Name=\"Cyan\" Angle=\"15.0\" Ruling=\"150\" Shape=\"Round\" />\n"
      "   <Exposure Mode=\"Positive\">\n"
      "    <Power Value=\"%d.%d\" Unit=\"mW\" Calibrated=\"2006-11-01 06:14:07\" />\n"
      "    <Focus Value=\"-12.5\" Unit=\"1/100 mm\" />\n"
      "   </Exposure>\n"
      "   <Remark>The first plate of this page was sent back: the colours stood half a dot apart,\n"
      "and the gripper edge was two millimetres short. This one has been measured again, by hand,\n"
      "before the job was released; should it come back, ask for the densities of the last three\n"
      "plates, and for the temperature of the room.</Remark>\n"
      "  </Page>\n"
      "  <History>2006-11-04 02:17:09 created by ripstation-%d; 02:17:41 checked; 02:18:00 put in\n"
      "the queue behind job %d</History>\n"
      " </Job>\n",
      number, number, number, number % 200, number % 10, number % 7, number - 1);
  return std::string(text, static_cast<std::size_t>(length));
}

/// The document as a file, removed at the end of the program.
struct Document {
  Document() {
    std::ofstream out(path, std::ios::binary);
    out << "<Jobs Version=\"3\">\n";
    for (int i = 0; i < kJobs; ++i) out << job(i);
    out << "</Jobs>\n";
  }
  ~Document() {
    std::filesystem::remove(path);
    std::filesystem::remove(saved);
  }
  const std::string path =
      std::filesystem::temp_directory_path() / ("xml_bench." + std::to_string(getpid()));
  const std::string saved = path + ".saved";
};
const Document document;

void require(bool success) {
  if (!success) std::abort();
}

double megabytesInUse() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd) / 1e6;
}

void countBytes(benchmark::State& state) {
  state.SetBytesProcessed(state.iterations() *
                          static_cast<std::int64_t>(std::filesystem::file_size(document.path)));
}

// --- reading ------------------------------------------------------------------------------------

void BM_Load(benchmark::State& state) {
  const auto load = [](QMXmlC& root) {
    require(root.Load(document.path.c_str()) == QMErrors::NoError);
  };
  for (auto _ : state) {
    QMXmlC root(nullptr, 0, nullptr);
    load(root);
  }
  countBytes(state);
  const double before = megabytesInUse();
  QMXmlC root(nullptr, 0, nullptr);
  load(root);
  state.counters["treeMB"] = megabytesInUse() - before;
}
BENCHMARK(BM_Load)->Unit(benchmark::kMillisecond);

void BM_FromStringStream(benchmark::State& state) {
  std::ostringstream content;
  content << std::ifstream(document.path, std::ios::binary).rdbuf();
  std::istringstream is(content.str());
  for (auto _ : state) {
    is.seekg(0);
    QMXmlC root(nullptr, 0, nullptr);
    require(root.FromStream(is) == QMErrors::NoError);
  }
  countBytes(state);
}
BENCHMARK(BM_FromStringStream)->Unit(benchmark::kMillisecond);

void parse(tinyxml2::XMLDocument& tree) {
  std::FILE* file = std::fopen(document.path.c_str(), "rb");
  std::string content(std::filesystem::file_size(document.path), '\0');
  require(std::fread(content.data(), 1, content.size(), file) == content.size());
  std::fclose(file);
  require(tree.Parse(content.data(), content.size()) == tinyxml2::XML_SUCCESS);
}

void BM_PeerLoad(benchmark::State& state) {
  for (auto _ : state) {
    tinyxml2::XMLDocument tree;
    parse(tree);
  }
  countBytes(state);
  const double before = megabytesInUse();
  tinyxml2::XMLDocument tree;
  parse(tree);
  state.counters["treeMB"] = megabytesInUse() - before;
}
BENCHMARK(BM_PeerLoad)->Unit(benchmark::kMillisecond);

// --- writing ------------------------------------------------------------------------------------

struct Tree : QMXmlC {
  Tree() : QMXmlC(nullptr, 0, nullptr) {
    require(Load(document.path.c_str()) == QMErrors::NoError);
  }
};

void BM_ToStringStream(benchmark::State& state) {
  const Tree tree;
  for (auto _ : state) {
    std::ostringstream os;
    require(tree.ToStream(os, 0) == QMErrors::NoError);
  }
  countBytes(state);
}
BENCHMARK(BM_ToStringStream)->Unit(benchmark::kMillisecond);

/// Without the cost of a memory that grows.
void BM_ToReadyMemory(benchmark::State& state) {
  const Tree tree;
  std::ostringstream os;
  for (auto _ : state) {
    os.seekp(0);
    require(tree.ToStream(os, 0) == QMErrors::NoError);
  }
  countBytes(state);
}
BENCHMARK(BM_ToReadyMemory)->Unit(benchmark::kMillisecond);

void BM_ToFileStream(benchmark::State& state) {
  const Tree tree;
  for (auto _ : state) {
    std::ofstream os(document.saved, std::ios::binary);
    require(tree.ToStream(os, 0) == QMErrors::NoError);
  }
  countBytes(state);
}
BENCHMARK(BM_ToFileStream)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Save(benchmark::State& state) {
  const Tree tree;
  for (auto _ : state) require(tree.Save(document.saved.c_str()) == QMErrors::NoError);
  countBytes(state);
}
BENCHMARK(BM_Save)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_PeerPrinter(benchmark::State& state) {
  tinyxml2::XMLDocument tree;
  parse(tree);
  for (auto _ : state) {
    tinyxml2::XMLPrinter printer;
    tree.Print(&printer);
    benchmark::DoNotOptimize(printer.CStr());
  }
  countBytes(state);
}
BENCHMARK(BM_PeerPrinter)->Unit(benchmark::kMillisecond);

void BM_PeerSaveFile(benchmark::State& state) {
  tinyxml2::XMLDocument tree;
  parse(tree);
  for (auto _ : state) {
    require(tree.SaveFile(document.saved.c_str()) == tinyxml2::XML_SUCCESS);
  }
  countBytes(state);
}
BENCHMARK(BM_PeerSaveFile)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
