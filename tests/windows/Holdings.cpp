#include "tests/windows/Holdings.h"

#include <algorithm>
#include <cstdint>
// They rely on windows.h.
#include <psapi.h>
#include <tlhelp32.h>
#include <winternl.h>

std::size_t threadsOfThisProcess() {
  const HANDLE list = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  std::size_t count = 0;
  for (BOOL more = Thread32First(list, &entry); more; more = Thread32Next(list, &entry)) {
    if (entry.th32OwnerProcessID == GetCurrentProcessId()) ++count;
  }
  CloseHandle(list);
  return count;
}

std::size_t handlesLike(HANDLE sample) {
  struct Entry {
    ULONG owner;
    BYTE kind;
    BYTE flags;
    USHORT handle;
    void* object;
    ULONG access;
  };
  struct List {
    ULONG count;
    Entry entries[1];
  };
  constexpr auto kHandleInformation = static_cast<SYSTEM_INFORMATION_CLASS>(16);
  std::vector<char> buffer(64 * 1024);
  while (NtQuerySystemInformation(kHandleInformation, buffer.data(), static_cast<ULONG>(buffer.size()), nullptr) < 0) {
    buffer.resize(buffer.size() * 2);
  }
  const auto& list = *reinterpret_cast<const List*>(buffer.data());
  std::vector<Entry> mine(&list.entries[0], &list.entries[0] + list.count);
  std::erase_if(mine, [](const Entry& entry) { return entry.owner != GetCurrentProcessId(); });
  if (!sample) return mine.size();
  const auto known = std::find_if(mine.begin(), mine.end(), [sample](const Entry& entry) {
    return entry.handle == reinterpret_cast<std::uintptr_t>(sample);
  });
  if (known == mine.end()) return 0;
  const auto kind = known->kind;
  return static_cast<std::size_t>(
      std::count_if(mine.begin(), mine.end(), [kind](const Entry& entry) { return entry.kind == kind; }));
}

double memoryOfThisProcess() {
  PROCESS_MEMORY_COUNTERS memory{};
  K32GetProcessMemoryInfo(GetCurrentProcess(), &memory, sizeof memory);
  return static_cast<double>(memory.WorkingSetSize) / (1 << 20);
}
