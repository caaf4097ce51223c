// A PDF document in a file, which takes its name when it is complete. Internal to the library.
#pragma once

#include <memory>
#include <string>

#include "qmutils/platform/replacement_file.h"
#include "qmutils_print/CPdfDC.h"

namespace qm {

class PdfFile : public CPdfDC::OutputC {
 public:
  explicit PdfFile(const char* path) : path_(path != nullptr ? path : "") {}

  bool Open(const char* name) override;
  bool Write(const void* data, std::size_t size) override;
  int Close() override;
  void Discard() override { file_.reset(); }

 private:
  const std::string path_;
  std::unique_ptr<platform::ReplacementFile> file_;
};

}  // namespace qm
