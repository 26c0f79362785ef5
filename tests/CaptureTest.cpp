// What passes is observed and recorded, and a recording is a device again.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "Desk.h"
#include "Folder.h"
#include "sim/Replay.h"
#include "sim/Text.h"
#include "sim/devices/Legacy.h"
#include "tools/capture/Capture.h"
#include "tools/capture/Recorder.h"
#include "tools/explore/Explore.h"

namespace {

namespace fs = std::filesystem;

// Records what passes at a desk while it lives.
class Recorded {
 public:
  Recorded(Desk& desk, const fs::path& path, capture::RecorderOptions options = {}) {
    options.now = [&desk] { return desk.machine.now().count(); };
    recorder_ = std::make_unique<capture::Recorder>(path, options);
    VoxObserver::SetCallback(&capture::Recorder::observe, recorder_.get());
  }
  ~Recorded() { finish(); }
  Recorded(const Recorded&) = delete;
  Recorded& operator=(const Recorded&) = delete;
  // What is wrong with it.
  std::string finish() {
    VoxObserver::SetCallback(nullptr, nullptr);
    recorder_->finish();
    return recorder_->problem();
  }

 private:
  std::unique_ptr<capture::Recorder> recorder_;
};

// A client that follows a script, and its user, whose hands are in a recording already: what the client was told.
class Player {
 public:
  // mouse: null at a recording.
  Player(Desk& atDesk, std::shared_ptr<sim::VirtualMouse> itsMouse, Folder& itsFolder)
      : desk(atDesk), mouse(std::move(itsMouse)), folder(itsFolder) {}

  void play(const Lines& script) {
    for (const std::string& line : script) {
      std::istringstream words(line);
      std::string what;
      std::string argument;
      words >> what >> argument;
      act(what, argument, std::atoi(argument.c_str()));
    }
  }

 private:
  void act(const std::string& what, std::string argument, int number) {
    CAudioHidCenter& hub = *desk.hub;
    if (what == "open") return desk.open();
    if (what == "run") return run(number);
    if (what == "state") return hub.GetMouseState(-1), hub.GetDongleState(-1);
    if (what == "dpi") return hub.SetDpi(-1, static_cast<short>(number));
    if (what == "mkeys") return hub.getMKeyTypeList_Key1(-1);
    if (what == "mkey") return say("setMKeyType", hub.setMKeyType_Key1(-1, static_cast<MouseMKeyType>(number)));
    if (what == "url") {
      return hub.SetDownloadURL(-1, reinterpret_cast<unsigned char*>(argument.data()),
                                static_cast<int>(argument.size()));
    }
    if (what == "voice") {
      hub.ChooseWorkHidDevice(hub.GetEffectiveDevice());
      say("OpenHidRecord", hub.OpenHidRecord());
      run(number);
      return say("CloseHidRecord", hub.CloseHidRecord());
    }
    if (what == "update") {
      sim::Bytes image(static_cast<std::size_t>(number));
      for (std::size_t i = 0; i < image.size(); ++i) image[i] = static_cast<std::uint8_t>(i * 7);
      return hub.StartOTA(hub.GetEffectiveDevice(), FwUpdate_First, folder.with(image), "");
    }
    if (!mouse) return;
    if (what == "key") return mouse->key(argument[0]);
    if (what == "power") return mouse->reportPower(static_cast<std::uint8_t>(number));
    if (what == "sleep") return mouse->sleep(number != 0);
    if (what == "damage") return mouse->answer(0, {.garbled = number != 0});
    if (what == "out") return desk.machine.unplug(mouse);
    if (what == "in") return desk.machine.plug(mouse);
    FAIL() << "no such line in a script: " << what;
  }
  void run(int milliseconds) {
    for (int end = milliseconds; end > 0; end -= 10) {
      desk.run(10ms);
      const VoxButtonState now[] = {desk.hub->GetButtonState_Left(), desk.hub->GetButtonState_Right()};
      if (std::exchange(left_, now[0]) != now[0]) say("left", now[0]);
      if (std::exchange(right_, now[1]) != now[1]) say("right", now[1]);
    }
  }
  void say(const char* what, int result) { desk.record.add(std::string(what) + ' ' + std::to_string(result)); }

  Desk& desk;
  const std::shared_ptr<sim::VirtualMouse> mouse;
  Folder& folder;
  VoxButtonState left_ = ButtonUp;
  VoxButtonState right_ = ButtonUp;
};

// What a client was told and heard.
struct Result {
  Lines lines;
  std::vector<std::int16_t> pcm;
  sim::RecordingUse use{};
};

std::vector<std::int16_t> speech(std::size_t count) {
  std::vector<std::int16_t> samples(count);
  int value = 0;
  for (std::size_t i = 0; i < count; ++i) {
    value += static_cast<int>(i * 37 % 1201) - 600;
    samples[i] = static_cast<std::int16_t>(value % 9000);
  }
  return samples;
}

Result live(const std::string& model, sim::Link link, const Lines& script, Folder& folder, const std::string& file,
            const capture::RecorderOptions& options = {}) {
  Desk desk;
  Result result;
  {
    Recorded recorded(desk, folder / file, options);
    const auto mouse = desk.make(model, link);
    mouse->serial = "SN0123456789ABCDEF";
    mouse->hear(speech(16'000));
    desk.machine.plug(mouse);
    Player(desk, mouse, folder).play(script);
    desk.close();
    EXPECT_EQ(recorded.finish(), "");
  }
  result.lines = desk.record.lines();
  result.pcm = desk.pcm();
  return result;
}

Result replayed(const fs::path& file, const Lines& script, Folder& folder) {
  Desk desk;
  Result result;
  const sim::Replay replay = sim::readReplay(file.string());
  EXPECT_EQ(replay.problem, "");
  std::vector<std::shared_ptr<sim::RecordedDevice>> devices;
  for (const sim::Recording& recording : replay.devices) {
    devices.push_back(std::make_shared<sim::RecordedDevice>(recording));
    sim::RecordedDevice::start(desk.machine, devices.back());
  }
  Player(desk, nullptr, folder).play(script);
  desk.close();
  result.lines = desk.record.lines();
  result.pcm = desk.pcm();
  result.use = devices.front()->use(desk.machine);
  return result;
}

Lines sorted(Lines lines) {
  std::sort(lines.begin(), lines.end());
  return lines;
}

const Lines kEverything{"open",     "run 2500",   "key 0",     "run 100", "key 9",     "run 100", "power 55",
                        "run 100",  "state",      "run 200",   "dpi 800", "url a.b/c", "run 200", "mkeys",
                        "run 200",  "mkey 3",     "voice 900", "run 300", "key 1",     "run 50",  "key @",
                        "run 3000", "update 700", "run 3000",  "run 4500"};
// The same commands, in another order and later.
const Lines kOtherwise{"open",    "run 4000", "voice 1200", "run 1700", "mkeys", "run 300",  "url a.b/c",  "run 100",
                       "dpi 800", "run 600",  "mkey 3",     "run 250",  "state", "run 5000", "update 700", "run 8000"};

class RoundTrip : public testing::TestWithParam<ModelOnLink> {};

TEST_P(RoundTrip, ARecordingTellsTheClientTheSame) {
  const auto [model, link] = GetParam();
  Folder folder;
  const Result was = live(model, link, kEverything, folder, "a.pcapng");
  EXPECT_FALSE(was.pcm.empty());
  const Result again = replayed(folder / "a.pcapng", kEverything, folder);
  EXPECT_EQ(again.lines, was.lines);
  EXPECT_TRUE(again.pcm == was.pcm);
  EXPECT_EQ(again.use.used, again.use.recorded);
  EXPECT_TRUE(again.use.unanswerable.empty());

  const Result otherwise = replayed(folder / "a.pcapng", kOtherwise, folder);
  EXPECT_EQ(sorted(otherwise.lines), sorted(was.lines));
  EXPECT_TRUE(otherwise.pcm == was.pcm);
}

INSTANTIATE_TEST_SUITE_P(EveryModel, RoundTrip, testing::ValuesIn(everyModelOnEachLink()), [](const auto& test) {
  std::string name = std::string(test.param.model) + (test.param.link == sim::Link::usb ? "Usb" : "Bluetooth");
  std::erase(name, ' ');
  return name;
});

// ---- Captures in the tree ----
// Beside each stands what its client does (lines that begin with "> ") and what it was told. A capture is added as
// NAME.pcapng with a NAME.txt that has the first part; VOXDEVICE_WRITE_EXPECTED=1 writes the second.

// Those that this program has made; VOXDEVICE_MAKE_CAPTURES=1 does it again, by the script that stands beside.
const struct {
  const char* name;
  const char* model;
  sim::Link link;
} kMade[] = {{"tern-usb", "Tern", sim::Link::usb},
             {"wren-usb", "Wren", sim::Link::usb},
             {"finch-bluetooth", "Finch", sim::Link::bluetooth},
             {"robin-bluetooth", "Robin", sim::Link::bluetooth},
             {"heron-bluetooth", "Heron", sim::Link::bluetooth},
             {"egret-bluetooth", "Egret", sim::Link::bluetooth},
             {"heron-plus-usb", "Heron Plus", sim::Link::usb},
             {"swift-usb", "Swift", sim::Link::usb},
             {"update-tern", "Tern", sim::Link::usb},
             {"update-wren", "Wren", sim::Link::usb},
             {"update-swift", "Swift", sim::Link::bluetooth},
             {"asleep", "Finch", sim::Link::bluetooth},
             {"pulled-out", "Wren", sim::Link::usb},
             {"damaged", "Wren", sim::Link::usb}};

bool asked(const char* variable) {
  const char* const value = std::getenv(variable);
  return value && *value != '\0';
}

std::string textOf(const Lines& script, const Result& result) {
  std::ostringstream text;
  for (const std::string& line : script) text << "> " << line << '\n';
  for (const std::string& line : result.lines) text << line << '\n';
  std::uint32_t sum = 0;
  for (const std::int16_t sample : result.pcm) sum = sum * 31 + static_cast<std::uint16_t>(sample);
  text << "PCM " << result.pcm.size() << " samples, sum " << sum << '\n';
  text << "Recording " << result.use.used << " of " << result.use.recorded << " reports\n";
  return text.str();
}

TEST(Captures, TellTheClientWhatStandsBesideThem) {
  const fs::path place = VOXDEVICE_CAPTURES;
  Folder folder;
  int count = 0;
  for (const auto& entry : fs::directory_iterator(place)) {
    if (entry.path().extension() != ".pcapng") continue;
    SCOPED_TRACE(entry.path().filename().string());
    ++count;
    const fs::path beside = fs::path(entry.path()).replace_extension(".txt");
    std::ifstream file(beside, std::ios::binary);
    const std::string expected{std::istreambuf_iterator<char>(file), {}};
    Lines script;
    std::istringstream lines(expected);
    for (std::string line; std::getline(lines, line) && line.starts_with("> ");) script.push_back(line.substr(2));
    for (const auto& [name, model, link] : kMade) {
      if (entry.path().stem() != name || !asked("VOXDEVICE_MAKE_CAPTURES")) continue;
      live(model, link, script, folder, "made.pcapng");
      fs::copy_file(folder / "made.pcapng", entry.path(), fs::copy_options::overwrite_existing);
    }
    const std::string told = textOf(script, replayed(entry.path(), script, folder));
    if (asked("VOXDEVICE_WRITE_EXPECTED")) std::ofstream(beside, std::ios::binary) << told;
    EXPECT_EQ(told, asked("VOXDEVICE_WRITE_EXPECTED") ? told : expected);
  }
  EXPECT_GE(count, 14);
}

// ---- The observer and the recorder ----

TEST(Observer, MayBeTakenAwayWhileItIsTold) {
  int told = 0;
  const auto callback = [](const VoxObservation&, void* count) { ++*static_cast<int*>(count); };
  const auto tell = [] { VoxMessage::PostMainMenu(OpenNavigation); };
  for (std::uint64_t seed = 1; seed <= seeds(30); ++seed) {
    sim::Machine machine({.seed = seed});
    Record record;
    VoxMessage::SetSink(&record);
    auto client = machine.spawn([&] {
      for (int i = 0; i < 20; ++i) {
        VoxObserver::SetCallback(callback, &told);
        tell();
        VoxObserver::SetCallback(nullptr, nullptr);
      }
    });
    for (int i = 0; i < 20; ++i) tell();
    client.join();
    VoxMessage::SetSink(nullptr);
  }
  EXPECT_GT(told, 0);
}

TEST(Observer, IsToldOfEverythingThatPasses) {
  struct Seen {
    Lines lines;
    std::wstring path;
  };
  Desk desk;
  const auto mouse = desk.make("Wren");
  mouse->faults.refuseOpen = [](int number) { return number == 0; };
  Seen seen{{}, mouse->path()};
  const VoxObserver::Callback callback = [](const VoxObservation& it, void* context) {
    auto& all = *static_cast<Seen*>(context);
    static const char* const names[] = {"sent", "write failed", "received", "read failed", "opened", "refused", "told"};
    std::string line = std::string(names[it.kind]) + ' ' + std::to_string(it.device);
    if (it.kind == VoxObservation_Told) {
      line += std::string(" ") + it.name;
    } else {
      EXPECT_EQ(it.path, all.path);
      EXPECT_EQ(it.link, DataChannel_Usb);
      EXPECT_EQ(it.outputLength, it.kind == VoxObservation_Refused ? 0 : 64);
    }
    for (int i = 0; i < it.valueCount; ++i) line += ' ' + std::to_string(it.values[i]);
    if (it.error != 0) line += " error " + std::to_string(it.error);
    if (it.report) {
      EXPECT_EQ(it.reportLength, 64);
      line += ' ' + hex({it.report[it.report[1] == 0xFF ? 5 : 3]});
    }
    all.lines.push_back(line);
  };
  VoxObserver::SetCallback(callback, &seen);
  desk.machine.plug(mouse);
  desk.open();
  desk.run(3500ms);
  mouse->faults.failWrites = true;
  desk.hub->SetDpi(-1, 800);
  mouse->faults.failWrites = false;
  mouse->key('0');
  desk.run(50ms);
  desk.machine.unplug(mouse);
  desk.run(500ms);
  VoxObserver::SetCallback(nullptr, nullptr);
  desk.close();
  const Lines expected{"refused -1 error 5",
                       "opened -1",
                       "opened -1",
                       "sent 1 05",
                       "received 1 68",
                       "sent 1 0f",
                       "received 1 a0",
                       "sent 1 11",
                       "told -1 log 43",
                       "told 1 connect",
                       "sent 1 01",
                       "received 1 69",
                       "told 1 mouseconnect 1",
                       "sent 1 0c",
                       "received 1 9c",
                       "told 1 mousestate 2 2 1 1600 80",
                       "sent 1 0d",
                       "received 1 9d",
                       "told 1 donglestate 2 2 4660 1",
                       "sent 1 05",
                       "received 1 68",
                       "sent 1 06",
                       "write failed 1 error 31",
                       "received 1 9f",
                       "read failed 1 error 1167",
                       "told -1 log 44",
                       "told 1 disconnect"};
  EXPECT_EQ(seen.lines, expected);
}

TEST(Observer, MayTakeAwayTheSinkThatIsAboutToBeTold) {
  Desk desk;
  VoxObserver::SetCallback([](const VoxObservation&, void*) { VoxMessage::SetSink(nullptr); }, nullptr);
  for (const wchar_t* text : {L"told", L"not told"}) VoxMessage::Log(text, LogType_Recording);
  VoxObserver::SetCallback(nullptr, nullptr);
  EXPECT_EQ(desk.record.lines(), Lines{"Log 6 told"});
}

// Older hardware: its file opens once, and its keys come without any command.
TEST(Observer, SeesOlderDevicesToo) {
  const Folder folder;
  Lines was;
  const auto use = [](Desk& desk, CFormerMouse_Hid& keys, Lines& lines, const std::function<void(int)>& press) {
    keys.StartCheck();
    for (const int key : {0x21, 0x00, 0x11, 0x41, 0x00}) {
      desk.run(1s);
      press(key);
      desk.run(50ms);
      lines.push_back(std::to_string(keys.GetKey_M_L()) + std::to_string(keys.GetKey_M_R()));
    }
    keys.Release();
  };
  {
    Desk desk;
    desk.leftOpen.handles = 1;
    Recorded recorded(desk, folder / "a.pcapng");
    sim::LegacyDevice keyboard(desk.machine, sim::LegacyKind::voiceKeyboard, "1");
    keyboard.plug();
    CFormerMouse_Hid keys;
    use(desk, keys, was, [&](int key) { keyboard.hid()->key(static_cast<std::uint8_t>(key)); });
    EXPECT_EQ(recorded.finish(), "");
    EXPECT_EQ(was, (Lines{"01", "11", "10", "11", "11"}));
  }
  Desk desk;
  desk.leftOpen.handles = 1;
  const auto device =
      std::make_shared<sim::RecordedDevice>(sim::readReplay((folder / "a.pcapng").string()).devices.at(0));
  sim::RecordedDevice::start(desk.machine, device);
  Lines again;
  CFormerMouse_Hid keys;
  use(desk, keys, again, [](int) {});
  EXPECT_EQ(again, was);
  EXPECT_EQ(device->use(desk.machine).used, 5U);
}

TEST(Recorder, GoesOnInFurtherFiles) {
  Folder folder;
  const Lines script{"open", "run 2500", "voice 900", "run 100"};
  std::ofstream(folder / "a-9.pcapng") << "an old one";
  const Result was = live("Wren", sim::Link::usb, script, folder, "a.pcapng", {.fileBytes = 4000});
  std::size_t parts = 0;
  for (const auto& entry : fs::directory_iterator(folder / "")) {
    ++parts;
    EXPECT_LE(entry.file_size(), 4000U) << entry.path();
  }
  EXPECT_EQ(parts, 6U);
  EXPECT_EQ(replayed(folder / "a.pcapng", script, folder).lines, was.lines);
  EXPECT_TRUE(replayed(folder / "a.pcapng", script, folder).pcm == was.pcm);
  // One of another recording does not belong to it.
  live("Wren", sim::Link::usb, {"open", "run 1"}, folder, "b.pcapng");
  fs::rename(folder / "b.pcapng", folder / "a-3.pcapng");
  EXPECT_LT(replayed(folder / "a.pcapng", script, folder).pcm.size(), was.pcm.size());
}

TEST(Recorder, KeepsToItselfWhatIsPrivate) {
  Folder folder;
  const Lines script{"open", "run 2500", "voice 300", "run 100"};
  for (const auto link : {sim::Link::usb, sim::Link::bluetooth}) {
    for (const char* model : {"Wren", "Tern"}) {
      if (link == sim::Link::bluetooth && !sim::findModel(model)->bluetooth) continue;
      const Result was = live(model, link, script, folder, "a.pcapng", {.noSpeech = true});
      std::ifstream file(folder / "a.pcapng", std::ios::binary);
      const std::string bytes{std::istreambuf_iterator<char>(file), {}};
      for (const std::string& secret : {std::string("SN0123456789ABCDEF"), std::string("7&1a2b3c"),
                                        std::string("aabbccddeeff"), std::string("\xC0\xA8\x01\x02\x03\xFF")}) {
        EXPECT_EQ(bytes.find(secret), std::string::npos) << model << ' ' << secret;
      }
      const Result again = replayed(folder / "a.pcapng", script, folder);
      EXPECT_EQ(again.lines, was.lines);
      EXPECT_EQ(again.pcm.size(), was.pcm.size());
      EXPECT_FALSE(again.pcm == was.pcm);
    }
  }
}

// The same bytes as a serial number and as an address: neither is longer for the other.
TEST(Recorder, InventsWhatFits) {
  capture::Privacy privacy;
  std::vector<std::uint8_t> serial{5, 0xFE, 0xC0, 0xB1, 6, 1, 2, 3, 4, 5, 6, 0xEF};
  std::vector<std::uint8_t> state{5, 0xFE, 0xC0, 0x9C, 11, 0, 1, 6, 64, 80, 1, 2, 3, 4, 5, 6, 0xEF};
  privacy.clean(serial);
  privacy.clean(state);
  EXPECT_EQ(hex(serial), "05fec0b106303030303030ef");
  EXPECT_EQ(hex(state), "05fec09c0b0001064050000000000002ef");
  // A damaged length hides nothing.
  std::vector<std::uint8_t> damaged{5, 0xFE, 0xC0, 0x9C, 8, 0, 1, 6, 64, 80, 1, 2, 3, 4, 5, 6, 0xEF};
  privacy.clean(damaged);
  EXPECT_EQ(hex(damaged), "05fec09c080001064050000000000002ef");
}

TEST(Recorder, SaysWhatIsWrongWithTheFile) {
  const Folder folder;
  Desk desk;
  EXPECT_THROW(Recorded(desk, folder / "none" / "a.pcapng"), std::runtime_error);
  if (!fs::exists("/dev/full")) return;
  Recorded recorded(desk, "/dev/full");
  desk.open();
  desk.connect("Wren");
  desk.close();
  EXPECT_EQ(recorded.finish(), "/dev/full: No space left on device");
}

}  // namespace
