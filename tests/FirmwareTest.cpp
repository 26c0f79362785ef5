// Firmware updates: what arrives at the device, what the client is told, and how every step can fail.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "platform/os.h"
#include "tests/Desk.h"
#include "tests/Folder.h"
#include "tools/explore/Explore.h"

namespace {

using sim::Bytes;
using sim::UpdateStep;
using Updated = sim::VirtualMouse::Updated;

Bytes pattern(std::size_t size, unsigned seed = 1) {
  std::mt19937 random(seed);
  Bytes bytes(size);
  for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
  return bytes;
}

// A desk with one device at the hub.
struct UpdateDesk : Desk {
  explicit UpdateDesk(const std::string& model, sim::Link link = sim::Link::usb,
                      const sim::MachineOptions& options = {})
      : Desk(options) {
    open();
    device = connect(model, link);
    fresh();
  }
  void fresh() {
    device->forget();
    record.clear();
  }
  void start(FwUpdateType type, const std::string& first, const std::string& second = "") {
    hub->StartOTA(hub->GetEffectiveDevice(), type, first, second);
  }
  bool over() { return record.last().ends_with(" 0 11"); }
  // Until the client has been told that the update is over.
  void finish(sim::Time limit = 600s) {
    for (const auto end = machine.now() + limit; !over() && machine.now() < end;) run(10ms);
    EXPECT_TRUE(over());
    run(10ms);
  }
  std::string frames() { return ::frames(device->received()); }
  Bytes image(Updated which) {
    const auto target = device->firmware(which);
    EXPECT_EQ(target.violations(), Lines{});
    return target.image();
  }

  std::shared_ptr<sim::VirtualMouse> device;
  Folder files;
};

Lines results(Lines ends) {
  for (std::string& end : ends) end.insert(0, "FwOtaResult 1 ");
  return ends;
}

TEST(Firmware, ImagesOfEverySizeArriveByteForByte) {
  for (const char* model : {"Wren", "Heron Plus", "Tern"}) {
    for (const std::size_t size : {1U, 15U, 16U, 17U, 31U, 32U, 33U, 40U, 1000U, 262'144U}) {
      SCOPED_TRACE(std::string(model) + " " + std::to_string(size));
      UpdateDesk desk(model);
      const Bytes first = pattern(size, 1);
      const Bytes second = pattern(size == 262'144 ? 77 : size, 2);
      // In an order of the device's own, with parts that it loses; the big one straight on.
      const sim::UpdateScript shuffled{.size = size, .order = size, .loseEvery = 5};
      desk.device->update(Updated::mouse, size < 10'000 ? shuffled : sim::UpdateScript{.size = size});
      desk.device->update(Updated::receiver, {.size = second.size(), .endsWithZero = true});
      desk.start(FwUpdate_Both, desk.files.with(first), desk.files.with(second));
      desk.finish();
      EXPECT_EQ(desk.record.lines("FwOtaResult"), results({"2 8", "3 8", "0 11"}));
      EXPECT_TRUE(desk.image(Updated::mouse) == first);
      EXPECT_TRUE(desk.image(Updated::receiver) == second);
      EXPECT_EQ(desk.device->malformed(), 0U);
    }
  }
}

TEST(Firmware, OverBluetoothOneImageIsSent) {
  for (const char* model : {"Finch", "Swift", "Tern"}) {
    UpdateDesk desk(model, sim::Link::bluetooth);
    const Bytes first = pattern(100);
    desk.device->update(Updated::mouse, {.size = 100});
    desk.start(FwUpdate_Both, desk.files.with(first), desk.files.with(pattern(50)));
    desk.finish();
    EXPECT_EQ(desk.record.lines("FwOtaResult"), results({"1 8", "0 11"})) << model;
    EXPECT_TRUE(desk.image(Updated::mouse) == first);
    EXPECT_EQ(desk.device->firmware(Updated::receiver).image(), Bytes{});
  }
}

TEST(Firmware, EachFlowIsExact) {
  const auto flow = [](const char* model, std::size_t size) {
    UpdateDesk desk(model);
    Bytes image;
    for (std::size_t i = 0; i < size; ++i) image.push_back(static_cast<std::uint8_t>(i));
    desk.device->update(Updated::mouse, {.size = size});
    desk.start(FwUpdate_First, desk.files.with(image));
    desk.finish();
    return std::pair(desk.frames(), desk.record.lines());
  };
  const std::string first16 = "000102030405060708090a0b0c0d0e0f";
  auto [frames, lines] = flow("Wren", 40);
  EXPECT_EQ(frames, "f1:08" + first16 + " f1:090000" + first16 +
                        " f1:090100101112131415161718191a1b1c1d1e1f f1:0902002021222324252627 f1:0b f1:0b");
  EXPECT_EQ(lines, (Lines{"OtaProgress 0 40", "OtaProgress 16 40", "OtaProgress 32 40", "OtaProgress 48 40",
                          "OtaProgress 100 100", "FwOtaResult 1 2 8", "FwOtaResult 1 0 11"}));
  std::tie(frames, lines) = flow("Heron Plus", 20);
  EXPECT_EQ(frames, "f1:08" + first16 + "10111213 f1:090000" + first16 +
                        "7bf3010010111213ffffffffffffffffffffffff8018 f1:0b f1:0b");
  EXPECT_EQ(lines, (Lines{"OtaProgress 0 20", "OtaProgress 32 20", "OtaProgress 100 100", "FwOtaResult 1 2 8",
                          "FwOtaResult 1 0 11"}));
  std::tie(frames, lines) = flow("Heron Plus", 16);
  EXPECT_EQ(frames, "f1:08" + first16 + " f1:090000" + first16 + "7bf3" + std::string(40, 'f') + " f1:0b f1:0b");
  std::tie(frames, lines) = flow("Tern", 45);
  EXPECT_EQ(frames, "f1:07 f1:0800010203040506070809 f1:09" + first16 +
                        "101112131415161718191a1b1c1d1e1f2021222324252627 f1:0928292a2b2c f1:0b");
  EXPECT_EQ(lines, (Lines{"OtaProgress 0 45", "OtaProgress 40 45", "OtaProgress 45 45", "FwOtaResult 1 2 8",
                          "FwOtaResult 1 0 11"}));
}

TEST(Firmware, EveryStepCanBeRefusedOrStayUnanswered) {
  const std::pair<UpdateStep, int> steps[] = {
      {UpdateStep::prepare, 1}, {UpdateStep::open, 3}, {UpdateStep::data, 5}, {UpdateStep::complete, 7}};
  for (const char* model : {"Wren", "Swift", "Tern"}) {
    for (const auto& [step, code] : steps) {
      if (step == UpdateStep::prepare && model != std::string("Tern")) continue;
      for (const bool second : {false, true}) {
        for (const int how : {0, 1, 2}) {  // silent; refused; refused, and then silent
          UpdateDesk desk(model);
          SCOPED_TRACE(std::string(model) + " " + std::to_string(code) + (second ? " second " : " first ") +
                       std::to_string(how));
          sim::UpdateScript bad{.size = 50, .atMessage = 1, .endsAborts = how == 1};
          (how == 0 ? bad.silentAt : bad.refuseAt) = step;
          desk.device->update(second ? Updated::receiver : Updated::mouse, bad);
          desk.device->update(second ? Updated::mouse : Updated::receiver, {.size = 50});
          const auto begin = desk.milliseconds();
          desk.start(FwUpdate_Both, desk.files.with(pattern(50)), desk.files.with(pattern(50)));
          desk.finish();
          const std::string link = second ? "3 " : "2 ";
          const std::string failing = link + std::to_string(how == 0 ? code : code + 1);
          auto expected = second ? results({"2 8", failing, "0 11"}) : results({failing, "3 8", "0 11"});
          if (how == 2) expected.insert(expected.begin() + (second ? 2 : 1), "FwOtaResult 1 " + link + "9");
          EXPECT_EQ(desk.record.lines("FwOtaResult"), expected);
          const auto took = desk.milliseconds() - begin;
          EXPECT_TRUE(how == 1 ? took < 100 : took > 3100 && took < 3200) << took;
          EXPECT_EQ(desk.device->received(0x0A).size(), how == 0 ? 0U : 1U);
        }
      }
    }
  }
}

TEST(Firmware, ATimeOutTakesThreePointOneSecondsAndPrintsItsText) {
  const auto text = [](const char* what) {
    return "\xCA\xA7\xB0\xDC\xD4\xAD\xD2\xF2\x3A\x20\xB7\xA2\xCB\xCD" + std::string(what) +
           "\xCF\xFB\xCF\xA2\xCF\xEC\xD3\xA6\xB3\xAC\xCA\xB1\xA3\xA1";
  };
  const std::string data = text("\xB8\xFC\xD0\xC2\xCA\xFD\xBE\xDD");
  const struct {
    UpdateStep step;
    bool refuse;
    std::string printed;
  } cases[] = {{UpdateStep::prepare, false, text("\xD7\xBC\xB1\xB8")},
               {UpdateStep::open, false, text("\xB4\xF2\xBF\xAA") + data},
               {UpdateStep::data, false, data},
               {UpdateStep::complete, false, text("\xCD\xEA\xB3\xC9")},
               {UpdateStep::open, true, ""}};
  for (const auto& c : cases) {
    UpdateDesk desk("Tern");
    desk.device->update(Updated::mouse, {.size = 10,
                                         .refuseAt = c.refuse ? std::optional(c.step) : std::nullopt,
                                         .silentAt = c.refuse ? std::nullopt : std::optional(c.step),
                                         .endsAborts = false});
    desk.machine.record(true);
    ::testing::internal::CaptureStdout();
    desk.start(FwUpdate_First, desk.files.with(pattern(10)));
    desk.finish();
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), c.printed);
    const std::string log = desk.machine.log();
    const auto told = log.substr(0, log.find(" client FwOtaResult 1 0 11"));
    const double took = std::stod(told.substr(told.rfind('\n') + 1)) -
                        static_cast<double>(desk.device->received().back().at.count()) / 1000;
    EXPECT_EQ(Took{std::lround(took)}, 3100) << log;
  }
}

TEST(Firmware, HeartbeatsPauseAndSizesStay) {
  UpdateDesk desk("Wren");
  desk.device->update(Updated::mouse, {.size = 100, .thinking = 2s});
  desk.start(FwUpdate_First, desk.files.with(pattern(100)));
  EXPECT_EQ(desk.hub->GetEffectiveDevice(), 1) << "still live";
  desk.hub->SetDpi(1, 800);
  desk.hub->GetMouseState(1);
  EXPECT_EQ(desk.hub->setMKeyType_Key1(1, MouseMKeyType_HeldButton), SetMKeyType_NotReady);
  desk.finish();
  EXPECT_EQ(
      desk.device->received(0x05).size() + desk.device->received(0x06).size() + desk.device->received(0x0C).size(), 0U);
  EXPECT_TRUE(desk.record.lines("HidDisconnect").empty()) << "eighteen seconds, and not asleep";
  desk.run(1s);
  EXPECT_EQ(desk.device->received(0x05).size(), 1U);

  // The second image alone: totals are those of the first, from the update before.
  desk.fresh();
  const Bytes second = pattern(20, 2);
  desk.device->update(Updated::receiver, {.size = 20});
  desk.start(FwUpdate_Second, "", desk.files.with(second));
  desk.finish();
  EXPECT_EQ(desk.record.lines("OtaProgress"),
            (Lines{"OtaProgress 0 100", "OtaProgress 16 100", "OtaProgress 32 100", "OtaProgress 100 100"}));
  EXPECT_EQ(desk.record.lines("FwOtaResult"), results({"3 8", "0 11"}));
  EXPECT_TRUE(desk.image(Updated::receiver) == second);
  EXPECT_EQ(desk.device->received().back().prefix, 0xF1) << "the last OtaComplete is for the reader's own channel";

  // An update of no known kind, and one of nobody.
  desk.fresh();
  desk.start(static_cast<FwUpdateType>(7), "x", "y");
  desk.hub->StartOTA(9, FwUpdate_First, "x", "");
  desk.hub->StartOTA(-1, FwUpdate_First, "x", "");
  EXPECT_EQ(desk.record.lines(), results({"0 11"}));
}

TEST(Firmware, ATernCountsBothImagesAndListensToTheRightChannel) {
  UpdateDesk desk("Tern");
  desk.device->update(Updated::mouse, {.size = 30});
  desk.device->update(Updated::receiver, {.size = 20, .silentAt = UpdateStep::data});
  desk.start(FwUpdate_Both, desk.files.with(pattern(30)), desk.files.with(pattern(20)));
  desk.run(1s);
  // An answer of the mouse while the receiver is updated.
  desk.device->reply(0x99, {0, 0, 0, 20, 1, 0});
  desk.run(1s);
  EXPECT_EQ(desk.record.lines("OtaProgress"), (Lines{"OtaProgress 0 50", "OtaProgress 30 50", "OtaProgress 30 50"}));
  desk.device->send({0x05, 0xFF, 0xF0, 0xFE, 0xC0, 0x99, 6, 0, 0, 0, 20, 1, 0, 0xEF});
  desk.finish();
  EXPECT_EQ(desk.record.lines("OtaProgress").back(), "OtaProgress 50 50");
  EXPECT_EQ(desk.record.lines("FwOtaResult"), results({"2 8", "3 8", "0 11"}));
}

TEST(Firmware, FilesThatCannotBeReadLeaveTheirImageEmpty) {
  UpdateDesk desk("Wren");
  const std::string huge = (desk.files / "huge.bin").string();
  std::ofstream(huge).put('x');
  std::filesystem::resize_file(huge, std::uintmax_t{3} << 30);  // sparse
  for (const std::string& file :
       {std::string(), (desk.files / "missing.bin").string(), desk.files.with({}), (desk.files / ".").string(), huge}) {
    SCOPED_TRACE(file);
    desk.fresh();
    desk.device->update(Updated::mouse, {.refuseAt = UpdateStep::open});
    desk.start(FwUpdate_First, file);
    desk.finish();
    EXPECT_EQ(desk.frames(), "f1:08 f1:0a");
    EXPECT_EQ(desk.record.lines("FwOtaResult"), results({"2 4", "0 11"}));
  }
}

TEST(Firmware, OfAFileThatHasLessThanItSaysOnlyThatIsSent) {
  const std::string file = "/sys/class/net/lo/mtu";  // says that it has 4096 bytes
  if (!std::filesystem::exists(file)) GTEST_SKIP() << "every file here has what it says";
  std::ifstream text(file);
  const Bytes whole{std::istreambuf_iterator<char>(text), {}};
  UpdateDesk desk("Wren");
  desk.device->update(Updated::mouse, {.size = whole.size()});
  desk.start(FwUpdate_First, file);
  desk.finish();
  EXPECT_EQ(desk.device->received(0x08).front().payload, whole);
  EXPECT_EQ(desk.image(Updated::mouse), whole);
}

TEST(Firmware, WithoutAThreadThatSeesTimeOutsNoneIsBegun) {
  UpdateDesk desk("Wren");
  desk.device->update(Updated::mouse, {.size = 10});
  desk.machine.faults().fail("_beginthreadex", 1);
  desk.start(FwUpdate_First, desk.files.with(pattern(10)));
  EXPECT_EQ(desk.record.lines("FwOtaResult"), results({"0 11"}));
  EXPECT_EQ(desk.device->firmware(Updated::mouse).image(), std::vector<std::uint8_t>{});
  desk.machine.faults().repair();
  desk.start(FwUpdate_First, desk.files.with(pattern(10)));
  desk.finish();
  EXPECT_EQ(desk.record.lines("FwOtaResult"), results({"0 11", "2 8", "0 11"}));
}

TEST(Firmware, RequestsThatLeadOutOfTheImageGetNothing) {
  for (const std::int64_t offset :
       {std::int64_t{-1}, std::int64_t{-0x80000000LL}, std::int64_t{0x7FFFFFFF}, std::int64_t{51}}) {
    UpdateDesk desk("Tern");
    desk.device->update(Updated::mouse, {.size = 50, .strangeRequests = {offset}});
    desk.start(FwUpdate_First, desk.files.with(pattern(50)));
    desk.finish();
    EXPECT_EQ(desk.frames().substr(0, 12), "f1:07 f1:08" + hex(pattern(50)).substr(0, 1)) << offset;
    EXPECT_TRUE(desk.device->received(0x09).empty()) << offset;
    EXPECT_EQ(desk.record.lines("FwOtaResult"), results({"2 5", "0 11"})) << offset;
    desk.device->update(Updated::mouse, {.size = 50});
    desk.device->update(Updated::receiver, {.size = 50, .strangeRequests = {offset}});
    desk.start(FwUpdate_Both, desk.files.with(pattern(50)), desk.files.with(pattern(50)));
    desk.run(10s);
    EXPECT_EQ(desk.record.lines("FwOtaResult"), results({"2 5", "0 11", "2 8", "3 5", "0 11"})) << offset;
    // What the client is told of the second image wraps.
    const auto done = static_cast<std::int32_t>(static_cast<std::uint32_t>(50 + offset));
    EXPECT_EQ(desk.record.lines("OtaProgress").back(), "OtaProgress " + std::to_string(done) + " 100") << offset;
  }
  const struct {
    const char* model;
    sim::UpdateScript script;
    std::size_t answers;
    const char* result;
  } cases[] = {
      {"Tern", {.size = 500, .chunk = 255}, 0, "2 5"},  // more than the output report has room for
      {"Tern", {.size = 50, .chunk = 0, .strangeRequests = {10}}, 0, "2 8"},  // no bytes at all count as the end
      {"Wren", {.size = 33, .strangeRequests = {0xFFFF * 16}}, 1, "2 8"},  // any index: at most the completion is sent
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    UpdateDesk desk(c.model);
    desk.device->update(Updated::mouse, c.script);
    desk.start(FwUpdate_First, desk.files.with(pattern(c.script.size)));
    desk.finish();
    EXPECT_EQ(desk.device->received(0x09).size(), c.answers);
    EXPECT_EQ(desk.record.lines("FwOtaResult"), results({c.result, "0 11"}));
  }
  // The size of an earlier image, without its bytes.
  for (const char* model : {"Wren", "Heron Plus", "Tern"}) {
    UpdateDesk desk(model);
    desk.device->update(Updated::mouse, {.size = 1000});
    desk.start(FwUpdate_First, desk.files.with(pattern(1000)));
    desk.finish();
    desk.fresh();
    desk.start(FwUpdate_First, (desk.files / "missing.bin").string());
    desk.finish();
    EXPECT_TRUE(desk.device->received(0x09).empty()) << model;
    EXPECT_EQ(desk.record.lines("FwOtaResult"), results({"2 5", "0 11"})) << model;
  }
  // A Zh frame of 48 bytes for a report of 40.
  Desk desk;
  auto plus = desk.make("Heron Plus");
  plus->outputLength = 40;
  desk.machine.plug(plus);
  desk.open();
  desk.run(3s);
  Folder files;
  desk.hub->StartOTA(1, FwUpdate_First, files.with(pattern(100)), "");
  desk.run(8s);
  EXPECT_EQ(desk.record.lines("FwOtaResult"), results({"2 5", "0 11"}));
}

TEST(Firmware, ADeviceThatIsPulledOutEndsItsUpdateWithResults) {
  for (const char* model : {"Wren", "Heron Plus", "Tern"}) {
    for (const UpdateStep step : {UpdateStep::prepare, UpdateStep::open, UpdateStep::data, UpdateStep::complete}) {
      if (step == UpdateStep::prepare && model != std::string("Tern")) continue;
      UpdateDesk desk(model);
      desk.device->update(Updated::mouse, {.size = 50, .unplugAt = step});
      desk.start(FwUpdate_Both, desk.files.with(pattern(50)), desk.files.with(pattern(50)));
      desk.finish(10s);
      EXPECT_EQ(desk.record.lines("HidDisconnect"), Lines{"HidDisconnect 1"});
      EXPECT_EQ(desk.record.lines("FwOtaResult"), results({"0 0", "0 11"}));
      EXPECT_EQ(desk.machine.balance().threads, 1U) << "discovery alone";
      // Back again: as if nothing had been.
      desk.machine.plug(desk.device);
      desk.run(3s);
      desk.fresh();
      desk.device->update(Updated::mouse, {.size = 50});
      desk.start(FwUpdate_First, desk.files.with(pattern(50)));
      desk.finish(10s);
      EXPECT_EQ(desk.record.lines("FwOtaResult"), (Lines{"FwOtaResult 2 2 8", "FwOtaResult 2 0 11"}));
    }
  }
}

TEST(Firmware, AnUpdateThatMeetsTheEndOfItsDeviceIsOneOfNoImage) {
  for (std::uint64_t seed = 1; seed <= seeds(60) && !HasFailure(); ++seed) {
    UpdateDesk desk("Wren", sim::Link::usb, {.seed = seed});
    auto hand = desk.machine.spawn([&] { desk.machine.unplug(desk.device); });
    desk.start(FwUpdate_First, desk.files.with(pattern(40)));
    hand.join();
    desk.run(5s);
    EXPECT_EQ(desk.record.lines("FwOtaResult 1 2"), Lines{}) << "seed " << seed;
  }
}

TEST(Firmware, AClientMayStartAgainFromItsCallbackOrHaveNone) {
  UpdateDesk desk("Wren");
  const std::string file = desk.files.with(pattern(33));
  desk.device->update(Updated::mouse, {.size = 33});
  int ends = 0;
  desk.record.during = [&](const std::string&) {
    if (desk.over() && ++ends < 4) desk.start(FwUpdate_First, file);
  };
  desk.start(FwUpdate_First, file);
  desk.run(5s);
  EXPECT_EQ(ends, 4);
  desk.hub->SetCallback_FwOtaResult(nullptr, nullptr);
  desk.start(FwUpdate_First, file);
  desk.run(5s);
  EXPECT_EQ(desk.device->firmware(Updated::mouse).completed(), 5U);
  EXPECT_EQ(desk.machine.balance().threads, 4U);
}

// ---- A start while another update runs: the later one wins whole ----

TEST(Firmware, ARetryFromAResultIsTheUpdateThatRuns) {
  // From the callback itself, and from another thread while the callback is still running. After a step without an
  // answer on each of its stages.
  struct Case {
    const char* model;
    UpdateStep silentAt;
    const char* result;
  };
  for (const Case& it : {Case{"Tern", UpdateStep::prepare, "2 1"}, Case{"Wren", UpdateStep::open, "2 3"},
                         Case{"Swift", UpdateStep::data, "2 5"}, Case{"Tern", UpdateStep::data, "2 5"}}) {
    for (const bool fromCallback : {true, false}) {
      SCOPED_TRACE(std::string(it.model) + (fromCallback ? " callback" : " other thread"));
      UpdateDesk desk(it.model);
      const Bytes image = pattern(100, 7);
      const std::string file = desk.files.with(image);
      desk.device->update(Updated::mouse, {.size = 60, .silentAt = it.silentAt});
      const auto again = [&] {
        desk.device->update(Updated::mouse, {.size = 100});
        desk.start(FwUpdate_First, file);
      };
      bool inside = false;
      desk.record.during = [&](const std::string&) {
        if (desk.record.last() != std::string("FwOtaResult 1 ") + it.result) return;
        if (fromCallback) again();
        inside = true;
        desk.run(200ms);
      };
      desk.start(FwUpdate_Both, desk.files.with(pattern(60)), desk.files.with(pattern(60)));
      ASSERT_TRUE(desk.machine.waitFor([&] { return inside; }, 10s));
      if (!fromCallback) again();
      desk.finish(20s);
      desk.run(5s);
      EXPECT_EQ(desk.record.lines("FwOtaResult"), results({it.result, "2 8", "0 11"}));
      EXPECT_EQ(desk.image(Updated::mouse), image);
      EXPECT_EQ(desk.machine.balance().threads, 4U);
    }
  }
}

TEST(Firmware, AStartFromItsProgressAwaitsItsOwnStage) {
  UpdateDesk desk("Wren");
  const std::string file = desk.files.with(pattern(40));
  desk.device->update(Updated::mouse, {.size = 40});
  bool again = false;
  desk.record.during = [&](const std::string&) {
    if (desk.record.last() != "OtaProgress 16 40" || std::exchange(again, true)) return;
    desk.device->update(Updated::mouse, {.size = 40, .silentAt = UpdateStep::open});
    desk.start(FwUpdate_First, file);
  };
  desk.start(FwUpdate_First, file);
  desk.finish(20s);
  EXPECT_EQ(desk.record.lines("FwOtaResult"), results({"2 3", "0 11"}));
}

TEST(Firmware, AStartThatMeetsATimeOutOrAnotherStartWinsWhole) {
  for (std::uint64_t seed = 1; seed <= seeds(300) && !::testing::Test::HasFailure(); ++seed) {
    const char* const models[] = {"Wren", "Swift", "Tern"};
    SCOPED_TRACE("seed " + std::to_string(seed));
    UpdateDesk desk(models[seed % 3], sim::Link::usb, {.seed = seed});
    std::mt19937_64 random(seed);
    const Bytes image = pattern(90, 3);
    const std::string before = desk.files.with(pattern(50));
    const std::string file = desk.files.with(image);
    for (const Updated which : {Updated::mouse, Updated::receiver}) desk.device->update(which, {.size = 50});
    const UpdateStep silentAt = seed % 3 == 2 ? UpdateStep::prepare : UpdateStep::open;
    desk.device->update(Updated::mouse, {.size = 50, .silentAt = silentAt});
    desk.start(FwUpdate_Both, before, before);
    desk.run(3100ms + std::chrono::microseconds(static_cast<int>(random() % 3000) - 1000));
    desk.device->update(Updated::mouse, {.size = 90});
    // Two at the same time: either wins, and one end is told.
    std::optional<sim::Machine::Spawned> other;
    if (seed % 2 == 0) other.emplace(desk.machine.spawn([&] { desk.start(FwUpdate_First, file); }));
    desk.start(FwUpdate_First, file);
    if (other) other->join();
    EXPECT_EQ(desk.machine.balance().threads, 5U) << "they share one wait thread";
    desk.record.clear();
    desk.finish(30s);
    desk.run(5s);
    const Lines told = desk.record.lines("FwOtaResult");
    if (seed % 2 != 0) {
      EXPECT_EQ(told, results({"2 8", "0 11"}));
      EXPECT_EQ(desk.device->firmware(Updated::mouse).image(), image);
    } else {
      // Answers to both are on the wire, and nothing in them tells which is whose: the device may lose its way.
      EXPECT_EQ(told.size(), 2U);
      EXPECT_EQ(told.back(), "FwOtaResult 1 0 11");
    }
    EXPECT_EQ(desk.machine.balance().threads, 4U) << "no wait thread is left";
  }
}

TEST(Firmware, AWriteThatTakesItsTimeIsNoMissingAnswer) {
  for (const char* model : {"Wren", "Heron Plus", "Tern"}) {
    UpdateDesk desk(model);
    const Bytes image = pattern(20);
    desk.device->update(Updated::mouse, {.size = 20});
    desk.device->faults.writeTime = 3500ms;
    const auto begin = desk.milliseconds();
    desk.start(FwUpdate_First, desk.files.with(image));
    EXPECT_LE(desk.milliseconds() - begin, 2000) << "the client does not wait for it";
    desk.finish(60s);
    EXPECT_EQ(desk.record.lines("FwOtaResult"), results({"2 8", "0 11"})) << model;
    EXPECT_EQ(desk.image(Updated::mouse), image);
  }
}

// Ended by any end, or started by a copy that goes.
TEST(Firmware, AnUpdateThatEndsInsideWhatItTellsTellsNothingMore) {
  const struct {
    const char* model;
    const char* line;
    FwUpdateType type = FwUpdate_First;
    std::optional<UpdateStep> silentAt{};
  } cases[] = {{"Wren", "FwOtaResult 1 2 3", FwUpdate_First, UpdateStep::open},
               {"Wren", "FwOtaResult 1 2 8"},
               {"Tern", "FwOtaResult 1 2 8"},
               {"Wren", "FwOtaResult 1 0 11", static_cast<FwUpdateType>(9)},  // on this thread
               {"Tern", "OtaProgress 0 40"},
               {"Wren", "OtaProgress 100 100"}};
  using End = void (*)(std::unique_ptr<CAudioHidCenter> & hub);
  constexpr End kReset = [](auto& hub) { hub.reset(); };
  for (const auto& c : cases) {
    for (const End end : {End{[](auto& hub) { hub->CloseDevice(); }}, End{[](auto& hub) { hub->Release(); }}, kReset}) {
      for (const bool copy : {false, true}) {
        if (copy && end != kReset) continue;
        SCOPED_TRACE(c.line);
        UpdateDesk desk(c.model);
        desk.device->update(Updated::mouse, {.size = 40, .silentAt = c.silentAt});
        auto other = std::make_unique<CAudioHidCenter>(*desk.hub);
        auto& hub = copy ? other : desk.hub;
        bool told = false;
        desk.record.during = [&](const std::string&) {
          if (desk.record.last() != c.line || std::exchange(told, true)) return;
          EXPECT_LE(timeOf(desk, [&] { end(hub); }), 20);
          desk.record.clear();
        };
        CAudioHidCenter* starter = hub.get();
        starter->StartOTA(1, c.type, desk.files.with(pattern(40)), "");
        desk.run(8s);
        EXPECT_TRUE(told);
        EXPECT_EQ(desk.record.lines(copy ? "FwOtaResult" : ""), Lines{});
      }
    }
  }
}

TEST(Firmware, ARequestThatWaitsForItsTurnIsDroppedForALaterUpdate) {
  UpdateDesk desk("Wren");
  const std::string files[] = {desk.files.with(pattern(16, 1)), desk.files.with(pattern(16, 2)),
                               desk.files.with(pattern(16, 3))};
  desk.device->faults.writeTime = 100ms;
  std::vector<sim::Machine::Spawned> clients;
  for (const std::string& file : files) {
    clients.push_back(desk.machine.spawn([&] { desk.start(FwUpdate_First, file); }));
    desk.run(20ms);
  }
  for (auto& client : clients) client.join();
  EXPECT_EQ(desk.frames(), "f1:08" + hex(pattern(16, 1)) + " f1:08" + hex(pattern(16, 3)));
  desk.run(10s);
}

TEST(Firmware, NoFrameOfAnUpdateFollowsTheFirstOneOfALater) {
  for (std::uint64_t seed = 1; seed <= seeds(30) && !HasFailure(); ++seed) {
    UpdateDesk desk("Wren", sim::Link::usb, {.seed = seed});
    const std::string file = desk.files.with(pattern(40));
    desk.device->update(Updated::mouse, {.size = 40, .endsWithZero = true});
    const HANDLE finished = os::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    desk.record.during = [&](const std::string&) {
      if (desk.record.last() == "OtaProgress 100 100") os::SetEvent(finished);
    };
    auto client = desk.machine.spawn([&] {
      os::WaitForSingleObject(finished, INFINITE);
      desk.start(FwUpdate_First, file);
    });
    desk.start(FwUpdate_First, file);
    client.join();
    desk.run(1ms);  // less than the device needs for an answer
    EXPECT_EQ(desk.device->received().back().code, 0x08) << "seed " << seed << ": " << desk.frames();
    desk.run(10s);
    os::CloseHandle(finished);
  }
}

TEST(Firmware, AnAnswerThatMeetsItsTimeOutIsOneOrTheOther) {
  std::size_t refused = 0, missed = 0;
  for (std::uint64_t seed = 1; seed <= seeds(120) && !HasFailure(); ++seed) {
    UpdateDesk desk("Wren", sim::Link::usb, {.seed = seed});
    const std::chrono::milliseconds thinking(3095 + seed % 8);
    desk.device->update(Updated::mouse, {.size = 40, .thinking = thinking, .refuseAt = UpdateStep::open});
    desk.start(FwUpdate_First, desk.files.with(pattern(40)));
    desk.run(3200ms);
    const Lines told = desk.record.lines("FwOtaResult");
    refused += told[0] == "FwOtaResult 1 2 4";
    missed += told[0] == "FwOtaResult 1 2 3";
    EXPECT_EQ(std::count(told.begin(), told.end(), "FwOtaResult 1 2 4") +
                  std::count(told.begin(), told.end(), "FwOtaResult 1 2 3"),
              1)
        << "seed " << seed;
  }
  EXPECT_GT(refused, 0U);
  EXPECT_GT(missed, 0U);
}

// Clients that start updates at any moment and from anywhere, a device that refuses, falls silent, goes and comes.
void updateClients(Trial& random) {
  const char* const models[] = {"Wren", "Swift", "Tern"};
  bool listens = true;
  UpdateDesk desk(models[random() % 3], sim::Link::usb, random.machine);
  const std::string file = desk.files.with(pattern(70));
  const auto behave = [&](bool well) {
    for (const Updated which : {Updated::mouse, Updated::receiver}) {
      sim::UpdateScript script{.size = 70, .thinking = std::chrono::milliseconds(random() % 30)};
      const UpdateStep steps[] = {UpdateStep::prepare, UpdateStep::open, UpdateStep::data, UpdateStep::complete};
      if (!well && random() % 3 == 0) script.silentAt = steps[random() % 4];
      if (!well && random() % 3 == 0) script.refuseAt = steps[random() % 4];
      if (!well && random() % 4 == 0) script.thinking = std::chrono::milliseconds(3090 + random() % 20);
      if (!well && random() % 4 == 0) script.endsAborts = false;
      desk.device->update(which, script);
    }
  };
  desk.record.during = [&](const std::string& message) {
    if (!listens) return;
    if (message != "FwOtaResult") return;
    if (random() % 3 == 0) desk.run(std::chrono::milliseconds(random() % 100));
    if (random() % 4 == 0) desk.start(FwUpdate_First, file);
  };
  behave(false);
  std::vector<sim::Machine::Spawned> clients(2);
  for (auto& spawned : clients) {
    spawned = desk.machine.spawn([&] {
      for (int n = 0; n < 3 && desk.hub; ++n) {
        desk.start(static_cast<FwUpdateType>(random() % 3 + 1), file, file);
        desk.run(std::chrono::milliseconds(random() % 4000));
        if (random() % 2 == 0) behave(false);
      }
    });
  }
  if (random() % 5 == 4) {
    desk.run(std::chrono::milliseconds(random() % 6000));
    auto hand = desk.machine.spawn([&] { desk.machine.unplug(desk.device); });
    desk.start(FwUpdate_First, file);
    hand.join();
    desk.run(std::chrono::milliseconds(random() % 1500));
    desk.machine.plug(desk.device);
  }
  const bool early = random() % 7 == 6;
  if (early) {
    desk.run(std::chrono::milliseconds(random() % 4000));
    desk.close();
  }
  for (auto& client : clients) client.join();
  if (early) {
    EXPECT_EQ(desk.machine.balance().threads, 0U) << desk.machine.waiting();
    return;
  }
  desk.run(60s);
  // Whatever has been: the next one is told of, and arrives.
  listens = false;
  desk.fresh();
  behave(true);
  desk.start(FwUpdate_Both, file, file);
  desk.finish(60s);
  desk.run(5s);
  const std::string each = "FwOtaResult " + std::to_string(desk.hub->GetEffectiveDevice());
  EXPECT_EQ(desk.record.lines("FwOtaResult"), (Lines{each + " 2 8", each + " 3 8", each + " 0 11"}));
  EXPECT_EQ(desk.machine.balance().threads, 4U) << desk.machine.waiting();
  EXPECT_EQ(desk.machine.forcedEnds(), 0U);
}

const Scenario updates("updates", "update", updateClients);

TEST(Firmware, UpdatesAndRetriesAtRandomEndWithTheLastOne) { explore(updates, 150); }

}  // namespace
