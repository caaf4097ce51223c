// The control program's side of the imager: launches the imager process, commands it through the
// message pool, watches it, and stops it in an orderly way. A program derives from this class and
// supplies the two handlers.
//
//   class PressRoomC : public CTPImagerUserC { ... handlers ... ~PressRoomC() { StopImager(); } };
//   CTPImagerUserC::ImagerStartDataC start("", "Default", 1, 2, 0);
//   PressRoomC imager("/opt/suite/imager", "Press room");
//   if (imager.StartImager(start) == QMErrors::NoError)
//     imager.StartExpose(ICFC::ExposeInfoC("/jobs/page1.tif", 17), jobLine, icfText);
//
// A worker thread receives the imager's messages and calls both handlers on that thread; all other
// operations run on the caller's thread and are called by one thread at a time. Failures are
// logged, put on the error stack and returned as codes; nothing throws. As a derived class is gone
// when this class's destructor runs, it calls StopImager() in its own.
#pragma once

#include <atomic>
#include <iosfwd>
#include <string>
#include <vector>

#include "qmutils/comms/QMMessagePacket.h"
#include "qmutils/concurrency/QMThreadC.h"
#include "qmutils/foundation/QMErrors.h"
#include "qmutils/imager/ICFC.h"
#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

/// The folder, under that of the running program, in which jobs are handed over.
inline constexpr const char* IMAGE_CONTROL_FOLDER = "Image Control";

class QMUTILS_API CTPImagerUserC : public QMThreadC {
 public:
  /// What one imager is started with. Identifiers are 16 bits, not 0, and belong to one process
  /// each in the pool. The priority class goes to the process as it is.
  class ImagerStartDataC {
   public:
    ImagerStartDataC(const char* first, const char* profile, unsigned short parentId,
                     unsigned short childId, unsigned deviceIndex,
                     unsigned priorityClass = NORMAL_PRIORITY_CLASS)
        : m_First(first != nullptr ? first : ""),
          m_Profile(profile != nullptr ? profile : ""),
          m_nParentID(parentId),
          m_nChildID(childId),
          m_nDeviceIndex(deviceIndex),
          m_nPriorityClass(priorityClass) {}

    std::string m_First;
    std::string m_Profile;  ///< passed with -pr; see ICFC for what it may hold
    unsigned short m_nParentID;
    unsigned short m_nChildID;
    unsigned m_nDeviceIndex;
    unsigned m_nPriorityClass;
  };

  /// `imagerCommand` is the imager's path, by the rules of a command line: with blanks it may stand
  /// in double quotes. `identity` answers the imager's question who commands it; empty: no answer.
  CTPImagerUserC(const char* imagerCommand, const char* identity);
  /// Copies the settings, not the running imager.
  CTPImagerUserC(const CTPImagerUserC& other);
  CTPImagerUserC& operator=(const CTPImagerUserC& other);
  ~CTPImagerUserC() override;

  /// Joins the pool, launches the imager and waits up to 60 s until it reports that it has started.
  /// 0 at once while an imager is held. The pool's code; 2039 "Error Unable To Create Process"; the
  /// worker's code; 2207 "Imager has died"; 2013 "Command timed out"; 2049 when another thread
  /// called stop() meanwhile; the imager is then asked to end and killed after 3 s. After 2207 or
  /// the worker's code the imager is held until StopImager().
  QMErrors::QMErrorT StartImager(ImagerStartDataC& data);

  /// Asks the imager to end and waits 60 s; then asks the operator whether to go on waiting or to
  /// kill it. 0 when it ended by itself or none was held; 2013 when it was killed; 2049 when this
  /// thread object was told to stop meanwhile. The imager is released in every case, and the files
  /// of jobs that it did not come to read are deleted.
  QMErrors::QMErrorT StopImager();

  /// Sends a packet to the imager (2 s for a free place in the pool). 0 also without an imager:
  /// what is sent to nobody is lost. 124 or 2113 when it does not fit into 255 characters.
  QMErrors::QMErrorT SendMessage(const QMErrors::QMMessagePacketT& packet);
  QMErrors::QMErrorT ReplyWhoAmI(const char* identity);
  QMErrors::QMErrorT ReplyCopyInfo(unsigned a, unsigned b, unsigned c);

  /// Hands one exposure over: writes the image control file and the job file into the "Image
  /// Control" folder and sends the job file's path. `jobOut` and `icfOut` receive the job line and
  /// the image control document as written. The imager deletes both files once it has read them.
  /// 2064 "Unable to create unique file name", 1001, 2055 "Failed to write to file", 33283 "Failed
  /// to send Transport message", the codes of ICFC::Save().
  QMErrors::QMErrorT StartExpose(const ICFC::ExposeInfoC& info, std::ostream& jobOut,
                                 std::ostream& icfOut);

  unsigned short GetCommsParentID() const { return m_Start.m_nParentID; }
  unsigned short GetChildCommsID() const { return m_Start.m_nChildID; }
  unsigned GetDeviceIndex() const { return m_Start.m_nDeviceIndex; }
  /// True from the death of an imager until the next start.
  bool HasImagerDied() const { return m_bImagerDied; }

 protected:
  /// A message of the imager; the texts of the packet are valid during the call. Its result is
  /// stacked when it is not 0.
  virtual QMErrors::QMErrorT HandleImagerMessage(QMErrors::QMMessagePacketT& packet) = 0;
  /// The imager has died or cannot be watched any more; called once per imager, after the messages
  /// that it had sent. Not called when the pool fails, which ends the worker: IsAlive() tells.
  virtual void HandleImagerError(const char* text) = 0;
  /// Makes the image control document of a job; a host with settings of its own overrides it.
  virtual QMErrors::QMErrorT SaveImageControl(const char* path,
                                              const ICFC::ExposeInfoC& info) const;

 private:
  struct JobFiles;
  /// A file that the imager deletes once it has read it. Then its name is free again, also for
  /// others, hence the time.
  struct HandedOverFile {
    std::string path;
    FILETIME written;
    bool isThere() const noexcept;
  };

  QMErrors::QMErrorT run() override;
  QMErrors::QMErrorT Launch();
  QMErrors::QMErrorT StartWorker();
  QMErrors::QMErrorT AwaitStarted();
  QMErrors::QMErrorT GiveUpStarting();
  void LeavePool();
  void Watch();
  void DispatchLastWords();
  void ReportDeath(bool hasEnded);
  QMErrors::QMErrorT ReceiveOne(DWORD timeoutMs, bool imagerLives);
  void Dispatch(const char* text, bool imagerLives);
  QMErrors::QMErrorT SendCommand(int code, int value, const char* text);
  QMErrors::QMErrorT SendStop(bool* rejoined);
  QMErrors::QMErrorT AwaitImagerEnd();
  bool AskWhetherToWait() const;
  void KillImager();
  void ReleaseImager();
  QMErrors::QMErrorT MakeJobFiles(JobFiles& files, unsigned jobNumber) const;
  QMErrors::QMErrorT WriteJobFile(JobFiles& files, const std::string& line) const;

  void DropUnreadJobs();

  std::string m_ImagerCommand;
  std::string m_Identity;
  ImagerStartDataC m_Start{"", "", 0, 0, 0};
  std::atomic<bool> m_bStoppingImager{false};
  std::atomic<bool> m_bImagerStarted{false};
  std::atomic<bool> m_bImagerDied{false};
  std::atomic<QMErrors::QMErrorT> m_ReceiveError{QMErrors::NoError};
  std::atomic<void*> m_hProcess{nullptr};
  std::atomic<void*> m_hMainThread{nullptr};
  std::vector<HandedOverFile> m_HandedOver;
  void* m_hNews;  // set by the worker when a start may have succeeded or failed
  DWORD m_dwProcessId = 0;
  DWORD m_dwThreadId = 0;
};
