// The flat interface: what a client in any language gets.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "VoxDevice/voxdevice.h"
#include "bench/Allocations.h"
#include "bindings/c/Objects.h"
#include "fuzz/AnyCall.h"
#include "sim/Memory.h"
#include "tests/Desk.h"
#include "tests/Sentence.h"
#include "tools/explore/Explore.h"

namespace {

const char* const kEvents[] = {"",       "connect", "disconnect", "mouse-connect", "voice",      "dpi",   "state",
                               "dongle", "power",   "url",        "update",        "progress",   "mkeys", "menu",
                               "window", "end",     "button",     "lost",          "speech-lost"};
constexpr std::size_t kValues[] = {0, 0, 0, 1, 1, 2, 5, 4, 1, 1, 2, 2, 2, 2, 1, 1, 2, 3, 2};

std::string lineOf(const vox_event& event) {
  const auto kind = static_cast<std::size_t>(event.kind);
  std::string line = std::string(kEvents[kind]) + ' ' + std::to_string(event.device);
  for (std::size_t i = 0; i < kValues[kind]; ++i) line += ' ' + std::to_string(event.value[i]);
  return line;
}

class FlatDesk {
 public:
  explicit FlatDesk(sim::MachineOptions options = {}, int32_t clicks = 1) : machine(options) {
    machine.install(L"asc_lib.dll", sim::ascLibrary());
    for (const auto& [setting, value] : {std::pair{VOX_SET_VOICE_CLICK_TIMES, clicks},
                                         {VOX_SET_DOUBLE_CLICK_MS, 400},
                                         {VOX_SET_LONG_DOWN, 0},
                                         {VOX_SET_HARDWARE, 1},
                                         {VOX_SET_NETWORK, 1}}) {
      EXPECT_EQ(vox_set(setting, value), VOX_OK);
    }
    hub = vox_hub_create();
    EXPECT_GT(hub, 0);
  }
  ~FlatDesk() {
    vox_destroy(hub);
    flat::Restart();
    EXPECT_EQ(machine.balance(), leftOpen);
    EXPECT_EQ(machine.misuses(), Lines{});
  }
  FlatDesk(const FlatDesk&) = delete;
  FlatDesk& operator=(const FlatDesk&) = delete;

  void open() { EXPECT_EQ(vox_hub_open(hub), VOX_OK); }
  std::shared_ptr<sim::VirtualMouse> connect(const std::string& model, sim::Link link = sim::Link::usb) {
    auto device = sim::makeMouse(model, link, "7&" + std::to_string(++instances_) + "&0&0000");
    machine.plug(device);
    machine.sleep(6s);
    return device;
  }
  std::shared_ptr<sim::VirtualMouse> openWith(const std::string& model, sim::Link link = sim::Link::usb) {
    open();
    return connect(model, link);
  }
  // The events since the last look, of this beginning.
  Lines events(const std::string& beginning = {}) {
    Lines lines;
    vox_event event{sizeof event, 0, 0, {}};
    while (vox_next_event(&event, 0) == 1) {
      if (const std::string line = lineOf(event); line.rfind(beginning, 0) == 0) lines.push_back(line);
    }
    return lines;
  }

  sim::Machine machine;
  sim::Balance leftOpen;  // what is left at the end by design
  vox_handle hub = 0;

 private:
  int instances_ = 0;
};

TEST(Flat, AHeldVoiceKeyIsAskedForAndRecorded) {
  FlatDesk desk;
  auto wren = desk.openWith("Wren");
  EXPECT_EQ(desk.events(), (Lines{"connect 1", "mouse-connect 1 1", "state 1 2 2 1 1600 80", "dongle 1 2 2 4660 1"}));
  int32_t device = 0;
  EXPECT_EQ(vox_hub_devices(desk.hub, &device, 1), 1);
  EXPECT_EQ(device, 1);
  EXPECT_EQ(vox_hub_model(desk.hub, 1), 2);
  EXPECT_EQ(vox_hub_link(desk.hub, 1), 2);
  EXPECT_EQ(vox_record_start(desk.hub), VOX_ERROR_NO_DEVICE) << "no work device is chosen";
  wren->hear(spokenSentence());
  wren->pressVoiceKey();
  vox_event event{sizeof event, 0, 0, {}};
  EXPECT_EQ(vox_next_event(&event, 1000), 1) << "it waits";
  EXPECT_EQ(lineOf(event), "button 1 0 1");
  EXPECT_EQ(vox_hub_choose(desk.hub, 1), VOX_OK);
  EXPECT_EQ(vox_record_start(desk.hub), VOX_OK);
  std::vector<std::int16_t> pcm;
  std::vector<std::int16_t> part(700);
  while (pcm.size() < kSentenceSamples) {
    const vox_result count = vox_read(desk.hub, part.data(), 700, 2000);
    ASSERT_GT(count, 0);
    pcm.insert(pcm.end(), part.begin(), part.begin() + count);
  }
  pcm.resize(kSentenceSamples);
  EXPECT_EQ(hashOf(pcm), kSentenceHash);
  wren->releaseVoiceKey();
  EXPECT_EQ(vox_record_stop(desk.hub), VOX_OK);
  while (vox_read(desk.hub, part.data(), 700, 0) > 0) {
  }
  EXPECT_EQ(vox_read(desk.hub, part.data(), 700, 0xFFFFFFFF), VOX_ERROR_END);
  EXPECT_EQ(desk.events(), (Lines{"voice 1 3", "button 1 0 0", "voice 1 0", "end -1 " + std::to_string(desk.hub)}));
  vox_speech speech{sizeof speech, 0, 9, 9, 9};
  EXPECT_EQ(vox_hub_speech(desk.hub, 1, &speech), VOX_OK);
  EXPECT_GE(speech.reports * 240, kSentenceSamples);
  EXPECT_EQ(speech.late + speech.missing + speech.unasked, 0U);
  EXPECT_EQ(vox_hub_harden(desk.hub, VOX_HARDENING_ALL + 1), VOX_ERROR_ARGUMENT);
}

TEST(Flat, WhatPassesIsObserved) {
  Lines seen;
  const vox_observation_fn observed = [](const vox_observation* it, void* lines) {
    std::string line = std::to_string(it->kind) + ' ' + std::to_string(it->device);
    if (it->path) line += ' ' + std::to_string(it->link) + ' ' + std::string(it->path).substr(4, 21);
    if (it->report) line += ' ' + std::to_string(it->report_length) + ' ' + std::to_string(it->report[5]);
    if (it->name) line += std::string(" ") + it->name;
    for (int32_t i = 0; i < it->value_count; ++i) line += ' ' + std::to_string(it->values[i]);
    if (it->text) line += std::string(" ") + it->text;
    static_cast<Lines*>(lines)->push_back(line);
  };
  FlatDesk desk;
  EXPECT_EQ(vox_on_observation(observed, &seen), VOX_OK);
  desk.open();
  desk.connect("Wren");
  EXPECT_EQ(vox_on_observation(nullptr, nullptr), VOX_OK);
  ASSERT_GE(seen.size(), 9U);
  seen.resize(9);
  const std::string path = " 2 hid#vid_6d8c&pid_6137";
  EXPECT_EQ(seen, (Lines{"4 -1" + path, "4 -1" + path, "0 1" + path + " 64 5", "2 1" + path + " 64 104",
                         "0 1" + path + " 64 15", "2 1" + path + " 64 160", "0 1" + path + " 64 17",
                         "6 -1 log 43 VoxMouse Wren（编号：1）连接成功，发送到设备界面", "6 1 connect"}));
}

TEST(Flat, AudioGoesToItsCallbackAndEndsOnce) {
  struct Heard {
    std::size_t samples = 0;
    int ends = 0;
  } heard;
  FlatDesk desk;
  desk.machine.locked([&] {
    desk.machine.sound().microphones.push_back(std::make_shared<sim::Microphone>(L"Microphone (VoxMouse USB AUDIO)"));
    desk.machine.sound().microphones.back()->hears.assign(16000, 5);
  });
  const vox_handle microphone = vox_microphone_create();
  ASSERT_GT(microphone, 0);
  EXPECT_EQ(vox_on_audio(
                microphone,
                [](const int16_t* samples, int32_t count, void* context) {
                  auto& it = *static_cast<Heard*>(context);
                  samples ? it.samples += static_cast<std::size_t>(count) : it.samples += 0;
                  if (!samples) ++it.ends;
                },
                &heard),
            VOX_OK);
  vox_choice choice{sizeof choice, 0, {}, {}, {}};
  ASSERT_EQ(vox_microphone_choice(microphone, &choice), VOX_OK);
  ASSERT_EQ(choice.index, 0) << choice.rule;
  EXPECT_STREQ(choice.name, "Microphone (VoxMouse USB AUDIO)");
  ASSERT_EQ(vox_record_start(microphone), VOX_OK);
  desk.machine.sleep(600ms);
  EXPECT_EQ(vox_record_stop(microphone), VOX_OK);
  EXPECT_GE(heard.samples, 8000U);
  EXPECT_EQ(heard.ends, 1);
  std::int16_t sample = 0;
  EXPECT_EQ(vox_read(microphone, &sample, 1, 0), VOX_ERROR_END) << "the callback has it all";
  EXPECT_EQ(vox_destroy(microphone), VOX_OK);
  EXPECT_EQ(vox_record_stop(microphone), VOX_ERROR_HANDLE);
}

TEST(Flat, ButtonsAreToldWhateverBecomesOfThem) {
  FlatDesk desk({}, 2);
  auto tern = desk.openWith("Tern");
  const auto press = [&](const std::string& keys) {
    for (const char key : keys) tern->key(key);
    desk.machine.sleep(1ms);
    return desk.events("button");
  };
  desk.events();
  EXPECT_EQ(press("1"), (Lines{"button 1 0 1"}));
  EXPECT_EQ(press("]"), (Lines{"button 1 0 0"}));
  EXPECT_EQ(press("3"), (Lines{"button 1 1 2"}));
  EXPECT_EQ(vox_hub_right_short_press(desk.hub), 1);
  EXPECT_EQ(press("2"), (Lines{"button 1 0 3"}));
  EXPECT_EQ(vox_set(VOX_SET_NETWORK, 0), VOX_OK);
  EXPECT_EQ(press("2"), (Lines{"button 1 0 4"}));
  EXPECT_EQ(press("4"), (Lines{"button 1 1 1"}));
  EXPECT_EQ(vox_hub_button(desk.hub, VOX_BUTTON_RIGHT), VOX_DOWN);
  desk.machine.unplug(tern);
  desk.machine.sleep(100ms);
  EXPECT_EQ(desk.events(), (Lines{"button 1 1 0", "disconnect 1"}));
}

TEST(Flat, CommandsSayWhatBecomesOfThem) {
  FlatDesk desk;
  desk.open();
  EXPECT_EQ(vox_hub_newest(desk.hub), VOX_ERROR_NO_DEVICE);
  EXPECT_EQ(vox_hub_ask_mouse_state(desk.hub, -1), VOX_ERROR_NO_DEVICE);
  auto swift = desk.connect("Swift", sim::Link::bluetooth);
  auto wren = desk.connect("Wren");
  EXPECT_EQ(vox_hub_newest(desk.hub), 2);
  desk.events();
  EXPECT_EQ(vox_hub_set_dpi(desk.hub, 1, 40000), VOX_ERROR_ARGUMENT);
  EXPECT_EQ(vox_hub_set_dpi(desk.hub, 3, 800), VOX_ERROR_NO_DEVICE);
  EXPECT_EQ(vox_hub_set_dpi(desk.hub, 2, 800), VOX_OK);
  desk.machine.sleep(50ms);
  EXPECT_EQ(desk.events("dpi"), (Lines{"dpi 2 800 1"}));

  std::uint8_t functions[8] = {};
  EXPECT_EQ(vox_hub_mkey_list(desk.hub, 1, 1, nullptr, 0), 4);
  EXPECT_EQ(vox_hub_mkey_list(desk.hub, 1, 1, functions, 8), 4);
  EXPECT_EQ(vox_hub_set_mkey(desk.hub, 1, 1, 200), VOX_ERROR_NOT_SUPPORTED);
  EXPECT_EQ(vox_hub_set_mkey(desk.hub, 1, 1, functions[1]), VOX_OK);
  swift->answer(0x15, {.silent = true});
  EXPECT_EQ(vox_hub_set_mkey(desk.hub, 1, 1, functions[1]), VOX_ERROR_TIMEOUT);

  // Every device gets the whole text, and the caller keeps it.
  const std::string url = "vox.example/a";
  desk.events();
  EXPECT_EQ(vox_hub_set_url(desk.hub, -1, "a:b"), VOX_ERROR_CHARACTER);
  EXPECT_EQ(vox_hub_set_url(desk.hub, -1, url.c_str()), VOX_OK);
  desk.machine.sleep(50ms);
  EXPECT_EQ(swift->received(0x0E).back().payload, wren->received(0x0E).back().payload);
  EXPECT_EQ(desk.events("url"), (Lines{"url 1 1", "url 2 1"}));

  EXPECT_EQ(vox_hub_choose(desk.hub, 2), VOX_OK);
  wren->answer(0x03, {.refuse = true});
  EXPECT_EQ(vox_record_start(desk.hub), VOX_ERROR_REFUSED);
  wren->answer(0x03, {.silent = true});
  EXPECT_EQ(vox_record_start(desk.hub), VOX_ERROR_TIMEOUT);

  EXPECT_EQ(vox_hub_update(desk.hub, 2, 1, "/nowhere", nullptr), VOX_ERROR_FILE);
  EXPECT_EQ(vox_hub_update(desk.hub, 2, 1, VOXDEVICE_SAMPLES "/sentence.wav", nullptr), VOX_OK);
  EXPECT_EQ(vox_hub_set_dpi(desk.hub, 2, 800), VOX_ERROR_BUSY);
  EXPECT_EQ(vox_hub_set_mkey(desk.hub, 2, 1, 2), VOX_ERROR_BUSY);
  EXPECT_EQ(vox_hub_close(desk.hub), VOX_OK);
  EXPECT_EQ(vox_hub_newest(desk.hub), VOX_ERROR_NO_DEVICE);
}

TEST(Flat, TextsFitOrStay) {
  FlatDesk desk;
  auto wren = desk.openWith("Wren");
  char text[80] = "?";
  int32_t kind = 0, category = 0;
  const vox_result needed = vox_next_text(&kind, &category, text, 4, 0);
  EXPECT_GT(needed, 4);
  EXPECT_STREQ(text, "?") << "it does not fit";
  EXPECT_EQ(vox_next_text(&kind, &category, text, 80, 0), needed);
  EXPECT_EQ(kind, VOX_TEXT_LOG);
  EXPECT_EQ(category, 43);
  EXPECT_EQ(std::string(text).size() + 1, static_cast<std::size_t>(needed));
  EXPECT_NE(std::string(text).find("连接成功"), std::string::npos) << text;

  EXPECT_EQ(vox_set_text(VOX_TEXT_RECORD_NAME, "麦克风 \xF0\x9F\x8E\xA4 \xFF"), VOX_OK);
  EXPECT_EQ(vox_get_text(VOX_TEXT_RECORD_NAME, nullptr, 0), 19);
  EXPECT_EQ(vox_get_text(VOX_TEXT_RECORD_NAME, text, 80), 19);
  EXPECT_STREQ(text, "麦克风 \xF0\x9F\x8E\xA4 \xEF\xBF\xBD");
  EXPECT_EQ(vox_model_name(7, text, 80), 20);
  EXPECT_STREQ(text, "VoxMouse Heron Plus");
  EXPECT_EQ(vox_hid_path(0, text, 0), vox_hid_path(0, nullptr, 0));
  EXPECT_EQ(vox_hid_path(99, text, 80), 0);
  vox_path path{sizeof path, 0, {}, {}, {}};
  EXPECT_EQ(vox_parse_hid_path(R"(\\?\hid#vid_0d8c&pid_0137&mi_03#7&1&0&0000#{})", &path), VOX_OK);
  EXPECT_EQ(path.link, 2);
  EXPECT_STREQ(path.pid, "0137");
  EXPECT_EQ(vox_parse_hid_path(("\\\\?\\hid#vid_0d8c&pid_0137#" + std::string(200, '7') + "#").c_str(), &path),
            VOX_ERROR_ARGUMENT);
}

TEST(Flat, WhatIsNotReadGivesWayAndIsCounted) {
  FlatDesk desk;
  auto wren = desk.openWith("Wren");
  desk.events();
  for (int i = 0; i < 1100; ++i) {
    wren->reportPower(static_cast<std::uint8_t>(i));
    desk.machine.sleep(1ms);
  }
  desk.machine.sleep(10ms);
  const Lines told = desk.events();
  ASSERT_EQ(told.size(), 1025U);
  EXPECT_EQ(told[0], "lost -1 1 76 0");
  EXPECT_EQ(told[1], "power 1 76");
  vox_hub_choose(desk.hub, 1);
  wren->hear(std::vector<std::int16_t>(40 * 16000, 3));
  EXPECT_EQ(vox_record_start(desk.hub), VOX_OK);
  desk.machine.sleep(32s);
  const Lines lost = desk.events("lost");
  ASSERT_EQ(lost.size(), 1U);
  EXPECT_EQ(lost[0].rfind("lost -1 3 ", 0), 0U);
  vox_record_stop(desk.hub);
}

TEST(Flat, WhoWaitsReturnsWhenTheObjectGoes) {
  FlatDesk desk;
  const vox_handle speaker = vox_speaker_create();
  std::int16_t sample = 0;
  vox_result result = VOX_OK;
  auto reader = desk.machine.spawn([&] { result = vox_read(speaker, &sample, 1, 0xFFFFFFFF); });
  desk.machine.sleep(10s);
  EXPECT_EQ(vox_destroy(speaker), VOX_OK);
  reader.join();
  EXPECT_EQ(result, VOX_ERROR_HANDLE);
  EXPECT_EQ(vox_destroy(speaker), VOX_ERROR_HANDLE);
}

TEST(Flat, ARecordingEndsOnceWhateverBecomesOfIt) {
  struct Heard {
    FlatDesk& desk;
    std::chrono::milliseconds slow{0};
    int blocks = 0, ends = 0, afterEnd = 0;
  };
  FlatDesk desk;
  auto wren = desk.openWith("Wren");
  wren->hear(std::vector<std::int16_t>(16000 * 60, 7));
  std::int16_t sample = 0;
  EXPECT_EQ(vox_hub_choose(desk.hub, 1), VOX_OK);

  // One that does not start is over at once; a stop without one ends nothing.
  wren->answer(0x03, {.refuse = true});
  EXPECT_EQ(vox_record_start(desk.hub), VOX_ERROR_REFUSED);
  EXPECT_EQ(vox_read(desk.hub, &sample, 1, 0xFFFFFFFE), VOX_ERROR_END);
  EXPECT_EQ(vox_record_stop(desk.hub), VOX_OK);
  EXPECT_EQ(desk.events("end"), Lines{});
  wren->answer(0x03, {});

  Heard heard{desk};
  vox_on_audio(
      desk.hub,
      [](const int16_t* samples, int32_t, void* context) {
        auto& it = *static_cast<Heard*>(context);
        it.afterEnd += it.ends;
        samples ? ++it.blocks : ++it.ends;
        if (samples) it.desk.machine.sleep(it.slow);
      },
      &heard);
  // The device does not confirm the end, and goes on.
  wren->answer(0x04, {.silent = true});
  EXPECT_EQ(vox_record_start(desk.hub), VOX_OK);
  desk.machine.sleep(1s);
  EXPECT_EQ(vox_record_stop(desk.hub), VOX_ERROR_TIMEOUT);
  desk.machine.sleep(2s);
  EXPECT_GT(heard.blocks, 0);
  EXPECT_EQ(heard.ends, 1);
  EXPECT_EQ(heard.afterEnd, 0);
  wren->answer(0x04, {});
  EXPECT_EQ(vox_record_stop(desk.hub), VOX_OK);
  EXPECT_EQ(heard.ends, 1);

  // A callback that is still inside a block; and another thread that wants to start meanwhile.
  heard.slow = 700ms;
  heard.ends = heard.afterEnd = 0;
  EXPECT_EQ(vox_record_start(desk.hub), VOX_OK);
  desk.machine.sleep(400ms);
  auto other = desk.machine.spawn([&] {
    desk.machine.sleep(5ms);
    EXPECT_EQ(vox_record_start(desk.hub), VOX_ERROR_BUSY);
    EXPECT_EQ(vox_record_stop(desk.hub), VOX_ERROR_BUSY);
  });
  vox_record_stop(desk.hub);
  other.join();
  desk.machine.sleep(2s);
  EXPECT_EQ(heard.ends, 1);
  EXPECT_EQ(heard.afterEnd, 0);
  desk.events();
}

TEST(Flat, AMicrophoneIsDestroyedWhileAnotherThreadWaitsForItsCallback) {
  for (const auto slow : {1500ms, 3600'000ms}) {
    FlatDesk desk;
    struct Client {
      FlatDesk& desk;
      std::chrono::milliseconds slow;
      bool gone = false;
      int after = 0;
    } client{desk, slow};
    desk.machine.locked([&] {
      desk.machine.sound().microphones.push_back(std::make_shared<sim::Microphone>(L"Microphone (VoxMouse USB AUDIO)"));
      desk.machine.sound().microphones.back()->hears.assign(160000, 5);
    });
    const vox_handle microphone = vox_microphone_create();
    vox_on_audio(
        microphone,
        [](const int16_t*, int32_t, void* context) {
          auto& it = *static_cast<Client*>(context);
          if (it.gone) ++it.after;
          it.desk.machine.sleep(it.slow);
        },
        &client);
    ASSERT_EQ(vox_record_start(microphone), VOX_OK);
    desk.machine.sleep(300ms);
    auto other = desk.machine.spawn([&] { vox_record_stop(microphone); });
    desk.machine.sleep(50ms);
    const auto begin = desk.machine.now();
    EXPECT_EQ(vox_destroy(microphone), VOX_OK);
    EXPECT_LE(desk.machine.now() - begin, 2200ms);
    client.gone = true;
    other.join();
    desk.machine.sleep(5s);
    EXPECT_EQ(client.after, 0);
    EXPECT_EQ(desk.machine.balance().threads, 0U) << desk.machine.waiting();
  }
}

TEST(Flat, AHubIsDestroyedInItsOwnCallback) {
  for (const char* when : {"connect", "button"}) {
    FlatDesk desk;
    struct Client {
      FlatDesk& desk;
      std::string when;
      int after = 0;
      bool gone = false;
    } client{desk, when};
    vox_on_event(
        [](const vox_event* event, void* context) {
          auto& it = *static_cast<Client*>(context);
          if (it.gone) ++it.after;
          if (lineOf(*event).rfind(it.when, 0) != 0 || it.gone) return;
          it.gone = true;
          EXPECT_EQ(vox_destroy(it.desk.hub), VOX_OK);
        },
        &client);
    auto wren = desk.openWith("Wren");
    wren->pressVoiceKey();
    desk.machine.sleep(3s);
    EXPECT_TRUE(client.gone);
    EXPECT_EQ(client.after, 0);
    EXPECT_EQ(desk.machine.balance().threads, 0U);
    vox_on_event(nullptr, nullptr);
  }
}

void anyCalls(Trial& random) {
  FlatDesk desk(random.machine);
  desk.machine.plug(sim::makeMouse("Wren", sim::Link::usb, "7&1&0&0000"));
  std::atomic<vox_handle> handles[AnyCall::kHandles] = {desk.hub};
  desk.open();
  std::atomic<std::size_t> pollers{0};  // of USB mice: they deliberately leave an event each
  std::vector<sim::Machine::Spawned> clients(4);
  for (auto& client : clients) {
    client = desk.machine.spawn([&] {
      AnyCall calls([&] { return random(); }, handles);
      for (int i = 0; i < 25; ++i) {
        if (random.chance(6)) {
          const int kind = calls.create();
          if (kind == VOX_FORMER_MOUSE || kind == VOX_FORMER_USB) ++pollers;
        }
        EXPECT_TRUE(calls.call());
        if (random.chance(8)) desk.machine.sleep(random.within(1500));
      }
    });
  }
  for (auto& client : clients) client.join();
  for (auto& handle : handles) vox_destroy(handle);
  EXPECT_EQ(desk.machine.balance().threads, 0U) << desk.machine.waiting();
  desk.leftOpen.handles = pollers;
}

const Scenario flatCalls("flat", "", anyCalls);

TEST(Flat, AnyCallsFromAnywhereAreDefined) { explore(flatCalls, 250); }

#ifdef VOXDEVICE_EXPLORE  // else nothing tells whose an allocation is
// Each call's first, second ... allocation fails.
TEST(Flat, CallsWithoutMemoryAreDefined) {
  failsAllocation = &sim::lacksMemory;
  int lacked = 0;
  for (std::uint64_t seed = 1; seed <= 60; ++seed) {
    FlatDesk desk;
    desk.machine.plug(sim::makeMouse("Wren", sim::Link::usb, "7&1&0&0000"));
    std::atomic<vox_handle> handles[AnyCall::kHandles] = {desk.hub};
    desk.open();
    std::size_t pollers = 0;
    auto client = desk.machine.spawn([&] {
      std::mt19937_64 random(seed);
      AnyCall calls([&] { return random(); }, handles);
      for (int i = 0; i < 120; ++i) {
        const bool creates = random() % 4 == 0;
        const std::uint64_t fails = 1 + random() % 6;
        int kind = -1;
        bool defined = true;
        sim::failAllocation(fails);
        {
          const sim::LibraryCode library;
          creates ? void(kind = calls.create()) : void(defined = calls.call(VOX_ERROR_SYSTEM));
        }
        lacked += sim::allocations() >= fails;
        sim::failAllocation(0);
        EXPECT_TRUE(defined);
        if (kind == VOX_FORMER_MOUSE || kind == VOX_FORMER_USB) ++pollers;
        if (random() % 16 == 0) desk.machine.sleep(std::chrono::milliseconds(random() % 900));
      }
    });
    client.join();
    for (auto& handle : handles) vox_destroy(handle);
    vox_destroy(desk.hub);
    flat::Restart();
    desk.leftOpen.handles = desk.machine.balance().handles;
    EXPECT_LE(desk.leftOpen.handles, pollers);  // an event each, of those that were made at least half
    EXPECT_EQ(desk.machine.balance().threads, 0U) << desk.machine.waiting();
  }
  failsAllocation = nullptr;
  EXPECT_GT(lacked, 1000);
}
#endif

}  // namespace
