// Speech: from what a virtual device hears to what the client gets.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "sim/devices/SbcReference.h"
#include "tests/Desk.h"
#include "tests/Sentence.h"
#include "tools/explore/Explore.h"

namespace {

// Mean over 16 ms segments that carry speech of the signal to noise ratio, in dB; `lag` is the delay of `received`.
double segmentalSnr(const std::vector<std::int16_t>& spoken, const std::vector<double>& received, std::size_t lag) {
  constexpr std::size_t kSegment = 256;
  double sum = 0;
  int segments = 0;
  for (std::size_t at = 0; at + kSegment <= spoken.size() && at + kSegment + lag <= received.size(); at += kSegment) {
    double signal = 0, noise = 0;
    for (std::size_t i = at; i < at + kSegment; ++i) {
      signal += std::pow(spoken[i], 2);
      noise += std::pow(received[i + lag] - spoken[i], 2);
    }
    if (signal < kSegment * 100.0 * 100.0) continue;  // silence
    sum += 10 * std::log10(signal / std::max(noise, 1e-9));
    ++segments;
  }
  EXPECT_GT(segments, 50);
  return sum / segments;
}

// The factor that brings `received` closest to the level of `spoken`.
double levelFit(const std::vector<std::int16_t>& spoken, const std::vector<double>& received, std::size_t lag) {
  double product = 0, power = 0;
  for (std::size_t i = 0; i < spoken.size() && i + lag < received.size(); ++i) {
    product += spoken[i] * received[i + lag];
    power += received[i + lag] * received[i + lag];
  }
  return product / power;
}

// The codec's own delay: analysis and synthesis filter banks.
constexpr std::size_t kCodecDelay = 73;

class Speech : public ::testing::TestWithParam<sim::Link> {};

TEST_P(Speech, SpokenIntoAWrenComesOutAsTheCodecAllows) {
  const std::vector<std::int16_t> spoken = spokenSentence();
  ASSERT_GT(spoken.size(), 32000U);
  Desk desk;
  auto wren = desk.openWith("Wren", GetParam());
  wren->hear(spoken);
  wren->pressVoiceKey();
  desk.run(10ms);
  ASSERT_EQ(desk.hub->GetButtonState_Left(), ButtonDown);
  ASSERT_TRUE(desk.hub->OpenHidRecord());
  desk.run(std::chrono::milliseconds(spoken.size() / 16 + 40));
  EXPECT_TRUE(desk.hub->CloseHidRecord());
  EXPECT_FALSE(wren->streaming());
  EXPECT_EQ(desk.record.lines("VoiceOperate"), (std::vector<std::string>{"VoiceOperate 1 3", "VoiceOperate 1 0"}));

  // Full deliveries of 23 frames, the rest, the end mark.
  ASSERT_GE(desk.deliveries.size(), 3U);
  EXPECT_TRUE(std::all_of(desk.deliveries.begin(), desk.deliveries.end() - 2, [](int n) { return n == 3680; }));
  EXPECT_LE(desk.deliveries.end()[-2], 3600);
  EXPECT_EQ(desk.deliveries.back(), 0);

  const std::vector<std::int16_t> pcm = desk.pcm();
  std::vector<double> received(pcm.begin(), pcm.end());
  ASSERT_GE(received.size(), spoken.size());
  EXPECT_EQ(hashOf(std::span(pcm).first(kSentenceSamples)), kSentenceHash);

  // What the codec can give: the same frames through a floating-point decoder.
  sim::SbcEncoder encoder;
  reference::FloatDecoder decoder;
  std::vector<double> ideal;
  for (std::size_t at = 0; at + 80 <= spoken.size() + 80; at += 80) {
    std::array<std::int16_t, 80> block{};
    std::copy_n(spoken.begin() + static_cast<std::ptrdiff_t>(at), std::min<std::size_t>(80, spoken.size() - at),
                block.begin());
    const auto chunk = encoder.encode(block);
    std::array<std::uint8_t, 23> frame{0xAD, 0x31, 0x0C};
    std::copy(chunk.begin(), chunk.end(), frame.begin() + 3);
    decoder.decode(frame.data(), ideal);
    if (at + 80 > spoken.size()) break;
  }
  double signal = 0, noise = 0;
  for (std::size_t i = 0; i < ideal.size() && i < pcm.size(); ++i) {
    signal += std::pow(ideal[i], 2);
    noise += std::pow(2 * pcm[i] - ideal[i], 2);  // half the level, deliberately
  }
  EXPECT_GT(10 * std::log10(signal / noise), 30);
  const double level = levelFit(spoken, received, kCodecDelay);
  const double idealLevel = levelFit(spoken, ideal, kCodecDelay);
  EXPECT_NEAR(20 * std::log10(level / idealLevel), 6.02, 0.05) << "half the level, deliberately";
  for (double& sample : received) sample *= level;
  for (double& sample : ideal) sample *= idealLevel;
  const double bound = segmentalSnr(spoken, ideal, kCodecDelay);
  const double got = segmentalSnr(spoken, received, kCodecDelay);
  RecordProperty("codec_snr_db", std::to_string(bound));
  RecordProperty("library_snr_db", std::to_string(got));
  EXPECT_GT(bound, 8) << "the codec at these settings carries speech";
  EXPECT_GT(got, bound - 0.5);
}

TEST_P(Speech, SpokenIntoATernComesThroughTheLoadedCodec) {
  const std::vector<std::int16_t> spoken = spokenSentence();
  Desk desk;
  auto tern = desk.openWith("Tern", GetParam());
  tern->hear(spoken);
  desk.hub->ChooseWorkHidDevice(1);
  ASSERT_TRUE(desk.hub->OpenHidRecord());
  desk.run(110ms);
  EXPECT_EQ(desk.deliveries, std::vector<int>{}) << "five packets";
  desk.run(20ms);
  EXPECT_EQ(desk.deliveries, std::vector<int>{3840}) << "the sixth";
  desk.run(100ms);
  EXPECT_TRUE(desk.hub->CloseHidRecord());
  EXPECT_EQ(desk.deliveries, (std::vector<int>{3840, 3200, 0}));
  // The same samples as the codec's own decoder gives.
  sim::AscEncoder encoder;
  sim::CvsdStep decoder;
  std::vector<std::int16_t> expected;
  for (std::size_t at = 0; expected.size() < desk.pcm().size(); at += 320) {
    const auto packet = encoder.encode(std::span<const std::int16_t, 320>(spoken.data() + at, 320));
    for (std::size_t i = 0; i < 320; ++i) expected.push_back(decoder.next((packet[i / 8] >> (7 - i % 8) & 1) != 0));
  }
  EXPECT_EQ(desk.pcm(), expected);

  const sim::AscCalls& calls = sim::ascCalls();
  EXPECT_EQ(calls.init, std::vector<int>{1});
  EXPECT_EQ(calls.parameters, (std::vector<std::array<int, 2>>{{0, 1}}));
  EXPECT_EQ(calls.vad, (std::vector<std::int16_t>{0, 30, 20000, 5, 6226, 160, 400, 16000, 0, 0, 164, 3200, 1024}));
  EXPECT_EQ(calls.lastId, 1);
  EXPECT_EQ(calls.lastConstant, 1);
}

INSTANTIATE_TEST_SUITE_P(Links, Speech, ::testing::Values(sim::Link::usb, sim::Link::bluetooth));

TEST(Audio, OpeningAgainBeginsAFreshHistory) {
  Desk desk;
  auto wren = desk.openWith("Wren");
  wren->hear(spokenSentence());
  desk.hub->ChooseWorkHidDevice(1);
  std::vector<std::int16_t> first;
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(desk.hub->OpenHidRecord());
    desk.run(500ms);
    ASSERT_TRUE(desk.hub->CloseHidRecord());
    std::vector<std::int16_t> heard = desk.pcm();
    ASSERT_GT(heard.size(), 7000U);
    heard.resize(7000);
    if (round == 0) first = heard;
    EXPECT_EQ(heard, first);
    desk.audio.clear();
  }
}

TEST(Audio, VoiceRequestsEndByTheirBounds) {
  Desk desk;
  auto wren = desk.openWith("Wren");
  desk.hub->ChooseWorkHidDevice(1);
  const struct {
    std::uint8_t code;  // open or close
    sim::Answering answer;
    bool result;
    int milliseconds;
  } cases[] = {{0x03, {.refuse = true}, false, 10},    {0x03, {.silent = true}, false, 1000},
               {0x03, {.garbled = true}, false, 1000}, {0x03, {.delay = 995ms}, true, 1000},
               {0x04, {.silent = true}, false, 1000},  {0x04, {.times = 2}, true, 10}};
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    wren->answer(c.code, c.answer);
    bool result = false;
    EXPECT_EQ(timeOf(desk, [&] { result = c.code == 3 ? desk.hub->OpenHidRecord() : desk.hub->CloseHidRecord(); }),
              c.milliseconds);
    EXPECT_EQ(result, c.result);
  }
  wren->forget();
  EXPECT_EQ(timeOf(desk, [&] { EXPECT_TRUE(desk.hub->CloseHidRecord()); }), 0) << "nothing is open, nothing is sent";
  EXPECT_TRUE(wren->received(0x04).empty());
}

TEST(Audio, AnAnswerThatComesAtOnceCounts) {
  for (std::uint64_t seed = 1; seed <= seeds(30) && !HasFailure(); ++seed) {
    Desk desk({.seed = seed});
    auto wren = desk.make("Wren");
    wren->latency = 0ms;
    desk.machine.plug(wren);
    desk.open();
    desk.run(3s);
    desk.hub->ChooseWorkHidDevice(1);
    EXPECT_TRUE(desk.hub->OpenHidRecord()) << "seed " << seed;
  }
}

TEST(Audio, EveryDeviceIsAskedToCloseItsChannel) {
  Desk desk;
  auto wren = desk.openWith("Wren");
  auto tern = desk.connect("Tern");
  for (const int device : {1, 2}) {
    desk.hub->ChooseWorkHidDevice(device);
    ASSERT_TRUE(desk.hub->OpenHidRecord());
  }
  desk.hub->ChooseWorkHidDevice(-1);
  wren->answer(0x04, {.silent = true});
  EXPECT_FALSE(desk.hub->CloseHidRecord());
  EXPECT_FALSE(tern->streaming()) << "also after one that does not confirm";
}

TEST(Audio, PayloadsThatAreNoPacketsYieldNothing) {
  Desk desk;
  auto wren = desk.openWith("Wren");
  // A framed reply can carry the audio codes with any length.
  for (const std::size_t length : {0U, 20U, 54U}) wren->reply(0xC2, sim::Bytes(length, 0x11));
  desk.run(10ms);
  desk.hub->CloseHidRecord();
  EXPECT_EQ(desk.deliveries, std::vector<int>{0});
  // Without a callback the audio is thrown away at each delivery.
  desk.hub->OpenDevice(nullptr, nullptr);
  for (int i = 0; i < 30; ++i) wren->send(sim::Bytes{0x1B});
  desk.run(10ms);
  desk.hub->CloseHidRecord();
  EXPECT_EQ(desk.deliveries, std::vector<int>{0});
}

TEST(Audio, WithoutTheWholeCodecLibraryATernIsMute) {
  const char* const names[] = {"ASC_Decoder_Init",
                               "ASC_Set_Parameter",
                               "ASC_Decoder",
                               "ASC_Set_VAD_Parameter",
                               "Output_Decoder_PCM_File",
                               "Output_Decoder_Tail_File",
                               nullptr};  // null: none is, and packets are of another size
  for (const char* missing : names) {
    SCOPED_TRACE(missing ? missing : "319 samples");
    Desk desk;
    sim::Library library = sim::ascLibrary();
    if (missing) {
      library.erase(missing);
    } else {
      sim::ascReportSamples(319);
    }
    desk.machine.install(L"asc_lib.dll", library);
    auto tern = desk.openWith("Tern");
    for (int i = 0; i < 10; ++i) tern->send({0x1A, 0xFF, 0xF1});
    desk.run(10ms);
    desk.hub->CloseHidRecord();
    EXPECT_EQ(desk.deliveries, std::vector<int>{0});
    EXPECT_EQ(sim::ascCalls().init.empty(), missing != nullptr);
    EXPECT_EQ(sim::ascCalls().packets, missing ? 0 : 10);
  }
}

}  // namespace
