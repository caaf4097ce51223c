// Any command line into the splitting rules, and any job line into the imager's reader.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "programs/imager/JobDescription.h"
#include "qmutils/platform/posix/command_line.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::size_t characters = 0;
  for (const std::string& argument : qm::platform::posix::splitArguments(text)) {
    characters += argument.size();
  }
  if (characters > size) std::abort();  // nothing is invented
  for (const auto& reading : qm::platform::posix::readCommand(text)) {
    if (reading.program.size() + reading.rest.size() > size) std::abort();
  }
  programs::JobDescription job;
  std::string icf;
  (void)programs::parseJobLine(std::string(text), job, icf);
  return 0;
}
