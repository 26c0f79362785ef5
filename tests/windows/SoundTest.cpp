// VoxDevice.dll on the sound system of the Windows that this runs on. A microphone called "VoxMouse Lark" has to hear
// samples/sentence.wav over and over.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <mutex>
#include <vector>

#include "sim/Wav.h"
#include "tests/Desk.h"

namespace {

using Lines = std::vector<std::string>;
using Samples = std::vector<std::int16_t>;

// What a recorder delivers.
struct Inbox {
  static void onData(const char* data, int byteCount, void* context) {
    auto* self = static_cast<Inbox*>(context);
    const std::lock_guard lock(self->mutex);
    if (!data) {
      ++self->ends;
      return;
    }
    const std::size_t old = self->pcm.size();
    self->pcm.resize(old + static_cast<std::size_t>(byteCount) / 2);
    std::memcpy(self->pcm.data() + old, data, static_cast<std::size_t>(byteCount));
  }
  std::size_t size() {
    const std::lock_guard lock(mutex);
    return pcm.size();
  }
  std::mutex mutex;
  Samples pcm;
  int ends = 0;
};

// The longest stretch of `recorded` that is one of `source`, sample for sample.
std::size_t longestMatch(const Samples& recorded, const Samples& source) {
  constexpr std::size_t kProbe = 100;
  std::size_t longest = 0;
  for (std::size_t at = 0; at + kProbe <= recorded.size(); at += kProbe) {
    const auto probe = recorded.begin() + static_cast<std::ptrdiff_t>(at);
    if (*std::max_element(probe, probe + kProbe) < 500) continue;  // silence is everywhere
    const auto found = std::search(source.begin(), source.end(), probe, probe + kProbe);
    if (found == source.end()) continue;
    const auto end = std::mismatch(probe, recorded.end(), found, source.end()).first;
    longest = std::max(longest, static_cast<std::size_t>(end - probe));
  }
  return longest;
}

TEST(Sound, AMicrophoneIsFoundByItsNameAndRecorded) {
  Desk desk({.clock = sim::Clock::realTime});
  std::string error;
  const Samples sentence = sim::readSpeech(std::string(VOXDEVICE_SAMPLES) + "/sentence.wav", error);
  ASSERT_EQ(error, "");

  const int card = CVoxRecord::VoxCheckSoundCard();
  ASSERT_GE(card, 0);
  EXPECT_EQ(CVoxDeviceInfo::Instance()->GetFormerDeviceName(), L"VoxMouse Lark");
  CDeviceData::Instance()->SetRecordName(L"VoxMouse Lark");
  CDeviceData::Instance()->SetRecordByName(true);
  Inbox inbox;
  CVoxRecord recorder;
  recorder.Init(reinterpret_cast<void*>(&Inbox::onData), &inbox);
  EXPECT_EQ(recorder.ChooseDevice().index, card);
  ASSERT_EQ(recorder.StartRecord(), 1);
  EXPECT_TRUE(desk.machine.waitFor([&] { return inbox.size() >= 64'000; }, 10s));
  EXPECT_EQ(recorder.StopRecord(), 0U);
  EXPECT_GE(inbox.ends, 1);
  EXPECT_GE(longestMatch(inbox.pcm, sentence), 16'000U) << "a second without a fault";
  EXPECT_EQ(desk.record.lines(), Lines{});
}

// Wine opens a loopback stream, but has no capture client for it.
TEST(Sound, WithoutLoopbackTheSpeakerIsNotRecorded) {
  Desk desk({.clock = sim::Clock::realTime});
  Inbox inbox;
  CVoxSpeakerRecord speaker;
  speaker.Init(reinterpret_cast<void*>(&Inbox::onData), &inbox);
  EXPECT_EQ(speaker.StartRecord(), 0);
  EXPECT_EQ(speaker.StartRecord(), 0);
  EXPECT_EQ(inbox.size(), 0U);
  EXPECT_EQ(desk.record.lines(), Lines{"Log 0 扬声器采样率：44100，通道数：2"});
}

}  // namespace
