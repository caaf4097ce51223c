// Message windows: places that messages are sent to, within a program and between the programs of
// one user. They show nothing.
//
//   registerWindowClass("PressMain", nullptr, procedure);
//   HWND window = createWindow("PressMain", "Press");
//   MSG message;
//   while (getMessage(&message) > 0) dispatchMessage(message);
//
// A window belongs to the thread that made it, which runs its procedure, from within getMessage(),
// dispatchMessage() and sendMessage(), and goes when that thread ends. A procedure must not throw,
// except for std::bad_alloc, which counts as the result 0.
//
// Where the system has no windows of its own a program with windows has a socket in the user's
// runtime folder, by which other programs of the same user find it; the environment variable
// QMUTILS_OBJECT_PREFIX keeps suites apart there as it does for the message pool. A forked child
// has none of its parent's windows.
//
// Any thread may call these functions; none throws. They fail with the last error set: 8 no memory,
// 1400 no such window, 1407 no such class, 1460 no answer in time, 1816 the window has too many
// messages waiting.
#pragma once

#include <cstddef>

#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

namespace qm::platform {

// Names of classes and titles are compared without regard to the case of A-Z. Longer ones are
// refused with 87.
inline constexpr std::size_t kLongestWindowClass = 255;
inline constexpr std::size_t kLongestWindowTitle = 1023;

/// 1410 when the class is known already.
QMUTILS_API bool registerWindowClass(const char* name, HICON icon, WNDPROC procedure) noexcept;
/// 1411 for an unknown class, 1412 while it has windows.
QMUTILS_API bool unregisterWindowClass(const char* name) noexcept;

/// A new window, whose procedure has had WM_CREATE; null when that gave -1 (last error 1223). A
/// null title is an empty one.
QMUTILS_API HWND createWindow(const char* className, const char* title) noexcept;
/// Lets other programs find this program's windows, from now on. Fails with 5 when the user has no
/// folder of his own for it.
QMUTILS_API bool offerWindows() noexcept;
/// Takes a window of the calling thread away without a message. Those that wait for it are dropped.
QMUTILS_API bool discardWindow(HWND window) noexcept;

/// Waits for the next message of the calling thread's windows: 1; 0 when the thread is to quit (the
/// exit code is in wParam); -1 on failure.
QMUTILS_API int getMessage(MSG* message) noexcept;
QMUTILS_API LRESULT dispatchMessage(const MSG& message) noexcept;
/// The calling thread is to quit when it has had the messages that wait.
QMUTILS_API void postQuitMessage(int exitCode) noexcept;

/// Leaves a message for a window of whatever program; up to 10,000 may wait for a thread.
QMUTILS_API bool postMessage(HWND window, UINT message, WPARAM wParam, LPARAM lParam) noexcept;
/// The same and waits for the procedure's result (may be null). Messages that are sent to windows
/// of the calling thread are handled meanwhile.
QMUTILS_API bool sendMessage(HWND window, UINT message, WPARAM wParam, LPARAM lParam,
                             DWORD timeoutMs, LRESULT* result) noexcept;

/// A window of that class and title, null standing for any; first among those of this program
/// unless it is to be another one's. Null with last error 2 when there is none, with another one
/// when that is not certain: a program that does not answer within 3 s is passed over (1460).
QMUTILS_API HWND findWindow(const char* className, const char* title, bool ofOthers) noexcept;
/// False with 1400 when there is no such window (any more); with another error nobody knows.
QMUTILS_API bool isWindow(HWND window) noexcept;
/// The process that a window belongs to; 0 as isWindow().
QMUTILS_API DWORD windowProcessId(HWND window) noexcept;
/// Copies the title with a terminator.
QMUTILS_API bool windowTitle(HWND window, char (&title)[kLongestWindowTitle + 1]) noexcept;

/// What the system does with a message that a procedure does not want.
QMUTILS_API LRESULT defaultWindowProcedure(HWND window, UINT message, WPARAM wParam,
                                           LPARAM lParam) noexcept;

}  // namespace qm::platform
