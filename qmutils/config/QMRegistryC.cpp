#include "qmutils/config/QMRegistryC.h"

#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "qmutils/foundation/LogLine.h"
#include "qmutils/foundation/PointerText.h"
#include "qmutils/platform/hive.h"

using QMErrors::QMErrorT;

namespace {

constexpr int kDeepestSearch = 512;

constexpr const char* kSubKeyName = "QMRegistryC::GetSubKeyName(): ";  // also of value names
constexpr const char* kKeyData = "CQMPrefs::GetKeyData(): ";           // programs look for this one
constexpr const char* kSaveKeyData = "QMRegistryC::SaveKeyData(): ";
constexpr const char* kFind = "GuidC::RegistryFind(): ";  // and this

/// Success for 0, else logs the failure and gives its code.
template <class... Parts>
QMErrorT check(DWORD number, const Parts&... parts) {
  const QMErrorT code = QMErrors::fromOsError(number);
  if (code != QMErrors::NoError) qm::logError(parts..., QMErrToStr(code));
  return code;
}

/// A copy that the caller frees with operator delete, with a NUL behind it; null without memory.
char* copyOf(std::string_view text) {
  auto* const copy = static_cast<char*>(::operator new(text.size() + 1, std::nothrow));
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  return copy;
}

QMErrorT timeOf(HKEY key, const char* subKey, FILETIME* time) {
  HKEY opened = nullptr;
  QMErrorT result = QMRegistryC::OpenKey(key, subKey, 0, &opened);
  if (result != QMErrors::NoError) return result;
  result = check(qm::platform::keyTime(opened, time), kSubKeyName, "from RegQueryInfoKey(): ");
  const QMErrorT closed = QMRegistryC::CloseKey(opened, 0);
  return result != QMErrors::NoError ? result : closed;
}

using NameAt = DWORD (*)(HKEY, DWORD, std::string*) noexcept;

/// Both kinds of names. `from` names the system function in the log.
QMErrorT nameAt(NameAt query, const char* from, HKEY key, unsigned int index, char** name,
                FILETIME* time) {
  *name = nullptr;
  std::string text;
  const DWORD error = query(key, index, &text);
  if (error == ERROR_NO_MORE_ITEMS) return QMErrors::NoError;
  if (error != 0) {
    // What is wrong with the key itself shows when it is asked for its measures.
    FILETIME ignored;
    const bool unusable = qm::platform::keyTime(key, &ignored) != 0;
    return check(error, kSubKeyName, unusable ? "from RegQueryInfoKey(): " : from);
  }
  if (time != nullptr) {
    const QMErrorT result = timeOf(key, text.c_str(), time);
    if (result != QMErrors::NoError) return result;
  }
  *name = copyOf(text);
  return *name != nullptr ? QMErrors::NoError : qm::logNoMemory(kSubKeyName);
}

QMErrorT openFound(HKEY root, const char* name, HKEY* found) {
  HKEY opened = nullptr;
  const QMErrorT result = check(qm::platform::openKey(root, name, true, &opened), kFind,
                                "Failed opening registry key: ");
  if (result == QMErrors::NoError) *found = opened;
  return result;
}

QMErrorT noMemoryToFind() {
  qm::logError(kFind, "failed allocating lpName");
  return QMErrors::MemoryAllocationFailed;
}

QMErrorT findBelow(HKEY root, const char* name, HKEY* found, int depth) {
  for (DWORD i = 0;; ++i) {
    std::string subKey;
    const DWORD error = qm::platform::subKeyAt(root, i, &subKey);
    if (error == ERROR_NOT_ENOUGH_MEMORY) return noMemoryToFind();
    if (error != 0) return check(error, kFind, "Failed enumerating registry key: ");
    if (subKey == name) return openFound(root, name, found);
    if (depth == kDeepestSearch) return QMErrors::NoError;
    HKEY opened = nullptr;
    const DWORD notOpened = qm::platform::openKey(root, subKey.c_str(), true, &opened);
    if (notOpened == ERROR_NOT_ENOUGH_MEMORY) return noMemoryToFind();
    // A sub-key that does not open is searched in vain, with a second log line for that.
    check(notOpened, kFind, "Failed opening registry key: ");
    const QMErrorT below = findBelow(opened, name, found, depth + 1);
    // Whatever was found below: installed programs rely on the search ending here.
    if (qm::platform::closeKey(opened) == 0) return QMErrors::NoError;
    if (below == QMErrors::NoError) return openFound(root, subKey.c_str(), found);
  }
}

}  // namespace

QMErrorT QMRegistryC::OpenKey(HKEY parent, const char* subKey, int bCreate, HKEY* pKey) {
  const DWORD error = bCreate != 0 ? qm::platform::createKey(parent, subKey, pKey)
                                   : qm::platform::openKey(parent, subKey, false, pKey);
  const QMErrorT code = QMErrors::fromOsError(error);
  if (code != QMErrors::NoError) {
    qm::logWarning(0, "QMRegistryC::OpenKey(): ", QMErrToStr(code), ", while ",
                   bCreate != 0 ? "creating" : "opening", ": ", qm::PointerText(parent).view(),
                   "\\", subKey != nullptr ? subKey : "");
  }
  return code;
}

QMErrorT QMRegistryC::CloseKey(HKEY key, int bFlush) {
  if (bFlush != 0) qm::platform::flushKey(key);  // closing tells about a bad key
  return check(qm::platform::closeKey(key), "QMRegistryC::CloseKey() ", "from RegCloseKey(): ");
}

QMErrorT QMRegistryC::GetKeyData(HKEY key, const char* valueName, unsigned char** pData,
                                 DWORD* pType, DWORD* pSize) {
  *pData = nullptr;
  qm::platform::RegistryValue value;
  const DWORD error = qm::platform::readValue(key, valueName, &value);
  if (error == ERROR_NOT_ENOUGH_MEMORY) return qm::logNoMemory(kKeyData);
  if (error == ERROR_FILE_NOT_FOUND) return QMErrors::NoError;
  if (error != 0) return check(error, kKeyData);
  if (value.name != (valueName != nullptr ? valueName : "")) return QMErrors::NoError;
  *pData = reinterpret_cast<unsigned char*>(copyOf(value.data));
  if (*pData == nullptr) return qm::logNoMemory(kKeyData);
  if (pType != nullptr) *pType = value.type;
  if (pSize != nullptr) *pSize = static_cast<DWORD>(value.data.size());
  return QMErrors::NoError;
}

QMErrorT QMRegistryC::SaveKeyData(HKEY key, const char* valueName, DWORD type,
                                  const unsigned char* data, DWORD size) {
  return check(qm::platform::writeValue(key, valueName, type, data, size), kSaveKeyData,
               "from RegSetValueEx(): ");
}

QMErrorT QMRegistryC::SaveKeyData(HKEY key, const char* valueName, DWORD value) {
  unsigned char bytes[sizeof value];
  std::memcpy(bytes, &value, sizeof value);
  return SaveKeyData(key, valueName, REG_DWORD, bytes, sizeof bytes);
}

QMErrorT QMRegistryC::SaveKeyData(HKEY key, const char* valueName, const char* text) {
  if (text == nullptr) text = "";
  return SaveKeyData(key, valueName, REG_DWORD, reinterpret_cast<const unsigned char*>(text),
                     static_cast<DWORD>(std::strlen(text)));
}

QMErrorT QMRegistryC::GetSubKeyName(HKEY key, unsigned int index, char** pName, FILETIME* pTime) {
  return nameAt(qm::platform::subKeyAt, "from RegEnumKey(): ", key, index, pName, pTime);
}

QMErrorT QMRegistryC::GetSubValueName(HKEY key, unsigned int index, char** pName, FILETIME* pTime) {
  return nameAt(qm::platform::valueNameAt, "from RegEnumValue(): ", key, index, pName, pTime);
}

QMErrorT QMRegistryC::CopyKey(HKEY src, const char* srcSubKey, const char* dstSubKey, HKEY dst) {
  HKEY source = nullptr;
  QMErrorT result = OpenKey(src, srcSubKey, 0, &source);
  if (result != QMErrors::NoError) return result;
  // All of it before anything is written, as a copy into the tree itself would never end.
  std::vector<qm::platform::RegistryContent> tree;
  result = check(qm::platform::readTree(source, &tree), kSubKeyName, "from RegEnumKey(): ");
  const QMErrorT sourceClosed = CloseKey(source, 0);
  HKEY destination = nullptr;
  if (result == QMErrors::NoError) {
    result = OpenKey(dst != nullptr ? dst : src, dstSubKey, 1, &destination);
  }
  if (result != QMErrors::NoError) return result;
  result =
      check(qm::platform::writeTree(destination, tree), kSaveKeyData, "from RegSetValueEx(): ");
  const QMErrorT destinationClosed = CloseKey(destination, 0);
  if (result != QMErrors::NoError) return result;
  return destinationClosed != QMErrors::NoError ? destinationClosed : sourceClosed;
}

QMErrorT QMRegistryC::Find(HKEY root, const char* name, HKEY* pFound) {
  return findBelow(root, name != nullptr ? name : "", pFound, 1);
}
