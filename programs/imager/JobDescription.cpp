#include "programs/imager/JobDescription.h"

#include <charconv>
#include <cmath>
#include <filesystem>
#include <system_error>
#include <variant>
#include <vector>

#include "qmutils/data/QMXmlC.h"
#include "qmutils/foundation/QMFileUtilsC.h"
#include "qmutils/foundation/QMTextFile.h"
#include "qmutils/imager/ICFC.h"
#include "qmutils/platform/file.h"

namespace programs {
namespace {

/// Words separated by blanks; double quotes hold one together and may stand empty.
std::vector<std::string> words(const std::string& line) {
  std::vector<std::string> result;
  bool quoted = false;
  bool inWord = false;
  for (char c : line) {
    if (c == '\r' || c == '\n') break;
    if (c == '"') {
      quoted = !quoted;
      if (!inWord) result.emplace_back();
      inWord = true;
    } else if (c == ' ' && !quoted) {
      inWord = false;
    } else {
      if (!inWord) result.emplace_back();
      inWord = true;
      result.back() += c;
    }
  }
  return result;
}

template <class Number>
bool parse(const char* text, Number& number) {
  const char* const end = text + std::char_traits<char>::length(text);
  Number value{};
  const auto [rest, error] = std::from_chars(text, end, value);
  if (error != std::errc() || rest != end || !std::isfinite(static_cast<double>(value))) {
    return false;
  }
  number = value;
  return true;
}

bool parse(const char* text, bool& flag) {
  unsigned value = 0;
  if (!parse(text, value) || value > 1) return false;
  flag = value == 1;
  return true;
}

/// The settings by their names in the profile element.
struct Setting {
  const char* name;
  std::variant<double DrumSettings::*, unsigned DrumSettings::*, bool DrumSettings::*> member;
};

constexpr Setting kSettings[] = {
    {"DrumWidthMM", &DrumSettings::widthMm},
    {"DrumHeightMM", &DrumSettings::heightMm},
    {"ResolutionDPI", &DrumSettings::resolutionDpi},
    {"PageLeftMM", &DrumSettings::leftMm},
    {"PageTopMM", &DrumSettings::topMm},
    {"EnableClipping", &DrumSettings::clips},
    {"ClipColor", &DrumSettings::clippedIsExposed},
    {"FastLeadingPixels", &DrumSettings::fastLeadingPixels},
    {"FastTrailingPixels", &DrumSettings::fastTrailingPixels},
    {"SlowLeadingLines", &DrumSettings::slowLeadingLines},
    {"SlowTrailingLines", &DrumSettings::slowTrailingLines},
    {"LinesPerSecond", &DrumSettings::linesPerSecond},
};

bool apply(const Setting& setting, const char* value, DrumSettings& drum) {
  return std::visit([&](auto member) { return parse(value, drum.*member); }, setting.member);
}

/// Whether the drum can be laid out at all; what fits on it is seen with the page.
bool isSound(const DrumSettings& drum) {
  constexpr double kMostMm = 10000;
  return drum.widthMm > 0 && drum.widthMm < kMostMm && drum.heightMm > 0 &&
         drum.heightMm < kMostMm && drum.leftMm < kMostMm && drum.topMm < kMostMm &&
         drum.resolutionDpi >= 0 && drum.resolutionDpi <= 25400;
}

/// Neither a device nor a pipe, which might have no end or keep us waiting.
bool isRegularFile(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::is_regular_file(qm::platform::nativePath(path.c_str()), ignored);
}

bool readLine(const std::string& path, std::string& line) {
  if (!isRegularFile(path)) return false;
  int unicode = 0;
  std::FILE* file = FOpen(path.c_str(), "r", &unicode);
  if (file == nullptr) return false;
  char text[16384] = "";  // two paths of the greatest length
  const bool read = FGets(text, sizeof text, file, unicode) != nullptr;
  std::fclose(file);
  line = text;
  return read;
}

}  // namespace

Failure parseJobLine(const std::string& line, JobDescription& job, std::string& icfPath) {
  const Failure malformed{QMErrors::BadCommandLineArguments, "malformed job line: " + line, ""};
  const std::vector<std::string> parts = words(line);
  if (parts.size() % 2 != 0) return malformed;
  bool numbered = false;
  for (std::size_t i = 0; i < parts.size(); i += 2) {
    if (parts[i] == "-jobid") {
      numbered = parse(parts[i + 1].c_str(), job.number);
    } else if (parts[i] == "-fl") {
      job.page = parts[i + 1];
    } else if (parts[i] == "-pr") {
      icfPath = parts[i + 1];
    } else {
      return malformed;
    }
  }
  return numbered && !job.page.empty() && !icfPath.empty() ? Failure{} : malformed;
}

Failure readImageControl(const std::string& path, JobDescription& job, bool* recognised) {
  *recognised = false;
  const auto malformed = [&](const std::string& reason) {
    return Failure{QMErrors::BadMissingMalformedICFFile, reason, path};
  };
  QMXmlC root(nullptr, 0, nullptr);
  if (!isRegularFile(path) || root.Load(path.c_str()) != QMErrors::NoError) {
    return malformed("cannot read image control");
  }
  if (root.Find(ICFC::kRootName, 0, nullptr) == nullptr) return malformed("not image control");
  *recognised = true;
  const QMXmlC* profile = root.Find("Profile", 1, nullptr);
  if (profile == nullptr) return malformed("image control without a profile");
  for (const Setting& setting : kSettings) {
    const char* value = profile->GetProperty(setting.name);
    if (value != nullptr && !apply(setting, value, job.drum)) {
      return malformed(std::string("bad setting ") + setting.name + " = " + value);
    }
  }
  if (const char* folder = profile->GetProperty("OutputFolder")) job.outputFolder = folder;
  return isSound(job.drum) ? Failure{}
                           : malformed("the drum's size, place or resolution is out of range");
}

Failure readJob(const std::string& jobFile, JobDescription& job) {
  std::string line;
  if (!readLine(jobFile, line)) {
    return {QMErrors::FailedToReadFile, "cannot read the job file", jobFile};
  }
  std::string icfPath;
  Failure failure = parseJobLine(line, job, icfPath);
  if (failure) {
    failure.file = jobFile;
    return failure;
  }
  QMFileUtilsC::DeleteFileA(jobFile.c_str(), 1);
  bool recognised = false;
  failure = readImageControl(icfPath, job, &recognised);
  if (recognised) QMFileUtilsC::DeleteFileA(icfPath.c_str(), 0);
  return failure;
}

}  // namespace programs
