#include "qmutils/data/GuidC.h"

#include <istream>
#include <new>
#include <ostream>
#include <string>
#include <string_view>

#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/guid.h"

namespace {

using qm::platform::kGuidTextLength;
using QMErrors::QMErrorT;

/// The text form of a GUID, made on the stack.
class GuidText {
 public:
  explicit GuidText(const GUID& guid) noexcept {
    result_ = QMErrors::fromOsError(qm::platform::formatGuid(guid, text_ + 1));
    if (result_ != QMErrors::NoError) {
      qm::logError("GuidC::ToString(): ", "UuidToString failed:", QMErrToStr(result_));
      text_[0] = '\0';
      return;
    }
    text_[0] = '{';
    text_[kGuidTextLength + 1] = '}';
    text_[kGuidTextLength + 2] = '\0';
  }

  /// A failure was logged; the views are then empty.
  QMErrorT result() const noexcept { return result_; }
  std::string_view braced() const noexcept { return view(text_, kGuidTextLength + 2); }
  std::string_view plain() const noexcept { return view(text_ + 1, kGuidTextLength); }

 private:
  std::string_view view(const char* text, std::size_t size) const noexcept {
    return {text, result_ == QMErrors::NoError ? size : 0};
  }

  QMErrorT result_;
  char text_[kGuidTextLength + 3];
};

}  // namespace

QMErrorT GuidC::CreateGUID() {
  GUID created;
  if (!qm::platform::createGuid(&created)) {
    const QMErrorT result = QMErrors::lastOsError();
    QMLogStreamC log(nullptr, nullptr, nullptr, nullptr);
    log << "GuidC::CreateGUID(): ";
    log._LogError() << QMErrToStr(result) << std::endl;
    return result;
  }
  SetGUID(created);
  return QMErrors::NoError;
}

int GuidC::IsValid() const {
  constexpr const char* kLabel = "GuidC::IsValid(): ";
  if (m_bValid == 0) {
    qm::logError(kLabel, "this GUID is uninitialised:");
    return 0;
  }
  const GuidText text(m_Guid);
  GUID readBack;
  if (FromString(text.braced().data(), readBack) == QMErrors::AnInvalidGUIDWasFound) {
    qm::logError(kLabel, "this GUID is invalid:", text.braced());
    return 0;
  }
  return 1;
}

QMErrorT GuidC::ToString(std::ostream& os, const GUID& guid, bool braces) {
  const GuidText text(guid);
  const std::string_view shown = braces ? text.braced() : text.plain();
  os.write(shown.data(), static_cast<std::streamsize>(shown.size()));
  return text.result();
}

QMErrorT GuidC::FromString(const char* text, GUID& out) {
  char digits[kGuidTextLength + 1];  // one more than can be right
  std::size_t length = 0;
  for (const char* c = text != nullptr ? text : ""; *c != '\0' && length < sizeof digits; ++c) {
    if (*c != '{' && *c != '}') digits[length++] = *c;
  }
  const DWORD failure = qm::platform::parseGuid({digits, length}, &out);
  if (failure == 0) return QMErrors::NoError;
  const char* const shown = text != nullptr ? text : "null";
  constexpr const char* kLabel = "GuidC::FromString(): ";
  if (failure == RPC_S_INVALID_STRING_UUID) {
    qm::logError(kLabel, "Invalid Uuid String:", shown);
    return QMErrors::AnInvalidGUIDWasFound;
  }
  const QMErrorT result = QMErrors::fromOsError(failure);
  qm::logError(kLabel, "UuidFromString failed for:", shown, ", reason:", QMErrToStr(result));
  return result;
}

QMErrorT GuidC::FromString(const char* text) {
  const QMErrorT result = FromString(text, m_Guid);
  if (result == QMErrors::NoError) m_bValid = 1;
  return result;
}

std::ostream& operator<<(std::ostream& os, const GUID& guid) {
  if (GuidC::ToString(os, guid, true) != QMErrors::NoError) os.setstate(std::ios::failbit);
  return os;
}

std::ostream& operator<<(std::ostream& os, const GuidC& guid) {
  return os << static_cast<GUID>(guid);
}

std::istream& operator>>(std::istream& is, GUID& guid) {
  GuidC read;
  if (is >> read) guid = read;
  return is;
}

namespace {

void readGuid(std::istream& is, GuidC& guid) try {
  std::string text;
  bool opened = false;
  for (char c; is >> c;) {
    text += c;
    if (c == '{') opened = true;
    if (c == '}' && opened) break;
  }
  if (is.bad()) return;
  // The end of the stream ends the text as "}" does; it fails the stream only if that is no GUID.
  is.clear(is.rdstate() & ~std::ios::failbit);
  if (guid.FromString(text.c_str()) != QMErrors::NoError) is.setstate(std::ios::failbit);
} catch (const std::bad_alloc&) {
  is.setstate(std::ios::badbit);
}

}  // namespace

std::istream& operator>>(std::istream& is, GuidC& guid) {
  if (!is) return is;
  // A stream that is to throw does so for its final state, not for the end of the text.
  const std::ios::iostate throwing = is.exceptions();
  is.exceptions(std::ios::goodbit);
  readGuid(is, guid);
  is.exceptions(throwing);
  return is;
}

QMLogStreamC& operator<<(QMLogStreamC& log, const GuidC& guid) {
  if (!log.IsValidDebugLevel()) return log;
  return log << GuidText(guid).braced();
}
