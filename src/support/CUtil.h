#pragma once

#include "platform/os.h"

class CUtil {
 public:
  // Ends a thread by force, waits until it is gone, closes the handle and clears it.
  static void VoxTerminateThread(HANDLE& thread, DWORD exitCode) noexcept;
};
