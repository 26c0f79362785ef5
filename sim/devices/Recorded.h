// A recorded device: it answers as it did when it was recorded, whoever asks, in whatever order and whenever.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sim/Device.h"

namespace sim {

// What passed at one HID interface.
struct Recording {
  enum class Kind { sent, received, opened, refused, gone };
  struct Event {
    Time at{0};  // since the recording's beginning
    Kind kind = Kind::received;
    Bytes report{};
  };

  std::wstring path;
  std::uint16_t vendor = 0;
  std::uint16_t product = 0;
  std::uint16_t inputLength = 64;
  std::uint16_t outputLength = 64;
  std::vector<Event> events{};  // in the order of time
  Time length{0};               // of the recording
};

// How far a recording has carried.
struct RecordingUse {
  std::size_t recorded = 0;  // reports from the device
  std::size_t used = 0;
  // Commands that the recording does not hold, with the number of times that they were sent; and those that were sent
  // more often than it holds them, which were answered as the last time.
  std::map<std::string, std::size_t> unanswerable{};
  std::map<std::string, std::size_t> repeated{};
};

// The n-th time that the host sends a command (of a code, to the device or to its receiver), the device sends what it
// sent for the n-th one then, after the same time: the replies that belong to the command, and for VoiceOpen the
// speech, which VoiceStop ends. What nobody has asked for (keys, battery) comes in the same time after the moment that
// both sides had in common last: the opening, AppOpen (the device was announced), VoiceOpen, a step of an update.
class RecordedDevice final : public HidDevice {
 public:
  explicit RecordedDevice(Recording recording);

  // Plugs it in and pulls it out as it was then. Once, instead of Machine::plug.
  static void start(Machine& machine, const std::shared_ptr<RecordedDevice>& device);

  const Recording& recording() const { return recording_; }
  // The host of then has announced it.
  bool wasAnnounced() const { return lastOf_.contains(announcement()); }
  RecordingUse use(Machine& machine) const;

 protected:
  void onOutput(std::span<const std::uint8_t> report) REQUIRES(gate) override;
  void onPlugged() override { opened_ = false; }
  void onUnplugged() override { ++voice_; }

 private:
  // A command: its code, and whom it is for (the prefix byte, 0 without one). Opening has a key of its own.
  struct Key {
    std::uint8_t prefix = 0;
    int code = 0;
    // NOLINTNEXTLINE(modernize-use-nullptr): it has no pointer.
    auto operator<=>(const Key&) const = default;
  };
  struct Answer {
    enum class Kind { report, speech, gone };
    Time delay{0};
    Kind kind = Kind::report;
    Bytes report{};
    std::optional<Time> back{};  // of a device that has gone: how long it stays away
    bool used = false;
  };
  // What happens when the host does something once. Answers keep their places.
  using Occurrence = std::deque<Answer>;

  static Key announcement();
  static std::optional<Key> keyOf(std::span<const std::uint8_t> report);
  static std::string nameOf(const Key& key);
  void learn() NO_THREAD_SAFETY_ANALYSIS;  // while it is made
  void attribute(const Recording::Event& event);
  Answer& add(const Key& key, Answer answer);
  void forgetCutOff();
  void happens(const Key& key) REQUIRES(gate);
  void opens() REQUIRES(gate);
  void act(Answer& answer, unsigned voice) REQUIRES(gate);
  void go(const Answer& answer) REQUIRES(gate);

  const Recording recording_;
  std::map<Key, std::deque<Occurrence>> script_;
  std::map<Key, std::size_t> next_;
  // While learning: when each key came last, and which of the three common moments did.
  std::map<Key, Time> lastOf_;
  Key common_;
  std::vector<bool> refusals_;  // of each opening
  bool opened_ = false;         // since it was plugged in
  unsigned voice_ = 0;          // counts the ends of speech
  RecordingUse use_ GUARDED_BY(gate);
};

}  // namespace sim
