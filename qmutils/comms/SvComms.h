// The message pool: short texts between the processes of the suite on one machine, each addressed
// to a 16-bit identifier and taken, oldest first, by the process that opened the pool under it.
//
//   SvOpenComms(7);
//   SvSendMessage("3;12;7;-1;go;", 2000, 9);
//   char text[256];
//   if (SvReceiveMessage(text, sizeof text, 500) == QMErrors::NoError) ...
//   SvCloseComms();
//
// The pool holds 200 messages of at most 255 characters, whoever they are for. It lives as long as
// any process has it open. A process killed in the middle of a call leaves the pool sound: a
// message is in it wholly or not at all, none comes twice; the next user repairs the rest.
//
// Cost: a message sent or taken without waiting some 200 ns and two locks of the shared mutex, and
// a system call when somebody sleeps. A receiver is woken at once by senders of this library, and
// looks by itself every 100 ms.
//
// Time-outs are milliseconds, INFINITE for none. A process has one connection. SvOpenComms() and
// SvCloseComms() are called by one thread around the use of the pool; the other functions by any
// thread. Without a connection (before opening, after closing, after a failed opening, in a forked
// child) every call says so in its own way and touches nothing. Nothing throws.
#pragma once

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

extern "C" {

/// Joins the pool under `ownID`; messages still waiting for that identifier are discarded, each
/// with a log line. Identifier 0 gives 0 and leaves the process without a connection; while one is
/// open, another identifier takes the place of the former.
/// Waits up to 20 s for others. 2002 "Bad Magic Number" when the section holds something else, 2011
/// "Resource allocation failed" (mutex or event), 2012 "File mapping failed", also for a section of
/// another size, 2013 "Command timed out", 2014 "Command aborted".
QMUTILS_API QMErrors::QMErrorT SvOpenComms(unsigned short ownID);

/// Sends the first 255 characters of `text` (null counts as empty). Waits for a free slot: 2013
/// when none came free in time, 2014 when the wait failed. With no connection or `destID` 0 nothing
/// is sent and the result is 0.
QMUTILS_API QMErrors::QMErrorT SvSendMessage(const char* text, DWORD timeout,
                                             unsigned short destID);

/// Waits for the oldest message for the own identifier and stores it, cut to `size` - 1 characters;
/// the rest of the buffer is filled with NULs. 2013 with an empty buffer when none came in time;
/// 2014 without a connection; 124 "Buffer too small" when `size` is below 1.
QMUTILS_API QMErrors::QMErrorT SvReceiveMessage(char* buffer, int size, DWORD timeout);

/// Waits for messages for the own identifier and stores all of them, one NUL-terminated text behind
/// the other, and one more NUL where there is room. Messages that find no room are lost: 51,200
/// bytes hold all that can wait. 0 with an empty buffer when none came in time; 2013 when not even
/// the pool's mutex came free; 2014 and 124 as above.
QMUTILS_API QMErrors::QMErrorT SvReceiveMultipleMessages(char* buffer, int size, DWORD timeout);

/// 1 when `match(text, context)` is not 0 for some message for the own identifier; the messages
/// stay. 0 otherwise, without a connection, and when the mutex does not come free for 5 s. `match`
/// runs with the pool locked: it must be quick, must not throw and must not call the pool.
QMUTILS_API int SvHavePendingMessage(int (*match)(const char* text, void* context), void* context);

/// 1 while the pool holds 180 messages or more: senders should hold back.
QMUTILS_API int SvIsOverloaded(void);

/// Leaves the pool: discards the messages for the own identifier and logs what else waits. The
/// calling thread owns the pool's mutex from then on (if it came free within 2 s) and other
/// processes wait until the thread ends or opens the pool again. So the last thing that a thread
/// does in the pool, close it, should be among the last things it does at all. The log of the
/// waiting messages waits for the mutex without limit. Does nothing without a connection.
QMUTILS_API QMErrors::QMErrorT SvCloseComms(void);

/// The system's error number after the most recent operation on the pool's objects.
QMUTILS_API DWORD SvGetCommsOSError(void);
}
