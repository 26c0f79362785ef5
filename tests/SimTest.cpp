// The simulated machine itself: its clock, its schedules, its forced ends and its books.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "platform/os.h"
#include "sim/Text.h"
#include "sim/Wav.h"
#include "tests/Desk.h"

namespace {

HANDLE startThread(unsigned (*entry)(void*), void* argument) {
  unsigned id = 0;
  return reinterpret_cast<HANDLE>(os::_beginthreadex(nullptr, 0, entry, argument, 0, &id));
}

std::string logOfAMinute(std::uint64_t seed) {
  Desk desk({.seed = seed});
  desk.machine.record(true);
  desk.open();
  auto wren = desk.make("Wren");
  auto tern = desk.make("Tern", sim::Link::bluetooth);
  desk.machine.plug(wren);
  desk.machine.plug(tern);
  desk.run(10s);
  desk.hub->ChooseWorkHidDevice(1);
  desk.hub->OpenHidRecord();
  desk.run(2s);
  desk.hub->CloseHidRecord();
  desk.machine.unplug(wren);
  desk.run(10s);
  desk.machine.plug(wren);
  desk.run(36s);
  desk.close();
  return desk.machine.log();
}

TEST(Machine, SameSeedGivesTheSameLogByteForByte) {
  for (const std::uint64_t seed : {0U, 7U, 8U}) {
    const std::string log = logOfAMinute(seed);
    EXPECT_GT(log.size(), 20'000U);
    EXPECT_EQ(log, logOfAMinute(seed)) << seed;
  }
  EXPECT_NE(logOfAMinute(7), logOfAMinute(8));
}

TEST(Machine, EventsAndMutexesKeepTheirRules) {
  sim::Machine machine;
  const HANDLE automatic = os::CreateEventW(nullptr, FALSE, TRUE, nullptr);
  EXPECT_EQ(os::WaitForSingleObject(automatic, 0), WAIT_OBJECT_0);
  EXPECT_EQ(os::WaitForSingleObject(automatic, 250), WAIT_TIMEOUT);
  EXPECT_EQ(machine.now(), 250ms);
  const HANDLE manual = os::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  os::SetEvent(manual);
  EXPECT_EQ(os::WaitForSingleObject(manual, 0), WAIT_OBJECT_0);
  EXPECT_EQ(os::WaitForSingleObject(manual, 0), WAIT_OBJECT_0);

  // A mutex goes to its owner again and again, and to the next taker when its owner is ended.
  static HANDLE mutex;
  mutex = os::CreateMutexW(nullptr, FALSE, nullptr);
  const HANDLE holder = startThread(
      [](void*) -> unsigned {
        os::WaitForSingleObject(mutex, INFINITE);
        os::WaitForSingleObject(mutex, INFINITE);
        os::Sleep(INFINITE);
        return 0;
      },
      nullptr);
  machine.sleep(1ms);
  EXPECT_EQ(os::WaitForSingleObject(mutex, 100), WAIT_TIMEOUT);
  EXPECT_EQ(os::ReleaseMutex(mutex), FALSE) << "not ours";
  EXPECT_EQ(os::TerminateThread(holder, 0), TRUE);
  EXPECT_EQ(os::WaitForSingleObject(holder, 0), WAIT_OBJECT_0);
  EXPECT_EQ(os::WaitForSingleObject(mutex, 0), WAIT_ABANDONED);
  EXPECT_EQ(os::ReleaseMutex(mutex), TRUE);
  EXPECT_EQ(os::WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
  EXPECT_EQ(machine.misuses(), 1U);
  for (HANDLE handle : {automatic, manual, mutex, holder}) EXPECT_EQ(os::CloseHandle(handle), TRUE);
  EXPECT_EQ(os::CloseHandle(manual), FALSE) << "closed before";
  EXPECT_EQ(machine.misuses(), 2U);
  EXPECT_EQ(machine.balance(), sim::Balance{});
}

TEST(Machine, ThreadsBeginWhenResumedAndEndWhereTheyWait) {
  sim::Machine machine({.seed = 3});
  static int steps;
  steps = 0;
  const auto work = [](void*) -> unsigned {
    for (;; ++steps) os::Sleep(10);
  };
  unsigned id = 0;
  const auto thread = reinterpret_cast<HANDLE>(os::_beginthreadex(nullptr, 0, work, nullptr, CREATE_SUSPENDED, &id));
  machine.sleep(100ms);
  EXPECT_EQ(steps, 0);
  EXPECT_EQ(os::ResumeThread(thread), 1U);
  machine.sleep(105ms);
  EXPECT_EQ(steps, 10);
  EXPECT_EQ(machine.balance().threads, 1U);
  os::TerminateThread(thread, 0);
  machine.sleep(100ms);
  EXPECT_EQ(steps, 10);
  EXPECT_EQ(machine.balance(), (sim::Balance{.handles = 1}));
  os::CloseHandle(thread);
}

TEST(Machine, TicksStartAnywhereAndWrap) {
  sim::Machine machine({.firstTick = 0xFFFFFFF0U});
  EXPECT_EQ(os::GetTickCount(), 0xFFFFFFF0U);
  os::Sleep(20);
  EXPECT_EQ(os::GetTickCount(), 4U);
}

TEST(Machine, ReadersOfOneInterfaceEachGetEveryReportAndTheEndOfIt) {
  sim::Machine machine;
  auto wren = sim::makeMouse("Wren", sim::Link::usb, "7&1&0&0000");
  machine.plug(wren);
  const auto open = [&] {
    return os::CreateFileW(wren->path().c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                           nullptr, OPEN_EXISTING, 0, nullptr);
  };
  const HANDLE a = open();
  const HANDLE b = open();
  std::array<std::uint8_t, 64> buffer{};
  DWORD count = 0;
  for (int i = 0; i < 40; ++i) wren->key(static_cast<char>('0' + i));
  for (HANDLE file : {a, b}) {
    ASSERT_TRUE(os::ReadFile(file, buffer.data(), 64, &count, nullptr));
    EXPECT_EQ(buffer[7], '0' + 8) << "the class driver keeps the last 32";
  }
  EXPECT_FALSE(os::ReadFile(a, buffer.data(), 63, &count, nullptr)) << "a read must have room for a whole report";
  EXPECT_FALSE(os::WriteFile(a, buffer.data(), 63, &count, nullptr)) << "a write must be a whole report";
  machine.unplug(wren);
  EXPECT_FALSE(os::ReadFile(b, buffer.data(), 64, &count, nullptr));
  os::CloseHandle(a);
  os::CloseHandle(b);
  EXPECT_EQ(machine.balance(), sim::Balance{});
}

TEST(Text, IsUtf8OrWideInEitherWidth) {
  const std::pair<const char*, const wchar_t*> pairs[] = {
      {"a", L"a"}, {"\xC3\xA9", L"\u00E9"}, {"\xE9\xB9\xB0", L"\u9E70"}, {"<\xF0\x9F\x8E\xA4>", L"<\U0001F3A4>"}};
  for (const auto& [narrow, wide] : pairs) {
    EXPECT_EQ(sim::utf8(wide), narrow);
    EXPECT_EQ(sim::wide(narrow), wide);
  }
  EXPECT_EQ(sim::utf8(std::wstring{L'a', wchar_t{0xD83C}, L'b'}),
            "a\xEF\xBF\xBD"
            "b")
      << "half a pair";
  EXPECT_EQ(sim::wide("a\xFF"), L"a\uFFFD");
}

TEST(Wav, IsReadWrittenAndExplained) {
  const std::string path = ::testing::TempDir() + "wav_test.wav";
  std::string error;
  const std::vector<std::int16_t> samples{0, 1, -1, 32767, -32768};
  ASSERT_TRUE(sim::writeWav(path, samples, 16000, error)) << error;
  EXPECT_EQ(sim::readSpeech(path, error), samples);
  ASSERT_TRUE(sim::writeWav(path, samples, 44100, error));
  EXPECT_TRUE(sim::readSpeech(path, error).empty());
  EXPECT_EQ(error, path +
                       ": expected 16000 Hz, 1 channel, 16-bit PCM; found 44100 Hz, 1 channel, 16-bit PCM. "
                       "Convert it with: sox " +
                       path + " -r 16000 -c 1 -b 16 -e signed-integer speech16k.wav");
  error.clear();
  EXPECT_TRUE(sim::readSpeech("/nowhere.wav", error).empty());
  EXPECT_EQ(error, "/nowhere.wav: No such file or directory");
  // Every beginning of a file, as if it had been cut off there.
  ASSERT_TRUE(sim::writeWav(path, samples, 16000, error));
  for (std::size_t size = 0; size < 54; ++size) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    std::vector<char> bytes(54);
    ASSERT_EQ(std::fread(bytes.data(), 1, 54, file), 54U);
    std::fclose(file);
    const std::string cut = path + ".cut";
    file = std::fopen(cut.c_str(), "wb");
    std::fwrite(bytes.data(), 1, size, file);
    std::fclose(file);
    error.clear();
    const auto read = sim::readSpeech(cut, error);
    EXPECT_EQ(read.empty(), !error.empty()) << size;
    EXPECT_EQ(read.size(), size < 46 ? 0 : (size - 44) / 2) << size;
    std::remove(cut.c_str());
  }
  std::remove(path.c_str());
}

}  // namespace
