// The windowing class library's root object, as far as the library needs it: objects that know
// their class at run time, by name, size and base class.
//
//   if (event.IsKindOf(&QMWindowsKeyboardEventC::classQMWindowsKeyboardEventC)) ...
//
// A class derived from CObject has a record of type CRuntimeClass as a static member named "class"
// and its own name, and overrides GetRuntimeClass() to give it. Records are constants: any thread
// may use them, also before main() and at the end of the program. Nothing fails or throws.
#pragma once

#include "qmutils/platform/export.h"

/// What is known about a class at run time.
struct QMUTILS_API CRuntimeClass {
  const char* m_pClassName;
  unsigned int m_nObjectSize;         ///< bytes
  const CRuntimeClass* m_pBaseClass;  ///< null for CObject

  /// True for the class itself and for each class above it; false for null.
  bool IsDerivedFrom(const CRuntimeClass* base) const;
};

class QMUTILS_API CObject {
 public:
  static const CRuntimeClass classCObject;

  virtual const CRuntimeClass* GetRuntimeClass() const;
  virtual ~CObject() = default;

  /// True when the object is of that class or of one derived from it.
  bool IsKindOf(const CRuntimeClass* base) const { return GetRuntimeClass()->IsDerivedFrom(base); }
};
