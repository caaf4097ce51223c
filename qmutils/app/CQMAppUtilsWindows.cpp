// The hidden window of a program, and closing another program by its window.
#include <cstdio>
#include <new>
#include <string>

#include "qmutils/app/CQMAppUtils.h"
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
constexpr const char* kModuleFile = "CQMAppUtils::GetWindowModuleFileName(): ";

/// Logs why a window's program is not known, and what is known of the window.
QMErrorT noModule(const char* step, HWND window, const char* module) {
  const QMErrorT error = QMErrors::lastOsError();
  qm::logError(kModuleFile, step, QMErrToStr(error));
  char number[2 * sizeof window + 1];
  std::snprintf(number, sizeof number, "%llx",
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(window)));
  char title[kLongestWindowTitle + 1] = "";
  windowTitle(window, title);
  qm::logError(kModuleFile, "hWnd = 0x", number, ", window title:", title, ", module is: ", module);
  return error;
}

QMErrorT failed(const char* step) {
  const QMErrorT error = QMErrors::lastOsError();
  qm::logError(step, QMErrToStr(error));
  return error;
}

bool operatorWants(const CString& program) {
  const CString question = "The program " + program + " is running. Shall it be closed?";
  return messageBox(question, "Close a program", MB_YESNO | MB_ICONWARNING) == IDYES;
}

/// Waits until a window has gone.
bool awaitEnd(HWND window, const Deadline& deadline) {
  while (isWindow(window)) {
    if (deadline.passed()) return false;
    sleep(kLookAgainMs, false);
  }
  return true;
}

}  // namespace

QMErrorT CQMAppUtils::GetWindowModuleFileNameA(HWND hWnd, CString& file) try {
  const DWORD process = windowProcessId(hWnd);
  if (process == 0) return noModule("Failed to get process handle: ", hWnd, "");
  const std::string path = processModulePath(process);
  if (path.empty()) return noModule("Failed to get module name: ", hWnd, "");
  file = path.c_str();
  return QMErrors::NoError;
} catch (const std::bad_alloc&) {
  qm::logError(kModuleFile, "Failed allocating buffer, size:", kLongestWindowTitle);
  return QMErrors::MemoryAllocationFailed;
}

QMErrorT CQMAppUtils::FindAndCloseApplication(const char* windowClass, const char* title, int bAsk,
                                              int timeoutMs) {
  // This program may well have a window of the same class.
  const HWND window = findWindow(windowClass, title, true);
  if (window == nullptr) return QMErrors::NoError;
  CString file, program;
  const QMErrorT known = GetWindowModuleFileNameA(window, file);
  if (known != QMErrors::NoError) return isWindow(window) ? known : QMErrors::NoError;
  SplitPath(file, nullptr, nullptr, &program, nullptr);
  if (bAsk != 0 && !operatorWants(program)) return QMErrors::TheUserCancelledTheOperation;

  const DWORD limit = timeoutMs > 0 ? static_cast<DWORD>(timeoutMs) : 0;
  const Deadline deadline = Deadline::after(limit);
  const bool sent = sendMessage(window, WM_CLOSE, 0, 0, limit, nullptr);
  if (awaitEnd(window, deadline)) return QMErrors::NoError;
  if (!sent) return failed("CQMAppUtils::FindAndCloseApplication(): SendMessage() failed: ");
  qm::logError("CQMAppUtils::FindAndCloseApplication(): still running: ", file);
  return QMErrors::CommandTimedOut;
}

QMErrorT CQMAppUtils::RegisterClassA(HINSTANCE, const char* className, HICON icon,
                                     WNDPROC procedure) {
  if (registerWindowClass(className, icon, procedure)) return QMErrors::NoError;
  return failed("CQMAppUtils::RegisterClass(): ");
}

QMErrorT CQMAppUtils::InitInstance(HINSTANCE module, const char* className, char* title, HICON icon,
                                   int, WNDPROC procedure) {
  const QMErrorT registered = RegisterClassA(module, className, icon, procedure);
  if (registered != QMErrors::NoError) return registered;
  const HWND window = createWindow(className, title);
  if (window == nullptr) {
    const QMErrorT result = failed("CQMAppUtils::InitInstance(): CreateWindowEx() failed: ");
    unregisterWindowClass(className);
    return result;
  }
  QMErrorT result = QMErrors::NoError;
  MSG message;
  for (int got; (got = getMessage(&message)) != 0;) {
    if (got < 0) {
      result = failed("CQMAppUtils::InitInstance(): GetMessage() failed: ");
      break;
    }
    if (message.message >= WM_KEYFIRST && message.message <= WM_KEYLAST) {
      QMWindowsKeyboardEventC event(message);
      m_KeyboardEventMulticaster.FireEvent(event);
    }
    dispatchMessage(message);
  }
  discardWindow(window);
  if (unregisterWindowClass(className)) return result;
  const QMErrorT left = failed("CQMAppUtils::InitInstance(): UnregisterClass() failed: ");
  return result != QMErrors::NoError ? result : left;
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
