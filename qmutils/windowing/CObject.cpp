#include "qmutils/windowing/CObject.h"

constinit const CRuntimeClass CObject::classCObject = {"CObject", sizeof(CObject), nullptr};

bool CRuntimeClass::IsDerivedFrom(const CRuntimeClass* base) const {
  const CRuntimeClass* own = this;
  while (own != nullptr && own != base) own = own->m_pBaseClass;
  return own != nullptr;
}

const CRuntimeClass* CObject::GetRuntimeClass() const { return &classCObject; }
