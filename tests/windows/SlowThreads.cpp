// A library of somebody else's in the client's process, whose share of every new thread's start takes 15 ms. The system
// holds its loader's lock meanwhile.
#include <windows.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
  if (reason == DLL_THREAD_ATTACH) Sleep(15);
  return TRUE;
}
