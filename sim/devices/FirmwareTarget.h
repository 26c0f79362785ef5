// The firmware's side of an update (docs/protocol.md): one target is the mouse, another the receiver it is paired with.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "sim/Device.h"

namespace sim {

// How a family of firmware takes an image.
enum class UpdateFlow {
  blocks,         // 16 bytes to a message, asked for by index
  checkedBlocks,  // two blocks of 16 bytes, each with a checksum
  bytes,          // any bytes, asked for by offset and count
};

enum class UpdateStep { prepare, open, data, complete, abort };

// What goes wrong with one message of an update.
enum class UpdateFault {
  refusal,
  silence,  // it is lost on its way
  unplug,   // likewise, as the device is pulled out
  again,    // a part is taken for lost, and asked for again
};

// What a device would start with.
enum class FirmwareState {
  old,         // it has accepted no opening
  incomplete,  // it has accepted one, and no completion of all of the image: it waits in its loader
  updated,
};

// How the target behaves during an update.
struct UpdateScript {
  std::size_t size = 0;  // of the image, as its header would say; 0: found out when the host has no more
  std::optional<std::uint64_t> order{};  // asks for the parts in an order drawn from this seed (needs the size)
  unsigned loseEvery = 0;                // takes every n-th message for lost and asks for it again
  std::uint8_t chunk = 40;               // bytes asked for at a time (UpdateFlow::bytes)
  bool endsWithZero = false;             // says with index 0 that it has everything, instead of asking beyond the end
  Time thinking{0};                      // before each answer, on top of the device's latency
  // What goes wrong, at which step; in the data step at the n-th message (from 0).
  std::optional<UpdateStep> refuseAt{};
  std::optional<UpdateStep> silentAt{};
  std::optional<UpdateStep> unplugAt{};
  unsigned atMessage = 0;
  bool endsAborts = true;  // answers OtaAbort
  // Asked for first, one after the other: a block index, or an offset with `chunk` bytes.
  std::vector<std::int64_t> strangeRequests{};
};

class FirmwareTarget {
 public:
  struct Answer {
    std::uint8_t code;
    Bytes payload;
  };
  struct Outcome {
    std::optional<Answer> answer;
    bool unplug = false;
  };

  explicit FirmwareTarget(UpdateFlow flow) : flow_(flow) {}

  void follow(UpdateScript script);
  // A frame of an update, by its code and payload.
  Outcome take(std::uint8_t code, const Bytes& payload, std::optional<UpdateFault> fault = {});

  const Bytes& image() const { return image_; }
  unsigned completed() const { return completed_; }
  FirmwareState state() const { return state_; }
  // What the host has done that it must not do.
  const std::vector<std::string>& violations() const { return violations_; }

 private:
  Outcome obey(UpdateStep step, const Bytes& payload, std::optional<UpdateFault> fault);
  void begin(const Bytes& opening);
  void finish();
  Bytes status(UpdateStep step, bool refuse);
  Bytes request(UpdateStep step, bool refuse, bool again);
  void takeData(const Bytes& payload);
  void takeBlock(const Bytes& payload);
  void takeCheckedBlocks(const Bytes& payload);
  void store(std::int64_t offset, std::span<const std::uint8_t> bytes);
  void violation(const std::string& what) { violations_.push_back(what); }
  std::int64_t stride() const;

  const UpdateFlow flow_;
  UpdateScript script_;
  Bytes opening_;
  Bytes image_;
  std::vector<std::int64_t> plan_;  // offsets still to ask for, the next one last
  std::int64_t asked_ = 0;          // the offset asked for last
  bool active_ = false;
  unsigned messages_ = 0;
  unsigned completed_ = 0;
  FirmwareState state_ = FirmwareState::old;
  std::vector<std::string> violations_;
};

}  // namespace sim
