// What voxdesk has seen of the computer's HID interfaces while it looked.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "Session.h"
#include "VoxDevice/VoxDevice.h"
#include "models/Models.h"
#include "tools/capture/Capture.h"

class Desk;

// A HID interface of the computer, and what stands in the way of its use.
struct SurveyedInterface {
  std::string path;
  std::string vendor;   // four hexadecimal digits, by the path; empty: it has none
  std::string product;  // likewise
  std::string model;    // by the path, or what it calls itself; empty: none of ours
  std::string older;    // likewise, of the HID devices from before the hub: what it is
  std::string family;   // of its firmware: "Tern", "Standard", "Zh"
  DataChannel link = DataChannel_Unknown;
  int inputLength = 0;   // bytes; 0: unknown
  int outputLength = 0;  // likewise
  bool opened = false;
  std::uint32_t error = 0;  // of the last attempt to open it
  int device = -1;          // the client's number for it
  bool denied = false;      // to this user
  std::string verdict;      // a sentence: why it is not used, or that it is
};

class Survey final : public Watcher {
 public:
  void observe(const VoxObservation& observation, std::int64_t microseconds) override;
  // Those that are present now, in the system's order.
  std::vector<SurveyedInterface> interfaces(Desk& desk) const;
  // What has passed at the interface with this path; of all, with an empty one.
  capture::Capture capture(const std::string& path) const;

 private:
  capture::Capture captureOf(const std::string& path) const;  // under the lock

  mutable std::mutex mutex_;
  capture::Capture seen_;
};

// The model that a device has called itself, the last time; null: it has not.
const ModelSheet* namedModel(const capture::Capture& passed);
// The model that a path names; empty: none of ours.
std::string modelOf(const std::string& path);
// "older mouse" or "older voice keyboard" where a path names one; else empty.
std::string olderOf(const std::string& path);
// Prints them.
void tellInterfaces(Session& session, const std::vector<SurveyedInterface>& interfaces);
