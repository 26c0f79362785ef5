// The same library on free-running threads: for the thread sanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "tests/Desk.h"
#include "tests/Folder.h"
#include "tests/RandomClients.h"

namespace {

TEST(RealClock, ConnectsRecordsAndStopsUnderManyThreads) {
  Desk desk({.clock = sim::Clock::realTime});
  desk.open();
  auto wren = desk.make("Wren");
  auto tern = desk.make("Tern", sim::Link::bluetooth);
  auto swift = desk.make("Swift");
  wren->hear(std::vector<std::int16_t>(16000, 1000));
  for (const auto& device : {wren, tern, swift}) desk.machine.plug(device);
  ASSERT_TRUE(desk.machine.waitFor([&] { return desk.record.lines("MouseState").size() == 3; }, 10s));

  // Clients on threads of their own: one polls keys, one asks and commands.
  std::atomic<bool> stop{false};
  auto poller = desk.machine.spawn([&] {
    while (!stop) {
      desk.hub->GetButtonState_Left();
      desk.hub->LeftKeyDown_Up();
      desk.hub->GetClickMode_L();
      desk.hub->IsConnect();
      CVoxDeviceInfo::Instance()->GetBluetoothID();
      desk.run(1ms);
    }
  });
  auto commander = desk.machine.spawn([&] {
    std::vector<int> numbers;
    std::vector<std::wstring> names;
    for (short dpi = 400; !stop; ++dpi) {
      desk.hub->GetValidHidList(numbers, names);
      desk.hub->SetDpi(-1, dpi);
      desk.hub->GetMouseState(-1);
      desk.hub->SetCallback_PowerReport(nullptr, nullptr);
      desk.run(2ms);
    }
  });
  for (int round = 0; round < 3; ++round) {
    wren->pressVoiceKey();
    ASSERT_TRUE(desk.machine.waitFor([&] { return desk.hub->GetButtonState_Left() == ButtonDown; }, 5s));
    ASSERT_TRUE(desk.hub->OpenHidRecord());
    tern->key('1');
    tern->key(']');
    desk.run(150ms);
    EXPECT_TRUE(desk.hub->CloseHidRecord());
    wren->releaseVoiceKey();
    ASSERT_TRUE(desk.machine.waitFor([&] { return desk.hub->GetButtonState_Left() == ButtonUp; }, 5s));
    desk.machine.unplug(tern);
    desk.run(20ms);
    desk.machine.plug(tern);
  }
  EXPECT_GE(desk.pcm().size(), 3000U);
  // Pulled out while the hub may just be opening it, and once more at the end.
  ASSERT_TRUE(desk.machine.waitFor(
      [&] { return desk.hub->GetHidMouseType(desk.hub->GetEffectiveDevice()) == MouseType_Tern; }, 10s));
  stop = true;
  poller.join();
  commander.join();
  desk.machine.unplug(swift);
  desk.close();
}

TEST(RealClock, UpdatesFirmwareWhileClientsAsk) {
  Desk desk({.clock = sim::Clock::realTime});
  auto wren = desk.openWith("Wren");
  Folder folder;
  const std::string file = folder.with(sim::Bytes(2000, 'f'));
  for (const auto which : {sim::VirtualMouse::Updated::mouse, sim::VirtualMouse::Updated::receiver}) {
    wren->update(which, {.size = 2000, .silentAt = sim::UpdateStep::complete});
  }
  desk.hub->StartOTA(1, FwUpdate_Both, file, file);
  desk.run(100ms);
  desk.hub->StartOTA(1, FwUpdate_First, file, "");  // a second one meanwhile
  for (int i = 0; i < 100; ++i) {
    desk.hub->SetDpi(1, 800);
    desk.hub->GetMouseState(-1);
    desk.run(1ms);
  }
  EXPECT_TRUE(desk.machine.waitFor([&] { return desk.record.last().ends_with(" 0 11"); }, 20s));
  desk.hub->StartOTA(1, FwUpdate_First, file, "");
  desk.run(20ms);
  desk.close();
}

TEST(RealClock, RecordsMicrophoneAndSpeakerAtOnce) {
  Desk desk({.clock = sim::Clock::realTime});
  desk.machine.locked([&] {
    sim::SoundSystem& sound = desk.machine.sound();
    sound.microphones.push_back(std::make_shared<sim::Microphone>(L"VoxMouse Tern"));
    sound.microphones[0]->hears.assign(16000, 1000);
    sound.hasSpeaker = true;
    sound.speaker.mixFormat = sim::mixFormat(48000, 2, true, true);
    sound.speaker.plays.assign(96000, 1000);
  });
  desk.leftOpen = {.sound = {.comReferences = 3}};
  static std::atomic<int> bytes;
  bytes = 0;
  const CVoxRecord::DataCallback callback = [](const char*, int count, void*) { bytes += count; };
  CVoxRecord microphone;
  CVoxSpeakerRecord speaker;
  microphone.Init(reinterpret_cast<void*>(callback), nullptr);
  speaker.Init(reinterpret_cast<void*>(callback), nullptr);
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(microphone.StartRecord(), 1);
    ASSERT_EQ(speaker.StartRecord(), 1);
    desk.run(200ms);
    EXPECT_EQ(microphone.StopRecord(), 0U);
    EXPECT_EQ(speaker.StopRecord(), 0U);
  }
  EXPECT_GT(bytes, 3 * 2 * 4096);
}

TEST(RealClock, ClientsAtRandomAndAnEndAtAnyMoment) {
  for (std::uint64_t seed = 1; seed <= seeds(10) && !HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Trial run(seed, sim::Clock::realTime);
    hubClients(run);
  }
}

}  // namespace
