#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "programs/testtool/Command.h"
#include "qmutils/app/CQMAppUtils.h"

namespace programs {
namespace {

struct Request {
  std::string action, name, value;
  std::string type;  ///< empty: what the value looks like
  bool machine = false;
  bool both = false;
  bool named = false;  // a program, version or section was given
  std::string program = std::string(CQMAppUtils::GetProgramName().view());
  std::string version = std::string(CQMAppUtils::GetVersion().view());
  std::string section = "Preferences";

  HKEY tree() const { return machine ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER; }
  static std::string maker() { return std::string("SOFTWARE\\") + CQMPrefs::m_pPathRoot; }
  std::string key() const { return maker() + "\\" + program + "\\" + version + "\\" + section; }
};

/// Empty, or what the action has too much or too little of.
std::string takeWords(const std::vector<std::string>& words, Request& request) {
  request.action = words.empty() ? "" : words[0];
  const bool set = request.action == "set", get = request.action == "get";
  if (!set && !get && request.action != "list" && request.action != "export") {
    return "give list, get, set or export";
  }
  const std::size_t wanted = set ? 3 : get ? 2 : 1;
  if (words.size() > wanted) return "unknown argument '" + words[wanted] + "'";
  if (words.size() < wanted) return set ? "set wants a name and a value" : "get wants a name";
  if (wanted > 1 && words[1].empty()) return "the name is empty";
  if (wanted > 1) request.name = words[1];
  if (wanted > 2) request.value = words[2];
  if (!set && (request.both || !request.type.empty())) return "--both and --type belong to set";
  if (request.both && request.machine) return "give --both or --machine";
  return {};
}

/// Empty, or what is wrong with the command line.
std::string parse(const Arguments& arguments, Request& request) {
  std::vector<std::string> words;
  bool optionsEnded = false;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    std::string* const texts[] = {&request.program, &request.version, &request.section};
    const char* const options[] = {"--program", "--version", "--section"};
    const auto option = std::ranges::find(options, argument);
    if (optionsEnded || !argument.starts_with("-")) {
      words.push_back(argument);
    } else if (argument == "--") {
      optionsEnded = true;
    } else if (argument == "--machine") {
      request.machine = true;
    } else if (argument == "--both") {
      request.both = true;
    } else if (argument == "--type") {
      const char* const types[] = {"number", "text", "float"};
      if (!takeValue(arguments, i, request.type) ||
          std::ranges::find(types, request.type) == std::end(types)) {
        return "--type wants number, text or float";
      }
    } else if (option != std::end(options)) {
      if (!takeValue(arguments, i, *texts[option - options])) return argument + " wants a name";
      request.named = true;
    } else {
      return "unknown argument '" + argument + "'";
    }
  }
  return takeWords(words, request);
}

int failure(QMErrors::QMErrorT code) {
  std::fprintf(stderr, "testtool prefs: %s\n", QMErrToStr(code));
  return kFailure;
}

// ---- Reading ------------------------------------------------------------------------------------

struct Value {
  bool exists = false;
  DWORD type = 0;
  std::string data;
};

QMErrors::QMErrorT read(HKEY key, const char* name, Value& value) {
  unsigned char* data = nullptr;
  DWORD size = 0;
  const QMErrors::QMErrorT result = QMRegistryC::GetKeyData(key, name, &data, &value.type, &size);
  value.exists = data != nullptr;
  if (value.exists) value.data.assign(reinterpret_cast<char*>(data), size);
  ::operator delete(data);
  return result;
}

std::string hexOf(std::string_view data) {
  std::string text;
  for (const char c : data) {
    char digits[4];
    std::snprintf(digits, sizeof digits, "%s%02x", text.empty() ? "" : ",",
                  static_cast<unsigned char>(c));
    text += digits;
  }
  return text;
}

bool isNumber(const Value& value) {
  return value.type == REG_DWORD && value.data.size() == sizeof(DWORD);
}

/// A text with its terminator, and without one inside.
bool isText(const Value& value) {
  return value.type == REG_SZ && value.data.find('\0') + 1 == value.data.size();
}

DWORD numberOf(const Value& value) {
  DWORD number = 0;
  std::memcpy(&number, value.data.data(), sizeof number);
  return number;
}

/// As a person reads it.
std::string shown(const Value& value) {
  if (isNumber(value)) return std::to_string(numberOf(value));
  if (isText(value)) return value.data.substr(0, value.data.size() - 1);
  return hexOf(value.data);
}

/// With control characters escaped.
std::string onOneLine(std::string_view text) {
  std::string line;
  for (const char c : text) {
    char code[8];
    std::snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(c));
    if (c == '\n' || c == '\r') {
      line += c == '\n' ? "\\n" : "\\r";
    } else if (isControl(c)) {
      line += code;
    } else {
      line += c;
    }
  }
  return line;
}

/// In quotes, with what ends them or a line escaped.
std::string inQuotes(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '"' || c == '\\') escaped += '\\';
    escaped += c;
  }
  return '"' + onOneLine(escaped) + '"';
}

/// As a program reads it.
std::string exported(const Value& value) {
  if (isText(value)) return inQuotes(std::string_view(value.data).substr(0, value.data.size() - 1));
  char prefix[24];
  if (isNumber(value)) {
    std::snprintf(prefix, sizeof prefix, "dword:%08x", numberOf(value));
    return prefix;
  }
  std::snprintf(prefix, sizeof prefix, "hex(%x):", value.type);
  return prefix + hexOf(value.data);
}

using GetName = QMErrors::QMErrorT (*)(HKEY, unsigned int, char**, FILETIME*);

/// Calls `use` with each name.
template <class Use>
QMErrors::QMErrorT forEachName(HKEY key, GetName getName, const Use& use) {
  for (unsigned i = 0;; ++i) {
    char* name = nullptr;
    QMErrors::QMErrorT result = getName(key, i, &name, nullptr);
    if (result != QMErrors::NoError || name == nullptr) return result;
    const std::string copy = name;
    ::operator delete(name);
    result = use(copy);
    if (result != QMErrors::NoError) return result;
  }
}

template <class Use>
QMErrors::QMErrorT forEachValue(HKEY key, const Use& use) {
  return forEachName(key, QMRegistryC::GetSubValueName, [&](const std::string& name) {
    Value value;
    const QMErrors::QMErrorT result = read(key, name.c_str(), value);
    if (value.exists) use(name, value);
    return result;
  });
}

QMErrors::QMErrorT list(HKEY key) {
  return forEachValue(key, [](const std::string& name, const Value& value) {
    std::printf("%s = %s\n", shownText(name).c_str(), shownText(shown(value)).c_str());
  });
}

/// The values of a key and of all below it.
QMErrors::QMErrorT exportTree(HKEY key, const std::string& path) {
  bool headed = false;
  QMErrors::QMErrorT result = forEachValue(key, [&](const std::string& name, const Value& value) {
    if (!headed) std::printf("[%s]\n", onOneLine(path).c_str());
    headed = true;
    std::printf("%s=%s\n", inQuotes(name).c_str(), exported(value).c_str());
  });
  if (headed) std::printf("\n");
  if (result != QMErrors::NoError) return result;
  return forEachName(key, QMRegistryC::GetSubKeyName, [&](const std::string& name) {
    HKEY below = nullptr;
    QMErrors::QMErrorT opened = QMRegistryC::OpenKey(key, name.c_str(), 0, &below);
    if (opened != QMErrors::NoError) return opened;
    const QMErrors::QMErrorT done = exportTree(below, path + "\\" + name);
    QMRegistryC::CloseKey(below, 0);
    return done;
  });
}

int get(HKEY key, const Request& request) {
  Value value;
  const QMErrors::QMErrorT result = read(key, request.name.c_str(), value);
  if (result != QMErrors::NoError) return failure(result);
  if (!value.exists) {
    std::fprintf(stderr, "testtool prefs: there is no '%s'\n", request.name.c_str());
    return kFailure;
  }
  std::printf("%s\n", shownText(shown(value)).c_str());
  return kSuccess;
}

int readKey(const Request& request) {
  const bool all = request.action == "export" && !request.named;
  const std::string path = all ? Request::maker() : request.key();
  HKEY key = nullptr;
  const QMErrors::QMErrorT opened = QMRegistryC::OpenKey(request.tree(), path.c_str(), 0, &key);
  if (opened == QMErrors::fromOsError(ERROR_FILE_NOT_FOUND)) {
    std::fprintf(stderr, "testtool prefs: nothing is stored in %s\n", path.c_str());
    return kFailure;
  }
  if (opened != QMErrors::NoError) return failure(opened);
  int status = kSuccess;
  if (request.action == "get") {
    status = get(key, request);
  } else {
    const std::string tree = request.machine ? "HKEY_LOCAL_MACHINE\\" : "HKEY_CURRENT_USER\\";
    const QMErrors::QMErrorT result =
        request.action == "list" ? list(key) : exportTree(key, tree + path);
    if (result != QMErrors::NoError) status = failure(result);
  }
  QMRegistryC::CloseKey(key, 0);
  return status;
}

// ---- Writing ------------------------------------------------------------------------------------

template <class Number>
int save(CQMPrefs& prefs, const Request& request, Number number) {
  const char* const name = request.name.c_str();
  QMErrors::QMErrorT result =
      request.machine ? prefs.SaveAppParam(name, number) : prefs.SaveUsrParam(name, number, 0);
  if (result == QMErrors::NoError && request.both) {
    result = prefs.SaveUsrParam(name, number, 1);
    if (result != QMErrors::NoError) {
      std::fprintf(stderr, "testtool prefs: the user's was saved, the machine's was not\n");
    }
  }
  return result == QMErrors::NoError ? kSuccess : failure(result);
}

/// Floating-point numbers are stored as texts of few digits.
int saveFloat(CQMPrefs& prefs, const Request& request, double number) {
  const int status = save(prefs, request, number);
  if (status != kSuccess) return status;
  const double stored = prefs.LoadUsrParam(request.name.c_str(), 0.0, request.machine ? 1 : 0);
  if (stored != number) {
    char text[32];
    *std::to_chars(text, text + sizeof text - 1, stored).ptr = '\0';
    std::fprintf(stderr, "testtool prefs: stored as %s\n", text);
  }
  return kSuccess;
}

int set(const Request& request) {
  CQMPrefs prefs(request.program.c_str(), request.version.c_str(), request.section.c_str());
  long long number = 0;
  double real = 0;
  const bool isInteger = parseNumber(request.value, -2147483648LL, 4294967295LL, number);
  // "0042" is a text: somebody's serial number, perhaps.
  const bool looksLikeNumber = isInteger && std::to_string(number) == request.value;
  if (request.type == "number" || (request.type.empty() && looksLikeNumber)) {
    if (!isInteger) return usageError(kPrefsCommand, "'" + request.value + "' is no number");
    return save(prefs, request, static_cast<unsigned long>(static_cast<DWORD>(number)));
  }
  if (request.type == "float") {
    if (!parseNumber(request.value, -1e300, 1e300, real)) {
      return usageError(kPrefsCommand, "'" + request.value + "' is no number");
    }
    return saveFloat(prefs, request, real);
  }
  return save(prefs, request, request.value.c_str());
}

int run(const Arguments& arguments) {
  Request request;
  const std::string complaint = parse(arguments, request);
  if (!complaint.empty()) return usageError(kPrefsCommand, complaint);
  return request.action == "set" ? set(request) : readKey(request);
}

}  // namespace

const Command kPrefsCommand = {
    "prefs", "settings in the registry",
    "usage: testtool prefs list | get NAME | set NAME VALUE | export [OPTIONS]\n"
    "  list             print the settings of one program\n"
    "  get NAME         print one\n"
    "  set NAME VALUE   save one; '--' goes before a VALUE that begins with '-'\n"
    "  export           print the settings of all programs as text (of one, with an option that\n"
    "                   names it), with their keys and types\n"
    "  --machine        the machine's settings (the user's)\n"
    "  --both           set: the user's, and then the machine's as well\n"
    "  --type TYPE      set: number (32 bits, shown without a sign), text or float (six digits\n"
    "                   behind the point; with --machine six in all); a number if VALUE is a\n"
    "                   whole one without leading zeros, else a text\n"
    "  --program NAME   whose settings (testtool)\n"
    "  --version TEXT   of which version (this one)\n"
    "  --section NAME   (Preferences)\n",
    run};

}  // namespace programs
