#include "System.h"

#ifdef _WIN32

#include <io.h>
#include <windows.h>

#include <array>

void prepareConsole() {
  SetConsoleOutputCP(CP_UTF8);
  const HANDLE console = GetStdHandle(STD_OUTPUT_HANDLE);
  DWORD mode = 0;
  if (GetConsoleMode(console, &mode)) SetConsoleMode(console, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

bool outputIsScreen() { return _isatty(_fileno(stdout)) != 0; }

std::FILE* takeStandardOutput() {
  std::FILE* const out = _fdopen(_dup(_fileno(stdout)), "w");
  return out && std::freopen("NUL", "w", stdout) ? out : nullptr;
}

std::filesystem::path programFolder() {
  std::array<wchar_t, 32'768> path{};
  GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
  return std::filesystem::path(path.data()).parent_path();
}

#else

#include <unistd.h>

void prepareConsole() {}

bool outputIsScreen() { return isatty(STDOUT_FILENO) != 0; }

std::FILE* takeStandardOutput() {
  std::FILE* const out = fdopen(dup(STDOUT_FILENO), "w");
  return out && std::freopen("/dev/null", "w", stdout) ? out : nullptr;
}

std::filesystem::path programFolder() {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
}

#endif
