#include "qmutils/config/CQMPrefs.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "qmutils/data/QMMixedDataC.h"
#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/hive.h"

using QMErrors::QMErrorT;

const char* const CQMPrefs::m_pPathRoot = "Quillmoor Designs";

namespace {

/// What GetKeyData() hands out.
struct KeyData {
  ~KeyData() { ::operator delete(bytes); }
  unsigned char* bytes = nullptr;
  DWORD size = 0;
};

/// Saves have 32 bits on every system.
DWORD saturated(unsigned long value) { return static_cast<DWORD>(std::min(value, 0xFFFFFFFFul)); }

HKEY treeOf(int bUser) { return bUser != 0 ? HKEY_CURRENT_USER : HKEY_LOCAL_MACHINE; }

QMMixedDataC userNumber(double value) { return {value, 0, 6}; }

/// Closes a key. A failure takes the place of the result, with the thread's last error, which
/// installed programs are used to.
QMErrorT closeAfter(QMErrorT result, HKEY key, const char* label) {
  if (qm::platform::closeKey(key) == 0) return result;
  const QMErrorT error = QMErrors::lastOsError();
  qm::logError(label, "from RegCloseKey(): ", QMErrToStr(error));
  return error;
}

}  // namespace

CQMPrefs::CQMPrefs(const char* name1, const char* name2, const char* name3)
    : m_Name1(name1), m_Name2(name2), m_Name3(name3) {}

QMErrorT CQMPrefs::SaveAppParam(const char* name, unsigned long value) {
  return SaveNumber(name, saturated(value), 0);
}

QMErrorT CQMPrefs::SaveAppParam(const char* name, const char* text) {
  return SaveText(name, text, 0);
}

QMErrorT CQMPrefs::SaveAppParam(const char* name, double value) {
  QMostrstream text;
  text << value << std::ends;
  if (!text) return QMErrors::MemoryAllocationFailed;
  return SaveAppParam(name, text.text().data());
}

unsigned long CQMPrefs::LoadAppParam(const char* name, unsigned long defaultValue) {
  return LoadNumber(name, saturated(defaultValue), 0);
}

double CQMPrefs::LoadAppParam(const char* name, double defaultValue) {
  QMostrstream text;
  Load(name, text, 0);
  QMistrstream in(text.text());
  double value = 0;
  return in >> value ? value : defaultValue;
}

char* CQMPrefs::LoadAppParam(const char* name, const char* defaultText) {
  return LoadText(name, defaultText, 0);
}

QMErrorT CQMPrefs::SaveUsrParam(const char* name, int value, int bApp) {
  return SaveUsrParam(name, static_cast<unsigned int>(value), bApp);
}

QMErrorT CQMPrefs::SaveUsrParam(const char* name, unsigned int value, int bApp) {
  const QMErrorT result = SaveNumber(name, value, 1);
  return result == QMErrors::NoError && bApp != 0 ? SaveNumber(name, value, 0) : result;
}

QMErrorT CQMPrefs::SaveUsrParam(const char* name, unsigned long value, int bApp) {
  return SaveUsrParam(name, saturated(value), bApp);
}

QMErrorT CQMPrefs::SaveUsrParam(const char* name, double value, int bApp) {
  CString text;
  userNumber(value).AToString(text, 0);
  return SaveUsrParam(name, static_cast<const char*>(text), bApp);
}

QMErrorT CQMPrefs::SaveUsrParam(const char* name, const char* text, int bApp) {
  const QMErrorT result = SaveText(name, text, 1);
  return result == QMErrors::NoError && bApp != 0 ? SaveText(name, text, 0) : result;
}

int CQMPrefs::LoadUsrParam(const char* name, int defaultValue, int bApp) {
  return LoadUsrParam(name, static_cast<unsigned int>(defaultValue), bApp) != 0 ? 1 : 0;
}

unsigned int CQMPrefs::LoadUsrParam(const char* name, unsigned int defaultValue, int bApp) {
  return LoadNumber(name, defaultValue, bApp == 0);
}

unsigned long CQMPrefs::LoadUsrParam(const char* name, unsigned long defaultValue, int bApp) {
  return LoadNumber(name, saturated(defaultValue), bApp == 0);
}

double CQMPrefs::LoadUsrParam(const char* name, double defaultValue, int bApp) {
  if (bApp != 0) return LoadAppParam(name, defaultValue);
  QMostrstream text;
  Load(name, text, 1);
  if (text.text().empty()) return defaultValue;
  QMMixedDataC number = userNumber(defaultValue);
  number.FromString(CString(text.text()), false);
  return number.GetValue(static_cast<double*>(nullptr));
}

char* CQMPrefs::LoadUsrParam(const char* name, const char* defaultText, int bApp) {
  return LoadText(name, defaultText, bApp == 0);
}

int CQMPrefs::bIsUsrSectionValid() {
  HKEY key = nullptr;
  if (GetProductKey(&key, 1, 0) != QMErrors::NoError) return 0;
  CloseKey(key, 0);
  return 1;
}

QMErrorT CQMPrefs::GetProductKey(HKEY* pKey) try {
  const std::string path =
      std::string("SOFTWARE\\") + m_pPathRoot + "\\" + static_cast<const char*>(m_Name1);
  return OpenKey(HKEY_CURRENT_USER, path.c_str(), 0, pKey);
} catch (const std::bad_alloc&) {
  return qm::logNoMemory("CQMPrefs::GetProductKey(): ");
}

QMErrorT CQMPrefs::GetProductKey(HKEY* pKey, int bUser, int bCreate) try {
  std::string path = std::string("SOFTWARE\\") + m_pPathRoot;
  for (const QMCString* name : {&m_Name1, &m_Name2, &m_Name3}) {
    path += '\\';
    path += name->view();
  }
  return OpenKey(treeOf(bUser), path.c_str(), bCreate, pKey);
} catch (const std::bad_alloc&) {
  return qm::logNoMemory("CQMPrefs::GetProductKey(): ");
}

QMErrorT CQMPrefs::Save(const char* name, const unsigned char* data, DWORD type, unsigned int size,
                        int bUser) {
  HKEY key = nullptr;
  const QMErrorT opened = GetProductKey(&key, bUser, 1);
  if (opened != QMErrors::NoError) return opened;
  const QMErrorT result =
      QMErrors::fromOsError(qm::platform::writeValue(key, name, type, data, size));
  if (result != QMErrors::NoError) {
    qm::logError("CQMPrefs::Save(): ", "from RegSetValueEx(): ", QMErrToStr(result));
  }
  return closeAfter(result, key, "CQMPrefs::Save(): ");
}

/// Hands what is stored under a name to `take`, unless there is nothing.
template <class Take>
QMErrorT CQMPrefs::LoadData(const char* name, int bUser, const char* label, const Take& take) {
  HKEY key = nullptr;
  const QMErrorT opened = GetProductKey(&key, bUser, 0);
  if (opened != QMErrors::NoError) return opened;
  KeyData data;
  const QMErrorT result = GetKeyData(key, name, &data.bytes, nullptr, &data.size);
  if (data.bytes != nullptr) {
    take(std::string_view(reinterpret_cast<const char*>(data.bytes), data.size));
  }
  return closeAfter(result, key, label);
}

QMErrorT CQMPrefs::Load(const char* name, DWORD* value, int bUser) {
  return LoadData(name, bUser, "CQMPrefs::Load( DWORD ): ", [value](std::string_view bytes) {
    *value = 0;
    std::memcpy(value, bytes.data(), std::min(sizeof *value, bytes.size()));
  });
}

QMErrorT CQMPrefs::Load(const char* name, QMostrstream& text, int bUser) {
  return LoadData(name, bUser, "CQMPrefs::Load( QMostrstream& ): ",
                  [&text](std::string_view bytes) { text << bytes.substr(0, bytes.find('\0')); });
}

QMErrorT CQMPrefs::SaveNumber(const char* name, DWORD value, int bUser) {
  unsigned char bytes[sizeof value];
  std::memcpy(bytes, &value, sizeof value);
  return Save(name, bytes, REG_DWORD, sizeof bytes, bUser);
}

QMErrorT CQMPrefs::SaveText(const char* name, const char* text, int bUser) {
  if (text == nullptr) text = "";
  return Save(name, reinterpret_cast<const unsigned char*>(text), REG_SZ,
              static_cast<unsigned int>(std::strlen(text) + 1), bUser);
}

DWORD CQMPrefs::LoadNumber(const char* name, DWORD defaultValue, int bUser) {
  DWORD value = defaultValue;
  Load(name, &value, bUser);
  return value;
}

char* CQMPrefs::LoadText(const char* name, const char* defaultText, int bUser) {
  QMostrstream stored;
  Load(name, stored, bUser);
  std::string_view text = stored.text();
  if (text.empty() && defaultText != nullptr) text = defaultText;
  auto* const copy = static_cast<char*>(::operator new(text.size() + 1, std::nothrow));
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  return copy;
}
