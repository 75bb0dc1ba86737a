// Operating-system side of the environment family (src/posix/env.cpp). The
// caller serialises every call that reads or changes the environment with the
// family's lock.
#pragma once

#include <cstdint>

#include "kz/array.h"

namespace kz::os {

// Appends the value of `name` to out (not terminated) and returns true, or
// returns false when the variable does not exist.
bool EnvironmentGet(const char *name, UByteArray *out);
// Sets the variable, replacing any value; false with the platform's last
// error set when the system refuses.
bool EnvironmentSet(const char *name, const char *value);
// Calls visit for every "NAME=value" entry of the process environment, in
// its order.
using EnvironmentVisitor = void (*)(void *argument, const char *entry);
void EnvironmentEnumerate(EnvironmentVisitor visit, void *argument);

// Writes the effective user's name and its NUL into buffer and returns the
// bytes written, the NUL included; 0 with the platform's last error set when
// there is no name or it does not fit.
uint32_t UserName(char *buffer, uint32_t size);

}  // namespace kz::os
