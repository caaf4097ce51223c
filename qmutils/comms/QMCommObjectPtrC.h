// A holder of a shared object (QMCommObjectC): Attach() takes a reference, Detach() and the
// destructor drop it.
//
//   QMCommObjectPtrC jobs;
//   if (jobs.Attach(new JobListC) == QMErrors::NoError) use(jobs.GetObject());
//
// Assignment and copying carry the pointer over and leave the count alone; so does replacing one
// object by another, by assignment or by Attach(). Each holder that ends drops a reference all the
// same: whoever assigns makes up for that, or a reference is dropped that somebody else took. A
// holder whose object is gone says so (0x20000006) and never touches its memory.
//
// A holder belongs to one thread at a time; holders of one object may be used by different threads.
// Attach() and Detach() wait for the object's lock without limit. Nothing throws; failures are
// returned and logged at level 0.
#pragma once

#include <memory>

#include "qmutils/comms/QMCommObjectC.h"
#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/export.h"

class QMUTILS_API QMCommObjectPtrC {
 public:
  QMCommObjectPtrC() = default;
  QMCommObjectPtrC(const QMCommObjectPtrC&) = default;
  QMCommObjectPtrC& operator=(const QMCommObjectPtrC&) = default;
  ~QMCommObjectPtrC() { Detach(); }

  /// Points at `object` and takes a reference; one that is held already is not dropped, so callers
  /// detach first. Null lets go of the object without dropping its reference.
  ///
  /// 0; 2104 "Already attached to object" for the object that is held, whose count stays;
  /// 2102 "Too many object references", with the reference taken; or the code of
  /// QMCommObjectC::Lock(), and then there is no reference to drop later on.
  QMErrors::QMErrorT Attach(QMCommObjectC* object);

  /// Drops the reference and lets go of the object, which is deleted with the last one if it was
  /// made so. 0, also when nothing is held; or the code of QMCommObjectC::Lock() or Unlock():
  /// 0x20000006 for an object that is gone.
  QMErrors::QMErrorT Detach();

  /// The object that is held, also when no reference could be taken. Without one, when it is gone,
  /// or when there was no memory to tell whether it is, an error is logged and the result is an
  /// object without a name that all such calls share; it is never destroyed.
  QMCommObjectC& GetObject() const;

 private:
  QMCommObjectC* m_pObject = nullptr;
  // The object's record, by which a holder knows that the object is gone, whether it has a
  // reference or not. Null for an object that had no memory for one.
  std::shared_ptr<QMCommObjectC::ControlC> m_pControl;
  bool m_bHasReference = false;  // that Detach() drops
};
