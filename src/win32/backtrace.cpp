// Stack capture and symbolisation for crash reports on Windows.
//
// Stacks are captured with RtlCaptureStackBackTrace, which follows the
// unwind tables every x64 module carries. Frames are named by their module
// and offset, and by the nearest exported function before the address when
// the module exports one: the debug help library cannot read GCC's debug
// information, so file and line come afterwards, on the build machine, from
// x86_64-w64-mingw32-addr2line (docs/crash-files.md).
#include <windows.h>

#include <cstring>

#include "internal/os/backtrace.h"

namespace kz::backtrace {
namespace {

INIT_ONCE g_once = INIT_ONCE_STATIC_INIT;

// Module names are kept here for the frame handed to the callback: only the
// crash handler symbolises, one frame at a time.
char g_moduleName[MAX_PATH * 3];

// The exported function of the module at base that starts nearest below pc.
const char *NearestExport(uintptr_t base, uintptr_t pc, uintptr_t *start) {
  auto *dos = reinterpret_cast<const IMAGE_DOS_HEADER *>(base);
  if (dos->e_magic != IMAGE_DOS_SIGNATURE) return nullptr;
  auto *nt = reinterpret_cast<const IMAGE_NT_HEADERS *>(base + static_cast<uintptr_t>(dos->e_lfanew));
  if (nt->Signature != IMAGE_NT_SIGNATURE) return nullptr;
  const IMAGE_DATA_DIRECTORY &directory = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
  if (directory.VirtualAddress == 0 || directory.Size == 0) return nullptr;
  auto *exports = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY *>(base + directory.VirtualAddress);
  auto *functions = reinterpret_cast<const DWORD *>(base + exports->AddressOfFunctions);
  auto *names = reinterpret_cast<const DWORD *>(base + exports->AddressOfNames);
  auto *ordinals = reinterpret_cast<const WORD *>(base + exports->AddressOfNameOrdinals);
  const char *best = nullptr;
  uintptr_t bestStart = 0;
  for (DWORD i = 0; i < exports->NumberOfNames; i++) {
    DWORD rva = functions[ordinals[i]];
    // Forwarded exports point into the export directory: not code.
    if (rva >= directory.VirtualAddress && rva < directory.VirtualAddress + directory.Size) continue;
    uintptr_t address = base + rva;
    if (address <= pc && address > bestStart) {
      bestStart = address;
      best = reinterpret_cast<const char *>(base + names[i]);
    }
  }
  *start = bestStart;
  return best;
}

BOOL CALLBACK InitOnce(PINIT_ONCE, PVOID, PVOID *) {
  // Lets the unwinder find its tables now, outside any crash.
  uintptr_t pcs[4];
  Capture(pcs, 4, 0);
  return TRUE;
}

}  // namespace

void Init() { InitOnceExecuteOnce(&g_once, InitOnce, nullptr, nullptr); }

size_t Capture(uintptr_t *pcs, size_t max, size_t skip) {
  void *frames[62];  // the most RtlCaptureStackBackTrace takes on older systems
  if (max > 62) max = 62;
  USHORT count = RtlCaptureStackBackTrace(static_cast<DWORD>(skip + 1), static_cast<DWORD>(max), frames, nullptr);
  for (USHORT i = 0; i < count; i++) {
    // Return addresses: point into the call instruction.
    pcs[i] = reinterpret_cast<uintptr_t>(frames[i]) - 1;
  }
  return count;
}

void Symbolise(uintptr_t pc, FrameCallback callback, void *data) {
  Frame frame{};
  frame.pc = pc;
  DWORD kept = GetLastError();
  HMODULE module = nullptr;
  if (GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                         reinterpret_cast<LPCWSTR>(pc), &module) &&
      module) {
    uintptr_t base = reinterpret_cast<uintptr_t>(module);
    frame.moduleOffset = pc - base;
    wchar_t name[MAX_PATH];
    DWORD length = GetModuleFileNameW(module, name, MAX_PATH);
    if (length > 0 && length < MAX_PATH) {
      int written = WideCharToMultiByte(CP_UTF8, 0, name, static_cast<int>(length), g_moduleName,
                                        sizeof g_moduleName - 1, nullptr, nullptr);
      if (written > 0) {
        g_moduleName[written] = '\0';
        frame.module = g_moduleName;
      }
    }
    uintptr_t start = 0;
    if (const char *function = NearestExport(base, pc, &start)) {
      frame.function = function;
      frame.offset = pc - start;
    }
  }
  SetLastError(kept);
  callback(data, frame);
}

}  // namespace kz::backtrace
