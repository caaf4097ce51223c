#include "qmutils/foundation/QMErrorC.h"

#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

#include "qmutils/foundation/Immortal.h"
#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/short_lock.h"
#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/waitable.h"

using QMErrors::QMErrorT;

namespace {

constexpr DWORD kLockTimeoutMs = 60'000;

constinit qm::Immortal<QMErrorC> noError;
constinit qm::Immortal<QMErrorC> notCreated;

/// Guards the links of all records. m_hMutex alone cannot: after its time-out work goes on without
/// it, and printing does not take it at all. Held while records are linked, unlinked and printed;
/// no caller's code runs under it.
std::mutex& links() {
  static qm::Immortal<std::mutex> mutex;
  return mutex.value;
}

std::mutex& mutexCreation() {
  static qm::Immortal<std::mutex> mutex;
  return mutex.value;
}

}  // namespace

QMErrorC* const QMErrorC::NoError = &noError.value;
QMErrorC* const QMErrorC::ErrCreateQMErr = &notCreated.value;
constinit std::atomic<QMErrorC*> QMErrorC::m_pStack{&noError.value};
constinit std::atomic<HANDLE> QMErrorC::m_hMutex{nullptr};

QMErrorC::~QMErrorC() = default;

bool QMErrorC::Initialise(const char* function, QMErrorT code, const char* reason) noexcept {
  return fill(function, code, qm::SharedText::copyOf(reason));
}

bool QMErrorC::Initialise(const char* function, QMErrorT code, QMostrstream& reason) noexcept {
  return fill(function, code, qm::SharedText::copyOf(reason.text()));
}

bool QMErrorC::Initialise(const char* function, QMErrorT code, QMstrstream& reason) noexcept {
  return fill(function, code, qm::SharedText::copyOf(reason.text()));
}

bool QMErrorC::fill(const char* function, QMErrorT code,
                    std::optional<qm::SharedText> reason) noexcept {
  std::optional<qm::SharedText> functionCopy = qm::SharedText::copyOf(function);
  if (!functionCopy || !reason) return false;
  m_Time = GetTime();
  m_pFunction = std::move(*functionCopy);
  m_Error = code;
  m_pReason = std::move(*reason);
  createMutex();
  return true;
}

/// Without a mutex the stack works unlocked, and every later record tries again.
void QMErrorC::createMutex() noexcept {
  if (m_hMutex.load() != nullptr) return;
  {
    const qm::platform::ShortLock lock(mutexCreation());
    if (m_hMutex.load() == nullptr) m_hMutex = qm::platform::createMutex(false);
  }
  if (m_hMutex.load() == nullptr) qm::logError("QMErrorC::Initialise: ", "creating mutex");
}

FILETIME QMErrorC::GetTime() noexcept {
  FILETIME time{};
  qm::platform::systemTimeToFileTime(qm::platform::localSystemTime(), &time);
  return time;
}

template <class Reason>
QMErrorC* QMErrorC::create(const char* function, QMErrorT code, Reason&& reason, int log) {
  auto* record = new (std::nothrow) QMErrorC;
  if (record == nullptr) return ErrCreateQMErr;
  if (!record->Initialise(function, code, reason)) {
    delete record;
    return ErrCreateQMErr;
  }
  if (log == 1) {
    qm::logError(record->m_pFunction.orEmpty(), static_cast<int>(code),
                 " Reason: ", record->m_pReason.orEmpty());
  }
  return record;
}

QMErrorC* QMErrorC::Error(const char* function, QMErrorT code, const char* reason, int log) {
  return create(function, code, reason, log);
}
QMErrorC* QMErrorC::Error(const char* function, QMErrorT code, QMostrstream& reason, int log) {
  return create(function, code, reason, log);
}
QMErrorC* QMErrorC::Error(const char* function, QMErrorT code, QMstrstream& reason, int log) {
  return create(function, code, reason, log);
}

QMErrorT QMErrorC::stackNew(QMErrorC* record) {
  if (record == ErrCreateQMErr) return QMErrors::FailedToCreateQMErrorHandle;
  record->m_bStacked = true;
  return AddToStack(record);
}

QMErrorT QMErrorC::Stack(const char* function, QMErrorT code, const char* reason) {
  return stackNew(create(function, code, reason, 0));
}
QMErrorT QMErrorC::Stack(const char* function, QMErrorT code, QMostrstream& reason) {
  return stackNew(create(function, code, reason, 0));
}
QMErrorT QMErrorC::Stack(const char* function, QMErrorT code, QMstrstream& reason) {
  return stackNew(create(function, code, reason, 0));
}

QMErrorT QMErrorC::Stack(QMErrorC* chain) {
  if (chain == ErrCreateQMErr) return QMErrors::FailedToCreateQMErrorHandle;
  if (chain == NoError) return QMErrors::NoError;
  for (QMErrorC* record = chain; record != nullptr; record = record->m_pNext) {
    if (record->m_bStacked) continue;
    auto* copy = new (std::nothrow) QMErrorC;
    if (copy == nullptr || copy->Clone(*record) != QMErrors::NoError) {
      delete copy;
      qm::logError("QMErrorC::Stack: ", "Allocating copy for stack");
      return QMErrors::MemoryAllocationFailed;
    }
    copy->m_bStacked = true;
    record->m_bStacked = AddToStack(copy) == QMErrors::NoError;
  }
  return QMErrors::NoError;
}

QMErrorT QMErrorC::AddToStack(QMErrorC* record) {
  LockStack();  // a failure is logged there; the record is stacked all the same
  {
    const qm::platform::ShortLock lock(links());
    QMErrorC* tail = m_pStack.load();
    if (IsEmpty(tail)) {
      m_pStack = record;
    } else {
      while (tail->m_pNext != nullptr) tail = tail->m_pNext;
      tail->m_pNext = record;
      record->m_pPrevious = tail;
    }
  }
  UnlockStack();
  return QMErrors::NoError;
}

QMErrorT QMErrorC::LockStack() {
  const HANDLE mutex = m_hMutex.load();
  if (mutex == nullptr) return QMErrors::NoError;
  const DWORD result = qm::platform::wait(mutex, kLockTimeoutMs);
  if (result == WAIT_OBJECT_0) return QMErrors::NoError;
  constexpr int kMarker = 1;  // log readers look for it behind the label
  if (result == WAIT_TIMEOUT) {
    qm::logError("QMErrorC::LockStack(): ", kMarker, "Timed out waiting for m_hMutex");
    return QMErrors::CommandTimedOut;
  }
  // Only a failed wait has a reason of the system's.
  const QMErrorT code = result == WAIT_FAILED ? QMErrors::lastOsError() : QMErrors::NoError;
  qm::logError("QMErrorC::LockStack(): ", kMarker, "waiting for m_hMutex: ", QMErrToStr(code));
  return code;
}

QMErrorT QMErrorC::UnlockStack() {
  if (const HANDLE mutex = m_hMutex.load()) qm::platform::releaseMutex(mutex);
  return QMErrors::NoError;
}

/// Takes the record out of its list. Only neighbours that point back are changed: a copy shows
/// links that are not its own.
void QMErrorC::unlink() noexcept {
  if (m_pNext != nullptr && m_pNext->m_pPrevious == this) m_pNext->m_pPrevious = m_pPrevious;
  if (m_pPrevious != nullptr && m_pPrevious->m_pNext == this) m_pPrevious->m_pNext = m_pNext;
  if (m_pStack.load() == this) m_pStack = m_pNext != nullptr ? m_pNext : NoError;
}

/// Takes a record and all that follow it out of their list, under links(); gives them chained for
/// destroy().
QMErrorC* QMErrorC::takeOut(QMErrorC* first) noexcept {
  QMErrorC* taken = nullptr;
  for (QMErrorC* record = first; !IsEmpty(record);) {
    QMErrorC* next = record->m_pNext;
    record->unlink();
    record->m_pNext = std::exchange(taken, record);
    record = next;
  }
  return taken;
}

void QMErrorC::destroy(QMErrorC* taken) {
  while (taken != nullptr) delete std::exchange(taken, taken->m_pNext);
}

void QMErrorC::ClearStack() {
  LockStack();
  QMErrorC* taken = nullptr;
  {
    const qm::platform::ShortLock lock(links());
    taken = takeOut(m_pStack.load());
  }
  destroy(taken);
  UnlockStack();
}

void QMErrorC::DisposeHandle(QMErrorC* handle) {
  if (handle == ErrCreateQMErr) return;
  QMErrorC* taken = nullptr;
  {
    const qm::platform::ShortLock lock(links());
    taken = takeOut(handle);
  }
  destroy(taken);
}

bool QMErrorC::IsEmpty() { return IsEmpty(GetStack()); }

bool QMErrorC::IsEmpty(const QMErrorC* record) noexcept {
  return record == nullptr || record == NoError;
}

QMErrorC* QMErrorC::GetStack() noexcept { return m_pStack.load(); }

QMErrorT QMErrorC::Clone(const QMErrorC& from) noexcept {
  std::optional<qm::SharedText> function = qm::SharedText::copyOf(from.m_pFunction.c_str());
  std::optional<qm::SharedText> reason = qm::SharedText::copyOf(from.m_pReason.c_str());
  if (!function || !reason) return QMErrors::MemoryAllocationFailed;
  m_pFunction = std::move(*function);
  m_Error = from.m_Error;
  m_pReason = std::move(*reason);
  m_Time = from.m_Time;
  return QMErrors::NoError;
}

void QMErrorC::writeLine(std::string* text) const {
  SYSTEMTIME time{};
  qm::platform::fileTimeToSystemTime(m_Time, &time);
  char start[80];
  std::snprintf(start, sizeof start, "At: %02u:%02u:%02u.%03u on: %02u/%02u/%04u, ERROR: 0x%08x ",
                time.wHour, time.wMinute, time.wSecond, time.wMilliseconds, time.wDay, time.wMonth,
                time.wYear, static_cast<unsigned>(m_Error));
  *text += start;
  *text += QMErrToStr(m_Error);
  *text += ", in FUNCTION: ";
  *text += m_pFunction.orEmpty();
  *text += " REASON: ";
  *text += m_pReason.orEmpty();
  *text += "\r\n";
}

char* QMErrorC::ToString(bool thisOnly, bool clearAfter) {
  char* result = nullptr;
  try {
    std::string text;
    {
      const qm::platform::ShortLock lock(links());
      const QMErrorC* record = thisOnly ? this : m_pStack.load();
      if (record == NoError) {
        text = "<Error Stack Empty>\n";
        record = nullptr;
      }
      for (; record != nullptr; record = thisOnly ? nullptr : record->m_pNext) {
        record->writeLine(&text);
      }
    }
    result = new char[text.size() + 1];
    std::memcpy(result, text.c_str(), text.size() + 1);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  // This may delete this very record: only locals from here on.
  if (clearAfter) ClearStack();
  return result;
}
