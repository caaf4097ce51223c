#include "qmutils_print/CPrinterDC.h"

#include <new>

#include "qmutils_print/PrintQueue.h"

namespace {

std::unique_ptr<CPdfDC::OutputC> queueOutput(const char* printer,
                                             const qm::PageSetup& setup) noexcept try {
  return std::make_unique<qm::PrintQueue>(printer, setup);
} catch (const std::bad_alloc&) {
  return nullptr;
}

}  // namespace

CPrinterDC::CPrinterDC(const char* printer, const qm::PageSetup& setup)
    : CPdfDC(queueOutput(printer, setup), setup) {}

CPrinterDC::~CPrinterDC() = default;
