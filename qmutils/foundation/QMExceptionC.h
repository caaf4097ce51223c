// The exception that carries a result code, for code that throws inside its own module. The
// library itself returns codes and never throws.
#pragma once

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/export.h"

class QMUTILS_API QMExceptionC {
 public:
  QMExceptionC(QMErrors::QMErrorT code) noexcept : m_Error(code) {}
  QMExceptionC(const QMExceptionC&) = default;
  QMExceptionC& operator=(const QMExceptionC&) = default;
  virtual ~QMExceptionC();

  QMErrors::QMErrorT GetError() const noexcept { return m_Error; }
  operator QMErrors::QMErrorT() const noexcept { return m_Error; }

 private:
  QMErrors::QMErrorT m_Error;
};
