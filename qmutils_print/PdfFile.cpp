#include "qmutils_print/PdfFile.h"

#include <cstdio>
#include <new>

#include "qmutils/platform/error.h"

namespace qm {

bool PdfFile::Open(const char*) try {
  file_ = std::make_unique<platform::ReplacementFile>(path_.c_str());
  if (file_->get() != nullptr) return true;
  file_.reset();
  return false;
} catch (const std::bad_alloc&) {
  platform::setLastError(ERROR_NOT_ENOUGH_MEMORY);
  return false;
}

bool PdfFile::Write(const void* data, std::size_t size) {
  if (std::fwrite(data, 1, size, file_->get()) == size) return true;
  (void)file_->commit();  // refuses after a write that failed, and tells why it did
  return false;
}

int PdfFile::Close() {
  const bool committed = file_->commit();
  const DWORD reason = platform::lastError();
  file_.reset();
  platform::setLastError(reason);
  return committed ? 1 : 0;
}

}  // namespace qm
