// VoxDevice.dll on the HID stack of the Windows that this runs on, with virtual devices behind its class driver.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <numeric>

#include "sim/Text.h"
#include "sim/Wav.h"
#include "sim/windows/HidPort.h"
#include "tests/Desk.h"
#include "tests/Sentence.h"
#include "tests/windows/Holdings.h"

namespace {

using Lines = std::vector<std::string>;

class Hardware : public ::testing::Test {
 protected:
  // Plugged in, announced and asked for its state.
  std::unique_ptr<HidPort> connect(const std::shared_ptr<sim::VirtualMouse>& device) {
    auto port = std::make_unique<HidPort>(desk.machine, device);
    plug(*port);
    return port;
  }
  void plug(HidPort& port) {
    const auto known = count("MouseState");
    port.plug();
    EXPECT_TRUE(desk.machine.waitFor([&] { return count("MouseState") > known; }, 10s));
  }
  std::size_t count(const char* line) { return desk.record.lines(line).size(); }
  bool soon(const std::function<bool()>& condition) { return desk.machine.waitFor(condition, 5s); }

  Desk desk{{.clock = sim::Clock::realTime}};
  std::shared_ptr<sim::VirtualMouse> wren = sim::makeMouse("Wren", sim::Link::usb, "7&1a2b3c4d&0&0000");
  std::shared_ptr<sim::VirtualMouse> heron = sim::makeMouse("Heron Plus", sim::Link::usb, "7&1a2b3c4e&0&0000");
};

TEST_F(Hardware, IsFoundByItsPathAnnouncedAndPressed) {
  desk.open();
  const auto wrenPort = connect(wren);
  const auto heronPort = connect(heron);
  std::vector<std::wstring> paths;
  CAudioHidCenter::EnumerateHidInterfaces(paths);
  for (const auto& device : {wren, heron}) {
    EXPECT_EQ(std::count(paths.begin(), paths.end(), device->path()), 1) << sim::utf8(device->path());
    EXPECT_EQ(device->malformed(), 0U);
  }
  EXPECT_EQ(desk.record.lines("HidConnect"), (Lines{"HidConnect 1", "HidConnect 2"}));
  EXPECT_EQ(desk.record.lines("MouseState"), (Lines{"MouseState 1 2 2 1 1600 80", "MouseState 2 7 2 1 1600 80"}));
  EXPECT_TRUE(soon([&] { return count("DongleState") == 2; }));

  // One handle has a blocked read all the time; what is written goes through the other one.
  desk.hub->SetDpi(2, 800);
  EXPECT_TRUE(soon([&] { return desk.record.lines("DpiSet") == Lines{"DpiSet 2 800 1"}; }));
  wren->pressVoiceKey();
  EXPECT_TRUE(soon([&] { return desk.hub->GetButtonState_Left() == ButtonDown; }));
  wren->releaseVoiceKey();
  EXPECT_TRUE(soon([&] { return desk.hub->GetButtonState_Left() == ButtonUp; }));
  heron->key('1');
  EXPECT_TRUE(soon([&] { return desk.hub->GetButtonState_Right() == ButtonDown; }));
  heron->key('@');
  EXPECT_TRUE(soon([&] { return desk.hub->GetButtonState_Right() == ButtonUp; }));
}

TEST_F(Hardware, SpeechIsTheSameBytesAsOnEverySystem) {
  std::string error;
  wren->hear(sim::readSpeech(std::string(VOXDEVICE_SAMPLES) + "/sentence.wav", error));
  ASSERT_EQ(error, "");
  desk.open();
  const auto port = connect(wren);
  wren->pressVoiceKey();
  ASSERT_TRUE(soon([&] { return desk.hub->GetButtonState_Left() == ButtonDown; }));
  ASSERT_TRUE(desk.hub->OpenHidRecord());
  EXPECT_TRUE(desk.machine.waitFor([&] { return desk.pcm().size() >= kSentenceSamples; }, 10s));
  EXPECT_TRUE(desk.hub->CloseHidRecord());
  EXPECT_FALSE(wren->streaming());
  const std::vector<std::int16_t> pcm = desk.pcm();
  ASSERT_GE(pcm.size(), kSentenceSamples);
  EXPECT_EQ(hashOf(std::span(pcm).first(kSentenceSamples)), kSentenceHash);
  EXPECT_EQ(desk.deliveries.back(), 0);
}

TEST_F(Hardware, ATernIsDecodedByTheCodecBesideTheProgram) {
  const std::wstring folder = programFolder();
  ASSERT_TRUE(CopyFileW((folder + L"codec\\asc_lib.dll").c_str(), (folder + L"asc_lib.dll").c_str(), FALSE));
  const auto tern = sim::makeMouse("Tern", sim::Link::usb, "7&1a2b3c4f&0&0000");
  tern->hear(std::vector<std::int16_t>(16'000, 5'000));
  desk.open();
  const auto port = connect(tern);
  desk.hub->ChooseWorkHidDevice(1);
  ASSERT_TRUE(desk.hub->OpenHidRecord());
  EXPECT_TRUE(soon([&] { return desk.pcm().size() >= 6'000; }));
  EXPECT_TRUE(desk.hub->CloseHidRecord());
  const std::vector<std::int16_t> pcm = desk.pcm();
  ASSERT_GE(pcm.size(), 6'000U);
  // What the codec makes of the level that was heard.
  sim::CvsdStep decoder;
  for (std::size_t i = 0; i < 6'000; ++i) {
    ASSERT_EQ(pcm[i], decoder.next(5'000 > decoder.estimate())) << i;
  }
}

TEST_F(Hardware, AFirmwareImageArrivesByteForByte) {
  desk.open();
  const auto port = connect(wren);
  sim::Bytes image(3001);
  std::iota(image.begin(), image.end(), std::uint8_t{7});
  const std::string file = ::testing::TempDir() + "hardware_firmware.bin";
  std::ofstream(file, std::ios::binary).write(reinterpret_cast<const char*>(image.data()), 3001);
  wren->update(sim::VirtualMouse::Updated::mouse, {.size = image.size(), .order = 3, .loseEvery = 7});
  desk.hub->StartOTA(1, FwUpdate_First, file, "");
  EXPECT_TRUE(desk.machine.waitFor([&] { return desk.record.last() == "FwOtaResult 1 0 11"; }, 30s));
  EXPECT_EQ(desk.record.lines("FwOtaResult"), (Lines{"FwOtaResult 1 2 8", "FwOtaResult 1 0 11"}));
  const sim::FirmwareTarget target = wren->firmware(sim::VirtualMouse::Updated::mouse);
  EXPECT_EQ(target.violations(), Lines{});
  EXPECT_TRUE(target.image() == image);
  std::remove(file.c_str());
}

TEST_F(Hardware, PulledOutInMidReadItComesBack) {
  desk.open();
  const auto port = connect(wren);
  desk.hub->ChooseWorkHidDevice(1);
  ASSERT_TRUE(desk.hub->OpenHidRecord());
  EXPECT_TRUE(soon([&] { return desk.pcm().size() > 4000; }));
  port->unplug();
  EXPECT_TRUE(soon([&] { return count("HidDisconnect") == 1; }));
  EXPECT_FALSE(desk.hub->IsConnect());
  plug(*port);
  EXPECT_EQ(desk.record.lines("HidConnect"), (Lines{"HidConnect 1", "HidConnect 2"}));
  desk.hub->ChooseWorkHidDevice(2);
  const std::size_t before = desk.pcm().size();
  ASSERT_TRUE(desk.hub->OpenHidRecord());
  EXPECT_TRUE(soon([&] { return desk.pcm().size() > before + 4000; }));
  EXPECT_TRUE(desk.hub->CloseHidRecord());
}

TEST_F(Hardware, StopsWithinASecondAndLeavesNothingRunning) {
  // The machine's own threads are there before; the ports come and go with threads of theirs.
  HidPort wrenPort(desk.machine, wren);
  HidPort heronPort(desk.machine, heron);
  wrenPort.plug();
  heronPort.plug();
  // The system opens things of its own at the first use.
  desk.open();
  ASSERT_TRUE(desk.machine.waitFor([&] { return count("MouseState") == 2; }, 10s));
  desk.hub->CloseDevice();
  desk.hub->Release();

  // Events are not looked at: the C++ runtime opens some as it needs them.
  const HANDLE samples[] = {CreateFileW(L"NUL", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr),
                            CreateMutexW(nullptr, FALSE, nullptr),
                            OpenThread(SYNCHRONIZE, FALSE, GetCurrentThreadId())};
  const auto open = [&samples] {
    std::vector<std::size_t> counts{threadsOfThisProcess()};
    for (const HANDLE sample : samples) counts.push_back(handlesLike(sample));
    return counts;
  };
  const auto before = open();
  EXPECT_GT(before[1], 1U) << "the pipes of the ports, at least";
  desk.open();
  ASSERT_TRUE(desk.machine.waitFor([&] { return count("MouseState") == 4; }, 10s));
  const auto meanwhile = open();
  EXPECT_EQ(meanwhile[0], before[0] + 7) << "discovery, and three threads for each device";
  EXPECT_EQ(meanwhile[1], before[1] + 4) << "each device is opened twice";
  desk.hub->ChooseWorkHidDevice(desk.hub->GetEffectiveDevice());
  ASSERT_TRUE(desk.hub->OpenHidRecord());
  const auto begin = desk.machine.now();
  desk.hub->CloseDevice();
  desk.hub->Release();
  EXPECT_LT((desk.machine.now() - begin).count(), 1'000'000);
  EXPECT_EQ(open(), before);
  for (const HANDLE sample : samples) CloseHandle(sample);
}

}  // namespace
