#include "System.h"

#include <cstdlib>

namespace {

constexpr char kEndedAtOnce[] = "voxdesk: ended at once\n";

}  // namespace

#ifdef _WIN32

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <array>

namespace {

void (*requestHandler)() = nullptr;

HANDLE handleOf(std::FILE* stream) { return reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream))); }

BOOL WINAPI onConsole(DWORD event) {
  constexpr DWORD kLongerThanWindowsWaits = 60'000;
  requestHandler();
  // When this returns from any other, Windows ends the program, instead of after some seconds.
  if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) Sleep(kLongerThanWindowsWaits);
  return TRUE;
}

}  // namespace

void prepareConsole() {
  SetConsoleOutputCP(CP_UTF8);
  const HANDLE console = GetStdHandle(STD_OUTPUT_HANDLE);
  DWORD mode = 0;
  if (GetConsoleMode(console, &mode)) SetConsoleMode(console, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

// (The C library takes the null device for a screen, too.)
bool isScreen(std::FILE* stream) {
  DWORD mode = 0;
  return GetConsoleMode(handleOf(stream), &mode) != FALSE;
}

int columnsOf(std::FILE* screen) {
  CONSOLE_SCREEN_BUFFER_INFO info{};
  if (!GetConsoleScreenBufferInfo(handleOf(screen), &info)) return 0;
  return info.srWindow.Right - info.srWindow.Left + 1;
}

bool screenShowsUnicode() { return true; }

std::FILE* takeStandardOutput(bool binary) {
  const int copy = _dup(_fileno(stdout));
  if (binary) _setmode(copy, _O_BINARY);  // the mode of opening it again is not enough everywhere
  std::FILE* const out = _fdopen(copy, binary ? "wb" : "w");
  return out && std::freopen("NUL", "w", stdout) ? out : nullptr;
}

std::FILE* openForWriting(const std::filesystem::path& path, bool keeps) {
  return _wfopen(path.c_str(), keeps ? L"ab" : L"wb");
}

bool waitForLine(char* line, int size) { return std::fgets(line, size, stdin) != nullptr; }

void onRequestToEnd(void (*handler)()) {
  requestHandler = handler;
  SetConsoleCtrlHandler(&onConsole, TRUE);
}

void endAtOnce(int exitCode) {
  DWORD written = 0;
  WriteFile(GetStdHandle(STD_ERROR_HANDLE), kEndedAtOnce, sizeof kEndedAtOnce - 1, &written, nullptr);
  std::_Exit(exitCode);
}

std::filesystem::path programFolder() {
  std::array<wchar_t, 32'768> path{};
  GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
  return std::filesystem::path(path.data()).parent_path();
}

#else

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>
#include <string>

void prepareConsole() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    // Standard output is opened for reading, so that writing to it still fails.
    if (fcntl(stream, F_GETFD) < 0) open("/dev/null", stream == STDOUT_FILENO ? O_RDONLY : O_RDWR);
  }
}

bool isScreen(std::FILE* stream) { return isatty(fileno(stream)) != 0; }

int columnsOf(std::FILE* screen) {
  winsize size{};
  if (ioctl(fileno(screen), TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  const char* const columns = std::getenv("COLUMNS");
  return columns ? std::atoi(columns) : 0;
}

bool screenShowsUnicode() {
  // The first of these that says something.
  for (const char* const name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* const value = std::getenv(name);
    if (!value || *value == '\0') continue;
    std::string locale = value;
    for (char& c : locale) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return locale.find("utf-8") != std::string::npos || locale.find("utf8") != std::string::npos;
  }
  return false;
}

std::FILE* takeStandardOutput(bool) {
  std::FILE* const out = fdopen(dup(STDOUT_FILENO), "w");
  return out && std::freopen("/dev/null", "w", stdout) ? out : nullptr;
}

std::FILE* openForWriting(const std::filesystem::path& path, bool keeps) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK | (keeps ? O_APPEND : O_TRUNC), 0666);
  if (file < 0) return nullptr;
  fcntl(file, F_SETFL, fcntl(file, F_GETFL) & ~O_NONBLOCK);
  return fdopen(file, keeps ? "ab" : "wb");
}

bool waitForLine(char* line, int size) {
  pollfd input{STDIN_FILENO, POLLIN, 0};
  // A read would begin again after a signal; this does not.
  return poll(&input, 1, -1) == 1 && std::fgets(line, size, stdin);
}

namespace {

void (*requestHandler)() = nullptr;

}  // namespace

void onRequestToEnd(void (*handler)()) {
  requestHandler = handler;
  const auto handle = [](int) { requestHandler(); };
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    // Somebody may have made us immune to a terminal that goes: nohup.
    if (std::signal(signal, handle) == SIG_IGN && signal == SIGHUP) std::signal(signal, SIG_IGN);
  }
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

void endAtOnce(int exitCode) {
  // On a screen, a line may have begun.
  [[maybe_unused]] auto written = isatty(STDERR_FILENO) != 0 ? write(STDERR_FILENO, "\n", 1) : 0;
  written = write(STDERR_FILENO, kEndedAtOnce, sizeof kEndedAtOnce - 1);
  std::_Exit(exitCode);
}

std::filesystem::path programFolder() {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
}

#endif
