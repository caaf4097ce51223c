// One client of a CQMServerSocket: a thread, child of the server's, that calls the derived class's
// listening step as long as the client stays connected.
//
//   class SessionC : public CQMServerConnection {
//    public:
//     SessionC(CQMServerSocket* server, unsigned socket)
//         : CQMServerConnection(server, socket, 0) {}
//     ~SessionC() override { stop(); }   // first, as for every QMThreadC
//    protected:
//     QMErrors::QMErrorT ClientListen() override;   // Receive(), Send(), ...
//   };
//
// Connections come from new. Once its thread has ended, the server's next idle pass deletes a
// connection; CleanUp() does so before. Sends from several threads do not mix (CQMSocketCommon.h).
#pragma once

#include "qmutils/platform/export.h"
#include "qmutils/transport/CQMSocketCommon.h"

class CQMServerSocket;

class QMUTILS_API CQMServerConnection : public CQMSocketCommon {
 public:
  /// Takes over the accepted socket, which its thread closes at its end, or the destructor when
  /// the thread never ran. `server` may be null: then nobody deletes the object.
  CQMServerConnection(CQMServerSocket* server, unsigned socket, int noDelay);
  ~CQMServerConnection() override;

  /// Stops the thread and deletes the object; on the connection's own thread it only asks the
  /// thread to end, and the server deletes the object. 0, or the code of the server's lock, and the
  /// object stays. Only for connections whose client is still there: others the server may have
  /// deleted. Not while the server is destroyed.
  virtual QMErrors::QMErrorT CleanUp();

  /// True once the thread was started and has come to its end.
  bool HasEnded() const { return GetThread() != nullptr ? !IsAlive() : GetThreadID() != 0; }

 protected:
  QMErrors::QMErrorT run() override;
  /// Called again and again while connected: whenever something has arrived, else ten times a
  /// second. A result other than 0 ends the connection and is the thread's. This one gives 2115 "No
  /// method body code".
  virtual QMErrors::QMErrorT ClientListen();

 private:
  void ShowConnection(int connected);
};
