// The hidden window of a program, and closing another program by its window.
#include <cstdio>
#include <new>
#include <string>

#include "qmutils/app/CQMAppUtils.h"
#include "qmutils/app/KeyboardEvents.h"
#include "qmutils/concurrency/QMWindowsKeyboardEventC.h"
#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/module.h"
#include "qmutils/platform/prompt.h"
#include "qmutils/platform/thread.h"
#include "qmutils/platform/window.h"

using namespace qm::platform;
using QMErrors::QMErrorT;

namespace {

constexpr DWORD kLookAgainMs = 50;
constexpr const char* kFindWindow = "CQMAppUtils::FindAndCloseApplication(): FindWindow() failed: ";
constexpr const char* kSendMessage =
    "CQMAppUtils::FindAndCloseApplication(): SendMessage() failed: ";
constexpr const char* kModuleFile = "CQMAppUtils::GetWindowModuleFileName(): ";

QMErrorT failed(const char* step, DWORD reason) {
  const QMErrorT error = QMErrors::fromOsError(reason);
  qm::logError(step, QMErrToStr(error));
  return error;
}

/// Logs why a window's program is not known, and what is known of the window.
QMErrorT noModule(QMErrorT error, const char* step, HWND window) {
  qm::logError(kModuleFile, step, QMErrToStr(error));
  char number[2 * sizeof window + 1];
  std::snprintf(number, sizeof number, "%llx",
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(window)));
  char title[kLongestWindowTitle + 1] = "";
  windowTitle(window, title);
  qm::logError(kModuleFile, "hWnd = 0x", number, ", window title:", title, ", module is: ");
  return error;
}

bool operatorWants(const CString& program) {
  const CString question = "The program " + program + " is running. Shall it be closed?";
  return messageBox(question, "Close a program", MB_YESNO | MB_ICONWARNING) == IDYES;
}

/// Whether a window has gone for certain: a program that does not answer still runs.
bool hasGone(HWND window) {
  return !isWindow(window) && lastError() == ERROR_INVALID_WINDOW_HANDLE;
}

bool awaitEnd(HWND window, const Deadline& deadline) {
  while (!hasGone(window)) {
    if (deadline.passed()) return false;
    sleep(kLookAgainMs, false);
  }
  return true;
}

}  // namespace

QMErrorT CQMAppUtils::GetWindowModuleFileNameA(HWND hWnd, CString& file) try {
  const DWORD process = windowProcessId(hWnd);
  if (process == 0) {
    return noModule(QMErrors::lastOsError(), "Failed to get process handle: ", hWnd);
  }
  const std::string path = processModulePath(process);
  if (path.empty()) return noModule(QMErrors::lastOsError(), "Failed to get module name: ", hWnd);
  if (!file.Assign(path)) throw std::bad_alloc();
  return QMErrors::NoError;
} catch (const std::bad_alloc&) {
  return noModule(QMErrors::MemoryAllocationFailed, "Failed allocating buffer, size:", hWnd);
}

QMErrorT CQMAppUtils::FindAndCloseApplication(const char* windowClass, const char* title, int bAsk,
                                              int timeoutMs) {
  // This program may well have a window of the same class.
  const HWND window = findWindow(windowClass, title, true);
  if (window == nullptr) {
    const DWORD reason = lastError();
    return reason == ERROR_FILE_NOT_FOUND ? QMErrors::NoError : failed(kFindWindow, reason);
  }
  CString file, program;
  const QMErrorT known = GetWindowModuleFileNameA(window, file);
  if (known != QMErrors::NoError) return hasGone(window) ? QMErrors::NoError : known;
  SplitPath(file, nullptr, nullptr, &program, nullptr);
  if (bAsk != 0 && !operatorWants(program)) return QMErrors::TheUserCancelledTheOperation;

  const DWORD limit = timeoutMs > 0 ? static_cast<DWORD>(timeoutMs) : 0;
  const Deadline deadline = Deadline::after(limit);
  const bool sent = sendMessage(window, WM_CLOSE, 0, 0, limit, nullptr);
  const DWORD reason = lastError();
  if (awaitEnd(window, deadline)) return QMErrors::NoError;
  if (!sent && reason != ERROR_TIMEOUT) return failed(kSendMessage, reason);
  qm::logError("CQMAppUtils::FindAndCloseApplication(): still running: ", file);
  return QMErrors::CommandTimedOut;
}

QMErrorT CQMAppUtils::RegisterClassA(HINSTANCE, const char* className, HICON icon,
                                     WNDPROC procedure) {
  if (registerWindowClass(className, icon, procedure)) return QMErrors::NoError;
  return failed("CQMAppUtils::RegisterClass(): ", lastError());
}

QMErrorT CQMAppUtils::InitInstance(HINSTANCE module, const char* className, char* title, HICON icon,
                                   int, WNDPROC procedure) {
  const QMErrorT registered = RegisterClassA(module, className, icon, procedure);
  if (registered != QMErrors::NoError) return registered;
  const HWND window = createWindow(className, title);
  if (window == nullptr) {
    const QMErrorT result =
        failed("CQMAppUtils::InitInstance(): CreateWindowEx() failed: ", lastError());
    unregisterWindowClass(className);
    return result;
  }
  if (!offerWindows()) {
    qm::logWarning(0, "CQMAppUtils::InitInstance(): other programs will not find the window: ",
                   QMErrToStr(QMErrors::lastOsError()));
  }
  QMErrorT result = QMErrors::NoError;
  MSG message;
  for (int got; (got = getMessage(&message)) != 0;) {
    if (got < 0) {
      result = failed("CQMAppUtils::InitInstance(): GetMessage() failed: ", lastError());
      break;
    }
    if (message.message >= WM_KEYFIRST && message.message <= WM_KEYLAST) {
      QMWindowsKeyboardEventC event(message);
      qm::keyboardEvents().FireEvent(event);
    }
    dispatchMessage(message);
  }
  discardWindow(window);
  // A window of the class that another thread has made goes on.
  unregisterWindowClass(className);
  return result;
}

LRESULT CQMAppUtils::DefWindowProcA(HWND hWnd, UINT message, WPARAM wParam, LPARAM lParam) {
  switch (message) {
    case WM_CREATE:
      return 0;
    case WM_DESTROY:
    case WM_CLOSE:
      postQuitMessage(0);
      return 0;
    default:
      return defaultWindowProcedure(hWnd, message, wParam, lParam);
  }
}
