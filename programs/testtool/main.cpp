// The test tool: the library on the command line.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "programs/testtool/Command.h"
#include "qmutils/platform/program.h"

namespace {

using namespace programs;

const Command* const kCommands[] = {
    &kExposeCommand, &kErrorCommand,   &kPoolCommand,    &kLogCommand,     &kValueCommand,
    &kXmlCommand,    &kGuidCommand,    &kEncodeCommand,  &kDecodeCommand,  &kPrefsCommand,
    &kIniCommand,    &kConfigCommand,  &kHistoryCommand, &kVersionCommand, &kSerialCommand,
    &kServeCommand,  &kConnectCommand, &kPrintCommand,   &kPlayCommand,    &kBeepCommand,
};

void printUsage(std::FILE* out) {
  std::fputs("usage: testtool COMMAND [ARGUMENTS]\n\nCommands:\n", out);
  for (const Command* command : kCommands) {
    std::fprintf(out, "  %-8s %s\n", command->name, command->summary);
  }
  std::fputs("\n'testtool COMMAND --help' tells about one of them.\n", out);
}

bool isHelp(const std::string& argument) { return argument == "--help" || argument == "-h"; }

/// The status of a command, or failure when its output did not get where it was to go.
int outputWritten(int status) {
  // An interrupted write: whoever was to read stands still, and would keep us at our end as well.
  if (qm::platform::interrupted() && std::ferror(stdout) != 0) std::_Exit(status);
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
  std::fputs("testtool: the output could not be written\n", stderr);
  return status == kSuccess ? kFailure : status;
}

/// The status of the command; no memory, or no thread to be had, is a failure like others.
int runCommand(const Command& command, const Arguments& arguments) try {
  return command.run(arguments);
} catch (const std::exception& exception) {
  std::fprintf(stderr, "testtool %s: %s\n", command.name, exception.what());
  return kFailure;
}

}  // namespace

int main(int argc, char** argv) {
  qm::platform::beginProgram();
  if (argc < 2) {
    printUsage(stderr);
    return kUsageError;
  }
  if (isHelp(argv[1])) {
    printUsage(stdout);
    return outputWritten(kSuccess);
  }
  for (const Command* command : kCommands) {
    if (std::strcmp(command->name, argv[1]) != 0) continue;
    const Arguments arguments(argv + 2, argv + argc);
    for (const std::string& argument : arguments) {
      if (argument == "--") break;
      if (isHelp(argument)) {
        std::fputs(command->help, stdout);
        return outputWritten(kSuccess);
      }
    }
    return outputWritten(runCommand(*command, arguments));
  }
  std::fprintf(stderr, "testtool: there is no command '%s'\n", argv[1]);
  printUsage(stderr);
  return kUsageError;
}
