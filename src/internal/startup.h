// Start-up steps that other library families contribute to KZLibInit's
// once-only start-up, and the start-up state other parts of the library read.
//
// KZLibInit runs the registered steps at fixed places of its sequence:
//   ... kernel version, library options,
//   kFingerprintTables   (URL family)
//   host name,
//   kNetwork             (channel family: networking settings)
//   standard streams (nothing to do on POSIX),
//   kSsl                 (SSL family; reads KZLibGetSSLHighEncryption)
//   handlers registered with KZLibInitAddHandler.
// A family registers its step from a static initialiser of the source file
// that implements it, so the step is part of every program that links the
// family:
//
//   static const bool registered =
//       kz::startup::Register(kz::startup::Step::kSsl, SslStartup);
//
// A step returns false when it failed. Start-up goes on after a failure; for
// kSsl it first prints "warning: could not initialize SSL\n" to standard error,
// the other steps report their own failures.
#pragma once

#include <cstdint>

namespace kz::startup {

enum class Step { kFingerprintTables, kNetwork, kSsl };
inline constexpr int kStepCount = 3;

using Function = bool (*)();

// Registers the function run for step (a later registration replaces an
// earlier one); returns true. Registrations made after the once-only start-up
// ran are not run.
bool Register(Step step, Function function);

// The executable's full path recorded by KZLibInit, or null.
const char *ExecutablePath();

// Host name and kernel description once the once-only start-up computed them,
// else null (read by the crash handler, which must not compute them).
const char *HostNameIfKnown();
const char *KernelVersionIfKnown();

}  // namespace kz::startup
