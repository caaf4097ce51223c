#include "qmutils/platform/error.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "qmutils/platform/posix/errno_translation.h"

namespace qm::platform {

namespace {

thread_local DWORD lastErrorOfThread = 0;

struct Sentence {
  DWORD number;
  std::string_view text;
};

constexpr Sentence kSentences[] = {
    {0, "The operation completed successfully."},
    {1, "The function is not valid here."},
    {2, "The file cannot be found."},
    {3, "The path cannot be found."},
    {4, "Too many files are open."},
    {5, "Access is denied."},
    {6, "The handle is invalid."},
    {7, "The storage control blocks were destroyed."},
    {8, "There is not enough memory."},
    {9, "The storage control block address is invalid."},
    {10, "The environment is incorrect."},
    {11, "The format of the program is incorrect."},
    {12, "The access code is invalid."},
    {13, "The data is invalid."},
    {14, "There is not enough memory to complete the operation."},
    {15, "The drive cannot be found."},
    {16, "The folder cannot be removed."},
    {17, "The file cannot be moved to a different disk drive."},
    {18, "There are no more files."},
    {19, "The medium is write protected."},
    {20, "The device cannot be found."},
    {21, "The device is not ready."},
    {22, "The device does not recognise the command."},
    {23, "The data failed its checksum."},
    {24, "The length of the command is incorrect."},
    {25, "The drive cannot find the place on the disk."},
    {26, "The disk cannot be read."},
    {27, "The drive cannot find the sector."},
    {28, "The printer is out of paper."},
    {29, "The device cannot be written to."},
    {30, "The device cannot be read from."},
    {31, "The device is not working."},
    {32, "The file is in use by another program."},
    {33, "Part of the file is locked by another program."},
    {34, "The wrong disk is in the drive."},
    {36, "Too many files are open for sharing."},
    {38, "The end of the file was reached."},
    {39, "The disk is full."},
    {50, "The request is not supported."},
    {51, "The remote computer cannot be reached."},
    {52, "The name already exists on the network."},
    {53, "The network path cannot be found."},
    {54, "The network is busy."},
    {55, "The network resource is no longer there."},
    {58, "The server cannot perform the operation."},
    {59, "A network error occurred."},
    {64, "The network name is no longer there."},
    {65, "Access to the network is denied."},
    {67, "The network name cannot be found."},
    {71, "No more connections can be made to this computer."},
    {80, "The file exists."},
    {82, "The folder or file cannot be created."},
    {83, "The critical error handler failed."},
    {84, "There is no storage for the request."},
    {85, "The device name is already in use."},
    {86, "The password is incorrect."},
    {87, "The parameter is incorrect."},
    {88, "A write to the network failed."},
    {89, "No other process can be started now."},
    {100, "No other semaphore can be created."},
    {101, "The semaphore belongs to another process."},
    {102, "The semaphore is set and cannot be closed."},
    {103, "The semaphore cannot be set again."},
    {105, "The former owner of the semaphore has ended."},
    {107, "The program stopped because the other disk was not inserted."},
    {108, "The disk is in use or locked by another process."},
    {109, "The pipe has been ended."},
    {110, "The device or file cannot be opened."},
    {111, "The file name is too long."},
    {112, "There is not enough space on the disk."},
    {113, "No more identifiers are available for files."},
    {114, "The identifier of the file is incorrect."},
    {117, "The control call to the device is incorrect."},
    {119, "The command is not supported."},
    {120, "The function is not supported on this system."},
    {121, "The time-out period of the semaphore has passed."},
    {122, "The buffer of the call is too small."},
    {123, "The name is incorrect."},
    {124, "The level of the call is incorrect."},
    {126, "The module cannot be found."},
    {127, "The procedure cannot be found."},
    {128, "There are no child processes to wait for."},
    {130, "The file handle of an open disk partition was used for a file operation."},
    {131, "The file position cannot be moved before the beginning of the file."},
    {132, "The file position cannot be set on this device or file."},
    {145, "The folder is not empty."},
    {147, "There are not enough resources for the command."},
    {148, "The path cannot be used now."},
    {156, "The thread cannot be suspended any further."},
    {158, "The segment is already unlocked."},
    {160, "The arguments are incorrect."},
    {161, "The path is invalid."},
    {162, "A signal is already pending."},
    {164, "No more threads can be created."},
    {167, "The region of the file cannot be locked."},
    {170, "The resource is in use."},
    {173, "There was no lock request to cancel."},
    {174, "The file system does not support changes of the lock type."},
    {183, "The file exists already."},
    {186, "The flag is incorrect."},
    {187, "The semaphore does not exist."},
    {191, "The program file cannot be run."},
    {192, "The operating system cannot run the program."},
    {193, "The file is not a valid program."},
    {196, "The operating system cannot run the program."},
    {203, "The environment variable cannot be found."},
    {205, "No process in the command subtree has a signal handler."},
    {206, "The file name or its extension is too long."},
    {208, "The name contains wildcards in the wrong places."},
    {209, "The signal is incorrect."},
    {212, "The segment is locked and cannot be moved."},
    {214, "Too many modules are attached to the program."},
    {215, "Loaded modules cannot be nested."},
    {216, "The program file is not compatible with this system."},
    {222, "The file type is not supported here."},
    {223, "The file is too large."},
    {230, "The state of the pipe is invalid."},
    {231, "All pipes are busy."},
    {232, "The pipe is being closed."},
    {233, "There is no process at the other end of the pipe."},
    {234, "More data is available."},
    {240, "The session was cancelled."},
    {254, "The name of the extended attribute is invalid."},
    {255, "The extended attributes are inconsistent."},
    {258, "The wait timed out."},
    {259, "There is no more data."},
    {266, "The copy functions cannot be used."},
    {267, "The folder name is invalid."},
    {275, "The extended attributes do not fit in the buffer."},
    {276, "The extended attributes of the file are damaged."},
    {282, "The file system does not support extended attributes."},
    {288, "The mutex is not owned by the caller."},
    {298, "The semaphore was released too many times."},
    {299, "Only part of the memory request was completed."},
    {300, "The oplock request is denied."},
    {487, "The memory address is invalid."},
    {534, "The arithmetic result does not fit."},
    {995, "The operation was aborted."},
    {996, "The overlapped event is not signalled."},
    {997, "The overlapped operation is still in progress."},
    {998, "The memory location cannot be accessed."},
    {1006, "The file was changed outside and is no longer valid."},
    {1008, "There is no such token."},
    {1009, "The configuration database is damaged."},
    {1010, "The configuration key is invalid."},
    {1011, "The configuration key cannot be opened."},
    {1012, "The configuration key cannot be read."},
    {1013, "The configuration key cannot be written."},
    {1015, "The registry is damaged."},
    {1016, "A registry operation failed."},
    {1018, "The registry key has been marked for deletion."},
    {1117, "The device reported an input or output error."},
    {1131, "A possible deadlock was found."},
    {1142, "The file has too many links already."},
    {1167, "The device is not connected."},
    {1168, "The element cannot be found."},
    {1219, "The credentials conflict with those of another connection."},
    {1223, "The operation was cancelled by the user."},
    {1225, "The remote computer refused the connection."},
    {1235, "The request was aborted."},
    {1305, "The revision level is unknown."},
    {1314, "The caller lacks a privilege that is needed."},
    {1332, "The account name cannot be found."},
    {1400, "The window handle is invalid."},
    {1407, "The window class cannot be found."},
    {1410, "The window class exists already."},
    {1411, "The window class does not exist."},
    {1412, "The window class still has open windows."},
    {1450, "There are not enough system resources."},
    {1460, "The operation timed out."},
    {1640, "Only administrators may do this."},
    {1702, "The binding handle is invalid."},
    {1705, "The string form of the identifier is invalid."},
    {1722, "The server is not available."},
    {1784, "The buffer of the user is not valid for the operation."},
    {1801, "The printer is not known."},
    {1812, "The file has no resources."},
    {1813, "The resource type cannot be found."},
    {1814, "The resource name cannot be found."},
    {1816, "There is not enough quota for the command."},
    {1920, "The file cannot be accessed by the system."},
    {2221, "The user name cannot be found."},
    {10004, "The blocking call was interrupted."},
    {10009, "The file handle is invalid."},
    {10013, "Access to the socket is forbidden."},
    {10014, "The address of a socket argument is invalid."},
    {10022, "The socket argument is invalid."},
    {10024, "Too many sockets are open."},
    {10035, "The socket operation would block."},
    {10036, "A blocking socket operation is in progress."},
    {10037, "The socket operation is already in progress."},
    {10038, "The handle is not a socket."},
    {10039, "The destination address is missing."},
    {10040, "The message is larger than the buffer."},
    {10041, "The protocol is of the wrong type for the socket."},
    {10042, "The protocol option is unknown."},
    {10043, "The protocol is not supported."},
    {10044, "The socket type is not supported."},
    {10045, "The socket operation is not supported."},
    {10046, "The protocol family is not supported."},
    {10047, "The address family is not supported."},
    {10048, "The socket address is already in use."},
    {10049, "The socket address is not available."},
    {10050, "The network is down."},
    {10051, "The network cannot be reached."},
    {10052, "The network dropped the connection."},
    {10053, "The connection was aborted by this computer."},
    {10054, "The connection was reset by the remote computer."},
    {10055, "There is not enough buffer space for the socket."},
    {10056, "The socket is already connected."},
    {10057, "The socket is not connected."},
    {10058, "The socket has been shut down."},
    {10059, "There are too many references to the socket."},
    {10060, "The connection timed out."},
    {10061, "The connection was refused."},
    {10062, "The name cannot be translated."},
    {10063, "The name is too long."},
    {10064, "The remote computer is down."},
    {10065, "The remote computer cannot be reached."},
    {10091, "The network subsystem is not available."},
    {10092, "The socket version is not supported."},
    {10093, "The sockets have not been initialised."},
    {11001, "The host is unknown."},
    {11002, "The host name could not be looked up now."},
    {11003, "The host name look-up failed for good."},
    {11004, "The host has no address of this kind."},
};
static_assert(std::ranges::is_sorted(kSentences, {}, &Sentence::number));

// strerror_r() comes in two forms, one writes the text and the other returns it; which one the C
// library has decides which of these is called.
[[maybe_unused]] const char* messageOf(int result, const char* buffer) {
  return result == 0 ? buffer : nullptr;
}
[[maybe_unused]] const char* messageOf(const char* result, const char*) { return result; }

struct Translation {
  int errnoValue;
  DWORD number;
};

constexpr Translation kTranslations[] = {
    {EPERM, ERROR_ACCESS_DENIED},
    {ENOENT, ERROR_FILE_NOT_FOUND},
    {ESRCH, ERROR_INVALID_PARAMETER},
    {EINTR, ERROR_OPERATION_ABORTED},
    {EIO, 1117},
    {ENXIO, 20},
    {E2BIG, 10},
    {ENOEXEC, ERROR_BAD_EXE_FORMAT},
    {EBADF, ERROR_INVALID_HANDLE},
    {ECHILD, 128},
    {EAGAIN, 1450},
    {ENOMEM, ERROR_NOT_ENOUGH_MEMORY},
    {EACCES, ERROR_ACCESS_DENIED},
    {EFAULT, 998},
    {EBUSY, 170},
    {EEXIST, ERROR_ALREADY_EXISTS},
    {EXDEV, 17},
    {ENODEV, 20},
    {ENOTDIR, ERROR_PATH_NOT_FOUND},
    {EISDIR, ERROR_ACCESS_DENIED},
    {EINVAL, ERROR_INVALID_PARAMETER},
    {ENFILE, ERROR_TOO_MANY_OPEN_FILES},
    {EMFILE, ERROR_TOO_MANY_OPEN_FILES},
    {ENOTTY, 1},
    {ETXTBSY, ERROR_SHARING_VIOLATION},
    {EFBIG, 223},
    {ENOSPC, ERROR_DISK_FULL},
    {ESPIPE, 132},
    {EROFS, 19},
    {EMLINK, 1142},
    {EPIPE, 232},
    {EDOM, ERROR_INVALID_PARAMETER},
    {ERANGE, 534},
    {EDEADLK, 1131},
    {ENAMETOOLONG, ERROR_FILENAME_EXCED_RANGE},
    {ENOLCK, 167},
    {ENOSYS, 120},
    {ENOTEMPTY, ERROR_DIR_NOT_EMPTY},
    {ELOOP, 1920},
    {EOVERFLOW, 534},
    {ENOTSUP, ERROR_NOT_SUPPORTED},
    {EDQUOT, ERROR_DISK_FULL},
    {ESTALE, 1006},
    {ECANCELED, ERROR_OPERATION_ABORTED},
    {ETIMEDOUT, 1460},
};

}  // namespace

DWORD lastError() noexcept { return lastErrorOfThread; }
void setLastError(DWORD number) noexcept { lastErrorOfThread = number; }

std::string_view errorSentence(DWORD number) noexcept {
  const auto* found = std::ranges::lower_bound(kSentences, number, {}, &Sentence::number);
  if (found == std::end(kSentences) || found->number != number) return {};
  return found->text;
}

void copyCRuntimeErrorText(int errnoValue, char* buffer, std::size_t size) noexcept {
  char text[256];
  const char* message = messageOf(strerror_r(errnoValue, text, sizeof text), text);
  std::snprintf(buffer, size, "%s", message != nullptr ? message : "Unknown error");
}

DWORD lastErrorFromErrno(int errnoValue) noexcept {
  if (errnoValue == 0) return ERROR_SUCCESS;
  const auto* found = std::ranges::find(kTranslations, errnoValue, &Translation::errnoValue);
  return found == std::end(kTranslations) ? ERROR_GEN_FAILURE : found->number;
}

bool failWith(DWORD number) noexcept {
  setLastError(number);
  return false;
}

bool failWithErrno(int errnoValue) noexcept { return failWith(lastErrorFromErrno(errnoValue)); }

}  // namespace qm::platform
