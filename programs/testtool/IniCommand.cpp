#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "programs/testtool/Command.h"
#include "qmutils/config/QMIniFileC.h"
#include "qmutils/data/QMGUIDEncryptC.h"

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
  return good ? "" : "give get, set or list, a file, and what they want";
}

int complain(const std::string& complaint) {
  std::fprintf(stderr, "testtool ini: %s\n", complaint.c_str());
  return kFailure;
}

int report(QMErrorT result) {
  return result == QMErrors::NoError ? kSuccess : complain(QMErrToStr(result));
}

enum class Form { Missing, Unreadable, Plain, Encoded };

/// Encoded files begin with a marker.
Form formOf(const std::string& file) {
  const std::filesystem::path path = toPath(file);
  std::error_code error;
  if (!std::filesystem::exists(path, error)) return error ? Form::Unreadable : Form::Missing;
  std::ifstream in(path, std::ios::binary);
  if (!in || !std::filesystem::is_regular_file(path, error)) return Form::Unreadable;
  std::ostringstream marker;
  marker << QMGUIDEncryptC::PRIVATE_GUID;
  std::string head(marker.str().size(), '\0');
  in.read(head.data(), static_cast<std::streamsize>(head.size()));
  std::ranges::transform(head, head.begin(), [](unsigned char c) { return std::tolower(c); });
  return head == marker.str() ? Form::Encoded : Form::Plain;
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
  std::puts(found ? static_cast<const char*>(value) : request.defaultText.c_str());
  return kSuccess;
}

int set(QMIniFileC& file, const Request& request) {
  const QMErrorT result =
      file.Write(request.words[2].c_str(), request.words[3].c_str(), request.words[4].c_str());
  return report(result == QMErrors::NoError ? file.Save() : result);
}

QMErrorT printSection(QMIniFileC& file, const std::string& section) {
  std::vector<CString> keys;
  QMErrorT result = file.ListKeys(section.c_str(), keys);
  for (std::size_t i = 0; i < keys.size() && result == QMErrors::NoError; ++i) {
    bool found = false;
    CString value;
    result = read(file, section, static_cast<const char*>(keys[i]), &found, value);
    if (found)
      std::printf("%s=%s\n", static_cast<const char*>(keys[i]), static_cast<const char*>(value));
  }
  return result;
}

int list(QMIniFileC& file, const Request& request) {
  if (request.words.size() == 3) return report(printSection(file, request.words[2]));
  std::vector<CString> sections;
  QMErrorT result = file.ListSections(sections);
  for (std::size_t i = 0; i < sections.size() && result == QMErrors::NoError; ++i) {
    if (!sections[i].IsEmpty()) std::printf("[%s]\n", static_cast<const char*>(sections[i]));
    result = printSection(file, static_cast<const char*>(sections[i]));
  }
  return report(result);
}

int run(const Arguments& arguments) {
  Request request;
  const std::string complaint = parse(arguments, request);
  if (!complaint.empty()) return usageError(kIniCommand, complaint);
  const std::string &action = request.words[0], &name = request.words[1];
  const Form form = formOf(name);
  if (form == Form::Unreadable) return complain(name + ": cannot be read");
  if (form == Form::Missing && action != "set") return complain(name + ": there is no such file");
  QMIniFileC file(name.c_str(), form == Form::Encoded);
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
