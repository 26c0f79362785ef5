#pragma once

#include "platform/os.h"

class CUtil {
 public:
  // Ends a thread by force, and gives it a moment to go. The handle stays open.
  static void VoxTerminateThread(HANDLE thread, DWORD exitCode) noexcept;
};
