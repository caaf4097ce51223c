// How programs of one user reach each other's windows: each program with windows has a socket,
// named by its process, in a folder that only the user may enter. For platform/posix/ only.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "qmutils/platform/types.h"
#include "qmutils/platform/window.h"

namespace qm::platform::posix {

/// One request to a program. The same layout in every build: the programs of a suite differ in
/// age.
struct WindowRequest {
  enum Operation : std::uint32_t { Find = 1, Post, Send, Title };

  std::uint32_t magic = 0x514D5731;  // "QMW1"
  std::uint32_t operation = 0;
  std::uint64_t window = 0;
  std::uint64_t wParam = 0;
  std::int64_t lParam = 0;
  std::uint32_t message = 0;
  std::uint32_t timeoutMs = 0;
  std::uint32_t anyClass = 0;
  std::uint32_t anyTitle = 0;
  char className[kLongestWindowClass + 1] = {};
  char title[kLongestWindowTitle + 1] = {};
};
static_assert(sizeof(WindowRequest) == 48 + 256 + 1024);

struct WindowReply {
  std::uint32_t magic = 0x514D5731;
  std::uint32_t error = 0;  ///< 0 or a system error number
  std::int64_t value = 0;   ///< a window, or the result of a message
  char title[kLongestWindowTitle + 1] = {};
};
static_assert(sizeof(WindowReply) == 16 + 1024);

/// Answers a request; called on threads of the link. `stillAsked` is false once nobody waits for
/// the answer any more; to be called now and then by who takes long.
using AnswerRequest = void (*)(const WindowRequest& request, WindowReply& reply,
                               const std::function<bool()>& stillAsked);

/// Lets other programs ask from now on, until the process ends. Harmless when it was called before.
/// A forked child starts anew. False with the last error set.
bool startWindowLink(AnswerRequest answer) noexcept;

/// Asks another program; `meanwhile` is called every few milliseconds until it has answered. Fails
/// with 1400 when that program is not there or says that the window is not, 1460 without an answer
/// in time, 995 when it ended without one, else with what was in the way. May throw
/// std::bad_alloc.
bool askProcess(DWORD process, const WindowRequest& request, DWORD timeoutMs,
                const std::function<void()>& meanwhile, WindowReply& reply);

/// The other programs with windows. False with the last error set when that cannot be found out.
/// May throw std::bad_alloc.
bool processesWithWindows(std::vector<DWORD>* processes);

}  // namespace qm::platform::posix
