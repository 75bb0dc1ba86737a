// The library's formatter: trio_vsnprintf's contract and byte-for-byte output,
// with the conversions that dominate real use formatted directly.
#pragma once

#include <stdarg.h>
#include <stddef.h>

namespace kz {

// Writes at most size - 1 bytes and a NUL (nothing when size is 0); returns
// the full length of the text, or a negative value on a bad format.
int FormatV(char *buffer, size_t size, const char *format, va_list args);

}  // namespace kz
