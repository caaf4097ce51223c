#include <algorithm>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <limits>
#include <locale>
#include <sstream>
#include <string>
#include <vector>

#include "programs/testtool/Command.h"
#include "qmutils/config/QMReadCfgC.h"

namespace programs {
namespace {

using QMErrors::QMErrorT;

constexpr double kLargest = std::numeric_limits<double>::max();

struct Request {
  std::string action, file, token;
  std::vector<double> values;  ///< to be set, or room for those to be read
  bool all = false;
  bool force = false;
};

/// Empty, or what is wrong with the command line.
std::string parse(const Arguments& arguments, Request& request) {
  std::vector<std::string> words;
  bool optionsEnded = false;
  for (const std::string& argument : arguments) {
    if (optionsEnded || !argument.starts_with("--")) {
      words.push_back(argument);
    } else if (argument == "--") {
      optionsEnded = true;
    } else if (argument == "--all") {
      request.all = true;
    } else if (argument == "--force") {
      request.force = true;
    } else {
      return "unknown argument '" + argument + "'";
    }
  }
  if (words.size() < 3 || words[1].empty() || words[2].empty())
    return "give get or set, a file and a token";
  request.action = words[0];
  request.file = words[1];
  request.token = words[2];
  if (request.action == "get" && words.size() <= 4 && !request.force) {
    long long count = 1;
    if (words.size() == 4 && !parseNumber(words[3], 0LL, 1'000'000LL, count)) {
      return "COUNT is 0 to 1000000";
    }
    request.values.resize(static_cast<std::size_t>(count));
    return "";
  }
  if (request.action != "set" || request.all) return "give get or set, a file and a token";
  for (std::size_t i = 3; i < words.size(); ++i) {
    double& value = request.values.emplace_back();
    if (!parseNumber(words[i], -kLargest, kLargest, value))
      return "'" + words[i] + "' is no number";
  }
  return "";
}

int complain(const std::string& complaint) {
  std::fprintf(stderr, "testtool config: %s\n", complaint.c_str());
  return kFailure;
}

void print(const std::vector<double>& values) {
  std::string line;
  for (const double value : values) {
    char text[32];
    const auto end = std::to_chars(text, text + sizeof text, value).ptr;
    line += (line.empty() ? "" : " ") + std::string(text, end);
  }
  std::puts(line.c_str());
}

int get(QMReadCfgC& file, Request& request) {
  const auto count = static_cast<unsigned>(request.values.size());
  const auto read = [&](int bContinue) {
    return file.ReadToken(request.token.c_str(), request.values.data(), count, bContinue);
  };
  QMErrorT result = read(0);
  if (result == QMErrors::EndOfFileError) return complain("there is no '" + request.token + "'");
  while (result == QMErrors::NoError) {
    print(request.values);
    if (!request.all) return kSuccess;
    result = read(1);
  }
  if (result == QMErrors::EndOfFileError) return kSuccess;
  const std::string expected =
      count == 1 ? "a number was" : std::to_string(count) + " numbers were";
  return complain(expected + " expected: " + QMErrToStr(result));
}

std::string wholeText(const std::string& file) {
  std::ifstream in(toPath(file), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> wordsOf(const std::string& text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), {}};
}

/// What the file would lose besides the old values; empty when nothing. The library saves up to the
/// first NUL, adds a line right behind the last character, puts a line in the place of all that
/// stands behind the token, and goes on with the first line end of the old text that is more than
/// one character behind the place where the new line ends.
std::string lossBy(const Request& request) {
  const std::string text = wholeText(request.file);
  if (text.find('\0') != std::string::npos) {
    return "the file holds a NUL, and what is behind it would be lost";
  }
  const std::size_t at = text.find(request.token);
  if (at == std::string::npos) {
    const bool glued = !text.empty() && text.back() != '\n' && text.back() != '\r';
    return glued ? "the last line has no end, so the new one would become a part of it" : "";
  }
  const std::size_t behind = at + request.token.size();
  const std::size_t lineEnd = std::min(text.find_first_of("\r\n", behind), text.size());
  const auto old = wordsOf(text.substr(behind, lineEnd - behind));
  if (old.size() > request.values.size()) {
    return "the line holds more values, so '" + old[request.values.size()] + "' would be lost";
  }
  std::ostringstream line;
  line.imbue(std::locale::classic());
  line << request.token << '\t';
  for (const double value : request.values) line << ' ' << value;
  line << '\n';
  const std::size_t rest =
      std::min(text.find_first_of("\r\n", at + line.str().size() + 1), text.size());
  const auto lost = wordsOf(text.substr(lineEnd, rest - std::min(lineEnd, rest)));
  if (lost.empty()) return "";
  return "the new line is not shorter than the old one by two characters, so '" + lost[0] +
         "' behind it would be lost";
}

int set(QMReadCfgC& file, const Request& request) {
  const std::string loss = request.force ? "" : lossBy(request);
  if (!loss.empty()) return complain(loss + "; --force does it all the same");
  const auto count = static_cast<unsigned>(request.values.size());
  QMErrorT result = file.WriteToken(request.token.c_str(), request.values.data(), count, 0);
  if (result == QMErrors::NoError) result = file.CloseFile(1);
  return result == QMErrors::NoError ? kSuccess : complain(explained(result));
}

int run(const Arguments& arguments) {
  Request request;
  const std::string complaint = parse(arguments, request);
  if (!complaint.empty()) return usageError(kConfigCommand, complaint);
  QMReadCfgC file;
  const QMErrorT result = file.OpenFileName(request.file.c_str());
  if (result != QMErrors::NoError) return complain(request.file + ": " + explained(result));
  return request.action == "get" ? get(file, request) : set(file, request);
}

}  // namespace

const Command kConfigCommand = {
    "config", "read and set numbers of a table of the machine",
    "usage: testtool config get FILE TOKEN [COUNT] [--all]\n"
    "       testtool config set FILE TOKEN [VALUE...] [--force]\n"
    "The file is a text of words with numbers behind them; TOKEN is the first place\n"
    "where the text holds these characters, be it in the middle of a word. '--' goes\n"
    "before a token that begins with '--'.\n"
    "  get       print the COUNT (1) numbers behind the token\n"
    "  --all     and then those behind each further place, a line for each\n"
    "  set       write the token's line anew with these values, six digits each; a\n"
    "            token that is not there is added at the end. Of several who set\n"
    "            values at a time the last one wins.\n"
    "  --force   also when something gets lost: further values of the line, or lines\n"
    "            behind it, which the library keeps only when the line gets shorter\n"
    "            by two characters or more (blanks at its end give room)\n",
    run};

}  // namespace programs
