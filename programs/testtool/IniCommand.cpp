#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "programs/testtool/Command.h"
#include "qmutils/config/QMIniFileC.h"
#include "qmutils/data/QMGUIDEncryptC.h"
#include "qmutils/platform/types.h"

namespace programs {
namespace {

using QMErrors::QMErrorT;

struct Request {
  std::vector<std::string> words;  ///< action, file, and what the action wants
  std::string defaultText;
  bool hasDefault = false;
};

/// Empty, or what is wrong with the command line.
std::string parse(const Arguments& arguments, Request& request) {
  bool optionsEnded = false;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (optionsEnded || !argument.starts_with("--")) {
      request.words.push_back(argument);
    } else if (argument == "--") {
      optionsEnded = true;
    } else if (argument == "--default") {
      request.hasDefault = true;
      if (!takeValue(arguments, i, request.defaultText)) return "--default wants a text";
    } else {
      return "unknown argument '" + argument + "'";
    }
  }
  const std::size_t count = request.words.size();
  const std::string action = count > 0 ? request.words[0] : "";
  const bool good = (action == "get" && count == 4) ||
                    (action == "set" && count == 5 && !request.hasDefault) ||
                    (action == "list" && (count == 2 || count == 3) && !request.hasDefault);
  if (!good) return "give get, set or list, a file, and what they want";
  return request.words[1].empty() ? "no file given" : "";
}

int complain(const std::string& complaint) {
  std::fprintf(stderr, "testtool ini: %s\n", complaint.c_str());
  return kFailure;
}

int report(QMErrorT result) {
  return result == QMErrors::NoError ? kSuccess : complain(explained(result));
}

bool isUtf16(const std::string& text) {
  return text.starts_with("\xFF\xFE") || text.starts_with("\xFE\xFF");
}

/// Empty, or why the file will not do. Encoded files begin with a marker; one whose marker is
/// damaged must not be written to as if it were plain.
std::string inspect(const std::string& file, bool toSet, bool& isEncoded) {
  const std::filesystem::path path = toPath(file);
  std::error_code error;
  const std::filesystem::file_status status = std::filesystem::status(path, error);
  if (status.type() == std::filesystem::file_type::not_found) {
    return toSet ? "" : "there is no such file";
  }
  if (status.type() == std::filesystem::file_type::none) return error.message();
  if (!is_regular_file(status)) return "this is no regular file";
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::generic_category().message(errno);
  const std::string text(std::istreambuf_iterator<char>(in), {});
  std::ostringstream marker;
  marker << QMGUIDEncryptC::PRIVATE_GUID;
  isEncoded = CString(text.substr(0, marker.str().size())).CompareNoCase(marker.str().c_str()) == 0;
  if (isEncoded) return "";
  const bool isText = isUtf16(text) || std::ranges::none_of(text, isControl);
  if (!text.starts_with('{') && (isText || !toSet)) return "";
  return "this is no settings file, or a damaged encoded one";
}

/// `*found` is false when there is no such key.
QMErrorT read(QMIniFileC& file, const std::string& section, const std::string& key, bool* found,
              CString& value) {
  const CString noValue("\n");  // as no value has a line end
  value.Empty();
  const QMErrorT result = file.Read(section.c_str(), key.c_str(), &noValue, value);
  *found = value != noValue;
  return result;
}

int get(QMIniFileC& file, const Request& request) {
  const std::string &section = request.words[2], &key = request.words[3];
  bool found = false;
  CString value;
  const QMErrorT result = read(file, section, key, &found, value);
  if (result != QMErrors::NoError) return report(result);
  if (!found && !request.hasDefault) {
    return complain("there is no key '" + key + "' in section '" + section + "'");
  }
  std::puts(shownText(found ? value.view() : request.defaultText).c_str());
  return kSuccess;
}

int set(QMIniFileC& file, const Request& request) {
  for (std::size_t i = 2; i < request.words.size(); ++i) {
    if (std::ranges::any_of(request.words[i], isControl)) {
      return complain("no section, key or value has control characters");
    }
  }
  QMErrorT result =
      file.Write(request.words[2].c_str(), request.words[3].c_str(), request.words[4].c_str());
  if (result == QMErrors::FailedToWriteToFile &&
      QMErrors::lastOsError() == QMErrors::fromOsError(ERROR_INVALID_PARAMETER)) {
    return complain(
        "this could not be read back: no name or value has a line end, no key a '=' or a ';' or '['"
        " at its beginning");
  }
  if (result == QMErrors::NoError) result = file.Save();
  return report(result);
}

int list(QMIniFileC& file, const Request& request) {
  const bool all = request.words.size() == 2;
  std::vector<QMIniFileC::SectionS> sections;
  const QMErrorT result = file.List(all ? nullptr : request.words[2].c_str(), sections);
  for (const auto& [name, values] : sections) {
    if (all && !name.IsEmpty()) std::printf("[%s]\n", shownText(name.view()).c_str());
    for (const auto& [key, value] : values) {
      std::printf("%s=%s\n", shownText(key.view()).c_str(), shownText(value.view()).c_str());
    }
  }
  return report(result);
}

int run(const Arguments& arguments) {
  Request request;
  const std::string complaint = parse(arguments, request);
  if (!complaint.empty()) return usageError(kIniCommand, complaint);
  const std::string &action = request.words[0], &name = request.words[1];
  bool isEncoded = false;
  const std::string problem = inspect(name, action == "set", isEncoded);
  if (!problem.empty()) return complain(name + ": " + problem);
  QMIniFileC file(name.c_str(), isEncoded);
  if (action == "get") return get(file, request);
  if (action == "set") return set(file, request);
  return list(file, request);
}

}  // namespace

const Command kIniCommand = {
    "ini", "read and set values of a settings file",
    "usage: testtool ini get FILE SECTION KEY [--default TEXT]\n"
    "       testtool ini set FILE SECTION KEY VALUE\n"
    "       testtool ini list FILE [SECTION]\n"
    "A settings file has [sections] and key=value lines; keys before any section belong to the\n"
    "section ''. A file that 'testtool encode' has made is recognised, decoded, and encoded again\n"
    "when a value was set; everything else is a plain file.\n"
    "  get    print the value; without a default, a missing key is a failure\n"
    "  set    set the value; makes a plain file, section or key that is missing\n"
    "  list   print the keys and values of one section, or of all\n"
    "A '--' before them lets names and values begin with '--'.\n",
    run};

}  // namespace programs
