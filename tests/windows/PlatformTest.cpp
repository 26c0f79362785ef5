// What the library relies on, on the real API: locks and threads that are ended by force, message queues, libraries,
// and the volume of a microphone.
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>

#include "VoxDevice/VoxCommon.h"
#include "audio/AscDecoder.h"
#include "audio/SoundCard.h"
#include "sim/windows/HidPort.h"
#include "support/CLock.h"
#include "support/CUtil.h"

namespace {

TEST(Platform, ALockSurvivesTheForcedEndOfItsHolder) {
  struct Holder {
    CLock lock;
    HANDLE locked = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  } holder;
  unsigned id = 0;
  const auto thread = reinterpret_cast<HANDLE>(os::_beginthreadex(
      nullptr, 0,
      [](void* argument) -> unsigned {
        auto* mine = static_cast<Holder*>(argument);
        mine->lock.Lock();
        SetEvent(mine->locked);
        Sleep(INFINITE);
        return 0;
      },
      &holder, 0, &id));
  ASSERT_NE(thread, nullptr);
  ASSERT_EQ(WaitForSingleObject(holder.locked, 5000), WAIT_OBJECT_0);
  EXPECT_FALSE(holder.lock.Lock(50)) << "held by the other thread";
  CUtil::VoxTerminateThread(thread, 0);
  ASSERT_TRUE(holder.lock.Lock(1000));
  holder.lock.Unlock();
  CloseHandle(thread);
  CloseHandle(holder.locked);
}

// Counts the messages that it gets.
class Counter : public CThread {
 public:
  ~Counter() { EndThreads(); }
  unsigned long ThreadProc() override {
    for (Message message; NextMessage(message);) {
      if (message.message == WM_APP) SetEvent(came);
    }
    return 0;
  }
  HANDLE came = CreateEventW(nullptr, FALSE, FALSE, nullptr);
};

// Wine gives a queue to any thread that is posted to; that ours have one before is seen on the simulated machine.
TEST(Platform, AMessageReachesAThreadThatHasJustStarted) {
  for (int i = 0; i < 20; ++i) {
    Counter counter;
    ASSERT_TRUE(counter.StartThread());
    ASSERT_TRUE(PostThreadMessageW(counter.GetThreadID(), WM_APP, 0, 0)) << i;
    EXPECT_EQ(WaitForSingleObject(counter.came, 5000), WAIT_OBJECT_0) << i;
    CloseHandle(counter.came);
  }
}

// There is a microphone of this name, whose volume can be read.
TEST(Volume, IsRaisedWhereTheNameFits) {
  EXPECT_GE(SetEndpointInputVolume(L"VoxMouse Lark"), 0);
  EXPECT_EQ(SetEndpointInputVolume(L"somebody else's"), -1);
  EXPECT_EQ(SetMixerInputVolume(L"VoxMouse Lark"), 1);
  EXPECT_EQ(SetMixerInputVolume(L"somebody else's"), 0);
}

void putBeside(const wchar_t* codec) {
  const std::wstring folder = programFolder();
  if (!CopyFileW((folder + codec).c_str(), (folder + L"asc_lib.dll").c_str(), FALSE)) std::_Exit(2);
}

TEST(Codec, IsLoadedFromTheProgramsFolderOrDoneWithout) {
  DeleteFileW((programFolder() + L"asc_lib.dll").c_str());
  const std::array<unsigned char, 40> packet{0xFF, 0xFF};
  std::array<unsigned char, 640> pcm{};
  CAscDecoder absent;
  EXPECT_FALSE(absent.Loaded());
  EXPECT_EQ(absent.Decode(packet.data(), 40, pcm.data()), 0);

  // A library stays loaded, so one that lacks a name gets a process of its own.
  const auto lacking = [] {
    putBeside(L"codec\\lacking\\asc_lib.dll");
    std::_Exit(LoadLibraryW(L"asc_lib.dll") && !CAscDecoder().Loaded() ? 0 : 1);
  };
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(lacking(), ::testing::ExitedWithCode(0), "");

  putBeside(L"codec\\asc_lib.dll");
  CAscDecoder whole;
  EXPECT_TRUE(whole.Loaded());
  EXPECT_EQ(whole.Decode(packet.data(), 40, pcm.data()), 640);
  EXPECT_NE(pcm, (std::array<unsigned char, 640>{}));
}

}  // namespace
