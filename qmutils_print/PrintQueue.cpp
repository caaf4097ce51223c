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

/// A connection to the printing system that the user has chosen, or this machine's.
class Server {
 public:
  explicit Server(unsigned patienceMs)
      : http_(httpConnect2(cupsServer(), ippPort(), nullptr, AF_UNSPEC, cupsEncryption(), 1,
                           static_cast<int>(patienceMs), nullptr)) {
    if (http_ != nullptr) httpSetTimeout(http_, patienceMs / 1000.0, &Server::giveUp, this);
  }
  ~Server() { httpClose(http_); }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  http_t* get() const { return http_; }
  bool hasAnswered() const { return http_ != nullptr && !silent_; }

 private:
  static int giveUp(http_t*, void* self) {
    static_cast<Server*>(self)->silent_ = true;
    return 0;
  }

  http_t* const http_;
  bool silent_ = false;
};

int fail(const std::string& printer, DWORD reason, const char* words) {
  logError(kLabel, printer.empty() ? "default printer" : "printer ", printer, ": ",
           words != nullptr ? words : "");
  platform::setLastError(reason);
  return 0;
}

/// With what the printing system says about its last call.
int fail(const std::string& printer, const Server& server) {
  if (server.hasAnswered()) return fail(printer, reasonOf(cupsLastError()), cupsLastErrorString());
  return fail(printer, RPC_S_SERVER_UNAVAILABLE, "the printing system does not answer");
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
  const char* name() const { return dest_->name; }
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

/// A job without its document would wait in the queue. The connection that has failed may stand in
/// the middle of a request, so this is another one.
void cancelJob(const std::string& printer, const char* queue, int job, unsigned patienceMs) {
  const Server server(patienceMs);
  if (server.get() == nullptr ||
      cupsCancelJob2(server.get(), queue, job, 1) > IPP_STATUS_OK_CONFLICTING) {
    (void)fail(printer, server);
  }
}

/// As print queues take it: one line of 255 bytes; of a path the end says most.
std::string jobName(const char* name) {
  constexpr std::size_t kLongest = 255;
  std::string text = documentText(name != nullptr && *name != '\0' ? name : kUntitled);
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < ' ' || c == 0x7F) c = ' ';
  }
  if (text.size() <= kLongest) return text;
  std::size_t begin = text.size() - kLongest;
  while ((text[begin] & 0xC0) == 0x80) ++begin;
  return text.substr(begin);
}

}  // namespace

bool PrintQueue::Open(const char* name) try {
  document_.clear();
  name_ = jobName(name);
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
  const Server server(patienceMs_);
  // Looking up a printer takes several questions; one that says nothing is asked a single one.
  if (server.get() != nullptr) (void)cupsGetDefault2(server.get());
  if (!server.hasAnswered()) return fail(printer_, server);
  Destination printer(server.get(), printer_);
  if (!printer.isKnown()) return fail(printer_, server);
  const std::string media = mediaName(setup_);
  if (!media.empty()) printer.setOption(CUPS_MEDIA, media);
  const int job = printer.createJob(name_.c_str());
  if (job == 0) return fail(printer_, server);
  if (printer.send(job, name_, document)) return job;
  const int failed = fail(printer_, server);
  const DWORD reason = platform::lastError();
  cancelJob(printer_, printer.name(), job, patienceMs_);
  platform::setLastError(reason);
  return failed;
} catch (const std::bad_alloc&) {
  platform::setLastError(ERROR_NOT_ENOUGH_MEMORY);
  return 0;
}

}  // namespace qm
