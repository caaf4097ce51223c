// A PDF document on its way to a printer of the printing system. Internal to the library.
#pragma once

#include <string>

#include "qmutils_print/CPdfDC.h"

namespace qm {

class PrintQueue : public CPdfDC::OutputC {
 public:
  static constexpr unsigned kPatienceMs = 30'000;

  /// The printing system has so long for each of its answers; whole seconds, 1 at least.
  PrintQueue(const char* printer, const PageSetup& setup, unsigned patienceMs = kPatienceMs)
      : printer_(printer != nullptr ? printer : ""), setup_(setup), patienceMs_(patienceMs) {}

  bool Open(const char* name) override;
  bool Write(const void* data, std::size_t size) override;
  int Close() override;
  void Discard() override { document_ = {}; }

 private:
  const std::string printer_;
  const PageSetup setup_;
  const unsigned patienceMs_;
  std::string name_;
  std::string document_;  // a job is made when it is complete: an aborted one never shows
};

}  // namespace qm
