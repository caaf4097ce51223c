#include "qmutils/foundation/QMErrors.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <string_view>

#include "qmutils/platform/error.h"
#include "qmutils/platform/prompt.h"

namespace {

using namespace QMErrors;

struct CatalogueRow {
  QMErrorT code;
  const char* message;
};

constexpr CatalogueRow kCatalogue[] = {
#define QM_ERROR_ROW(code, identifier, message) {identifier, message},
#include "qmutils/foundation/QMErrorCatalogue.inc"
#undef QM_ERROR_ROW
};

constexpr std::size_t kErrorTextSize = 2560;
constexpr std::size_t kOsErrorTextSize = 1024;
constexpr std::uint32_t kBothKindBits = kOsErrorBit | kCRuntimeErrorBit;

/// The row's message; the catalogue is not sorted, and its first match counts.
const char* catalogueMessage(QMErrorT code) noexcept {
  const auto* row = std::ranges::find(kCatalogue, code, &CatalogueRow::code);
  return row == std::end(kCatalogue) ? "Unrecognised Error Code" : row->message;
}

}  // namespace

QMErrorT QMErrors::lastOsError() noexcept { return fromOsError(qm::platform::lastError()); }

char* QMErrToStr(QMErrorT code) {
  thread_local char text[kErrorTextSize];
  const auto bits = static_cast<std::uint32_t>(code);
  const bool isOsError = code >= 0 && (bits & kOsErrorBit) != 0;
  if (isOsError && (bits & kCRuntimeErrorBit) != 0) {
    qm::platform::copyCRuntimeErrorText(static_cast<int>(bits & ~kBothKindBits), text, sizeof text);
  } else if (isOsError) {
    const DWORD number = bits & ~kOsErrorBit;
    std::snprintf(text, sizeof text, "%s", QMGetLastErrorMsg(&number));
  } else {
    std::snprintf(text, sizeof text, "%s: %d", catalogueMessage(code), static_cast<int>(code));
  }
  return text;
}

char* QMGetLastErrorMsg(const DWORD* number) {
  thread_local char text[kOsErrorTextSize];
  const DWORD value = number != nullptr ? *number : qm::platform::lastError();
  const auto signedValue = static_cast<std::int32_t>(value);
  const std::string_view sentence = qm::platform::errorSentence(value);
  if (sentence.empty()) {
    std::snprintf(text, sizeof text, "Format message failed.  Error: %d", signedValue);
  } else {
    std::snprintf(text, sizeof text, "Error: %d (0x%X) %.*s", signedValue, value,
                  static_cast<int>(sentence.size()), sentence.data());
  }
  return text;
}

int QMOSError(const char* text) {
  char message[kOsErrorTextSize];
  std::snprintf(message, sizeof message, "%s %s", text != nullptr ? text : "",
                QMGetLastErrorMsg(nullptr));
  return QMOSErrorAlert(message);
}

int QMOSErrorAlert(const char* text) {
  return qm::platform::messageBox(text, "Program Error",
                                  MB_ICONHAND | MB_TASKMODAL | MB_SETFOREGROUND | MB_TOPMOST);
}

QMErrorT DetermineErrorClass(QMErrorT code) {
  const bool operatorClears =
      code == DeviceOfflineNoCassette || code == DeviceOfflineNoMediaOrMediaNotLoaded;
  return operatorClears ? ErrorClass4 : ErrorClass2;
}

QMErrorT QMFillError(QMERROR_ST* record, QMErrorT code, std::uint32_t extra, const char* file,
                     std::uint16_t line) {
  if (record == nullptr) return code;
  record->firstError = code;
  record->error = code;
  record->extra = extra;
  record->line = line;
  std::string_view name = file != nullptr ? file : "";
  name.remove_prefix(name.rfind('\\') + 1);  // npos + 1 is 0: the whole path
  constexpr std::size_t kLongest = sizeof record->file - 1;
  if (name.size() > kLongest) name.remove_prefix(name.size() - kLongest);
  std::memset(record->file, 0, sizeof record->file);
  std::memcpy(record->file, name.data(), name.size());
  return code;
}

std::ostream& QMErrors::operator<<(std::ostream& os, const QMERROR_ST& record) {
  os << "ErrInfo [ ";
  if (record.firstError != record.error) os << QMErrToStr(record.firstError) << ", ";
  os << QMErrToStr(record.error) << ", ";
  char numbers[32];
  if (record.extra != 0) {
    std::snprintf(numbers, sizeof numbers, "%u, ", record.extra);
    os << numbers;
  }
  std::snprintf(numbers, sizeof numbers, "L=%u, F=<", record.line);
  // A record that came as bytes may lack the terminator.
  const std::string_view file(record.file, strnlen(record.file, sizeof record.file));
  return os << numbers << file << "> ] ";
}
