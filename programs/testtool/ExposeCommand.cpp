#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "programs/testtool/Command.h"
#include "programs/testtool/ConsoleImager.h"
#include "programs/testtool/ProgressBar.h"
#include "qmutils/app/CQMAppUtils.h"
#include "qmutils/comms/SvComms.h"
#include "qmutils/foundation/QMErrorC.h"
#include "qmutils/foundation/QMLogFileC.h"
#include "qmutils/platform/program.h"

namespace programs {
namespace {

namespace fs = std::filesystem;

struct Options {
  std::string imager;
  std::string output = ".";  // a folder, absolute once parsed
  std::string logFile;
  std::vector<std::pair<std::string, std::string>> settings;  // of the profile
  std::vector<fs::path> pages;
};

/// Options that are settings of the profile, and what their values may be.
struct SettingOption {
  const char* option;
  const char* key;
  double low;
  double high;
  bool whole;
};

constexpr SettingOption kSettingOptions[] = {
    {"--drum-width", "DrumWidthMM", 1, 5000, false},
    {"--drum-height", "DrumHeightMM", 1, 5000, false},
    {"--resolution", "ResolutionDPI", 10, 25400, false},
    {"--left", "PageLeftMM", 0, 5000, false},
    {"--top", "PageTopMM", 0, 5000, false},
    {"--clip-left", "FastLeadingPixels", 0, 1e6, true},
    {"--clip-right", "FastTrailingPixels", 0, 1e6, true},
    {"--clip-top", "SlowLeadingLines", 0, 1e6, true},
    {"--clip-bottom", "SlowTrailingLines", 0, 1e6, true},
    {"--clip-color", "ClipColor", 0, 1, true},
    {"--speed", "LinesPerSecond", 0, 1e9, true},
};

/// Of an option that is given twice the last one counts.
void set(Options& options, const std::string& key, const std::string& value) {
  for (auto& [present, its] : options.settings) {
    if (present == key) {
      its = value;
      return;
    }
  }
  options.settings.emplace_back(key, value);
}

/// Tries an option as a setting: 0 it is none, 1 taken, -1 its value is bad.
int takeSetting(const std::string& option, const Arguments& arguments, std::size_t& index,
                Options& options) {
  for (const SettingOption& setting : kSettingOptions) {
    if (option != setting.option) continue;
    std::string value;
    double number = 0;
    if (!takeValue(arguments, index, value) ||
        !parseNumber(value, setting.low, setting.high, number) ||
        (setting.whole && value.find_first_not_of("0123456789") != std::string::npos)) {
      return -1;
    }
    set(options, setting.key, value);
    if (option.starts_with("--clip-")) set(options, "EnableClipping", "1");
    return 1;
  }
  return 0;
}

/// Names are handed to the imager in quotes, the folder as a setting among others.
int checkNames(Options& options) {
  if (options.pages.empty()) return usageError(kExposeCommand, "no page given");
  for (const fs::path& page : options.pages) {
    if (page.empty() || page.string().find_first_of("\"\r\n") != std::string::npos) {
      return usageError(kExposeCommand, "a page's name must not be empty or contain '\"'");
    }
  }
  options.output = toPath(options.output).string();
  if (options.output.empty() || options.output.find_first_of("\";\r\n") != std::string::npos) {
    return usageError(kExposeCommand,
                      "the output folder's name must not be empty or contain '\"' or ';'");
  }
  // The value of a setting is taken without the blanks around it.
  if (options.output.find_last_not_of(" \t") + 1 != options.output.size()) {
    return usageError(kExposeCommand, "the output folder's name must not end with a blank");
  }
  return kSuccess;
}

/// kSuccess, or the status to end with.
int parseOptions(const Arguments& arguments, Options& options) {
  bool onlyPages = false;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (onlyPages) {
      options.pages.push_back(toPath(argument));
      continue;
    }
    const int setting = takeSetting(argument, arguments, i, options);
    if (setting < 0) return usageError(kExposeCommand, "bad value for " + argument);
    if (setting > 0) continue;
    std::string value;
    if (argument == "--output" || argument == "--imager" || argument == "--log") {
      if (!takeValue(arguments, i, value))
        return usageError(kExposeCommand, argument + " wants a value");
      if (argument == "--output") options.output = value;
      if (argument == "--imager") options.imager = value;
      if (argument == "--log") options.logFile = value;
    } else if (argument == "--") {
      onlyPages = true;
    } else if (argument.starts_with("-")) {
      return usageError(kExposeCommand, "unknown option '" + argument + "'");
    } else {
      options.pages.push_back(toPath(argument));
    }
  }
  return checkNames(options);
}

/// The imager of this installation, as a command line wants it.
std::string imagerCommand(const Options& options) {
  if (!options.imager.empty()) return options.imager;
  CString folder;
  if (CQMAppUtils::GetModulePath(folder, true) != QMErrors::NoError) return "imager";
  std::string command = "\"";
  command.append(folder.view()).append("/imager\"");
  return command;
}

void printErrorStack() {
  if (QMErrorC::IsEmpty()) return;
  const std::unique_ptr<char[]> story(QMErrorC::GetStack()->ToString(false, true));
  if (story != nullptr) std::fputs(story.get(), stderr);
}

/// Exposes one page and follows it to its end.
int exposePage(ConsoleImager& imager, const fs::path& page, unsigned job, const fs::path& output) {
  ProgressBar bar(stdout, page.filename().string());
  std::ostringstream jobLine;
  std::ostringstream imageControl;
  const QMErrors::QMErrorT started =
      imager.StartExpose(ICFC::ExposeInfoC(page.string().c_str(), job), jobLine, imageControl);
  if (started != QMErrors::NoError) {
    bar.finish(QMErrToStr(started));
    return kFailure;
  }
  for (;;) {
    const JobState state = imager.await(job, std::chrono::milliseconds(100));
    if (!state.error.empty()) {
      bar.finish(state.error);
      return kFailure;
    }
    if (!state.picture.empty()) {
      if (state.total != 0) bar.show(state.total, state.total);
      const fs::path plate = output / state.picture;
      const std::string preview = plate.stem().string() + "-preview.png";
      bar.finish("done: " + plate.string());
      std::printf("  to look at: %s\n", (output / preview).string().c_str());
      return kSuccess;
    }
    if (imager.isLost()) {
      bar.finish(QMErrToStr(QMErrors::ImagerHasDied));
      return kFailure;
    }
    if (qm::platform::interrupted()) {
      bar.finish("stopped");
      return kInterrupted;
    }
    if (state.total != 0) bar.show(state.done, state.total);
  }
}

/// Identifiers in the pool that hardly any other pair of programs has.
unsigned short freshId() {
  const auto ticks = std::chrono::steady_clock::now().time_since_epoch().count();
  return static_cast<unsigned short>(1000 + ticks / 1000 % 30000 * 2);
}

/// Ctrl-C ends the wait for an imager that does not come up.
QMErrors::QMErrorT startImager(ConsoleImager& imager, CTPImagerUserC::ImagerStartDataC& data) {
  const std::jthread watcher([&imager](const std::stop_token& started) {
    while (!started.stop_requested()) {
      if (qm::platform::interrupted() && imager.IsAlive()) (void)imager.stop();
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });
  return imager.StartImager(data);
}

int exposeAll(const Options& options) {
  ConsoleImager imager(imagerCommand(options));
  const unsigned short id = freshId();
  std::string profile = "Default;OutputFolder=" + options.output;
  for (const auto& [key, value] : options.settings) profile += ";" + key + "=" + value;
  CTPImagerUserC::ImagerStartDataC data("", profile.c_str(), id,
                                        static_cast<unsigned short>(id + 1), 0);
  int status = kSuccess;
  const QMErrors::QMErrorT started = startImager(imager, data);
  if (qm::platform::interrupted()) {
    std::fputs("testtool expose: stopped before the first page\n", stderr);
    status = kInterrupted;
  } else if (started != QMErrors::NoError) {
    std::fprintf(stderr, "testtool expose: the imager does not start: %s\n", QMErrToStr(started));
    if (started == QMErrors::ResourceAllocationFailed) {
      std::fprintf(stderr, "testtool expose: the pool cannot be joined: %s\n",
                   QMErrToStr(QMErrors::fromOsError(SvGetCommsOSError())));
    }
    status = kFailure;
  }
  for (std::size_t i = 0; i < options.pages.size() && started == QMErrors::NoError; ++i) {
    if (qm::platform::interrupted()) status = kInterrupted;
    if (status == kInterrupted || imager.isLost()) {
      std::printf("%s  not exposed\n", options.pages[i].filename().string().c_str());
      if (status == kSuccess) status = kFailure;
      continue;
    }
    const int result =
        exposePage(imager, options.pages[i], static_cast<unsigned>(i + 1), options.output);
    if (result != kSuccess) status = result;
  }
  const QMErrors::QMErrorT stopped = imager.StopImager();
  if (stopped != QMErrors::NoError && status == kSuccess) status = kFailure;
  if (status == kFailure) printErrorStack();
  return status;
}

int run(const Arguments& arguments) {
  Options options;
  const int parsed = parseOptions(arguments, options);
  if (parsed != kSuccess) return parsed;
  std::error_code error;
  fs::create_directories(options.output, error);
  if (error) {
    std::fprintf(stderr, "testtool expose: cannot make %s: %s\n", options.output.c_str(),
                 error.message().c_str());
    return kFailure;
  }
  const std::string logFile =
      options.logFile.empty() ? options.output + "/testtool.log" : options.logFile;
  const QMLogFileC log(logFile.c_str(), false, false, false);
  QMLogStreamC(QMLogFileC::DebugOut, QMLogFileC::SetLogName, QMLogFileC::SetDebugLevel,
               QMLogFileC::GetDebugLevel);
  QMLogFileC::SetDebugLevel(2);
  qm::platform::noteInterrupts();
  return exposeAll(options);
}

}  // namespace

const Command kExposeCommand = {
    "expose", "expose pages on the imager",
    "usage: testtool expose [OPTIONS] PAGE.tif...\n"
    "Launches the imager, exposes each page (a 1-bit TIFF) on its drum, shows how far it is, and\n"
    "stops the imager. The plates are written as PNG pictures. Ctrl-C stops in an orderly way.\n"
    "  --output DIR        folder for pictures and log (the current one)\n"
    "  --drum-width MM     size of the drum along a line (230)\n"
    "  --drum-height MM    and across the lines (320)\n"
    "  --resolution DPI    what the drum runs at (that of the page)\n"
    "  --left MM, --top MM place of the page on the drum (centred)\n"
    "  --clip-left PIXELS, --clip-right PIXELS, --clip-top LINES, --clip-bottom LINES\n"
    "                      margins of the drum that carry no image\n"
    "  --clip-color 0|1    what they carry instead: 0 nothing, 1 burnt (0)\n"
    "  --speed LINES       lines a second (0: as fast as possible)\n"
    "  --imager COMMAND    the imager program (the one beside this program)\n"
    "  --log FILE          log file (testtool.log in the output folder)\n"
    "  --                  only names of pages follow\n"
    "Exit status: 0 all pages exposed, 1 a page or the imager failed, 2 bad command line,\n"
    "130 stopped by Ctrl-C.\n",
    run};

}  // namespace programs
