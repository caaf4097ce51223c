// The error stack: one process-wide list of what went wrong, oldest record first. A failing
// function stacks a record (its name, the code, a reason, the local time) and returns its code; the
// top-level caller prints the stack with ToString() and clears it.
//
//   QMErrorC::Stack("PlateReaderC::load", code, "no such plate");
//   return code;                      // Stack() returns 0, not the code
//
// Any thread may stack, print and clear. A record is a few hundred bytes on the heap; stacking
// walks the list to its tail. Nothing throws: without memory Stack() gives 2048 and Error() the
// record ErrCreateQMErr. The list's lock is waited for at most 60 seconds; a time-out is logged and
// the work goes on.
#pragma once

#include <atomic>
#include <optional>
#include <string>

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/foundation/QMStringStream.h"
#include "qmutils/foundation/SharedText.h"
#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

class QMUTILS_API QMErrorC {
 public:
  /// No texts, code 0, not stacked.
  constexpr QMErrorC() noexcept = default;
  /// A copy shows the same texts and links as its source; the texts live as long as one of the
  /// two. It is not itself part of any list.
  QMErrorC(const QMErrorC& other) noexcept = default;
  QMErrorC& operator=(const QMErrorC& other) noexcept = default;
  /// Does not unlink the record.
  virtual ~QMErrorC();

  /// Creates a record that is not stacked; the caller disposes of it with DisposeHandle(). With
  /// `log` = 1 also logs " ERROR: ", function, code, " Reason: ", reason at level 0. Null texts
  /// print as empty ones. Gives ErrCreateQMErr when memory runs out.
  static QMErrorC* Error(const char* function, QMErrors::QMErrorT code, const char* reason,
                         int log);
  static QMErrorC* Error(const char* function, QMErrors::QMErrorT code, QMostrstream& reason,
                         int log);
  static QMErrorC* Error(const char* function, QMErrors::QMErrorT code, QMstrstream& reason,
                         int log);

  /// Creates a record and appends it. Returns 0 when it is stacked (not `code`), 2048 "Failed to
  /// create QMErrorHandle" when memory runs out.
  static QMErrors::QMErrorT Stack(const char* function, QMErrors::QMErrorT code,
                                  const char* reason);
  static QMErrors::QMErrorT Stack(const char* function, QMErrors::QMErrorT code,
                                  QMostrstream& reason);
  static QMErrors::QMErrorT Stack(const char* function, QMErrors::QMErrorT code,
                                  QMstrstream& reason);
  /// Appends copies of the records of a chain that are not stacked yet and marks them stacked; the
  /// chain stays the caller's and is not part of the stack. 0, also for NoError, which stacks
  /// nothing; 2001 "Memory allocation failed" (copies made so far stay).
  static QMErrors::QMErrorT Stack(QMErrorC* chain);

  static void ClearStack();
  static bool IsEmpty();
  /// True for null and NoError.
  static bool IsEmpty(const QMErrorC* record) noexcept;
  /// The oldest record, or NoError; another thread may delete it at any moment.
  static QMErrorC* GetStack() noexcept;

  /// Deletes a record and all that follow it. Does nothing for null, NoError and ErrCreateQMErr.
  static void DisposeHandle(QMErrorC* record);
  static QMErrorC* ToError(QMErrorC* handle) noexcept { return handle; }
  QMErrorC* ToHandle() noexcept { return this; }

  QMErrors::QMErrorT GetError() const noexcept { return m_Error; }
  /// Local wall-clock time of creation, in FILETIME form.
  FILETIME GetErrorTime() const noexcept { return m_Time; }

  /// Takes function, code, reason and time of `from`, the texts as copies of its own. Returns 0, or
  /// 2001 when memory runs out (the record is then unchanged).
  QMErrors::QMErrorT Clone(const QMErrorC& from) noexcept;

  /// One line a record, CR LF at its end: of this record alone, or of the whole stack
  /// ("<Error Stack Empty>" and LF when there is nothing). Then clears the stack if asked, even
  /// when this record is part of it. The caller frees the text with delete[]; null when memory runs
  /// out, and then nothing is cleared.
  virtual char* ToString(bool thisOnly, bool clearAfter);

  /// Stand for "no error" and the empty stack, and for a record that could not be created.
  static QMErrorC* const NoError;
  static QMErrorC* const ErrCreateQMErr;

 protected:
  /// Fill a record; false when memory runs out. The first record creates the stack's mutex.
  bool Initialise(const char* function, QMErrors::QMErrorT code, const char* reason) noexcept;
  bool Initialise(const char* function, QMErrors::QMErrorT code, QMostrstream& reason) noexcept;
  bool Initialise(const char* function, QMErrors::QMErrorT code, QMstrstream& reason) noexcept;

  QMErrorC* m_pNext = nullptr;
  QMErrorC* m_pPrevious = nullptr;
  qm::SharedText m_pFunction;
  QMErrors::QMErrorT m_Error = QMErrors::NoError;
  qm::SharedText m_pReason;
  FILETIME m_Time{};
  bool m_bStacked = false;

 private:
  friend struct QMErrorStackTestAccess;

  template <class Reason>
  static QMErrorC* create(const char* function, QMErrors::QMErrorT code, Reason&& reason, int log);
  static QMErrors::QMErrorT stackNew(QMErrorC* record);
  bool fill(const char* function, QMErrors::QMErrorT code,
            std::optional<qm::SharedText> reason) noexcept;
  void unlink() noexcept;
  static QMErrorC* takeOut(QMErrorC* first) noexcept;
  static void destroy(QMErrorC* taken);
  void writeLine(std::string* text) const;

  static QMErrors::QMErrorT AddToStack(QMErrorC* record);
  static QMErrors::QMErrorT LockStack();
  static QMErrors::QMErrorT UnlockStack();
  static void createMutex() noexcept;
  static FILETIME GetTime() noexcept;

  static std::atomic<QMErrorC*> m_pStack;
  static std::atomic<HANDLE> m_hMutex;
};
