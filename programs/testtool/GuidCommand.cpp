#include <cstdio>
#include <iostream>
#include <string>

#include "programs/testtool/Command.h"
#include "qmutils/data/GuidC.h"

namespace programs {
namespace {

/// The result of an operation that has given a GUID or failed; the library logs why.
int print(const GuidC& guid, QMErrors::QMErrorT result, bool braces) {
  if (result == QMErrors::NoError) result = guid.ToString(std::cout, braces);
  if (result != QMErrors::NoError) {
    std::fprintf(stderr, "testtool guid: %s\n", QMErrToStr(result));
    return kFailure;
  }
  std::cout << '\n' << std::flush;
  return std::cout ? kSuccess : kFailure;
}

int run(const Arguments& arguments) {
  std::string action, text;
  bool braces = false;
  for (const std::string& argument : arguments) {
    if (argument == "--braces") {
      braces = true;
    } else if (action.empty()) {
      action = argument;
    } else if (action == "parse" && text.empty()) {
      text = argument;
    } else {
      return usageError(kGuidCommand, "unknown argument '" + argument + "'");
    }
  }
  GuidC guid;
  if (action == "new") return print(guid, guid.CreateGUID(), braces);
  if (action == "parse" && !text.empty()) return print(guid, guid.FromString(text.c_str()), braces);
  return usageError(kGuidCommand, "give new, or parse and a text");
}

}  // namespace

const Command kGuidCommand = {
    "guid", "make a GUID, or read one",
    "usage: testtool guid new | parse TEXT [--braces]\n"
    "  new          print a new random GUID\n"
    "  parse TEXT   read a GUID in any case, with or without braces, and print its usual form\n"
    "  --braces     print it in braces\n",
    run};

}  // namespace programs
