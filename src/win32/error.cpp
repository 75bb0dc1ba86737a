// Errors on Windows: the platform's last error is the system's own
// (GetLastError / SetLastError), its text comes from the system message table,
// and KZErrorGetErrno translates it to the C runtime's errno values.
#include <windows.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "internal/os/error.h"

namespace kz::os {

int LastSystemError() { return static_cast<int>(GetLastError()); }
void SetLastSystemError(int error) { SetLastError(static_cast<DWORD>(error)); }

// The C runtime keeps the system error behind its errno (_doserrno) for the
// calls that wrap one; without it the errno value stays the cause.
void FailWithErrno() {
  unsigned long system = _doserrno;
  if (system != 0) FailWithError(static_cast<int>(system));
}

void FailWithError(int error) {
  SetLastError(static_cast<DWORD>(error));
  errno = -1;
}

bool SystemErrorText(int error, char *buffer, size_t size) {
  DWORD kept = GetLastError();
  wchar_t *text = nullptr;
  DWORD length =
      FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                     nullptr, static_cast<DWORD>(error), 0, reinterpret_cast<wchar_t *>(&text), 0, nullptr);
  bool found = length > 0 && text != nullptr && size > 0;
  if (found) {
    // Line breaks removed: trailing ones dropped, inner ones become spaces.
    while (length > 0 && (text[length - 1] == L'\r' || text[length - 1] == L'\n' || text[length - 1] == L' ')) length--;
    for (DWORD i = 0; i < length; i++)
      if (text[i] == L'\r' || text[i] == L'\n') text[i] = L' ';
    int written = WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(length), buffer,
                                      static_cast<int>(size > 0x7fffffff ? 0x7fffffff : size - 1), nullptr, nullptr);
    if (written <= 0 && length > 0) {
      // Too long for the buffer: convert what fits, whole characters only.
      int needed = WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(length), nullptr, 0, nullptr, nullptr);
      char *whole = needed > 0 ? static_cast<char *>(malloc(static_cast<size_t>(needed))) : nullptr;
      written = 0;
      if (whole) {
        WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(length), whole, needed, nullptr, nullptr);
        size_t cut = size - 1;
        while (cut > 0 && (static_cast<unsigned char>(whole[cut]) & 0xC0) == 0x80) cut--;
        memcpy(buffer, whole, cut);
        written = static_cast<int>(cut);
        free(whole);
      }
    }
    buffer[written > 0 ? written : 0] = '\0';
    found = written > 0;
  }
  if (text && LocalFree(text) != nullptr) {
    fprintf(stderr, "KZErrorMessage: cannot free memory (Windows error %d)\n", static_cast<int>(GetLastError()));
    abort();
  }
  SetLastError(kept);
  return found;
}

const char kUnknownSystemErrorFormat[] = "(Windows error %d)";

// The C runtime's own table (strerror); numbers past it have no text.
bool RuntimeErrorText(int errnoValue, char *buffer, size_t size) {
  if (errnoValue <= 0 || errnoValue >= _sys_nerr || size == 0) return false;
  snprintf(buffer, size, "%s", strerror(errnoValue));
  return true;
}

namespace {

struct Translation {
  int system;
  int errnoValue;
};

// System errors and the C runtime errno values they stand for.
constexpr Translation kTranslations[] = {
    {ERROR_INVALID_FUNCTION, EINVAL},
    {ERROR_FILE_NOT_FOUND, ENOENT},
    {ERROR_PATH_NOT_FOUND, ENOENT},
    {ERROR_TOO_MANY_OPEN_FILES, EMFILE},
    {ERROR_ACCESS_DENIED, EACCES},
    {ERROR_INVALID_HANDLE, EBADF},
    {ERROR_ARENA_TRASHED, ENOMEM},
    {ERROR_NOT_ENOUGH_MEMORY, ENOMEM},
    {ERROR_INVALID_BLOCK, ENOMEM},
    {ERROR_BAD_ENVIRONMENT, E2BIG},
    {ERROR_BAD_FORMAT, ENOEXEC},
    {ERROR_INVALID_ACCESS, EINVAL},
    {ERROR_INVALID_DATA, EINVAL},
    {ERROR_OUTOFMEMORY, ENOMEM},
    {ERROR_INVALID_DRIVE, ENOENT},
    {ERROR_CURRENT_DIRECTORY, EACCES},
    {ERROR_NOT_SAME_DEVICE, EXDEV},
    {ERROR_NO_MORE_FILES, ENOENT},
    {ERROR_LOCK_VIOLATION, EACCES},
    {ERROR_HANDLE_EOF, EPIPE},
    {ERROR_NOT_SUPPORTED, ENOTSUP},
    {ERROR_BAD_NETPATH, ENOENT},
    {ERROR_NETWORK_ACCESS_DENIED, EACCES},
    {ERROR_BAD_NET_NAME, ENOENT},
    {ERROR_FILE_EXISTS, EEXIST},
    {ERROR_CANNOT_MAKE, EACCES},
    {ERROR_FAIL_I24, EACCES},
    {ERROR_INVALID_PARAMETER, EINVAL},
    {ERROR_NO_PROC_SLOTS, EAGAIN},
    {ERROR_DRIVE_LOCKED, EACCES},
    {ERROR_BROKEN_PIPE, EPIPE},
    {ERROR_DISK_FULL, ENOSPC},
    {ERROR_INVALID_TARGET_HANDLE, EBADF},
    {ERROR_INSUFFICIENT_BUFFER, ERANGE},
    {ERROR_INVALID_NAME, EINVAL},
    {ERROR_WAIT_NO_CHILDREN, ECHILD},
    {ERROR_CHILD_NOT_COMPLETE, ECHILD},
    {ERROR_DIRECT_ACCESS_HANDLE, EBADF},
    {ERROR_NEGATIVE_SEEK, EINVAL},
    {ERROR_SEEK_ON_DEVICE, EACCES},
    {ERROR_DIR_NOT_EMPTY, ENOTEMPTY},
    {ERROR_NOT_LOCKED, EACCES},
    {ERROR_BAD_PATHNAME, ENOENT},
    {ERROR_MAX_THRDS_REACHED, EAGAIN},
    {ERROR_LOCK_FAILED, EACCES},
    {ERROR_BUSY, EBUSY},
    {ERROR_ALREADY_EXISTS, EEXIST},
    {ERROR_ENVVAR_NOT_FOUND, ENOENT},
    {ERROR_FILENAME_EXCED_RANGE, ENAMETOOLONG},
    {ERROR_NESTING_NOT_ALLOWED, EAGAIN},
    {ERROR_NO_DATA, EPIPE},
    {WAIT_TIMEOUT, ETIMEDOUT},
    {ERROR_DIRECTORY, ENOTDIR},
    {ERROR_TOO_MANY_POSTS, EOVERFLOW},
    {ERROR_OPERATION_ABORTED, EINTR},
    {ERROR_IO_PENDING, EINPROGRESS},
    {ERROR_NOACCESS, EFAULT},
    {ERROR_PRIVILEGE_NOT_HELD, EPERM},
    {ERROR_TIMEOUT, ETIMEDOUT},
    {ERROR_NOT_ENOUGH_QUOTA, ENOMEM},
    {WSAEINTR, EINTR},
    {WSAEBADF, EBADF},
    {WSAEACCES, EACCES},
    {WSAEFAULT, EFAULT},
    {WSAEINVAL, EINVAL},
    {WSAEMFILE, EMFILE},
    {WSAEWOULDBLOCK, EWOULDBLOCK},
    {WSAEINPROGRESS, EINPROGRESS},
    {WSAEALREADY, EALREADY},
    {WSAENOTSOCK, ENOTSOCK},
    {WSAEDESTADDRREQ, EDESTADDRREQ},
    {WSAEMSGSIZE, EMSGSIZE},
    {WSAEPROTOTYPE, EPROTOTYPE},
    {WSAENOPROTOOPT, ENOPROTOOPT},
    {WSAEPROTONOSUPPORT, EPROTONOSUPPORT},
    {WSAEOPNOTSUPP, EOPNOTSUPP},
    {WSAEAFNOSUPPORT, EAFNOSUPPORT},
    {WSAEADDRINUSE, EADDRINUSE},
    {WSAEADDRNOTAVAIL, EADDRNOTAVAIL},
    {WSAENETDOWN, ENETDOWN},
    {WSAENETUNREACH, ENETUNREACH},
    {WSAENETRESET, ENETRESET},
    {WSAECONNABORTED, ECONNABORTED},
    {WSAECONNRESET, ECONNRESET},
    {WSAENOBUFS, ENOBUFS},
    {WSAEISCONN, EISCONN},
    {WSAENOTCONN, ENOTCONN},
    {WSAETIMEDOUT, ETIMEDOUT},
    {WSAECONNREFUSED, ECONNREFUSED},
    {WSAELOOP, ELOOP},
    {WSAENAMETOOLONG, ENAMETOOLONG},
    {WSAEHOSTUNREACH, EHOSTUNREACH},
    {WSAENOTEMPTY, ENOTEMPTY},
};

}  // namespace

int ErrnoFromSystemError(int error) {
  for (const Translation &translation : kTranslations)
    if (translation.system == error) return translation.errnoValue;
  // Ranges the table does not list one by one: write-protect to
  // sharing-buffer errors are refused access, executable format errors are
  // not executable.
  if (error >= ERROR_WRITE_PROTECT && error <= ERROR_SHARING_BUFFER_EXCEEDED) return EACCES;
  if (error >= ERROR_INVALID_STARTING_CODESEG && error <= ERROR_INFLOOP_IN_RELOC_CHAIN) return ENOEXEC;
  return EINVAL;
}

}  // namespace kz::os
