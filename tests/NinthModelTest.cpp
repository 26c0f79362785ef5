// A ninth model, which NinthModel.patch adds: a number, a sheet, and the sheet of the other side.
#include <gtest/gtest.h>

#include "tests/Desk.h"
#include "tests/Sentence.h"

namespace {

TEST(NinthModel, IsFoundIdentifiedAndNamed) {
  Desk desk;
  auto plover = desk.openWith("Plover");
  EXPECT_EQ(desk.record.lines("MouseState"), Lines{"MouseState 1 18 2 1 1600 80"});
  EXPECT_EQ(frames(plover->received()), "f1:05 f1:0f(32) f1:11 f1:01 f1:0c f0:0d f1:14 f1:05");
  std::vector<int> numbers;
  std::vector<std::wstring> names;
  desk.hub->GetValidHidList(numbers, names);
  EXPECT_EQ(names, std::vector<std::wstring>{L"VoxMouse Plover"});
  EXPECT_TRUE(desk.hub->RecordDeviceIsHidDevice(L"Microphone (Plover)"));
}

TEST(NinthModel, ItsKeysAreDecodedAndItsSpeechIsHeard) {
  Desk desk;
  auto plover = desk.openWith("Plover");
  plover->hear(spokenSentence());
  plover->pressVoiceKey();
  desk.run(10ms);
  EXPECT_EQ(desk.hub->GetButtonState_Left(), ButtonDown);
  ASSERT_TRUE(desk.hub->OpenHidRecord());
  desk.run(2s);
  EXPECT_TRUE(desk.hub->CloseHidRecord());
  const auto pcm = desk.pcm();
  ASSERT_GE(pcm.size(), kSentenceSamples);
  EXPECT_EQ(hashOf(std::span(pcm).first(kSentenceSamples)), kSentenceHash);
  plover->releaseVoiceKey();
  plover->key('s');
  desk.run(10ms);
  EXPECT_EQ(desk.hub->GetButtonState_Left(), ButtonUp);
  EXPECT_EQ(desk.record.lines("MainMenu"), Lines{"MainMenu 16"});
}

}  // namespace
