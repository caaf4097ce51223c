// How programs of one user reach each other's windows: each program with windows has a socket,
// named by its process, in a folder that only the user may enter. For platform/posix/ only.
#pragma once

#include <cstdint>
#include <vector>

#include "qmutils/platform/types.h"
#include "qmutils/platform/window.h"

namespace qm::platform::posix {

/// One request to a program. Fixed widths: the programs may be built for different processors.
struct WindowRequest {
  enum Operation : std::uint32_t { Find = 1, Post, Send, Title };

  std::uint32_t magic = 0x514D5731;  // "QMW1"
  std::uint32_t operation = 0;
  std::uint64_t window = 0;
  std::uint64_t wParam = 0;
  std::int64_t lParam = 0;
  std::uint32_t message = 0;
  std::uint32_t timeoutMs = 0;
  std::uint8_t anyClass = 0;
  std::uint8_t anyTitle = 0;
  char className[kLongestWindowClass + 1] = {};
  char title[kLongestWindowTitle + 1] = {};
};

struct WindowReply {
  std::uint32_t magic = 0x514D5731;
  std::uint32_t error = 0;  ///< 0 or a system error number
  std::int64_t value = 0;   ///< a window, or the result of a message
  char title[kLongestWindowTitle + 1] = {};
};

/// Answers a request; called on threads of the link.
using AnswerRequest = void (*)(const WindowRequest& request, WindowReply& reply);

/// Lets other programs ask from now on, until the process ends. Harmless when it was called before.
/// False with the last error set.
bool startWindowLink(AnswerRequest answer) noexcept;

/// Asks another program; 1400 when it is not there (any more), 1460 without an answer in time.
bool askProcess(DWORD process, const WindowRequest& request, DWORD timeoutMs,
                WindowReply& reply) noexcept;

/// The other programs with windows. May throw std::bad_alloc.
std::vector<DWORD> processesWithWindows();

}  // namespace qm::platform::posix
