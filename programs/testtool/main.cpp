// The test tool: the library on the command line.
#include <cstdio>
#include <cstring>

#include "programs/testtool/Command.h"

namespace {

using namespace programs;

const Command* const kCommands[] = {&kExposeCommand, &kErrorCommand, &kPoolCommand, &kLogCommand};

void printUsage(std::FILE* out) {
  std::fputs("usage: testtool COMMAND [ARGUMENTS]\n\nCommands:\n", out);
  for (const Command* command : kCommands) {
    std::fprintf(out, "  %-8s %s\n", command->name, command->summary);
  }
  std::fputs("\n'testtool COMMAND --help' tells about one of them.\n", out);
}

bool isHelp(const std::string& argument) { return argument == "--help" || argument == "-h"; }

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    printUsage(stderr);
    return kUsageError;
  }
  if (isHelp(argv[1])) {
    printUsage(stdout);
    return kSuccess;
  }
  for (const Command* command : kCommands) {
    if (std::strcmp(command->name, argv[1]) != 0) continue;
    const Arguments arguments(argv + 2, argv + argc);
    for (const std::string& argument : arguments) {
      if (argument == "--") break;
      if (isHelp(argument)) {
        std::fputs(command->help, stdout);
        return kSuccess;
      }
    }
    return command->run(arguments);
  }
  std::fprintf(stderr, "testtool: there is no command '%s'\n", argv[1]);
  printUsage(stderr);
  return kUsageError;
}
