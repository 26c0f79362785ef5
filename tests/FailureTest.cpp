// Every call of the operating system fails once, and every allocation of the library's: whole scenarios, with the n-th
// failing, for every n.
#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "bench/Allocations.h"
#include "sim/Memory.h"
#include "sim/devices/Legacy.h"
#include "tests/Desk.h"
#include "tests/Folder.h"
#include "tests/RecorderClients.h"

namespace {

// What came of a scenario: all that is described, or a clean failure. Anything else fails the test by itself.
enum class Outcome { good, failed };

constexpr sim::Time kLongest = 120s;  // of simulated time, for one run

std::vector<std::int16_t> sound(std::size_t samples) {
  std::vector<std::int16_t> all(samples);
  for (std::size_t i = 0; i < samples; ++i) all[i] = static_cast<std::int16_t>(i * 7919 % 20'000);
  return all;
}

struct CVoxRecordObject final : CVoxRecord {};  // no virtual destructor

// The library's own code, whose allocations count. Operations throw nothing.
template <class Operation>
auto call(Operation operation) {
  const sim::LibraryCode inside;
  return operation();
}
// An object of the library's; null when there is no memory for it.
template <class Object>
std::unique_ptr<Object> make() {
  try {
    return call([] { return std::make_unique<Object>(); });
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

bool makeHub(Desk& desk) {
  auto hub = make<CAudioHidCenter>();
  if (hub) desk.makeHub(std::move(hub));
  return desk.hub != nullptr;
}

// ---- The scenarios. Each makes everything that it works with, and leaves nothing. ----

// Waits for a device; asks for discovery again where its thread could not be started.
int awaitDevice(Desk& desk) {
  for (int i = 0; i < 2; ++i) {
    call([&] { desk.open(); });
    if (desk.machine.waitFor([&] { return desk.hub->GetEffectiveDevice() > 0; }, 15s)) break;
  }
  return desk.hub->GetEffectiveDevice();
}

Outcome speak(Desk& desk, const char* model) {
  if (!makeHub(desk)) return Outcome::failed;
  const auto mouse = desk.make(model);
  mouse->hear(sound(4'000));
  desk.machine.plug(mouse);
  const int device = awaitDevice(desk);
  EXPECT_GT(device, 0) << "one failure does not keep a device away";
  desk.run(500ms);
  desk.audio.clear();
  desk.deliveries.clear();
  std::vector<int> numbers;
  std::vector<std::wstring> names;
  call([&] { desk.hub->GetValidHidList(numbers, names); });
  EXPECT_EQ(numbers.size(), names.size()) << "all of the list, or nothing";
  call([&] { desk.hub->ChooseWorkHidDevice(desk.hub->GetEffectiveDevice()); });
  const bool opened = call([&] { return desk.hub->OpenHidRecord(); });
  desk.run(300ms);
  const bool closed = call([&] { return desk.hub->CloseHidRecord(); });
  const bool marked = !desk.deliveries.empty() && desk.deliveries.back() == 0;
  const std::size_t samples = desk.pcm().size();
  call([&] { desk.close(); });
  desk.machine.unplug(mouse);
  return opened && closed && marked && samples > 2'000 ? Outcome::good : Outcome::failed;
}

template <class Recorder>
Outcome record(Desk& desk, const std::vector<unsigned>& stopResults) {
  Deliveries delivered;
  auto recorder = make<Recorder>();
  if (!recorder) return Outcome::failed;
  const auto start = [&] { return recorder->StartRecord(); };
  const auto stop = [&] { return recorder->StopRecord(); };
  call([&] { recorder->Init(reinterpret_cast<void*>(&Deliveries::onData), &delivered); });
  const int started = call(start);
  EXPECT_TRUE(started == 0 || started == 1);
  desk.run(400ms);
  const unsigned stopped = call(stop);
  EXPECT_TRUE(std::find(stopResults.begin(), stopResults.end(), stopped) != stopResults.end()) << stopped;
  if (started == 1 || !delivered.sizes.empty()) {
    EXPECT_EQ(delivered.sizes.back(), 0) << "the end is marked";
  }
  if (started == 0 && stopped == 0) {
    constexpr bool isSpeaker = std::is_same_v<Recorder, CVoxSpeakerRecord>;
    auto left = desk.machine.balance().sound;
    EXPECT_LE(std::exchange(left.comReferences, 0), isSpeaker ? 1U : 0U) << "the device, deliberately";
    EXPECT_EQ(left, sim::SoundSystem::Open{});
    EXPECT_TRUE(!isSpeaker || delivered.sizes.empty());
  }
  const auto said = delivered.sizes;
  desk.run(1s);
  EXPECT_EQ(delivered.sizes, said) << "nothing after a stop";
  // The same object works again, and only one thing fails.
  const bool again = call(start) == 1;
  EXPECT_TRUE(again || call(start) == 1);
  desk.run(200ms);
  const bool stoppedAgain = call(stop) == 0;
  call([&] { recorder.reset(); });
  const bool good = started == 1 && stopped == 0 && delivered.heard.size() > 4'000;
  return good && again && stoppedAgain ? Outcome::good : Outcome::failed;
}

Outcome recordMicrophone(Desk& desk, WindowsVersion version) {
  CEnvironmentMonitor::SetOsVersion(version);
  auto& all = desk.machine.sound();
  all.microphones = {std::make_shared<sim::Microphone>(L"VoxMouse Tern")};
  all.microphones[0]->hears = sound(16'000);
  all.endpoints = {{L"VoxMouse Tern", 0.3F, true}};
  all.mixers = {{.name = L"VoxMouse Tern", .sources = {{}}}};
  return record<CVoxRecordObject>(desk, {0, 7, 11});
}

Outcome recordSpeaker(Desk& desk, WindowsVersion version) {
  CEnvironmentMonitor::SetOsVersion(version);
  auto& all = desk.machine.sound();
  all.hasSpeaker = true;
  all.speaker.mixFormat = sim::mixFormat(48000, 2, true, true);
  all.speaker.plays = sound(200'000);
  all.speaker.played = 0;
  const Outcome outcome = record<CVoxSpeakerRecord>(desk, {0});
  EXPECT_EQ(desk.record.lines("Log 6"), Lines{});
  // The device of every start is deliberately never released; nothing else is left.
  desk.leftOpen.sound.comReferences = desk.machine.balance().sound.comReferences;
  for (sim::ComObject* object : all.objects) EXPECT_STREQ(object->name, "IMMDevice");
  return outcome;
}

Outcome updateFirmware(Desk& desk, const char* model) {
  const std::vector<std::uint8_t> image(100, 0x5A);
  Folder folder;
  if (!makeHub(desk)) return Outcome::failed;
  const auto mouse = desk.make(model);
  mouse->update(sim::VirtualMouse::Updated::mouse, {.size = image.size()});
  desk.machine.plug(mouse);
  const int device = awaitDevice(desk);
  EXPECT_GT(device, 0);
  desk.run(500ms);
  desk.record.clear();
  const int updated = desk.hub->GetEffectiveDevice();
  call(
      [&, first = folder.with(image)]() mutable { desk.hub->StartOTA(updated, FwUpdate_First, std::move(first), {}); });
  const std::string over = "FwOtaResult " + std::to_string(updated) + " 0 11";
  const auto isOver = [&] { return !desk.record.lines(over).empty(); };
  EXPECT_TRUE(updated < 0 || desk.machine.waitFor(isOver, 30s)) << "an update always comes to its end";
  const auto results = desk.record.lines("FwOtaResult");
  const bool finished = results.size() == 2 && results[0] == "FwOtaResult " + std::to_string(updated) + " 2 8";
  if (finished) {
    EXPECT_EQ(mouse->firmware(sim::VirtualMouse::Updated::mouse).image(), image);
  }
  call([&] { desk.close(); });
  desk.machine.unplug(mouse);
  return finished ? Outcome::good : Outcome::failed;
}

constexpr int kF19 = 0x82, kF23 = 0x86;

Outcome olderHardware(Desk& desk) {
  sim::LegacyDevice usb(desk.machine, sim::LegacyKind::usbMouse);
  sim::LegacyDevice keyboard(desk.machine, sim::LegacyKind::voiceKeyboard);
  usb.plug();
  keyboard.plug();
  bool seen[2] = {};
  bool connected = false;
  if (auto mouse = make<CFormerMouse>()) {
    call([&] { mouse->Init(); });
    connected = call([&] { return mouse->IsConnect() + 1; }) > 0;
    call([&] { mouse->StartCheck(); });
    desk.run(4s);
    usb.press(kF19);
    desk.run(200ms);
    seen[0] = mouse->GetKey_M_L() == ButtonDown;
    usb.press(kF19, false);
    desk.run(200ms);
    EXPECT_EQ(mouse->GetKey_M_L(), ButtonUp);
    keyboard.hid()->key(0x21);
    desk.run(200ms);
    seen[1] = mouse->GetKey_M_L() == ButtonDown;
    keyboard.hid()->key(0);
    desk.run(5s);
    call([&] {
      mouse->StopCheck();
      mouse->CloseThread();
      mouse->Release();
    });
    EXPECT_TRUE(mouse->ThreadIsClosed());
    call([&] { mouse.reset(); });
  }
  usb.unplug();
  keyboard.unplug();
  return connected && seen[0] && seen[1] ? Outcome::good : Outcome::failed;
}

Outcome switchMode(Desk& desk) {
  makeHub(desk);
  CPreferences::Instance()->SetHardWare(HardWare_Mouse);
  sim::LegacyDevice usb(desk.machine, sim::LegacyKind::usbMouse);
  sim::LegacyDevice pen(desk.machine, sim::LegacyKind::laserPen);
  usb.plug();
  pen.plug();
  bool toPen = false, toMouse = false;
  auto mouse = make<CFormerMouse>();
  auto modes = make<CSoftModeSwitch>();
  if (desk.hub && mouse && modes) {
    CFormerLaserPen keys;
    const CSoftModeSwitch::PauseCallback pause = [](void*) { return false; };
    call([&] { modes->StartCheck(reinterpret_cast<void*>(pause), nullptr, mouse.get(), desk.hub.get(), &keys); });
    desk.run(17s);
    desk.machine.peripherals().keyboard.press(kF23);
    desk.run(300ms);
    toPen = CPreferences::Instance()->GetHardWare() == HardWare_LaserPen;
    desk.machine.peripherals().keyboard.release(kF23);
    desk.run(8s);
    usb.press(kF19);
    desk.run(300ms);
    toMouse = CPreferences::Instance()->GetHardWare() == HardWare_Mouse;
    usb.press(kF19, false);
  }
  call([&] {
    if (modes) modes->StopCheck();
    if (modes) modes->Release();
    modes.reset();
    mouse.reset();
    desk.close();
  });
  usb.unplug();
  pen.unplug();
  return toPen && toMouse ? Outcome::good : Outcome::failed;
}

struct Scenario {
  const char* name;
  Outcome (*run)(Desk&);
  std::size_t handles;  // that may stay open by design: the event of each poller, the file of each older HID device
};

void PrintTo(const Scenario& scenario, std::ostream* to) { *to << scenario.name; }

const Scenario kScenarios[] = {
    {"SpeakIntoAWren", [](Desk& desk) { return speak(desk, "Wren"); }, 0},
    {"SpeakIntoATern", [](Desk& desk) { return speak(desk, "Tern"); }, 0},
    {"RecordTheMicrophone", [](Desk& desk) { return recordMicrophone(desk, WindowsVersion_Current); }, 0},
    {"RecordTheMicrophoneWithAMixer", [](Desk& desk) { return recordMicrophone(desk, WindowsVersion_MixerVolume); }, 0},
    {"RecordTheSpeaker", [](Desk& desk) { return recordSpeaker(desk, WindowsVersion_Current); }, 0},
    {"RecordTheSpeakerByTimer", [](Desk& desk) { return recordSpeaker(desk, WindowsVersion_TimerCapture); }, 0},
    {"UpdateAWren", [](Desk& desk) { return updateFirmware(desk, "Wren"); }, 0},
    {"UpdateATern", [](Desk& desk) { return updateFirmware(desk, "Tern"); }, 0},
    {"OlderHardware", olderHardware, 2},
    {"SwitchTheMode", switchMode, 1},
};

enum class Fails { call, callShuffled, allocation, allocationShuffled };

bool isOfMemory(Fails fails) { return fails == Fails::allocation || fails == Fails::allocationShuffled; }

class Failures : public ::testing::TestWithParam<std::tuple<Scenario, Fails>> {};

// The scenario with the n-th call or allocation failing; then, where it has failed, once more without. What has failed;
// empty when there are not so many.
std::string runWith(const Scenario& scenario, Fails fails, std::uint64_t n) {
  Desk desk({.seed = fails == Fails::callShuffled || fails == Fails::allocationShuffled ? n : 0});
  desk.close();  // each run makes what it works with
  sim::failAllocation(isOfMemory(fails) ? n : 0);
  if (!isOfMemory(fails)) desk.machine.failCall(n);
  Outcome outcome = scenario.run(desk);
  std::string failed = desk.machine.failedCall();
  if (sim::allocations() >= n && isOfMemory(fails)) failed = "operator new";
  SCOPED_TRACE("number " + std::to_string(n) + ", " + failed);
  EXPECT_LE(desk.machine.now(), kLongest);
  const auto handles = desk.machine.balance().handles;
  EXPECT_LE(handles, scenario.handles);
  desk.leftOpen.handles = handles;
  EXPECT_EQ(desk.machine.balance(), desk.leftOpen);
  EXPECT_EQ(desk.machine.forcedEnds(), 0U);
  if (failed.empty()) {
    EXPECT_EQ(outcome, Outcome::good) << "nothing has failed";
  }
  if (outcome == Outcome::failed) {
    desk.machine.failCall(0);
    EXPECT_EQ(scenario.run(desk), Outcome::good) << "the system has recovered";
    desk.leftOpen.handles = desk.machine.balance().handles;
  }
  return failed;
}

TEST_P(Failures, OfEachAreSurvived) {
  const auto& [scenario, fails] = GetParam();
  failsAllocation = &sim::lacksMemory;
  std::uint64_t n = 0;
  std::string failed;
  do {
    ++n;
    failed = runWith(scenario, fails, n);
    if (HasFailure()) FAIL() << "number " << n << ", " << failed;
  } while (!failed.empty());
  sim::failAllocation(0);
  EXPECT_GT(n, 12U) << "the scenario needs the system";
  RecordProperty("failures", std::to_string(n - 1));
}

#ifdef VOXDEVICE_EXPLORE
const auto kFails = ::testing::Values(Fails::call, Fails::callShuffled, Fails::allocation, Fails::allocationShuffled);
#else  // nothing tells whose an allocation is
const auto kFails = ::testing::Values(Fails::call, Fails::callShuffled);
#endif

std::string nameOf(const ::testing::TestParamInfo<Failures::ParamType>& each) {
  constexpr const char* kNames[] = {"Call", "CallShuffled", "Allocation", "AllocationShuffled"};
  return std::string(std::get<0>(each.param).name) + "_" + kNames[static_cast<int>(std::get<1>(each.param))];
}

INSTANTIATE_TEST_SUITE_P(Each, Failures, ::testing::Combine(::testing::ValuesIn(kScenarios), kFails), nameOf);

}  // namespace
