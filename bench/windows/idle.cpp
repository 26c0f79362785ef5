// What VoxDevice.dll costs a client while nothing happens, on the real API: idle SECONDS. A device must be there;
// another process plugs it in (see idle.sh), so that nothing of it counts.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "VoxDevice/VoxDevice.h"
#include "tests/windows/Holdings.h"

namespace {

struct State {
  std::size_t threads = threadsOfThisProcess();
  std::size_t handles = handlesLike(nullptr);
  double megabytes = memoryOfThisProcess();
  double cpu = cpuSeconds();

  static double cpuSeconds() {
    FILETIME created, exited, kernel, user;
    GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user);
    const auto seconds = [](const FILETIME& time) {
      return (time.dwHighDateTime * 4294967296.0 + time.dwLowDateTime) / 1e7;
    };
    return seconds(kernel) + seconds(user);
  }
};

double milliseconds() {
  LARGE_INTEGER count, frequency;
  QueryPerformanceCounter(&count);
  QueryPerformanceFrequency(&frequency);
  return 1e3 * static_cast<double>(count.QuadPart) / static_cast<double>(frequency.QuadPart);
}

// Of a copy: the library itself is in this process from its start.
double loadTime() {
  wchar_t folder[MAX_PATH];
  GetTempPathW(MAX_PATH, folder);
  const std::wstring copy = std::wstring(folder) + L"VoxDeviceCopy.dll";
  if (!CopyFileW(L"VoxDevice.dll", copy.c_str(), FALSE)) return -1;
  std::array<double, 9> times{};
  for (double& time : times) {
    const double begin = milliseconds();
    const HMODULE module = LoadLibraryW(copy.c_str());
    time = milliseconds() - begin;
    if (!module) return -1;
    FreeLibrary(module);
  }
  DeleteFileW(copy.c_str());
  std::nth_element(times.begin(), times.begin() + 4, times.end());
  return times[4];
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc == 2 ? std::atoi(argv[1]) : 0;
  if (seconds <= 0) {
    std::fputs("usage: idle SECONDS (in the folder of VoxDevice.dll, with a device plugged in)\n", stderr);
    return 2;
  }
  std::printf("load time: %.1f ms (median of 9)\n", loadTime());
  const State before;
  CAudioHidCenter hub;
  hub.OpenDevice(nullptr, nullptr);
  for (int tenth = 0; tenth < 150 && hub.GetEffectiveDevice() < 0; ++tenth) Sleep(100);
  if (hub.GetEffectiveDevice() < 0) {
    std::fputs("idle: no device has answered within 15 s\n", stderr);
    return 1;
  }
  Sleep(3000);  // what is asked once is over
  std::printf("idle for %d s from here\n", seconds);
  std::fflush(stdout);
  const State begin;
  Sleep(static_cast<DWORD>(seconds) * 1000);
  const State end;
  std::printf("over\nwith one device: %u threads, %u handles, %.1f MB more than before\n",
              static_cast<unsigned>(end.threads - before.threads), static_cast<unsigned>(end.handles - before.handles),
              end.megabytes - before.megabytes);
  std::printf("CPU: %.2f ms a second\n", 1e3 * (end.cpu - begin.cpu) / seconds);
  hub.CloseDevice();
  hub.Release();
  return 0;
}
