// What the computer plays: formats, conversion to 16 kHz mono, deliveries, and every failure.
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include "audio/ConvertTo16kMono.h"
#include "platform/os.h"
#include "tests/Desk.h"
#include "tests/RecorderClients.h"

namespace {

// Frames of a 1 kHz tone; the channels differ by their level and have the same mean.
std::vector<std::int16_t> tone(int rate, int channels, double seconds, double level = 8000) {
  std::vector<std::int16_t> samples;
  for (int i = 0; i < static_cast<int>(rate * seconds); ++i) {
    const double value = level * std::sin(2 * std::numbers::pi * 1000 * i / rate);
    for (int channel = 0; channel < channels; ++channel) {
      const double share = channels == 1 ? 1 : channel == 0 ? 1.25 : 0.75;
      samples.push_back(static_cast<std::int16_t>(std::lround(value * share)));
    }
  }
  return samples;
}

struct SpeakerDesk : Desk, Deliveries {
  explicit SpeakerDesk(int rate = 48000, int channels = 2, bool isFloat = true, bool extensible = true,
                       std::uint64_t seed = 0)
      : Desk({.seed = seed}), recorder(std::make_unique<CVoxSpeakerRecord>()) {
    sound().hasSpeaker = true;
    sound().speaker.mixFormat = sim::mixFormat(rate, channels, isFloat, extensible);
    recorder->Init(reinterpret_cast<void*>(&onData), static_cast<Deliveries*>(this));
  }
  ~SpeakerDesk() { recorder.reset(); }
  sim::SoundSystem& sound() { return machine.sound(); }
  // The device of every start is deliberately never released.
  int start() {
    const int result = recorder->StartRecord();
    leftOpen.sound.comReferences = machine.balance().sound.comReferences - (result == 1 ? 2 : 0);
    return result;
  }
  std::unique_ptr<CVoxSpeakerRecord> recorder;
};

// The amplitude of the tone of this frequency in `samples`, and what is left without it, relative to it.
std::pair<double, double> fit(const std::vector<std::int16_t>& samples, double frequency) {
  double s = 0, c = 0;
  const auto phase = [&](std::size_t i) { return 2 * std::numbers::pi * frequency * static_cast<double>(i) / 16000; };
  for (std::size_t i = 0; i < samples.size(); ++i) {
    s += samples[i] * std::sin(phase(i));
    c += samples[i] * std::cos(phase(i));
  }
  const double scale = 2 / static_cast<double>(samples.size());
  s *= scale;
  c *= scale;
  double rest = 0;
  for (std::size_t i = 0; i < samples.size(); ++i) {
    rest += std::pow(samples[i] - s * std::sin(phase(i)) - c * std::cos(phase(i)), 2);
  }
  const double amplitude = std::hypot(s, c);
  return {amplitude, std::sqrt(rest * scale) / amplitude};
}

TEST(Speaker, AToneKeepsItsFrequencyAndLevelAtEveryRate) {
  for (const int channels : {1, 2}) {
    for (const int rate : {16000, 22050, 32000, 44100, 48000, 88200, 96000, 192000}) {
      SCOPED_TRACE(std::to_string(rate) + " Hz, " + std::to_string(channels));
      SpeakerDesk desk(rate, channels, true, rate % 2000 == 0);
      desk.sound().speaker.plays = tone(rate, channels, 2);
      ASSERT_EQ(desk.start(), 1);
      desk.run(2100ms);
      EXPECT_EQ(desk.recorder->StopRecord(), 0U);
      // Each period of 10 ms by itself, counted in whole samples.
      std::size_t expected = 0;
      for (int n = 1; n <= 200; ++n) {
        const int frames = rate * n / 100 - rate * (n - 1) / 100;
        expected += static_cast<std::size_t>(frames * 16000 / rate);
      }
      ASSERT_EQ(desk.heard.size(), expected);
      EXPECT_EQ(desk.sizes.back(), 0);
      EXPECT_TRUE(
          std::all_of(desk.sizes.begin(), desk.sizes.end() - 2, [](int n) { return n >= 4096 && n < 4096 + 320; }));
      // Where a period is no whole number of samples, a part of one is lost in each, and the tone rises as much.
      const double frequency = rate == 22050 ? 1000 * 32000.0 / static_cast<double>(expected) : 1000;
      const auto [amplitude, distortion] = fit(desk.heard, frequency);
      EXPECT_NEAR(20 * std::log10(amplitude / 8000), 0, 0.2);
      EXPECT_LT(distortion, rate == 22050 ? 0.12 : 0.01);
      EXPECT_EQ(desk.machine.balance().threads, 0U);
    }
  }
}

TEST(Speaker, ConversionIsExact) {
  const std::vector<std::int16_t> mono{0, 100, -100, 32767, -32768, 7};
  const std::vector<std::int16_t> stereo{3, 4, -3, -4, 32767, 32767, -32768, -32768, 10, -11};
  const auto convert = [](const std::vector<std::int16_t>& in, int rate, int channels) {
    const To16kMono to(rate, channels);
    std::vector<std::int16_t> out(to.Count(in.size()));
    to.Convert(in, 0, out);
    return out;
  };
  using Out = std::vector<std::int16_t>;
  EXPECT_EQ(convert(mono, 16000, 1), mono);
  EXPECT_EQ(convert(stereo, 16000, 2), (Out{3, -3, 32767, -32768, 0}));
  EXPECT_EQ(convert(mono, 32000, 1), (Out{0, -100, -32768}));
  EXPECT_EQ(convert(mono, 24000, 1), (Out{0, 0, 32767, -16380})) << "half-way between frames 1 and 2, then 4 and 5";
  EXPECT_EQ(convert(stereo, 24000, 2), (Out{3, 16381, -32768}));
  EXPECT_EQ(To16kMono(48000, 2).Count(960), 160U);
  EXPECT_EQ(To16kMono(44100, 1).Count(441), 160U);
  EXPECT_EQ(To16kMono(192000, 2).Count(2), 0U);
  // The last frame is held where the interpolation would look behind it: blocks of their own, so that a look is seen.
  for (const int channels : {1, 2}) {
    for (std::size_t n = 3; n < 120; ++n) {
      const std::size_t frames = n / 3;
      const std::vector<std::int16_t> constant(frames * static_cast<std::size_t>(channels), 1234);
      const To16kMono to(n % 3 == 0 ? 8000 : n % 3 == 1 ? 15999 : 16001, channels);
      std::vector<std::int16_t> out(to.Count(constant.size()));
      to.Convert(constant, 0, out);
      EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](int sample) { return std::abs(sample - 1234) <= 1; }));
    }
  }
}

TEST(Speaker, ALongPacketIsDeliveredInPieces) {
  SpeakerDesk desk(16000, 1);
  desk.sound().speaker.packetFrames = 20'000;  // 40000 bytes
  desk.sound().speaker.plays = tone(16000, 1, 2.5);
  ASSERT_EQ(desk.start(), 1);
  desk.run(1s);
  desk.recorder->StopRecord();
  EXPECT_EQ(desk.sizes, (std::vector{8192, 8192, 8192, 8192, 7232, 8192, 8192, 8192, 8192, 7232, 320, 0}));
  desk.heard.resize(40'000);
  EXPECT_EQ(desk.heard, desk.sound().speaker.plays);
}

TEST(Speaker, NothingOfALongPacketFollowsAStopInItsMidst) {
  SpeakerDesk desk(16000, 1);
  desk.sound().speaker.packetFrames = 20'000;  // 40000 bytes
  desk.sound().speaker.plays = tone(16000, 1, 2);
  const auto onData = [](const char* data, int byteCount, void* context) {
    auto& its = *static_cast<SpeakerDesk*>(context);
    Deliveries::onData(data, byteCount, static_cast<Deliveries*>(&its));
    if (data) its.recorder->StopRecord();
  };
  desk.recorder->Init(reinterpret_cast<void*>(+onData), &desk);
  ASSERT_EQ(desk.start(), 1);
  desk.run(3s);
  EXPECT_EQ(desk.sizes, (std::vector{8192, 0}));
  desk.leftOpen.sound.comReferences = 1;
}

TEST(Speaker, FormatsAreCheckedAndOnlyFloatOnesAccepted) {
  const struct {
    int rate, channels;
    bool isFloat, extensible;
    int result;
    Lines log;
  } cases[] = {
      {48000, 2, true, true, 1, {}},
      {44100, 1, true, false, 1, {}},
      {48000, 2, false, false, 0, {}},  // deliberately, and silently
      {48000, 2, false, true, 0, {}},
      {48000, 6, true, true, 0, {"Log 6 扬声器通道数是6，不是1、2"}},
      {48000, 8, true, false, 0, {"Log 6 扬声器通道数是8，不是1、2"}},
      {8000, 2, true, true, 0, {"Log 6 扬声器采样率是8000，低于16000"}},
  };
  for (const auto& c : cases) {
    SpeakerDesk desk(c.rate, c.channels, c.isFloat, c.extensible);
    EXPECT_EQ(desk.start(), c.result);
    Lines lines = desk.record.lines();
    // Once in a process, whichever test comes first.
    std::erase_if(lines, [](const std::string& line) { return line.rfind("Log 0 扬声器采样率：", 0) == 0; });
    EXPECT_EQ(lines, c.log) << c.rate << " " << c.channels;
    if (c.result == 1) {
      const sim::ClientSetup& setup = desk.sound().clientSetup;
      EXPECT_EQ(setup.formatTag, c.extensible ? 0xFFFE : 1);
      EXPECT_EQ(setup.bits, 16);
      EXPECT_EQ(setup.blockAlign, 2 * c.channels);
      EXPECT_EQ(setup.bytesPerSecond, static_cast<DWORD>(2 * c.channels * c.rate));
    }
    desk.recorder->StopRecord();
  }
  SpeakerDesk desk;
  auto& format = desk.sound().speaker.mixFormat;
  format.resize(sizeof(WAVEFORMATEX));  // an extensible format without its extension
  format[offsetof(WAVEFORMATEX, cbSize)] = 0;
  EXPECT_EQ(desk.start(), 0);
  EXPECT_EQ(desk.record.lines(), Lines{"Log 6 扬声器录音是32位，不是16位"});
}

TEST(Speaker, TheFirstGoodFormatOfAProcessIsLogged) {
  // In a process of its own, so that it is the first.
  const auto twice = [] {
    SpeakerDesk desk(44100, 1);
    desk.start();
    desk.recorder->StopRecord();
    desk.start();
    desk.recorder->StopRecord();
    const bool good = desk.record.lines() == Lines{"Log 0 扬声器采样率：44100，通道数：1"};
    std::_Exit(good ? 0 : 1);
  };
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(twice(), ::testing::ExitedWithCode(0), "");
}

TEST(Speaker, BothModesWakeUpForTheirData) {
  for (const bool timer : {false, true}) {
    SpeakerDesk desk;
    CEnvironmentMonitor::SetOsVersion(timer ? WindowsVersion_TimerCapture : WindowsVersion_Current);
    desk.sound().speaker.plays = tone(48000, 2, 1);
    ASSERT_EQ(desk.start(), 1);
    const sim::ClientSetup& setup = desk.sound().clientSetup;
    EXPECT_EQ(setup.flags, timer ? 0x20000U : 0x60000U);
    EXPECT_EQ(setup.bufferDuration, timer ? 0 : 10'000'000);
    EXPECT_EQ(setup.periodicity, 0);
    EXPECT_EQ(desk.machine.balance().sound.mmcssTasks, 1U);
    desk.run(1100ms);
    EXPECT_EQ(desk.heard.size() * 2 / 4160, 7U) << "160 samples every 10 ms, delivered from 4096 bytes on";
    desk.recorder->StopRecord();
    EXPECT_EQ(desk.heard.size(), 16000U);
  }
}

TEST(Speaker, StopDeliversTheRestOrSilenceAndThenTheEndMark) {
  SpeakerDesk desk;
  EXPECT_EQ(desk.recorder->StopRecord(), 0U);
  EXPECT_TRUE(desk.sizes.empty()) << "nothing records, nothing is said";
  ASSERT_EQ(desk.start(), 1);
  EXPECT_EQ(desk.recorder->StartRecord(), 0) << "it records already";
  desk.recorder->StopRecord();
  EXPECT_EQ(desk.sizes, (std::vector{320, 0}));
  EXPECT_EQ(desk.heard, std::vector<std::int16_t>(160));
  desk.sizes.clear();
  desk.sound().speaker.plays = tone(48000, 2, 0.05);
  desk.sound().speaker.flags = {AUDCLNT_BUFFERFLAGS_SILENT, AUDCLNT_BUFFERFLAGS_DATA_DISCONTINUITY};  // not looked at
  ASSERT_EQ(desk.start(), 1);
  desk.run(100ms);
  desk.recorder->StopRecord();
  EXPECT_EQ(desk.sizes, (std::vector{1600, 0}));
  // Without a callback, and with a recorder that goes while it records.
  desk.recorder->Init(nullptr, nullptr);
  ASSERT_EQ(desk.start(), 1);
  desk.run(100ms);
  desk.recorder.reset();
  EXPECT_EQ(desk.machine.balance().threads, 0U);
}

TEST(Speaker, AfterAFailureOfTheEngineItStartsAnew) {
  // The thread has ended, without a last delivery; an end mark comes from a stop alone.
  for (const char* call : {"IAudioCaptureClient::GetNextPacketSize", "IAudioCaptureClient::GetBuffer"}) {
    SpeakerDesk desk;
    desk.sound().speaker.plays = tone(48000, 2, 2);
    for (const bool stops : {false, true, false}) {
      ASSERT_EQ(desk.start(), 1);
      EXPECT_EQ(desk.recorder->StartRecord(), 0) << "it records already";
      desk.run(55ms);
      desk.machine.faults().fail(call, E_FAIL);
      desk.run(50ms);
      EXPECT_EQ(desk.machine.balance().threads, 0U);
      if (stops) desk.recorder->StopRecord();
      desk.machine.faults().repair();
    }
    EXPECT_EQ(desk.sizes, std::vector{0});
    ASSERT_EQ(desk.start(), 1);
    desk.run(55ms);
    desk.recorder->StopRecord();
    EXPECT_EQ(desk.sizes, (std::vector{0, 5 * 320, 0}));
  }
}

// ---- How recordings end ----

TEST(Speaker, MayBePulledOutWhileItIsRecorded) {
  for (const bool timer : {false, true}) {
    SpeakerDesk desk;
    CEnvironmentMonitor::SetOsVersion(timer ? WindowsVersion_TimerCapture : WindowsVersion_Current);
    desk.sound().speaker.plays = tone(48000, 2, 2);
    ASSERT_EQ(desk.start(), 1);
    desk.run(55ms);
    desk.sound().pullOutSpeaker();
    desk.run(100ms);
    // An engine without a device signals nothing any more; by a timer, the thread finds out by itself.
    EXPECT_EQ(desk.machine.balance().threads, timer ? 0U : 1U);
    EXPECT_EQ(desk.recorder->StopRecord(), 0U);
    EXPECT_EQ(desk.sizes, timer ? std::vector{0} : (std::vector{5 * 320, 0}));
    EXPECT_EQ(desk.start(), 0) << "there is none";
    desk.sound().hasSpeaker = true;
    EXPECT_EQ(desk.start(), 1);
    desk.run(55ms);
    desk.recorder->StopRecord();
    EXPECT_EQ(desk.heard.size(), timer ? 5 * 160U : 10 * 160U);
  }
}

TEST(Speaker, NothingIsLostWhenPeriodsAreLate) {
  for (std::uint64_t seed = 1; seed <= 20; ++seed) {
    SpeakerDesk desk(48000, 2, true, true, seed);
    desk.sound().speaker.jitter = 9ms;
    desk.sound().speaker.plays = tone(48000, 2, 1);
    ASSERT_EQ(desk.start(), 1);
    desk.run(1200ms);
    desk.recorder->StopRecord();
    EXPECT_EQ(desk.heard.size(), 16000U) << seed;
  }
}

TEST(Speaker, AnEngineThatDoesNotComeBackKeepsNoDestructor) {
  // While it captures, and while another client's thread is just starting or stopping.
  for (const char* call : {"IAudioCaptureClient::GetNextPacketSize", "IAudioCaptureClient::GetBuffer",
                           "IAudioCaptureClient::ReleaseBuffer", "IAudioClient::Initialize", "IAudioClient::Start",
                           "IAudioClient::Stop"}) {
    SCOPED_TRACE(call);
    const bool captures = std::string(call).find("Capture") != std::string::npos;
    SpeakerDesk desk;
    desk.sound().speaker.plays = tone(48000, 2, 1);
    if (captures) {
      ASSERT_EQ(desk.start(), 1);
    }
    aCallIsKept(desk, call, captures);
    desk.run(20s);
    EXPECT_EQ(desk.sizes, std::vector<int>{});
    EXPECT_EQ(desk.machine.balance().threads, 0U);
    EXPECT_EQ(desk.machine.forcedEnds(), 0U);
    desk.leftOpen.sound.comReferences = 1;
  }
}

TEST(Speaker, AnEngineThatDoesNotComeBackKeepsAStopNoLongerThanThreeSeconds) {
  SpeakerDesk desk;
  desk.sound().speaker.plays = tone(48000, 2, 1);
  ASSERT_EQ(desk.start(), 1);
  desk.machine.faults().stall("IAudioCaptureClient::GetBuffer", 10s);
  desk.run(50ms);
  EXPECT_LE(timeOf(desk, [&] { desk.recorder->StopRecord(); }), 3200);
  EXPECT_EQ(desk.sizes, std::vector{0});
  desk.run(10s);
  EXPECT_EQ(desk.sizes, std::vector{0}) << "nothing after it has returned";
}

TEST(Speaker, ACallbackThatIsKeptTooLongIsEndedWithItsThread) {
  for (const DWORD milliseconds : {1500U, 9000U}) {
    SpeakerDesk desk;
    desk.sound().speaker.plays = tone(48000, 2, 1);
    aCallbackIsKept(desk, milliseconds);
    // The apartment of a thread that was ended by force is what Windows takes back.
    if (milliseconds > kBound) desk.leftOpen.sound.apartments = 1;
    desk.leftOpen.sound.comReferences = 1;
  }
}

TEST(Speaker, AnythingMayBeDoneInACallback) {
  const struct {
    const char* name;
    void (*action)(SpeakerDesk&);
    std::vector<int> after[2];  // what is delivered within 300 ms, the first block apart; after the stop's mark
  } cases[] = {
      {"stop", [](auto& desk) { EXPECT_EQ(desk.recorder->StopRecord(), 0U); }, {{0}, {}}},
      {"start",
       [](auto& desk) { EXPECT_EQ(desk.recorder->StartRecord(), 0) << "it records, or is just being stopped"; },
       {{4160}, {}}},
      {"assign", [](auto& desk) { *desk.recorder = CVoxSpeakerRecord(); }, {{}, {}}},
      {"destroy", [](auto& desk) { desk.recorder.reset(); }, {{}, {}}},
      {"stop and start",
       [](auto& desk) {
         const bool mark = !desk.sizes.empty() && desk.sizes.back() == 0;
         desk.recorder->StopRecord();
         EXPECT_EQ(desk.recorder->StartRecord(), mark ? 0 : 1);
       },
       {{0, 4160}, {}}},
  };
  for (const auto& c : cases) {
    for (const bool mark : {false, true}) {
      SCOPED_TRACE(std::string(c.name) + (mark ? " at the mark" : ""));
      SpeakerDesk desk;
      desk.sound().speaker.plays = tone(48000, 2, 1);
      actInACallback(desk, mark, c.action);
      desk.leftOpen.sound.comReferences = std::string(c.name) == "stop and start" && !mark ? 2 : 1;
      // Only the thread that has started can leave its task, and it has nothing left to call.
      desk.leftOpen.sound.mmcssTasks = std::string(c.name) == "destroy" && !mark ? 1 : 0;
      std::vector<int> expected = mark ? std::vector{320, 0} : std::vector{4160};
      expected.insert(expected.end(), c.after[mark].begin(), c.after[mark].end());
      EXPECT_EQ(desk.sizes, expected);
    }
  }
}

TEST(Speaker, TwoThatRecordAtOnceSpoilNoMemory) {
  for (std::uint64_t seed = 1; seed <= 10; ++seed) {
    SpeakerDesk desk(192000, 2, true, true, seed);
    desk.sound().speaker.plays = tone(192000, 2, 3);
    desk.sound().speaker.packetFrames = 40000;
    CVoxSpeakerRecord other;
    other.Init(reinterpret_cast<void*>(&Deliveries::onData), static_cast<Deliveries*>(&desk));
    ASSERT_EQ(desk.start(), 1);
    ASSERT_EQ(other.StartRecord(), 1);
    desk.leftOpen.sound.comReferences = 2;
    desk.run(200ms);
    desk.recorder->StopRecord();
    other.StopRecord();
    for (const int size : desk.sizes) EXPECT_LE(size, 8192);
    EXPECT_GT(desk.heard.size(), 30000U);
  }
}

// Clients at random, an engine that fails and stalls at random, and an end at any moment.
void speakerClients(Trial& random) {
  // What the process logs once is logged here, so that a schedule is the same in another process.
  static const int logged = SpeakerDesk().start();
  EXPECT_EQ(logged, 1);
  Desk desk(random.machine);
  desk.machine.sound().hasSpeaker = true;
  desk.machine.sound().speaker.mixFormat = sim::mixFormat(48000, 2, true, true);
  static const auto played = tone(48000, 2, 1);
  desk.machine.sound().speaker.plays = played;
  CEnvironmentMonitor::SetOsVersion(random() % 3 == 2 ? WindowsVersion_TimerCapture : WindowsVersion_Current);
  RecorderClients<CVoxSpeakerRecord>(
      desk, random, {[](CVoxSpeakerRecord& recorder) { recorder.StopRecord(); }},
      {"CoCreateInstance", "IMMDevice::Activate", "IAudioClient::Initialize", "IAudioClient::SetEventHandle",
       "IAudioClient::Start", "IAudioClient::Stop", "IAudioCaptureClient::GetNextPacketSize",
       "IAudioCaptureClient::GetBuffer", "IAudioCaptureClient::ReleaseBuffer", "_beginthreadex"})
      .run();
  // The device of every start is deliberately never released, and a thread whose recorder went on another one keeps its
  // task until it ends; nothing else is left.
  desk.leftOpen.sound.comReferences = desk.machine.balance().sound.comReferences;
  desk.leftOpen.sound.mmcssTasks = desk.machine.balance().sound.mmcssTasks;
  for (sim::ComObject* object : desk.machine.sound().objects) EXPECT_STREQ(object->name, "IMMDevice");
}

const Scenario speaker("speaker", "recording speaker", speakerClients);

TEST(Speaker, ClientsAtRandomAndAnEndAtAnyMoment) { explore(speaker, 500); }

}  // namespace
