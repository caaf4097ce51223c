// Handing one exposure over to the imager: the image control file, the job file, the command.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <new>
#include <ostream>
#include <string>
#include <utility>

#include "qmutils/app/CQMAppUtils.h"
#include "qmutils/foundation/LogLine.h"
#include "qmutils/foundation/QMErrorC.h"
#include "qmutils/imager/CTPImagerUserC.h"
#include "qmutils/imager/ImagerProtocol.h"
#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/file.h"

using namespace qm::platform;
using QMErrors::NoError;
using QMErrors::QMErrorT;

namespace {

constexpr const char* kStartExpose = "CTPImagerUserC::StartExpose(): ";
constexpr int kAttempts = 100;

void stack(QMErrorT code, const std::string& reason) {
  (void)QMErrorC::Stack(kStartExpose, code, reason.c_str());
}

/// The folder "Image Control" under that of the running program, made if missing.
QMErrorT imageControlFolder(CString& folder) {
  CString programFolder;
  const QMErrorT found = CQMAppUtils::GetModulePath(programFolder, true);
  if (found != NoError) return found;
  const CString name(IMAGE_CONTROL_FOLDER);
  CQMAppUtils::MakePath(folder, nullptr, &programFolder, &name, nullptr);
  if (programFolder.IsEmpty()) folder = '\\' + name;  // a program in the root
  return CQMAppUtils::MakeFolder(folder);
}

/// Creates a file of a name that nobody has; the name is empty on failure. Between finding a name
/// and creating the file another program may take it, hence the attempts.
std::string reserveUnique(const CString& folder, unsigned jobNumber, const char* extension) {
  const CString name(("job" + std::to_string(jobNumber)).c_str());
  const CString ext(extension);
  CString pattern;
  CQMAppUtils::MakePath(pattern, nullptr, &folder, &name, &ext);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const CString path = CQMAppUtils::MakeUniqueName(pattern);
    if (path.IsEmpty()) return {};
    const FilePtr file(createFileExclusively(path));
    if (file != nullptr) return static_cast<const char*>(path);
    if (lastError() == ERROR_FILE_EXISTS || lastError() == ERROR_ALREADY_EXISTS) continue;
    qm::logError(kStartExpose, "cannot create ", static_cast<const char*>(path), ": ",
                 QMErrToStr(QMErrors::lastOsError()));
    return {};
  }
  return {};
}

std::string contentOf(const std::string& path) {
  std::ifstream in(nativePath(path.c_str()), std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace

/// The two files of a job; they are deleted again unless the imager was told of them.
struct CTPImagerUserC::JobFiles {
  std::string icf;
  std::string job;
  bool handedOver = false;

  ~JobFiles() {
    if (handedOver) return;
    if (!icf.empty()) deleteFile(icf.c_str());
    if (!job.empty()) deleteFile(job.c_str());
  }
};

QMErrorT CTPImagerUserC::MakeJobFiles(JobFiles& files, unsigned jobNumber) const {
  CString folder;
  const QMErrorT made = imageControlFolder(folder);
  if (made != NoError) {
    stack(made, std::string("Failed to make folder: ") + IMAGE_CONTROL_FOLDER);
    return made;
  }
  files.icf = reserveUnique(folder, jobNumber, "icf");
  if (files.icf.empty()) {
    stack(QMErrors::UnableToCreateUniqueFileName, "Failed to create unique icf");
    return QMErrors::UnableToCreateUniqueFileName;
  }
  files.job = reserveUnique(folder, jobNumber, "txt");
  if (files.job.empty()) {
    stack(QMErrors::UnableToCreateUniqueFileName, "Failed to create unique job file");
    return QMErrors::UnableToCreateUniqueFileName;
  }
  return NoError;
}

QMErrorT CTPImagerUserC::WriteJobFile(JobFiles& files, const std::string& line) const {
  FilePtr file(openFile(files.job.c_str(), "w"));
  if (file == nullptr) {
    stack(QMErrors::FailedToOpenFile, "Failed to open: " + files.job);
    return QMErrors::FailedToOpenFile;
  }
  const bool written = std::fputs(line.c_str(), file.get()) != EOF;
  const bool closed = std::fclose(file.release()) == 0;
  if (written && closed) return NoError;
  // The stacked and the returned code differ; installed programs compare both.
  stack(QMErrors::DiskWriteFailure, "Failed writing to: " + files.job);
  return QMErrors::FailedToWriteToFile;
}

QMErrorT CTPImagerUserC::StartExpose(const ICFC::ExposeInfoC& info, std::ostream& jobOut,
                                     std::ostream& icfOut) try {
  JobFiles files;
  QMErrorT result = MakeJobFiles(files, info.GetJobNumber());
  if (result != NoError) return result;
  result = SaveImageControl(files.icf.c_str(), info);
  if (result != NoError) {
    stack(result, "From icf.Save()");
    return result;
  }
  const std::string line = "-jobid " + std::to_string(info.GetJobNumber()) + " -fl \"" +
                           info.GetFile() + "\" -pr \"" + files.icf + "\"\n";
  result = WriteJobFile(files, line);
  if (result != NoError) return result;
  jobOut << line;
  icfOut << contentOf(files.icf);

  std::erase_if(m_HandedOver, [](const HandedOverFile& file) { return !file.isThere(); });
  HandedOverFile handedOver[] = {{files.icf, {}}, {files.job, {}}};
  for (HandedOverFile& file : handedOver) (void)lastWriteTime(file.path.c_str(), &file.written);
  m_HandedOver.reserve(m_HandedOver.size() + std::size(handedOver));
  const int value = static_cast<int>(m_Start.m_nChildID + info.GetJobNumber());
  // A separator in the path would be taken for its end.
  const bool sendable = files.job.find(';') == std::string::npos;
  if (!sendable) qm::logError(kStartExpose, "a message cannot hold a path with ';': ", files.job);
  if (!sendable || SendCommand(qm::imager::kCodeExpose, value, files.job.c_str()) != NoError) {
    stack(QMErrors::FailedToSendTransportMessage,
          "Failed sending command to imager for: " + info.GetFile());
    return QMErrors::FailedToSendTransportMessage;
  }
  files.handedOver = true;
  for (HandedOverFile& file : handedOver) m_HandedOver.push_back(std::move(file));
  return NoError;
} catch (const std::bad_alloc&) {
  return QMErrors::MemoryAllocationFailed;
}

bool CTPImagerUserC::HandedOverFile::isThere() const noexcept {
  FILETIME now{};
  return lastWriteTime(path.c_str(), &now) && fileTimeTicks(now) == fileTimeTicks(written);
}

/// An imager that was stopped or died leaves the files of the jobs it had not come to.
void CTPImagerUserC::DropUnreadJobs() {
  for (const HandedOverFile& file : m_HandedOver) {
    if (file.isThere()) deleteFile(file.path.c_str());
  }
  m_HandedOver.clear();
}
