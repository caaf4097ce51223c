// A TCP server: a thread that listens on a port, makes a connection object with a thread of its own
// for each client, deletes those whose threads have ended, and gives the derived class a call when
// there is nothing else to do.
//
//   class SpoolerC : public CQMServerSocket {
//    public:
//     SpoolerC() : CQMServerSocket("Spooler", 4660, nullptr, 0) {}
//     ~SpoolerC() override { stop(); }                      // first, as for every QMThreadC
//     QMErrors::QMErrorT Notify(ServerStateT) override { return QMErrors::NoError; }
//    protected:
//     QMErrors::QMErrorT ServerIdle() override { return QMErrors::NoError; }
//     QMErrors::QMErrorT CreateNewConnection(unsigned socket) override {
//       return Begin(new (std::nothrow) SessionC(this, socket));
//     }
//   };
//
// A client is taken as soon as it arrives. The idle call comes at least once a second, and at once
// when the user event is signalled. Stopping the server stops all connections first. start() and
// stop() may be called from any thread but those of the connections; the set of connections belongs
// to the server.
#pragma once

#include "qmutils/concurrency/QMCriticalSectionC.h"
#include "qmutils/platform/export.h"
#include "qmutils/transport/CQMSocketCommon.h"

class CQMServerConnection;

class QMUTILS_API CQMServerSocket : public CQMSocketCommon {
 public:
  enum ServerStateT {
    NotListening = 0,  ///< before the server starts, and after it has ended by itself
  };

  /// Port 0: the system chooses one when the server is first started; GetPort() gives it from then
  /// on. Once the server listens, GetSocket() gives its socket. `hUserEvent` (may be null) wakes
  /// the server for an idle pass; it is closed with the server. It should be an auto-reset event:
  /// one that stays signalled leaves the server no rest.
  CQMServerSocket(const char* name, unsigned short port, void* hUserEvent, int noDelay);
  ~CQMServerSocket() override;

  /// Told of each change of state, on the server's thread. A result other than 0 ends the thread.
  /// This one gives 2115 "No method body code".
  virtual QMErrors::QMErrorT Notify(ServerStateT state);

 protected:
  QMErrors::QMErrorT run() override;

  /// Starts the thread of a connection made with new; deletes it when that fails. 0, 2001 "Memory
  /// allocation failed" for null, or what starting gives.
  static QMErrors::QMErrorT Begin(CQMServerConnection* connection);

  /// Makes and starts the connection of a client. The socket is the callee's, also when this fails;
  /// a result other than 0 ends the server. This one makes a CQMServerConnection. 2001 "Memory
  /// allocation failed" or what starting gives.
  virtual QMErrors::QMErrorT CreateNewConnection(unsigned socket);
  /// Called at least once a second; the result is not looked at. This one gives 2115.
  virtual QMErrors::QMErrorT ServerIdle();

 private:
  friend class CQMServerConnection;  // CleanUp()

  QMErrors::QMErrorT Open(unsigned& socket);
  bool Listen(unsigned socket) const;
  QMErrors::QMErrorT AcceptClients();
  QMErrors::QMErrorT Welcome(unsigned socket);
  bool IsComplete(unsigned socket);
  bool AwaitClient();
  QMErrors::QMErrorT CleanDeadConnections();
  QMErrors::QMErrorT Delete(CQMServerConnection& connection);

  void* m_hUserEvent;
  // Guards the set of connections, which are the thread's children.
  QMCriticalSectionC m_Section;
};
