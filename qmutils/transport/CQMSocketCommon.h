// The base of the text transports: a worker thread that owns one TCP socket. Derived are the client
// (CQMClientSocket) and the two sides of the server (CQMServerSocket, CQMServerConnection);
// programs derive from those.
//
// Any thread may send, test the connection, and ask for or set socket and port. Sends exclude each
// other for the whole of a text, so texts never mix. Connecting and closing are for the object's
// own thread, or for whoever uses the object without one; closing ends a send that is stuck. The
// socket belongs to the object: what it still holds is closed when it is destroyed. Sockets are
// non-blocking: code of derived classes that uses the system's calls on GetSocket() sees 10035 when
// there is nothing to read; Receive() waits.
//
// Results: 0 or the system's socket error (10035..11004) with bit 0x20000000 set. Nothing throws.
#pragma once

#include <atomic>
#include <iosfwd>
#include <shared_mutex>

#include "qmutils/concurrency/QMLockC.h"
#include "qmutils/concurrency/QMThreadC.h"
#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/export.h"

class QMUTILS_API CQMSocketCommon : public QMThreadC {
 public:
  /// What GetSocket() gives when there is no socket.
  static constexpr unsigned kNoSocket = 0xFFFFFFFFu;

  /// `name`, `parent` and `autoDelete` as in QMThreadC; stop() waits ten seconds at most. `noDelay`
  /// is what SetNoTCPDelay() sets.
  CQMSocketCommon(const char* name, unsigned short port, QMThreadC* const parent, int autoDelete,
                  int noDelay);
  /// A thread of its own with the same settings and no socket.
  CQMSocketCommon(const CQMSocketCommon& other);
  CQMSocketCommon& operator=(const CQMSocketCommon&) = delete;
  ~CQMSocketCommon() override;

  /// Starts the system's socket library, version 2.0. 0 or its error; 10092 with bit 29 when the
  /// system has an older version only.
  QMErrors::QMErrorT InitialiseSocketUsage();

  unsigned GetSocket() const { return m_nSocket; }
  /// Takes over a socket. One that the object had before is the caller's to close.
  void SetSocket(unsigned socket) {
    m_nCutSocket = kNoSocket;
    m_nSocket = socket;
  }
  unsigned short GetPort() const { return m_nPort; }
  void SetPortID(unsigned short port) { m_nPort = port; }

  /// The flag given at construction.
  int GetNoTCPDelay() const { return m_nNoDelay; }
  /// Sets socket option 1 of level 0 to the flag given at construction. The argument is not looked
  /// at: installed programs pass anything.
  QMErrors::QMErrorT SetNoTCPDelay(int noDelay);

  /// Non-zero while the socket is connected: at once when bytes are there to be read, else when
  /// some came within 100 ms, or neither they nor the end of the connection nor that of the thread.
  /// When 0, `error` (may be null) is 0 if the peer has closed the connection, else the error.
  int IsConnected(QMErrors::QMErrorT* error);

  /// Sends the text without its NUL, waiting for room as long as it takes. Null and empty texts
  /// send nothing. 0, also when the thread was told to stop before all was sent; or the socket's
  /// error, which is logged. On a socket that is not connected yet it waits until it is, or, when
  /// the thread was never started, fails with 10057.
  QMErrors::QMErrorT Send(const char* text);

  /// Ends the connection in both directions and closes the socket. If it is the object's own,
  /// GetSocket() gives kNoSocket from here on, and operations on it that are going on end first.
  void CloseConnection(unsigned socket);

 protected:
  /// Takes what has arrived, at most `size` (1..) bytes, waiting up to `timeoutMs` for the first. 0
  /// with `received` above 0; 2007 "End of file error" when the peer has closed the connection;
  /// 2013 "Command timed out"; 2049 "The wait was forced to exit" when the thread was told to stop;
  /// or the socket's error.
  QMErrors::QMErrorT Receive(char* buffer, DWORD size, DWORD& received, DWORD timeoutMs);

  /// True while stop() waits for the thread; false for one that was never started.
  bool IsToldToStop() const;

 private:
  class UseC;

  QMErrors::QMErrorT HasData(DWORD& count);
  QMErrors::QMErrorT Transfer(const char* text);
  bool AwaitRoom(unsigned socket) const;

  // Sends one at a time. The fields do without it, as nobody may have to wait for a send that is
  // stuck only to learn the port.
  QMLockC m_Lock;
  std::atomic<unsigned> m_nSocket{kNoSocket};
  std::atomic<unsigned> m_nCutSocket{kNoSocket};  // on which a text was cut short by the stop
  std::atomic<unsigned short> m_nPort;
  const int m_nNoDelay;
  const int m_nAutoDelete;
  // Shared by who uses the socket, exclusive for closing it: its number may be another file's then.
  std::shared_mutex m_InUse;
};

/// "CQMSocketCommon = { m_pName=client, m_nSocket=7, m_nPort=4660, m_nNoDelay=0 }".
QMUTILS_API std::iostream& operator<<(std::iostream& stream, CQMSocketCommon& socket);
