// Operating-system side of the error family (src/posix/error.cpp).
#pragma once

#include <cstddef>

namespace kz::os {

// Sets the platform's last error from the C library errno of a failed call
// and marks errno with -1 ("the last error tells").
void FailWithErrno();
void FailWithError(int error);

// The platform's text for a system error; false when the system has none.
bool SystemErrorText(int error, char *buffer, size_t size);

}  // namespace kz::os
