#include "qmutils/platform/chooser.h"

#include <atomic>
#include <optional>
#include <string_view>
#include <vector>

#include "qmutils/platform/file.h"
#include "qmutils/platform/posix/dialog_program.h"

namespace qm::platform {

namespace {

using posix::ProgramResult;

std::atomic<ChooserHook> installedHook{nullptr};

std::vector<std::string> linesOf(std::string_view text) {
  std::vector<std::string> lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    if (end > 0) lines.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

/// The printers that the print service knows; none where there is no print service.
std::vector<std::string> printers() {
  const std::string program = posix::findProgram("lpstat");
  if (program.empty()) return {};
  const std::optional<ProgramResult> result = posix::runProgram(program, {"-e"}, true);
  return result && result->status == 0 ? linesOf(result->output) : std::vector<std::string>();
}

std::vector<std::string> argumentsFor(const ChooserRequest& request) {
  std::vector<std::string> arguments = {std::string("--title=") + request.title};
  switch (request.kind) {
    case ChooserRequest::Folder:
    case ChooserRequest::File:
      arguments.push_back("--file-selection");
      if (request.kind == ChooserRequest::Folder) arguments.push_back("--directory");
      // With a separator behind it, it is the folder to begin in.
      if (*request.start != '\0') {
        arguments.push_back("--filename=" + nativePath(request.start) + "/");
      }
      break;
    case ChooserRequest::Computer:
      arguments.push_back("--entry");
      arguments.push_back("--text=Computer");
      break;
    case ChooserRequest::Printer:
      const std::vector<std::string> names = printers();
      if (names.empty()) {
        arguments.push_back("--entry");
        arguments.push_back("--text=Printer");
        break;
      }
      arguments.push_back("--list");
      arguments.push_back("--column=Printer");
      arguments.insert(arguments.end(), names.begin(), names.end());
      break;
  }
  return arguments;
}

/// The dialog program ends alike when the operator cancels and when its display does not answer.
bool hadNoDisplay(const ProgramResult& result) {
  return result.errors.find("open display") != std::string::npos;
}

}  // namespace

ChooserHook setChooserHook(ChooserHook hook) noexcept { return installedHook.exchange(hook); }

DWORD choose(const ChooserRequest& request, std::string& choice) {
  if (const ChooserHook hook = installedHook.load()) return hook(request, choice);
  const std::string program = posix::findDialogProgram();
  if (program.empty()) return ERROR_NOT_SUPPORTED;
  const std::optional<ProgramResult> result =
      posix::runProgram(program, argumentsFor(request), true);
  if (!result || hadNoDisplay(*result)) return ERROR_NOT_SUPPORTED;
  if (result->status == 1) return ERROR_CANCELLED;
  if (result->status != 0) return ERROR_GEN_FAILURE;
  std::string_view chosen = result->output;
  if (chosen.ends_with('\n')) chosen.remove_suffix(1);
  if (chosen.empty()) return ERROR_CANCELLED;
  choice = chosen;
  return 0;
}

}  // namespace qm::platform
