// A PDF document on its way to a printer of the printing system. Internal to the library.
#pragma once

#include <string>

#include "qmutils_print/CPdfDC.h"

namespace qm {

class PrintQueue : public CPdfDC::OutputC {
 public:
  PrintQueue(const char* printer, const PageSetup& setup)
      : printer_(printer != nullptr ? printer : ""), setup_(setup) {}

  bool Open(const char* name) override;
  bool Write(const void* data, std::size_t size) override;
  int Close() override;
  void Discard() override { document_ = {}; }

 private:
  const std::string printer_;
  const PageSetup setup_;
  std::string name_;
  std::string document_;  // a job is made when it is complete: an aborted one never shows
};

}  // namespace qm
