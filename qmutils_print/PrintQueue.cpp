#include "qmutils_print/PrintQueue.h"

#include <cups/cups.h>
#include <cups/pwg.h>

#include <cmath>
#include <memory>
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

constexpr int kConnectMs = 30'000;
using ConnectionPtr = std::unique_ptr<http_t, decltype(&httpClose)>;

/// To the printing system that the user has chosen, or this machine's.
ConnectionPtr connect() {
  return {httpConnect2(cupsServer(), ippPort(), nullptr, AF_UNSPEC, cupsEncryption(), 1, kConnectMs,
                       nullptr),
          &httpClose};
}

int fail(const std::string& printer, DWORD reason, const char* words) {
  logError(kLabel, printer.empty() ? "default printer" : "printer ", printer, ": ",
           words != nullptr ? words : "");
  platform::setLastError(reason);
  return 0;
}

/// With what the printing system says about its last call.
int fail(const std::string& printer) {
  return fail(printer, reasonOf(cupsLastError()), cupsLastErrorString());
}

/// A print queue with the options that its user has set for it.
class Destination {
 public:
  /// "name" or "name/instance"; empty for the default.
  Destination(http_t* server, const std::string& printer) : server_(server) {
    const std::size_t slash = printer.find('/');
    const std::string name = printer.substr(0, slash);
    const std::string instance = slash != std::string::npos ? printer.substr(slash + 1) : "";
    dest_ = cupsGetNamedDest(server, name.empty() ? nullptr : name.c_str(),
                             instance.empty() ? nullptr : instance.c_str());
  }
  Destination(const Destination&) = delete;
  Destination& operator=(const Destination&) = delete;
  ~Destination() {
    if (dest_ != nullptr) cupsFreeDests(1, dest_);
  }

  bool isKnown() const { return dest_ != nullptr; }
  void setOption(const char* name, const std::string& value) {
    dest_->num_options = cupsAddOption(name, value.c_str(), dest_->num_options, &dest_->options);
  }
  /// The job's number, or 0.
  int createJob(const char* title) const {
    return cupsCreateJob(server_, dest_->name, title, dest_->num_options, dest_->options);
  }
  /// The only document of the job.
  bool send(int job, const std::string& name, const std::string& document) const {
    constexpr int kIsLast = 1;
    return cupsStartDocument(server_, dest_->name, job, name.c_str(), CUPS_FORMAT_PDF, kIsLast) ==
               HTTP_STATUS_CONTINUE &&
           cupsWriteRequestData(server_, document.data(), document.size()) ==
               HTTP_STATUS_CONTINUE &&
           cupsFinishDocument(server_, dest_->name) <= IPP_STATUS_OK_CONFLICTING;
  }
  void cancelJob(int job) const { cupsCancelJob2(server_, dest_->name, job, 1); }

 private:
  http_t* const server_;
  cups_dest_t* dest_;
};

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
  const ConnectionPtr server = connect();
  if (server == nullptr) {
    return fail(printer_, RPC_S_SERVER_UNAVAILABLE, "the printing system does not answer");
  }
  Destination printer(server.get(), printer_);
  if (!printer.isKnown()) return fail(printer_);
  const std::string media = mediaName(setup_);
  if (!media.empty()) printer.setOption(CUPS_MEDIA, media);
  const int job = printer.createJob(name_.c_str());
  if (job == 0) return fail(printer_);
  if (printer.send(job, name_, document)) return job;
  const int failed = fail(printer_);
  const DWORD reason = platform::lastError();
  printer.cancelJob(job);
  platform::setLastError(reason);
  return failed;
} catch (const std::bad_alloc&) {
  platform::setLastError(ERROR_NOT_ENOUGH_MEMORY);
  return 0;
}

}  // namespace qm
