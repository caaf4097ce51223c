#include "qmutils_print/PrintQueue.h"

#include <cups/cups.h>
#include <cups/pwg.h>

#include <cmath>
#include <new>
#include <utility>

#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/error.h"
#include "qmutils_print/DocumentText.h"

namespace qm {

namespace {

constexpr const char* kLabel = "CPrinterDC::EndDoc(): ";
constexpr const char* kUntitled = "Document";

DWORD reasonOf(ipp_status_t status) {
  switch (status) {
    case IPP_STATUS_ERROR_NOT_FOUND:
    case IPP_STATUS_ERROR_GONE:
      return ERROR_INVALID_PRINTER_NAME;
    case IPP_STATUS_ERROR_SERVICE_UNAVAILABLE:
      return RPC_S_SERVER_UNAVAILABLE;
    case IPP_STATUS_ERROR_FORBIDDEN:
    case IPP_STATUS_ERROR_NOT_AUTHENTICATED:
    case IPP_STATUS_ERROR_NOT_AUTHORIZED:
      return ERROR_ACCESS_DENIED;
    default:
      return ERROR_GEN_FAILURE;
  }
}

/// Logs what the printing system says about its last call.
int fail(const std::string& printer) {
  const DWORD reason = reasonOf(cupsLastError());
  const char* const words = cupsLastErrorString();
  logError(kLabel, printer.empty() ? "default printer" : "printer ", printer, ": ",
           words != nullptr ? words : "");
  platform::setLastError(reason);
  return 0;
}

/// A print queue with the options that its user has set for it.
class Destination {
 public:
  /// "name" or "name/instance"; empty for the default.
  explicit Destination(const std::string& printer) {
    const std::size_t slash = printer.find('/');
    const std::string name = printer.substr(0, slash);
    const std::string instance = slash != std::string::npos ? printer.substr(slash + 1) : "";
    dest_ = cupsGetNamedDest(CUPS_HTTP_DEFAULT, name.empty() ? nullptr : name.c_str(),
                             instance.empty() ? nullptr : instance.c_str());
  }
  Destination(const Destination&) = delete;
  Destination& operator=(const Destination&) = delete;
  ~Destination() {
    if (dest_ != nullptr) cupsFreeDests(1, dest_);
  }

  bool isKnown() const { return dest_ != nullptr; }
  const char* name() const { return dest_->name; }
  void setOption(const char* name, const std::string& value) {
    dest_->num_options = cupsAddOption(name, value.c_str(), dest_->num_options, &dest_->options);
  }
  /// The job's number, or 0.
  int createJob(const char* title) const {
    return cupsCreateJob(CUPS_HTTP_DEFAULT, dest_->name, title, dest_->num_options, dest_->options);
  }

 private:
  cups_dest_t* dest_;
};

bool send(const Destination& printer, int job, const std::string& name, const std::string& data) {
  constexpr int kLast = 1;
  if (cupsStartDocument(CUPS_HTTP_DEFAULT, printer.name(), job, name.c_str(), CUPS_FORMAT_PDF,
                        kLast) != HTTP_STATUS_CONTINUE ||
      cupsWriteRequestData(CUPS_HTTP_DEFAULT, data.data(), data.size()) != HTTP_STATUS_CONTINUE) {
    return false;
  }
  return cupsFinishDocument(CUPS_HTTP_DEFAULT, printer.name()) <= IPP_STATUS_OK_CONFLICTING;
}

/// The sheet as printers name it.
std::string mediaName(const PageSetup& setup) {
  const auto hundredths = [](double mm) { return static_cast<int>(std::lround(mm * 100)); };
  const pwg_media_t* const media =
      pwgMediaForSize(hundredths(setup.paper.widthMm), hundredths(setup.paper.heightMm));
  return media != nullptr && media->pwg != nullptr ? media->pwg : "";
}

}  // namespace

bool PrintQueue::Open(const char* name) try {
  document_.clear();
  name_ = documentText(name != nullptr && *name != '\0' ? name : kUntitled);
  return true;
} catch (const std::bad_alloc&) {
  platform::setLastError(ERROR_NOT_ENOUGH_MEMORY);
  return false;
}

bool PrintQueue::Write(const void* data, std::size_t size) try {
  document_.append(static_cast<const char*>(data), size);
  return true;
} catch (const std::bad_alloc&) {
  platform::setLastError(ERROR_NOT_ENOUGH_MEMORY);
  return false;
}

int PrintQueue::Close() try {
  const std::string document = std::move(document_);
  document_.clear();
  Destination printer(printer_);
  if (!printer.isKnown()) return fail(printer_);
  const std::string media = mediaName(setup_);
  if (!media.empty()) printer.setOption(CUPS_MEDIA, media);
  const int job = printer.createJob(name_.c_str());
  if (job == 0) return fail(printer_);
  if (send(printer, job, name_, document)) return job;
  const int failed = fail(printer_);
  cupsCancelJob2(CUPS_HTTP_DEFAULT, printer.name(), job, 1);
  return failed;
} catch (const std::bad_alloc&) {
  platform::setLastError(ERROR_NOT_ENOUGH_MEMORY);
  return 0;
}

}  // namespace qm
