// A TCP client: a thread that connects to a host, hands the connection to the derived class, and
// connects anew, at most once a second, until it is stopped.
//
//   class PrinterC : public CQMClientSocket {
//    public:
//     PrinterC() : CQMClientSocket("Printer") {}
//     ~PrinterC() override { stop(); }                      // first, as for every QMThreadC
//    protected:
//     QMErrors::QMErrorT Notify(ClientStateT state) override { show(state); return 0; }
//     QMErrors::QMErrorT ServerListen() override {          // again and again while connected
//       char text[256]; DWORD count;
//       const QMErrors::QMErrorT result = Receive(text, sizeof text, count, 1000);
//       if (result == QMErrors::NoError) take(text, count);
//       return result == QMErrors::CommandTimedOut ? QMErrors::NoError : result;
//     }
//   };
//   printer.SetHost("press-4", 4660);                       // starts the thread
//
// Send() and IsConnected() may be called from any thread (CQMSocketCommon.h). Looking up the host,
// connecting and waiting for the next attempt end at once when the thread is stopped.
#pragma once

#include <mutex>
#include <string>

#include "qmutils/platform/clock.h"
#include "qmutils/platform/export.h"
#include "qmutils/transport/CQMSocketCommon.h"

class QMUTILS_API CQMClientSocket : public CQMSocketCommon {
 public:
  enum ClientStateT {
    NotConnected = 0,  ///< before every attempt, and after a connection has ended
    Connected = 1,
    HostNotFound = 3,  ///< the host name could not be resolved
  };

  /// No thread runs before SetHost(). `port` is what GetPort() gives, and where the client connects
  /// to if it is started without SetHost().
  explicit CQMClientSocket(const char* name = "CQMClientSocket", unsigned short port = 4660,
                           int noDelay = 0);
  ~CQMClientSocket() override;

  /// Stops the thread, if it runs, and starts it for this host (a name or four numbers; copied) and
  /// port. 0 or the code of stopping or starting.
  QMErrors::QMErrorT SetHost(const char* host, unsigned int port);

 protected:
  QMErrors::QMErrorT run() override;

  /// Told of each change of state, on the client's thread. A result other than 0 ends: the thread
  /// when there is no connection, the attempts when it comes before or from one of them, the
  /// connection for Connected. This one gives 2115 "No method body code".
  virtual QMErrors::QMErrorT Notify(ClientStateT state);
  /// Called again and again while connected; any result but 0 ends the connection. This one gives
  /// 2115.
  virtual QMErrors::QMErrorT ServerListen();

 private:
  bool Connect();
  bool Attempt();
  bool Reach(unsigned socket, unsigned address, unsigned port) const;

  std::mutex m_HostLock;
  std::string m_pHost;                                                      // under the lock
  unsigned m_nRemotePort;                                                   // under the lock
  qm::platform::Deadline m_NextAttempt = qm::platform::Deadline::after(0);  // the thread's own
};
