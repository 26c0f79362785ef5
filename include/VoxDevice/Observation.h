// What the library and the devices say to each other, as it happens: for a flight recorder, a monitor, a test.
#pragma once

#include <cstdint>

#include "VoxDevice/Api.h"
#include "VoxDevice/types.h"

enum VoxObservationKind : int {
  VoxObservation_Sent = 0,         // an output report is about to be written
  VoxObservation_WriteFailed = 1,  // the one that was sent last to this interface has not been taken; error
  VoxObservation_Received = 2,     // an input report, as long as it was read
  VoxObservation_ReadFailed = 3,   // mostly since the device has gone; error
  VoxObservation_Opened = 4,       // each device is opened twice, for reading and for writing; older ones once
  VoxObservation_Refused = 5,      // an interface with an identifier of ours could not be opened or is of no use; error
  VoxObservation_Told = 6,         // the client was called: a message or a callback that it has registered
};

// All pointers are valid during the call only.
struct VoxObservation {
  VoxObservationKind kind;
  std::uint32_t thread;  // the system's number of the calling thread
  std::uint32_t tick;    // GetTickCount: milliseconds since the system's start, in steps of up to 16; wraps
  int device;            // the hub's number for it; -1: it has none (yet)
  std::uint32_t error;   // GetLastError of what failed; 0: nothing did, or an interface is of no use

  // Of the interface; none of it for what was told, `path` is null then.
  const wchar_t* path;
  DataChannel link;       // by the path: USB, which a receiver is, too, or Bluetooth LE
  std::uint16_t vendor;   // of the opened interface; 0 when it could not be asked
  std::uint16_t product;  // likewise
  int inputLength;        // bytes of a report with its id; 0 when it could not be asked
  int outputLength;       // likewise

  // Sent and Received: the report with its id.
  const unsigned char* report;
  int reportLength;  // bytes

  // Told: which call of the client's, with its numbers in the order of its arguments, but for the device's. Messages:
  // "log" and "debuglog" (category), "tray" (VoxTrayParams), "connect", "disconnect", "mkey" (key), "ota" (done,
  // total), "window" (UserWorkType), "menu" and "postmenu" (MainMenuType). Callbacks: "audio" (bytes), "mouseconnect",
  // "voice", "dpi", "mousestate", "donglestate", "power", "url", "update", "speechlost", and "button", which the
  // flat interface alone has.
  const char* name;
  const wchar_t* text;  // of a message with a text; else null
  const int* values;
  int valueCount;
};

// One observer for the process. Costs a relaxed load for each report where there is none.
class VOXDEVICE_API VoxObserver {
 public:
  using Callback = void (*)(const VoxObservation& observation, void* context);

  // At any time, from any thread; null ends it. Calls that other threads have begun may end after this returns: what
  // the callback uses must outlive the hubs' threads, as a VoxMessageSink.
  //
  // Called on the thread that reads, writes, opens or tells, and before the client is told, with no lock held; several
  // may run at once. It is the client's code as any callback: its device waits meanwhile, and one that has not returned
  // two seconds after a stop began is ended with its thread. It may call the library.
  static void SetCallback(Callback callback, void* context) noexcept;
};
