// Older microphones: which one is chosen, how loud it is set, what it records, and how its driver can misbehave.
#include <gtest/gtest.h>

#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "audio/SoundCard.h"
#include "platform/os.h"
#include "tests/Desk.h"
#include "tests/RecorderClients.h"

namespace {

std::vector<std::int16_t> ramp(std::size_t samples) {
  std::vector<std::int16_t> all(samples);
  for (std::size_t i = 0; i < samples; ++i) all[i] = static_cast<std::int16_t>(i * 7919);
  return all;
}

// CVoxRecord has no virtual destructor; this cannot be deleted as anything else.
struct Recorder final : CVoxRecord {};

// A desk with microphones, and a recorder.
struct RecordDesk : Desk, Deliveries {
  explicit RecordDesk(const std::vector<std::wstring>& names = {L"VoxMouse Tern"}, std::uint64_t seed = 0)
      : Desk({.seed = seed}), recorder(std::make_unique<Recorder>()) {
    for (const std::wstring& name : names) sound().microphones.push_back(std::make_shared<sim::Microphone>(name));
    recorder->Init(reinterpret_cast<void*>(&onData), static_cast<Deliveries*>(this));
  }
  ~RecordDesk() { recorder.reset(); }
  sim::SoundSystem& sound() { return machine.sound(); }
  sim::Microphone& microphone() { return *sound().microphones.at(0); }
  std::unique_ptr<Recorder> recorder;
};

TEST(Microphone, RecordsTenMinutesSampleForSample) {
  RecordDesk desk;
  desk.microphone().hears = ramp(16000 * 600);
  for (const int seconds : {1, 199, 250, 149}) {
    desk.sizes.clear();
    ASSERT_EQ(desk.recorder->StartRecord(), 1);
    desk.run(std::chrono::seconds(seconds) + 50ms);
    const std::size_t full = desk.sizes.size();
    EXPECT_EQ(full, static_cast<std::size_t>((seconds * 1000 + 50) / 128));
    EXPECT_EQ(desk.recorder->StopRecord(), 0U);
    // What the buffer in hand has, seven empty ones, the last one's end mark, and that of StopRecord.
    std::vector<int> expected(full, 4096);
    expected.push_back((seconds * 1000 + 50) % 128 * 32);
    expected.insert(expected.end(), 9, 0);
    EXPECT_EQ(desk.sizes, expected);
    EXPECT_EQ(desk.machine.balance().threads, 0U);
  }
  ASSERT_EQ(desk.heard.size(), desk.microphone().heard);
  EXPECT_GT(desk.heard.size(), 16000U * 599);
  EXPECT_TRUE(std::equal(desk.heard.begin(), desk.heard.end(), desk.microphone().hears.begin()));
  EXPECT_EQ(desk.recorder->StopRecord(), 0U) << "nothing records: nothing happens";
}

TEST(Microphone, IsChosenByKindAndName) {
  using Names = std::vector<std::wstring>;
  const Names all{L"Line In (HD Audio)", L"VoxMouse Pipit",   L"麦克风 (VoxMouse Lark)",
                  L"VoxMouse Tern",      L"USB Audio Device", L"Meeting"};
  const std::wstring long40 = L"0123456789abcdef012345678oxMouse";  // as much of a name as there is room for
  constexpr HidDeviceKind m = HidKind_Mouse;
  constexpr HidDeviceKind k = HidKind_VoiceKeyboard;
  const struct {
    const char* name;
    int hardware;
    HidDeviceKind kind;
    Names names;
    int index;  // -1: none
    const wchar_t* byName = nullptr;
    const wchar_t* penMeet = nullptr;
    const wchar_t* volume = nullptr;  // the name with which the volume is set; null: the device's
  } cases[] = {
      {"mouse", 1, m, all, 3},
      {"mouse that is a keyboard's", 1, m, {L"VoxMouse Pipit", L"VoxMouse Lark"}, 1},
      {"mouse without the first letter", 1, m, {L"oxMouse"}, 0},
      {"keyboard", 1, k, all, 2},
      {"keyboard, USB", 1, k, {L"VoxMouse Tern", L"PnP Audio Device"}, 1},
      {"by name", 1, m, all, 0, L"HD Audio", nullptr, L"HD Audio"},
      {"by name, missing", 1, m, all, 4, L"Tape"},
      {"by name, empty", 1, k, all, 2, L""},
      {"mouse, none", 1, m, {L"Line In", L"VoxMouse Pipit"}, -1},
      {"pen", 2, m, all, 1},
      {"pen, none", 2, m, {L"VoxMouse Tern"}, -1},
      {"pen in a meeting", 2, m, all, 5, nullptr, L"Meeting"},
      {"pen in a meeting, part of a name", 2, m, all, -1, nullptr, L"Meet"},
      {"other hardware is a pen", 7, m, all, 1},
      {"meeting with a mouse", 1, m, all, 3, nullptr, L"Meeting"},
      {"no end", 1, m, {long40 + L", and more"}, 0, nullptr, nullptr, long40.c_str()},
      {"no device", 1, m, {}, -1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    RecordDesk desk(c.names);
    CPreferences::Instance()->SetHardWare(static_cast<VoxHardWare>(c.hardware));
    CDeviceData::Instance()->SetRecordByName(c.byName != nullptr);
    CDeviceData::Instance()->SetRecordName(c.byName ? c.byName : L"");
    CDeviceData::Instance()->SetHidDeviceKind(c.kind);
    if (c.penMeet) desk.recorder->SetPen_MeetMode(c.penMeet);
    // Endpoints of which only one bears the name that counts.
    const bool found = c.index >= 0;
    const std::wstring volume = c.volume ? c.volume : found ? c.names[static_cast<std::size_t>(c.index)] : L"";
    desk.sound().endpoints = {{L"x"}, {L"(" + volume + L")"}};
    std::int16_t number = 0;
    for (const auto& microphone : desk.sound().microphones) microphone->hears = {number++};
    ASSERT_EQ(desk.recorder->StartRecord(), found ? 1 : 0);
    desk.run(200ms);
    desk.recorder->StopRecord();
    if (found) {
      EXPECT_EQ(desk.heard.at(0), c.index);
      EXPECT_FLOAT_EQ(desk.sound().endpoints[1].volume, 0.9F);
      EXPECT_FLOAT_EQ(desk.sound().endpoints[0].volume, 0.5F);
      EXPECT_EQ(desk.record.lines(), Lines{});
    } else {
      EXPECT_EQ(desk.record.lines(), (Lines{"Log 6 没有找到录音设备", "Tray 1 没有找到录音设备"}));
      // A meeting without its device is forgotten.
      EXPECT_EQ(desk.recorder->StartRecord(), c.penMeet ? 1 : 0);
      desk.recorder->StopRecord();
    }
  }
}

TEST(Microphone, FailuresOfEveryStepAreReported) {
  const struct {
    const char* call;
    std::int64_t result;
    int after;
    const char* log;
  } cases[] = {
      {"waveInOpen", 4, 0, "指定的资源已被分配"},
      {"waveInOpen", 2, 0, "录音设备的ID越界"},
      {"waveInOpen", 6, 0, "没有安装驱动程序"},
      {"waveInOpen", 7, 0, "不能分配或锁定内存"},
      {"waveInOpen", 32, 0, "录音设备不支持请求的波形格式"},
      {"waveInOpen", 99, 0, "打开录音设备出现其他错误"},
      {"waveInPrepareHeader", 7, 3, "开始录音时出现错误"},
      {"waveInAddBuffer", 5, 7, "开始录音时出现错误"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.log);
    RecordDesk desk;
    desk.sound().endpoints = {{L"VoxMouse Tern"}};
    desk.machine.faults().fail(c.call, c.result, c.after);
    EXPECT_EQ(desk.recorder->StartRecord(), 0);
    EXPECT_EQ(desk.record.lines(),
              (Lines{std::string("Log 6 ") + c.log, "Log 6 打开录音设备失败", "Tray 1 打开录音设备失败"}));
    // Where the device is open, the record thread deliberately waits.
    EXPECT_EQ(desk.machine.balance().threads, std::string(c.call) == "waveInOpen" ? 0U : 1U);
    desk.machine.faults().repair();
    desk.microphone().hears = ramp(10'000);
    EXPECT_EQ(desk.recorder->StartRecord(), 1);
    desk.run(300ms);
    EXPECT_EQ(desk.recorder->StopRecord(), 0U);
    EXPECT_GE(desk.heard.size(), 4096U);
    EXPECT_TRUE(std::equal(desk.heard.begin(), desk.heard.begin() + 4096, desk.microphone().hears.begin()));
  }
  RecordDesk desk;
  desk.sound().endpoints = {{L"VoxMouse Tern"}};
  desk.machine.faults().fail("waveInStart", 1);
  EXPECT_EQ(desk.recorder->StartRecord(), 0);
  EXPECT_EQ(desk.record.lines(), (Lines{"Log 6 开始采集声音失败", "Tray 1 开始采集声音失败"}));
  // The device is open: it can be stopped.
  EXPECT_EQ(desk.recorder->StopRecord(), 0U);
}

TEST(Microphone, StopTellsWhatFailedAndSpoilsNoLaterOne) {
  const std::pair<const char*, unsigned> cases[] = {{"waveInStop", 7}, {"waveInReset", 11}, {"waveInClose", 7}};
  for (const auto& [call, result] : cases) {
    SCOPED_TRACE(call);
    RecordDesk desk;
    ASSERT_EQ(desk.recorder->StartRecord(), 1);
    desk.run(200ms);
    desk.machine.faults().fail(call, 1);
    EXPECT_EQ(desk.recorder->StopRecord(), result);
    desk.machine.faults().repair();
    const auto said = desk.sizes;
    EXPECT_EQ(said.back(), 0);
    desk.run(2s);  // whatever its driver still does, it does not touch freed memory
    EXPECT_EQ(desk.sizes, said) << "nothing after it has returned";
    EXPECT_EQ(desk.recorder->StopRecord(), 0U);
    for (int i = 0; i < 20; ++i) {
      desk.sizes.clear();
      ASSERT_EQ(desk.recorder->StartRecord(), 1);
      desk.run(300ms);
      EXPECT_EQ(desk.recorder->StopRecord(), 0U);
      EXPECT_EQ(desk.sizes, (std::vector{4096, 4096, 44 * 32, 0, 0, 0, 0, 0, 0, 0, 0, 0})) << i;
    }
  }
}

TEST(Microphone, DriversMayMisbehave) {
  const auto recordWith = [](auto habit, std::uint64_t seed) {
    RecordDesk desk({L"VoxMouse Tern"}, seed);
    desk.microphone().hears = ramp(100'000);
    habit(desk.microphone());
    EXPECT_EQ(desk.recorder->StartRecord(), 1);
    desk.run(2s);
    EXPECT_EQ(desk.recorder->StopRecord(), 0U);
    if (!desk.microphone().overstates) {
      EXPECT_TRUE(std::equal(desk.heard.begin(), desk.heard.end(), desk.microphone().hears.begin()));
    }
    return desk.sizes;
  };
  for (std::uint64_t seed = 0; seed < 20; ++seed) {
    const auto usual = recordWith([](sim::Microphone&) {}, seed);
    EXPECT_EQ(recordWith([](sim::Microphone& m) { m.overstates = true; }, seed).at(0), 4096);
    EXPECT_EQ(recordWith([](sim::Microphone& m) { m.returnsTwice = true; }, seed), usual);
    EXPECT_EQ(recordWith([](sim::Microphone& m) { m.halfFull = true; }, seed).at(0), 2048);
    const auto gaps = recordWith([](sim::Microphone& m) { m.emptyEvery = 3; }, seed);
    EXPECT_EQ(std::vector(gaps.begin(), gaps.begin() + 4), (std::vector{4096, 4096, 0, 4096}));
    recordWith([](sim::Microphone& m) { m.late = 90ms; }, seed);
    recordWith([](sim::Microphone& m) { m.jitter = 100ms; }, seed);
  }
  // A buffer that is refused in mid-recording ends the record thread, without an end mark.
  RecordDesk desk;
  ASSERT_EQ(desk.recorder->StartRecord(), 1);
  desk.machine.faults().fail("waveInAddBuffer", 1);
  desk.run(1s);
  EXPECT_EQ(desk.sizes, std::vector<int>{4096});
  EXPECT_EQ(desk.machine.balance().threads, 0U);
}

TEST(Microphone, MayBePulledOutWhileItRecords) {
  RecordDesk desk;
  const auto microphone = desk.sound().microphones[0];
  for (const bool destroy : {false, true}) {
    desk.sound().microphones = {microphone};
    desk.sizes.clear();
    ASSERT_EQ(desk.recorder->StartRecord(), 1);
    desk.run(300ms);
    desk.sound().pullOut(microphone);
    desk.run(300ms);
    EXPECT_EQ(desk.sizes, (std::vector{4096, 4096})) << "nothing is filled any more";
    if (destroy) {
      EXPECT_LE(timeOf(desk, [&] { desk.recorder.reset(); }), kBound);
    } else {
      EXPECT_EQ(desk.recorder->StopRecord(), 7U) << "there is no driver to stop it";
      EXPECT_EQ(desk.sizes.back(), 0);
      EXPECT_EQ(desk.recorder->StartRecord(), 0);
    }
  }
}

// ---- How recordings end ----

TEST(Microphone, AStopThatMeetsAReturningBufferReturnsAndNothingFollows) {
  for (std::uint64_t seed = 1; seed <= 300; ++seed) {
    RecordDesk desk({L"VoxMouse Tern"}, seed);
    ASSERT_EQ(desk.recorder->StartRecord(), 1);
    // Also at once: what the driver says before the record thread has begun must not be lost.
    const int buffers = static_cast<int>(seed % 4);
    if (buffers > 0) desk.run(128ms * buffers);  // to the moment
    EXPECT_EQ(desk.recorder->StopRecord(), 0U);
    const auto said = desk.sizes;
    EXPECT_EQ(std::accumulate(said.begin(), said.end(), 0), buffers * 4096) << "seed " << seed;
    EXPECT_EQ(said[said.size() - 2] + said.back(), 0);
    desk.run(1s);
    EXPECT_EQ(desk.sizes, said) << "seed " << seed;
  }
}

TEST(Microphone, AStopWaitsForWhatTheDriverHasAndNoMore) {
  const struct {
    const char* call;
    int after;
    int started;
    std::vector<int> sizes;
  } cases[] = {
      {"waveInPrepareHeader", 0, 0, {0, 0}},  // the end marks of both threads
      {"waveInPrepareHeader", 3, 0, {0, 0, 0, 0, 0}},
      {"waveInAddBuffer", 0, 0, {0, 0}},
      {"waveInAddBuffer", 7, 0, std::vector<int>(9)},
      {"waveInAddBuffer", 8, 1, {4096, 0}},  // refused when it came back: the record thread has ended
  };
  for (const auto& c : cases) {
    for (const bool byCopy : {false, true}) {
      SCOPED_TRACE(c.call + std::to_string(c.after));
      RecordDesk desk;
      desk.machine.faults().fail(c.call, 1, c.after);
      EXPECT_EQ(desk.recorder->StartRecord(), c.started);
      desk.run(300ms);
      const CVoxRecord constructed(*desk.recorder);
      CVoxRecord copy;
      copy = constructed;
      EXPECT_EQ(byCopy ? copy.StopRecord() : desk.recorder->StopRecord(), 0U);
      EXPECT_EQ(desk.sizes, c.sizes);
      EXPECT_EQ(copy.StopRecord(), 0U);
      EXPECT_EQ(desk.recorder->StopRecord(), 0U);
      EXPECT_EQ(desk.sizes, c.sizes) << "it is over";
      EXPECT_EQ(desk.machine.balance(), (sim::Balance{.handles = desk.machine.balance().handles})) << "and closed";
    }
  }
  // A driver that keeps a buffer, whatever it has said.
  RecordDesk desk;
  ASSERT_EQ(desk.recorder->StartRecord(), 1);
  desk.microphone().keepsOne = true;
  EXPECT_NEAR(static_cast<double>(timeOf(desk, [&] { EXPECT_EQ(desk.recorder->StopRecord(), 7U); })), 3000, 20);
  EXPECT_EQ(desk.sizes.back(), 0);
  EXPECT_LE(timeOf(desk, [&] { desk.recorder.reset(); }), kBound);
  desk.close();
  desk.leftOpen = desk.machine.balance();
  EXPECT_EQ(desk.leftOpen, (sim::Balance{.handles = 1, .sound = {.preparedHeaders = 1}})) << "the one that is kept";
}

TEST(Microphone, ADriverThatKeepsTheBuffersKeepsNobodyElse) {
  // What it refuses, or does not come back from for 10 s. The destructor returns; the memory is not freed under it.
  const struct {
    const char* call;
    bool refuses;
  } cases[] = {{"waveInReset", true},  {"waveInClose", true},      {"waveInReset", false},
               {"waveInClose", false}, {"waveInAddBuffer", false}, {"waveInUnprepareHeader", false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.call);
    RecordDesk desk;
    ASSERT_EQ(desk.recorder->StartRecord(), 1);
    desk.run(100ms);
    c.refuses ? desk.machine.faults().fail(c.call, 1) : desk.machine.faults().stall(c.call, 10s);
    desk.run(100ms);
    EXPECT_LE(timeOf(desk, [&] { desk.recorder.reset(); }), kBound);
    const auto said = desk.sizes;
    desk.run(2s);
    desk.machine.faults().repair();
    desk.run(200s);
    EXPECT_EQ(desk.sizes, said);
    EXPECT_EQ(desk.machine.forcedEnds(), 0U);
    desk.close();
    if (c.refuses) desk.leftOpen = desk.machine.balance();
    EXPECT_EQ(desk.machine.balance().handles, c.refuses ? 1U : 0U) << "the device";
    EXPECT_EQ(desk.machine.balance().threads, 0U);
  }
  // The same while another client's thread is just starting or stopping, also where the system has no mutex left.
  for (const char* call : {"waveInGetDevCapsW", "waveInOpen", "waveInPrepareHeader", "waveInStart", "waveInStop"}) {
    for (const bool hasMutexes : {true, false}) {
      SCOPED_TRACE(call);
      RecordDesk desk;
      if (!hasMutexes) desk.machine.faults().fail("CreateMutexW", 1);
      aCallIsKept(desk, call);
    }
  }
}

TEST(Microphone, ACallbackThatIsKeptTooLongIsEndedWithItsThread) {
  for (const DWORD milliseconds : {1500U, 9000U}) {
    RecordDesk desk;
    aCallbackIsKept(desk, milliseconds);
    desk.close();
    EXPECT_EQ(desk.machine.balance(), sim::Balance{});
  }
}

TEST(Microphone, AnythingMayBeDoneInACallback) {
  const struct {
    const char* name;
    void (*action)(RecordDesk&);
    std::vector<int> after[2];  // what is delivered within 300 ms, the first buffer apart; after the stop's mark
  } cases[] = {
      {"stop", [](auto& desk) { EXPECT_EQ(desk.recorder->StopRecord(), 0U); }, {{0}, {}}},
      {"start", [](auto& desk) { EXPECT_EQ(desk.recorder->StartRecord(), 1); }, {{4096}, {4096, 4096}}},
      {"assign", [](auto& desk) { *desk.recorder = Recorder(); }, {{}, {}}},
      {"destroy", [](auto& desk) { desk.recorder.reset(); }, {{}, {}}},
  };
  for (const auto& c : cases) {
    for (const bool mark : {false, true}) {
      SCOPED_TRACE(std::string(c.name) + (mark ? " at the mark" : ""));
      RecordDesk desk;
      actInACallback(desk, mark, c.action);
      std::vector<int> expected = mark ? std::vector<int>(10) : std::vector{4096};
      expected.insert(expected.end(), c.after[mark].begin(), c.after[mark].end());
      EXPECT_EQ(desk.sizes, expected);
      EXPECT_EQ(desk.machine.balance().threads, std::string(c.name) == "start" ? 1U : 0U);
      desk.recorder.reset();
      EXPECT_EQ(desk.machine.balance().sound, sim::SoundSystem::Open{});
    }
  }
}

// By each other's callback, by its own while another thread stops it, inside the first message of a failed start.
TEST(Microphone, RecordersThatEndWhileOthersAreInsideTakeAMomentAndNoForce) {
  for (const int how : {0, 1, 2}) {
    RecordDesk desk;
    Recorder* recorder = desk.recorder.get();
    auto other = std::make_unique<Recorder>();
    struct Context {
      Desk& desk;
      std::function<void()> end;
      Took took{-1};
    } contexts[] = {{desk, [&] { how == 0 ? other.reset() : desk.recorder.reset(); }},
                    {desk, [&] { desk.recorder.reset(); }}};
    const auto onData = [](const char*, int, void* context) {
      auto& [on, end, took] = *static_cast<Context*>(context);
      if (!end) return;
      on.run(100ms);
      took = timeOf(on, std::exchange(end, nullptr));
      on.run(200ms);
    };
    recorder->Init(reinterpret_cast<void*>(+onData), &contexts[0]);
    other->Init(reinterpret_cast<void*>(+onData), &contexts[1]);
    desk.record.during = [&](const std::string& what) {
      if (how != 2 || what != "Log 6" || !desk.recorder) return;
      contexts[0].took = timeOf(desk, contexts[0].end);
      desk.record.clear();
    };
    if (how == 2) desk.machine.sound().microphones.clear();
    EXPECT_EQ(recorder->StartRecord(), how == 2 ? 0 : 1);
    if (how == 0) {
      EXPECT_EQ(other->StartRecord(), 1);
    }
    desk.run(150ms);
    if (how == 1) recorder->StopRecord();
    desk.run(2s);
    EXPECT_LE(contexts[0].took, how == 0 ? 100 : 20);
    EXPECT_LE(contexts[1].took, 100);
    EXPECT_TRUE(contexts[0].took >= 0 && !desk.recorder);
    EXPECT_EQ(desk.record.lines("Tray"), Lines{});
    EXPECT_EQ(desk.machine.forcedEnds(), 0U);
  }
}

// Clients at random, a driver that fails and stalls at random, and an end at any moment.
void microphoneClients(Trial& random) {
  Desk desk(random.machine);
  desk.machine.sound().microphones = {std::make_shared<sim::Microphone>(L"VoxMouse Tern")};
  sim::Microphone& microphone = *desk.machine.sound().microphones[0];
  microphone.returnsTwice = random() % 5 == 4;
  microphone.late = std::chrono::milliseconds(random() % 7 == 6 ? 90 : 0);
  std::vector<const char*> calls{"waveInGetDevCapsW", "waveInOpen",  "waveInPrepareHeader",
                                 "waveInAddBuffer",   "waveInStart", "waveInStop"};
  // Where these fail, what the driver has is never freed.
  const bool givesUp = random() % 3 == 2;
  if (givesUp) calls.insert(calls.end(), {"waveInReset", "waveInClose", "waveInUnprepareHeader"});
  RecorderClients<Recorder>(desk, random,
                            {[](Recorder& recorder) { Recorder(recorder).StopRecord(); },
                             [](Recorder& recorder) { Recorder(recorder).StartRecord(); },
                             [](Recorder& recorder) { recorder.SetPen_MeetMode(L"Meeting"); },
                             [](Recorder& recorder) { recorder.StartThread(); }},
                            calls)
      .run();
  desk.close();
  if (givesUp) desk.leftOpen = desk.machine.balance();
}

const Scenario microphone("microphone", "recording microphone", microphoneClients);

TEST(Microphone, ClientsAtRandomAndAnEndAtAnyMoment) { explore(microphone, 500); }

TEST(SoundCard, IsFoundByItsNameAndRecorded) {
  const struct {
    std::vector<std::wstring> names;
    int index;
    const wchar_t* recorded;
  } cases[] = {
      {{}, -1, L"no soundcard"},
      {{L"Line In (HD Audio)"}, -1, L"no vox soundcard"},
      {{L"a", L"b", L"麦克风 (USB Audio Device)"}, 2, L"USB Audio Device"},
      {{L"()USB Audio Device"}, 0, L"()USB Audio Device"},
      {{L"PnP Audio Device"}, 0, L"PnP Audio Device"},
      {{L"x)VoxMouse(y"}, 0, L"y"},
      {{L"", L"(oxMouse"}, 1, L"oxMouse"},
  };
  for (const auto& c : cases) {
    RecordDesk desk(c.names);
    EXPECT_EQ(CVoxRecord::VoxCheckSoundCard(), c.index);
    EXPECT_EQ(CVoxDeviceInfo::Instance()->GetFormerDeviceName(), c.recorded);
  }
}

TEST(InputVolume, OfEveryMatchingMixerIsRaised) {
  RecordDesk desk;
  auto& mixers = desk.sound().mixers;
  EXPECT_EQ(SetMixerInputVolume(L"Mic"), 0) << "no mixer";
  mixers = {{.name = L"Other", .sources = {{}}},
            {.name = L"USB Mic", .sources = {{0x1001, 5}, {0x1002, 6}, {0x1003, 7}}},
            {.name = L"Mic without destination", .sources = {{}}, .hasDestination = false},
            {.name = L"Mic without sources", .bound = 0},
            {.name = L"Mic of another bound", .sources = {{0x1003, 9}}, .bound = 0xFFFFFFFF}};
  EXPECT_EQ(SetMixerInputVolume(L"Mic"), 1);
  EXPECT_TRUE(mixers[0].volumes.empty());
  EXPECT_EQ(mixers[1].volumes, (std::map<DWORD, DWORD>{{6, 64879}}));
  EXPECT_EQ(mixers[3].volumes, (std::map<DWORD, DWORD>{{0, 0}})) << "line 0, where there is no source";
  EXPECT_EQ(mixers[4].volumes, (std::map<DWORD, DWORD>{{9, DWORD{0xFFFFFFFF} * 99U / 100U}})) << "unsigned, wrapping";
  EXPECT_EQ(SetMixerInputVolume(L"Nobody"), 0);
  for (const char* call : {"mixerGetLineControlsW", "mixerGetControlDetailsW", "mixerSetControlDetails"}) {
    desk.machine.faults().fail(call, 1);
    EXPECT_EQ(SetMixerInputVolume(L"Mic"), -2) << call;
    desk.machine.faults().repair();
  }
  desk.machine.faults().fail("mixerOpen", 1, 1);
  EXPECT_EQ(SetMixerInputVolume(L"Mic"), 0);
  // The recorder uses it on old systems, and there alone.
  desk.machine.faults().repair();
  CEnvironmentMonitor::SetOsVersion(WindowsVersion_MixerVolume);
  mixers = {{.name = L"VoxMouse Tern", .sources = {{0x1003, 3}}}};
  EXPECT_EQ(desk.recorder->StartRecord(), 1);
  EXPECT_EQ(mixers[0].volumes.at(3), 64879U);
  desk.recorder->StopRecord();
}

TEST(InputVolume, OfEveryMatchingEndpointIsRaisedAndUnmuted) {
  RecordDesk desk;
  auto& endpoints = desk.sound().endpoints;
  endpoints = {{L"Mic one", 0.3F, false}, {L"Other", 0.3F, true}, {L"Mic two", 0.9005F, true, true}, {L"no"}};
  EXPECT_EQ(SetEndpointInputVolume(L"Mic"), 2);
  EXPECT_FLOAT_EQ(endpoints[0].volume, 0.9F);
  EXPECT_TRUE(endpoints[1].sessionMuted);
  EXPECT_FLOAT_EQ(endpoints[2].volume, 0.9005F) << "near enough";
  EXPECT_FALSE(endpoints[2].sessionMuted);
  EXPECT_TRUE(endpoints[2].muted) << "deliberately the session's alone";
  CEnvironmentMonitor::SetOsVersion(WindowsVersion_FullVolume);
  EXPECT_EQ(SetEndpointInputVolume(L"Mic"), 2);
  EXPECT_FLOAT_EQ(endpoints[2].volume, 0.99F);
  EXPECT_EQ(desk.record.lines(), Lines{});
  EXPECT_EQ(SetEndpointInputVolume(L"Nobody"), -1);
  EXPECT_EQ(desk.record.lines(), Lines{"Log 6 设置音量失败"});
  for (const char* call :
       {"CoInitialize", "CoCreateInstance", "IMMDeviceEnumerator::EnumAudioEndpoints", "IMMDeviceCollection::GetCount",
        "IMMDeviceCollection::Item", "IMMDevice::OpenPropertyStore", "IPropertyStore::GetValue", "IMMDevice::GetId",
        "IMMDeviceEnumerator::GetDevice", "IMMDevice::Activate", "IAudioSessionManager::GetSimpleAudioVolume",
        "IAudioEndpointVolume::GetMasterVolumeLevelScalar"}) {
    desk.record.clear();
    desk.machine.faults().fail(call, E_FAIL);
    EXPECT_EQ(SetEndpointInputVolume(L"Mic"), -1) << call;
    EXPECT_EQ(desk.record.lines(), Lines{"Log 6 设置音量失败"}) << call;
    desk.machine.faults().repair();
    EXPECT_EQ(desk.machine.balance().sound, sim::SoundSystem::Open{}) << call;
  }
  desk.machine.faults().fail("IMMDevice::Activate", E_FAIL, 2);  // the second endpoint's
  EXPECT_EQ(SetEndpointInputVolume(L"Mic"), 0) << "the search stops there";
}

}  // namespace
