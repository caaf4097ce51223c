// Text-file helpers on arbitrary bytes: reading lines of both kinds into buffers of every small
// size, the second interpretation of printed text, and the conversions between UTF-8 and 16-bit
// text. The first byte gives the buffer size.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "qmutils/foundation/QMTextFile.h"
#include "qmutils/foundation/TextFileFormat.h"
#include "qmutils/platform/file.h"
#include "qmutils/platform/unicode_text.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

void readLines(const std::string& content, int size, int unicode) {
  std::string copy = content;
  const qm::platform::FilePtr file(fmemopen(copy.data(), copy.size(), "rb"));
  if (file == nullptr) return;
  FileIsUnicode(file.get());
  // Exactly as large as promised, so that one byte too many is found.
  const auto line = std::make_unique<char[]>(static_cast<std::size_t>(size));
  while (FGets(line.get(), size, file.get(), unicode) != nullptr && size > 1) {
    require(std::strlen(line.get()) < static_cast<std::size_t>(size));
  }
}

void collapse(const std::string& content) {
  std::string text = content.c_str();
  const std::size_t before = text.size();
  const std::size_t after = qm::collapseFormatted(text.data());
  require(after <= before && std::strlen(text.data()) == after);
  if (content.find('%') == std::string::npos) require(after == before);
}

std::string encode(const std::vector<char16_t>& units) {
  qm::platform::Utf8Encoder encoder;
  std::string text;
  for (char16_t unit : units) text += encoder.add(unit);
  return text += encoder.finish();
}

std::vector<char16_t> decode(const std::string& text, std::size_t room) {
  std::vector<char16_t> units(room);
  units.resize(qm::platform::utf16FromUtf8(text, units.data(), room));
  return units;
}

/// What one conversion has made is sound text, which the way there and back does not change.
void convert(const std::string& content, std::size_t size) {
  decode(content, size);
  const std::vector<char16_t> units = decode(content, content.size());
  require(decode(encode(units), units.size()) == units);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const int bufferSize = data[0] % 64 + 1;
  const std::string content(reinterpret_cast<const char*>(data) + 1, size - 1);
  readLines(content, bufferSize, 0);
  readLines(content, bufferSize, 1);
  collapse(content);
  convert(content, static_cast<std::size_t>(bufferSize));
  return 0;
}
