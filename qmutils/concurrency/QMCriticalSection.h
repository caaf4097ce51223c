// Critical sections for code without classes. A handle is the address of a cell that holds the
// section; the section behind it behaves as QMCriticalSectionC.
//
// Any thread may use a handle while the section lives. A null cell or an empty one gives 2006 from
// enter and leave.
#pragma once

#include "qmutils/concurrency/QMCriticalSectionC.h"

extern "C" {

/// Makes a section in the caller's cell: 0, or 2001 (the cell then holds null).
QMErrors::QMErrorT QMInitializeCriticalSectionEx(QMCriticalSectionC** cell, int reportByMessageBox);

/// Makes a cell with a section in it; null when there is no memory for the cell, a cell holding
/// null when there is none for the section. Ends with QMDestroyCriticalSection().
QMUTILS_API QMCriticalSectionC** QMCreateCriticalSection(int reportByMessageBox);

/// Enters without kill event; a time-out is reported.
QMErrors::QMErrorT QMEnterCriticalSectionEx(QMCriticalSectionC** cell, const char* locker,
                                            unsigned tag, DWORD timeoutMs);
/// Leaves once.
QMErrors::QMErrorT QMLeaveCriticalSectionEx(QMCriticalSectionC** cell, const char* locker,
                                            unsigned tag);

/// Destroys the section and empties the cell; 0. A null cell is left alone.
QMUTILS_API QMErrors::QMErrorT QMDeleteCriticalSection(QMCriticalSectionC** cell);
/// The same, and frees the cell; 0.
QMUTILS_API QMErrors::QMErrorT QMDestroyCriticalSection(QMCriticalSectionC** cell);

/// The cell's address as text, or "Invalid (NULL pointer).". Copies at most `bufferLength`
/// characters of it, the terminating NUL included, into `buffer` (may be null). Gives the text's
/// length with its NUL.
QMUTILS_API unsigned QMCriticalSectionToString(QMCriticalSectionC** cell, char* buffer,
                                               unsigned bufferLength);
}
