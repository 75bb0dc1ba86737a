// Start-up and system identity on Windows: the system version, the computer's
// DNS name, the module file name, the library search path, error dialogs and
// binary standard streams.
#include <windows.h>

#include <errno.h>
#include <fcntl.h>
#include <io.h>
#include <stdio.h>
#include <stdlib.h>

#include "internal/context.h"
#include "internal/os/init.h"
#include "kz/message.h"

namespace kz::os {

namespace {

// The system's own version: GetVersionEx answers what the program's manifest
// claims, RtlGetVersion what runs.
bool ReadVersion(OSVERSIONINFOEXW *info) {
  using RtlGetVersionFunction = LONG(WINAPI *)(OSVERSIONINFOEXW *);
  ZeroMemory(info, sizeof *info);
  info->dwOSVersionInfoSize = sizeof *info;
  HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
  auto rtlGetVersion =
      ntdll ? reinterpret_cast<RtlGetVersionFunction>(reinterpret_cast<void *>(GetProcAddress(ntdll, "RtlGetVersion")))
            : nullptr;
  if (rtlGetVersion && rtlGetVersion(info) == 0) return true;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  return GetVersionExW(reinterpret_cast<OSVERSIONINFOW *>(info)) != 0;
#pragma GCC diagnostic pop
}

// The system's name by version and product type. Versions released after
// Windows 7 are named too (Windows 8, 8.1 and 10, which also covers 11), so
// that current systems are not reported as unknown.
const char *SystemName(unsigned major, unsigned minor, bool workstation) {
  switch (major * 10 + minor) {
    case 40: return "Windows NT 4.0";
    case 50: return "Windows 2000";
    case 51: return "Windows XP";
    case 52: return workstation ? "Windows XP Professional" : "Windows Server 2003";
    case 60: return workstation ? "Windows Vista" : "Windows Server 2008";
    case 61: return workstation ? "Windows 7" : "Windows Server 2008 R2";
    case 62: return workstation ? "Windows 8" : "Windows Server 2012";
    case 63: return workstation ? "Windows 8.1" : "Windows Server 2012 R2";
    case 100: return workstation ? "Windows 10" : "Windows Server 2016";
    default: return nullptr;
  }
}

// UTF-16 to UTF-8 into buffer (no terminator added); the length, or -1 when
// the text does not convert or fit.
int ToUtf8(const wchar_t *text, int length, char *buffer, size_t size) {
  if (length == 0) return 0;
  int written = WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, text, length, buffer,
                                    static_cast<int>(size > 0x7fffffff ? 0x7fffffff : size), nullptr, nullptr);
  return written > 0 ? written : -1;
}

}  // namespace

bool GetKernelVersion(KernelVersion *version) {
  OSVERSIONINFOEXW info;
  if (!ReadVersion(&info)) return false;
  version->major = static_cast<int>(info.dwMajorVersion);
  version->minor = static_cast<int>(info.dwMinorVersion);
  char generic[32];
  const char *name = SystemName(info.dwMajorVersion, info.dwMinorVersion, info.wProductType == VER_NT_WORKSTATION);
  if (!name) {
    KZ_MESSAGE_AT("kzlib/kzlib", __LINE__, "KZLibInit", 3, 0, ":unknown Windows version: %u.%u",
                  static_cast<unsigned>(info.dwMajorVersion), static_cast<unsigned>(info.dwMinorVersion));
    snprintf(generic, sizeof generic, "Windows %u.%u", static_cast<unsigned>(info.dwMajorVersion),
             static_cast<unsigned>(info.dwMinorVersion));
    name = generic;
  }
  char servicePack[sizeof info.szCSDVersion * 2];
  int length = ToUtf8(info.szCSDVersion, lstrlenW(info.szCSDVersion), servicePack, sizeof servicePack - 1);
  servicePack[length > 0 ? length : 0] = '\0';
  snprintf(version->text, sizeof version->text, "%s%s %s (build %u)", name, " x64", servicePack,
           static_cast<unsigned>(info.dwBuildNumber));
  return true;
}

bool GetHostName(char *buffer, size_t size) {
  wchar_t name[256];
  DWORD length = sizeof name / sizeof name[0];
  if (size == 0 || !GetComputerNameExW(ComputerNameDnsHostname, name, &length) || length == 0) return false;
  int written = ToUtf8(name, static_cast<int>(length), buffer, size - 1);
  if (written <= 0) return false;
  buffer[written] = '\0';
  return true;
}

long GetExecutablePath(char *buffer, size_t size, int *error) {
  static wchar_t path[32768];  // only the start-up and KZExecutable ask, rarely
  DWORD capacity = sizeof path / sizeof path[0];
  DWORD length = GetModuleFileNameW(nullptr, path, capacity);
  if (length == 0 || length >= capacity) {
    *error = length == 0 ? static_cast<int>(GetLastError()) : ERROR_INSUFFICIENT_BUFFER;
    return -1;
  }
  int needed =
      WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, path, static_cast<int>(length), nullptr, 0, nullptr, nullptr);
  if (needed <= 0) {
    *error = static_cast<int>(GetLastError());
    return -1;
  }
  if (static_cast<size_t>(needed) > size) return needed;  // the caller sees it does not fit
  ToUtf8(path, static_cast<int>(length), buffer, size);
  return needed;
}

// A name with a directory part is made absolute (GetFullPathNameW); a bare
// name is looked up the way the system looks up programs (SearchPathW: the
// program's directory, the current one, the system directories, PATH), with
// ".exe" added when it has no extension.
bool FindProgram(const char *name, char *buffer, size_t size) {
  wchar_t wide[MAX_PATH], found[MAX_PATH];
  if (!name || size == 0 || MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, name, -1, wide, MAX_PATH) <= 0)
    return false;
  DWORD length = wcspbrk(wide, L"\\/:") ? GetFullPathNameW(wide, MAX_PATH, found, nullptr)
                                        : SearchPathW(nullptr, wide, L".exe", MAX_PATH, found, nullptr);
  if (length == 0 || length >= MAX_PATH || GetFileAttributesW(found) == INVALID_FILE_ATTRIBUTES) return false;
  int written = ToUtf8(found, static_cast<int>(length), buffer, size - 1);
  if (written <= 0) return false;
  buffer[written] = '\0';
  return true;
}

bool RestrictLibrarySearchPath() { return SetDllDirectoryW(L"") != 0; }

void SilenceErrorDialogs() {
  // The C runtime (msvcrt) shows no abort dialog of its own to a console
  // process: its abort() writes one line to standard error and exits with 3.
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOALIGNMENTFAULTEXCEPT | SEM_NOOPENFILEERRORBOX);
}

int SetBinaryStandardStreams() {
  for (int fd = 0; fd < 3; fd++)
    if (_setmode(fd, _O_BINARY) == -1 && errno != EBADF) return fd;  // a stream the process lacks is no failure
  return -1;
}

// Windows has no SIGPIPE: a closed pipe is a write error already.
void IgnoreBrokenPipeSignal() {}

}  // namespace kz::os
