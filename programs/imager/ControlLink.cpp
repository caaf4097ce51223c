#include "programs/imager/ControlLink.h"

#include "programs/Protocol.h"
#include "qmutils/comms/QMMessageText.h"
#include "qmutils/comms/SvComms.h"
#include "qmutils/foundation/LogLine.h"

namespace programs {
namespace {

constexpr DWORD kSendTimeoutMs = 2000;
constexpr std::size_t kLongestText = 100;  // so that text, qualifier and numbers fit together

/// The end of a text that is too long: for paths the telling part.
std::string shortened(const std::string& text) {
  return text.size() <= kLongestText ? text : "..." + text.substr(text.size() - kLongestText + 3);
}

/// Separators would shift the fields of the message.
std::string plain(std::string text) {
  for (char& c : text) {
    if (c == ';') c = ',';
  }
  return text;
}

std::string fileName(const std::string& path) { return path.substr(path.find_last_of("\\/") + 1); }

}  // namespace

QMErrors::QMErrorT ControlLink::send(int type, int code, int value, const std::string& text,
                                     const std::string& qualifier,
                                     const KeepTrying& keepTrying) const {
  char message[256];
  QMErrors::QMErrorT result = QMCreateMessage(type, code, ownId_, value, text.c_str(),
                                              qualifier.c_str(), message, sizeof message);
  if (result == QMErrors::NoError) {
    do {
      result = SvSendMessage(message, kSendTimeoutMs, parentId_);
    } while (result == QMErrors::CommandTimedOut && keepTrying && keepTrying());
  }
  if (result != QMErrors::NoError) {
    qm::logError("ControlLink::send(): ", "message of type ", type, " code ", code,
                 " was not sent: ", QMErrToStr(result));
  }
  return result;
}

QMErrors::QMErrorT ControlLink::reportStarted() const {
  return send(qm::imager::kTypeReply, qm::imager::kCodeStarted, 0, "", "", nullptr);
}

void ControlLink::askIdentity() const {
  (void)send(qm::imager::kTypeReply, qm::imager::kCodeWhoAmI, 0, "", "", nullptr);
}

void ControlLink::reportProgress(int code, unsigned job, const std::string& text,
                                 const std::string& qualifier) const {
  // A control program that does not keep up loses some of the intermediate reports, no more.
  if (code == kProgressLines && SvIsOverloaded() != 0) return;
  (void)send(qm::imager::kTypeProgress, code, static_cast<int>(job), shortened(plain(text)),
             shortened(plain(qualifier)), nullptr);
}

void ControlLink::reportDone(unsigned job, const std::string& picture,
                             const KeepTrying& keepTrying) const {
  (void)send(qm::imager::kTypeProgress, kProgressDone, static_cast<int>(job),
             shortened(plain(picture)), "", keepTrying);
}

void ControlLink::reportFailure(unsigned job, const Failure& failure,
                                const KeepTrying& keepTrying) const {
  qm::logError("ControlLink::reportFailure(): ", "job ", job, ": ", QMErrToStr(failure.code), ", ",
               failure.reason, " ", failure.file);
  (void)send(qm::imager::kTypeError, failure.code, static_cast<int>(job),
             shortened(plain(failure.reason)), shortened(plain(fileName(failure.file))),
             keepTrying);
}

}  // namespace programs
