// What the hub does beyond its shipped rules for devices and systems as they are found at customers'.
#pragma once

#include <cstdint>

// For CAudioHidCenter::SetHardening, added up.
enum VoxHardening : unsigned {
  VoxHardening_None = 0,
  // The class driver is asked to keep 512 input reports for each handle, the most it can (Windows keeps 32, half a
  // second of speech): a callback that is busy for so long loses nothing.
  VoxHardening_LongQueue = 1,
  // A device that is not connected and has failed to take ten heartbeats in a row counts as pulled out, so that
  // discovery opens it anew: after a resume a handle can be dead for writing while its interface is still present.
  VoxHardening_DeadHandles = 2,
  // Speech that comes while the voice channel is closed is left out, not taken for the beginning of the next recording.
  // A device that sends some before the channel was ever opened is sent VoiceStop, once: a client that was killed has
  // left it open. (So is one that another living client records just then: leave this out beside other clients.)
  VoxHardening_StaleSpeech = 4,
  VoxHardening_All = 7,
};

// Reports of speech of one device since it was opened. Counted always, whatever is switched on.
struct VoxSpeechCounts {
  std::uint32_t reports;  // that came, each of 15 ms (or 20 ms, closed codec)
  std::uint32_t late;     // handed on more than 50 ms after their time
  std::uint32_t missing;  // that never came although the device was recording, to a report or two
  std::uint32_t unasked;  // that came while the voice channel was closed
};
