// A firmware update from its first message to its last result: what the update of a device and its rehearsal share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "Session.h"
#include "models/Models.h"

constexpr std::size_t kBlockBytes = 16;  // of the standard and Zh families

// A frame of an update, in either direction.
struct UpdateFrame {
  bool receiver = false;  // to or from it
  std::uint8_t code = 0;
  std::span<const std::uint8_t> payload;
};
// Nothing when the report is none.
std::optional<UpdateFrame> updateFrameOf(std::span<const std::uint8_t> report);

// One image on its way.
struct Image {
  const char* name;
  std::string file;
  std::size_t size = 0;
  bool receiver = false;
  bool begun = false;              // the device has been sent something of it
  int state = 0;                   // its first result
  bool completionRefused = false;  // which the library calls finished
  // Whether it has arrived, and the same in words.
  bool done() const { return state == FwUpdate_ImageFinished && !completionRefused; }
  std::string result() const;
};

// A message that the client has sent in an update.
struct UpdateMessage {
  std::uint8_t code = 0;
  bool receiver = false;
  bool closing = false;        // a completion once more, which nothing answers
  bool again = false;          // with data that was sent before
  std::uint32_t position = 0;  // of its data, in the image
  std::uint32_t length = 0;    // bytes of the image that it can carry
};

// What passes between the library and one device in an update.
class UpdateTraffic final : public Watcher {
 public:
  void follow(int device, FirmwareFamily family);
  void observe(const VoxObservation& observation, std::int64_t microseconds) override;

  std::vector<UpdateMessage> messages();
  bool completionRefused(bool receiver);

 private:
  void onSent(const UpdateFrame& frame);
  void onReceived(const UpdateFrame& frame);

  std::mutex mutex_;
  int device_ = -1;  // none yet
  FirmwareFamily family_{};
  std::uint32_t asked_ = 0;            // the offset, by a Tern
  std::set<std::uint32_t> positions_;  // of this image that were sent
  std::vector<UpdateMessage> messages_;
  std::set<bool> refused_;
};

FirmwareFamily familyOf(const DeviceView& device);
// The files of --first and --second. Throws where one cannot be sent.
std::vector<Image> imagesOf(const Options& options);
// Throws when one cannot be sent to this device.
void checkSizes(const std::vector<Image>& images, const DeviceView& device);

struct UpdateRun {
  bool begun = true;  // false: the device went before
  bool lost = false;  // it went meanwhile
  bool whole = false;
  double seconds = 0;
  std::uint64_t bytes = 0;  // of the images, each counted once however often it was sent
  std::vector<UpdateMessage> messages;

  std::size_t again() const;
  // Why it has failed, for standard error; empty: it has not.
  std::string failure() const;
};

// Updates the device and waits for the end; notes what becomes of the images. seen: every event meanwhile.
// look: now and then; false when nobody wants to wait any longer.
UpdateRun runUpdate(Session& session, const DeviceView& device, std::vector<Image>& images, UpdateTraffic& traffic,
                    const std::function<void(const ClientEvent&)>& seen, const std::function<bool()>& look);
