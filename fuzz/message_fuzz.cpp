// Messages from other processes: the compact text, and the XML element of QMCommMsgC. What was
// read must be written and read back as the same message.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "qmutils/comms/QMCommMsgC.h"
#include "qmutils/comms/QMMessageText.h"

namespace {

void demand(bool condition) {
  if (!condition) std::abort();
}

void compactText(const std::string& text, std::uint8_t sizes) {
  // Small buffers as well, on the heap, so that a byte too much is seen.
  const auto stringSize = static_cast<unsigned short>(sizes % 16 == 0 ? 1024 : sizes % 16);
  const auto qualifierSize = static_cast<unsigned short>(sizes / 16 == 0 ? 1024 : sizes / 16);
  std::string string(stringSize, '#'), qualifier(qualifierSize, '#');
  int type = 0, code = 0, val = 0;
  unsigned short id = 0;
  if (QMExtractMessage(text.c_str(), &type, &code, &id, &val, string.data(), stringSize,
                       qualifier.data(), qualifierSize) != QMErrors::NoError) {
    return;
  }
  demand(std::memchr(string.data(), '\0', stringSize) != nullptr);
  demand(std::memchr(qualifier.data(), '\0', qualifierSize) != nullptr);
  // Such a string comes from a text with too few separators; written, its ";" would count as one.
  if (std::strchr(string.c_str(), ';') != nullptr) return;
  char again[2200];
  if (QMCreateMessage(type, code, id, val, string.c_str(), qualifier.c_str(), again,
                      sizeof again) != QMErrors::NoError ||
      std::strlen(again) > 1023) {
    return;
  }
  int type2 = 0, code2 = 0, val2 = 0;
  unsigned short id2 = 0;
  char string2[1100], qualifier2[1100];
  demand(QMExtractMessage(again, &type2, &code2, &id2, &val2, string2, sizeof string2, qualifier2,
                          sizeof qualifier2) == QMErrors::NoError);
  demand(type == type2 && code == code2 && id == id2 && val == val2);
  demand(std::strcmp(string.c_str(), string2) == 0);
  demand(std::strcmp(qualifier.c_str(), qualifier2) == 0);
}

void objectText(const std::string& text, bool xml) {
  QMCommMsgC message(xml);
  std::istringstream is(text);
  is >> message;
  if (message.GetLastError() != QMErrors::NoError) return;
  std::ostringstream os;
  os << message;
  QMCommMsgC copy(xml);
  copy = message;
  demand(copy.GetMessageString() == nullptr ||
         std::strcmp(copy.GetMessageString(), message.GetMessageString()) == 0);
}

void silent(unsigned, int, char*) {}
unsigned nothing() { return 0; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const QMLogStreamC hooks(silent, nullptr, nullptr, nothing);
  if (size < 1) return 0;
  // A wide text ends with two NULs.
  const std::string text =
      std::string(reinterpret_cast<const char*>(data) + 1, size - 1) + std::string(2, '\0');
  compactText(text, data[0]);
  objectText(text.substr(0, text.size() - 2), (data[0] & 1) != 0);
  return 0;
}
