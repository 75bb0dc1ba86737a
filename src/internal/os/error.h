// Operating-system side of the error family (src/posix/error.cpp,
// src/win32/error.cpp).
#pragma once

#include <cerrno>
#include <cstddef>

namespace kz::os {

// The platform's last error of the calling thread: a value the library keeps
// on POSIX, the system's own (GetLastError) on Windows.
int LastSystemError();
void SetLastSystemError(int error);

// Sets the platform's last error from the C library errno of a failed call
// and marks errno with -1 ("the last error tells").
void FailWithErrno();
void FailWithError(int error);

// The platform's text for a system error; false when the system has none.
bool SystemErrorText(int error, char *buffer, size_t size);
// The C runtime's text for an errno value; false when it has none.
bool RuntimeErrorText(int errnoValue, char *buffer, size_t size);
// The text for a system error the system has no text for, with its number.
extern const char kUnknownSystemErrorFormat[];

// The C library errno value closest to a system error (KZErrorGetErrno).
int ErrnoFromSystemError(int error);

// System errors the portable code reports itself.
#if defined(_WIN32)
inline constexpr int kErrorInvalidArgument = 87;  // ERROR_INVALID_PARAMETER
inline constexpr int kErrorNameTooLong = 206;     // ERROR_FILENAME_EXCED_RANGE
inline constexpr int kErrorOutOfRange = 122;      // ERROR_INSUFFICIENT_BUFFER
inline constexpr int kErrorNoSuchThread = 6;      // ERROR_INVALID_HANDLE
#else
inline constexpr int kErrorInvalidArgument = EINVAL;
inline constexpr int kErrorNameTooLong = ENAMETOOLONG;
inline constexpr int kErrorOutOfRange = ERANGE;
inline constexpr int kErrorNoSuchThread = ESRCH;
#endif

}  // namespace kz::os
