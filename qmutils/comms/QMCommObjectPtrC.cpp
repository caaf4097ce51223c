#include "qmutils/comms/QMCommObjectPtrC.h"

#include <utility>

#include "qmutils/foundation/Immortal.h"
#include "qmutils/foundation/LogLine.h"

using QMErrors::QMErrorT;

QMErrorT QMCommObjectPtrC::Attach(QMCommObjectC* object) {
  // The record tells the object that is held from a new one at the address of one that is gone.
  if (object != nullptr && object == m_pObject && m_pControl == object->m_pControl) {
    qm::logError("QMCommObjectPtrC::Attach(): ", "Already attached to :", *object);
    return QMErrors::AlreadyAttachedToObject;
  }
  m_pObject = object;
  m_bHasReference = false;
  m_pControl.reset();
  if (object == nullptr) return QMErrors::NoError;
  // Before the reference is taken: afterwards another thread may drop it, and the object be gone.
  m_pControl = object->m_pControl;
  const QMErrorT result = object->IncrementReference();
  m_bHasReference = result == QMErrors::NoError || result == QMErrors::TooManyObjectReferences;
  return result;
}

QMErrorT QMCommObjectPtrC::Detach() {
  QMCommObjectC* const object = std::exchange(m_pObject, nullptr);
  const std::shared_ptr<QMCommObjectC::ControlC> control = std::exchange(m_pControl, nullptr);
  if (!std::exchange(m_bHasReference, false)) return QMErrors::NoError;
  return QMCommObjectC::DecrementReference(*control, object);
}

QMCommObjectC& QMCommObjectPtrC::GetObject() const {
  if (m_pControl != nullptr && !QMCommObjectC::IsGone(*m_pControl)) {
    return *m_pObject;
  }
  qm::logError("QMCommObjectPtrC::GetObject(): ", "Not attached to an object");
  static qm::Immortal<QMCommObjectC> nothing;
  return nothing.value;
}
