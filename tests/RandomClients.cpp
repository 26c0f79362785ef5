#include "tests/RandomClients.h"

#include <atomic>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace {

// Null once it is going: no call may begin from then on.
std::atomic<CAudioHidCenter*> theHub;

// What a client thread may do at any moment, a call of the hub's each; every operation of the hub's.
using Operation = std::function<void(CAudioHidCenter&, Trial&)>;
int anyDevice(Trial& random) { return static_cast<int>(random() % 5) - 1; }
const Operation kOperations[] = {
    [](auto& hub, auto& random) { hub.SetDpi(anyDevice(random), 800); },
    [](auto& hub, auto& random) { hub.GetMouseState(anyDevice(random)); },
    [](auto& hub, auto& random) { hub.GetDongleState(anyDevice(random)); },
    [](auto& hub, auto& random) {
      unsigned char url[] = "vox.example/a";
      hub.SetDownloadURL(anyDevice(random), url, 13);
    },
    [](auto& hub, auto& random) { hub.getMKeyTypeList_Key1(anyDevice(random)); },
    [](auto& hub, auto& random) { hub.setMKeyType_Key1(anyDevice(random), static_cast<MouseMKeyType>(random() % 5)); },
    [](auto& hub, auto& random) { hub.setMKeyType_Key2(anyDevice(random), MouseMKeyType_Screenshot); },
    [](auto& hub, auto& random) { hub.ChooseWorkHidDevice(anyDevice(random)); },
    [](auto& hub, auto&) { hub.OpenHidRecord(); },
    [](auto& hub, auto&) { hub.CloseHidRecord(); },
    [](auto& hub, auto& random) {
      hub.StartOTA(anyDevice(random), static_cast<FwUpdateType>(random() % 4 + 1), "/nowhere", "");
    },
    [](auto& hub, auto&) {
      std::vector<int> numbers;
      std::vector<std::wstring> names;
      hub.GetValidHidList(numbers, names);
      EXPECT_EQ(numbers.size(), names.size());
    },
    [](auto& hub, auto& random) { hub.GetHidMouseType(anyDevice(random)); },
    [](auto& hub, auto&) { hub.RecordDeviceIsHidDevice(L"Microphone (VoxMouse Wren)"); },
    [](auto& hub, auto&) { hub.GetButtonState_Left(); },
    [](auto& hub, auto&) { hub.LeftKeyDown_Up(); },
    [](auto& hub, auto&) { hub.WorkHidIsWren(); },
    [](auto& hub, auto&) { hub.IsConnect(); },
    [](auto& hub, auto&) { hub.SetCallback_DpiSet(nullptr, nullptr); },
};
// It goes on when the hub has gone.
const Operation kCopy = [](auto& hub, auto& random) {
  CAudioHidCenter copy(hub);
  if (CAudioHidCenter* now = theHub; now && random() % 2 == 1) copy = *now;
  copy.GetMouseState(-1);
};
const Operation kStops[] = {
    [](auto& hub, auto&) { hub.CloseDevice(); },
    [](auto& hub, auto&) { hub.Release(); },
    [](auto& hub, auto&) { hub.OpenDevice(nullptr, nullptr); },
    [](auto& hub, auto&) { hub.ThreadIsClosed(); },
};
// The most that one may take, in ms: two seconds for what writes, and what is said of those that wait for each device.
constexpr std::int64_t kLongest = 3 * 3500;

// The devices, and what happens to them.
class Hands {
 public:
  Hands(Desk& desk, Trial& random, bool quick) : desk_(desk), random_(random), quick_(quick) {
    static const char* const models[] = {"Wren", "Tern", "Swift", "Heron Plus", "Finch"};
    for (std::uint64_t i = 0, count = 1 + random() % 3; i < count; ++i) {
      const std::string model = models[random() % 5];
      const bool usb = model != "Finch" && random() % 2 == 0;
      devices_.push_back(desk.make(model, usb ? sim::Link::usb : sim::Link::bluetooth));
      if (random() % 3 == 0) devices_.back()->faults.writeTime = random.within(40);
      if (random() % 16 == 15) devices_.back()->faults.shortRead = 12;
      desk.machine.plug(devices_.back());
    }
  }
  void act() {
    const auto& device = devices_[static_cast<std::size_t>(random_() % devices_.size())];
    switch (random_() % 8) {
      case 0:
        device->plugged() ? desk_.machine.unplug(device) : desk_.machine.plug(device);
        break;
      case 1:
        desk_.machine.unplug(device);
        desk_.machine.plug(device);
        break;
      case 2:
        desk_.machine.locked([&] {
          device->faults.writeTime = quick_ ? 300ms : 5s;
          device->faults.ignoreCancel = random_() % 2 == 0;
        });
        break;
      case 3:
        device->answer(0, {.silent = true, .times = 3});
        break;
      case 4:
        device->sleep(random_() % 2 == 0);
        break;
      default:
        device->reportPower(1);
        break;
    }
  }
  void unplugAll() {
    for (const auto& device : devices_) desk_.machine.unplug(device);
  }

 private:
  Desk& desk_;
  Trial& random_;
  const bool quick_;
  std::vector<std::shared_ptr<sim::VirtualMouse>> devices_;
};

}  // namespace

void hubClients(Trial& random) {
  const bool real = random.machine.clock == sim::Clock::realTime;
  const std::int64_t bound = kBound + (random.coarse() ? 32 : real ? 500 : 0);
  Desk desk(random.machine);
  const auto pause = [&](std::uint64_t milliseconds) {
    desk.run(random.within(real ? milliseconds / 5 : milliseconds));
  };
  Hands hands(desk, random, real);

  // Clients act inside callbacks, too.
  theHub = desk.hub.get();
  desk.hub->SetCallback_PowerReport(reinterpret_cast<void*>(+[](int, int, void* argument) {
                                      auto& dice = *static_cast<Trial*>(argument);
                                      CAudioHidCenter* mine = theHub;
                                      if (!mine) return;
                                      const auto choice = dice() % 28;
                                      if (choice < std::size(kOperations)) kOperations[choice](*mine, dice);
                                      if (choice == 27) kStops[dice() % 3](*mine, dice);
                                    }),
                                    &random);
  desk.open();
  if (real) desk.run(random.within(1500));  // also before, and just when, the devices are found

  std::atomic<int> inside{0};  // operations of these
  std::vector<sim::Machine::Spawned> clients;
  for (std::uint64_t i = 0, count = 2 + random() % 2; i < count; ++i) {
    clients.push_back(desk.machine.spawn([&] {
      for (int n = 0; n < 10; ++n) {
        pause(700);
        CAudioHidCenter* hub = theHub;
        if (!hub) return;
        const bool stops = random() % 16 == 15;
        const auto choice = random() % (std::size(kOperations) + 1);
        const bool copies = !stops && choice == std::size(kOperations);
        const Operation& operation = stops ? kStops[choice % 4] : copies ? kCopy : kOperations[choice];
        inside += !copies;
        EXPECT_LE(timeOf(desk, [&] { operation(*hub, random); }), stops ? bound : kLongest);
        inside -= !copies;
      }
    }));
  }
  for (int n = 0; n < 6; ++n) {
    pause(900);
    hands.act();
  }
  const auto end = random() % 4;
  const auto stop = [&](auto&& action) { EXPECT_LE(timeOf(desk, action), bound) << "end " << end; };
  const auto leave = [&] {
    for (auto& client : std::exchange(clients, {})) client.join();
  };
  if (end == 0) stop([&] { desk.hub->CloseDevice(); });
  if (end <= 1) stop([&] { desk.hub->Release(); });
  theHub = nullptr;  // who looks now finds none
  if (real) leave();
  stop([&] { desk.hub.reset(); });
  desk.run(1ms);  // for calls that had only just begun
  EXPECT_EQ(inside, 0) << "whoever was inside has come out";
  desk.record.clear();
  leave();
  hands.unplugAll();
  desk.run(real ? 400ms : 6s);  // what drivers have kept has come back
  EXPECT_EQ(desk.record.lines(), std::vector<std::string>{}) << "nobody is told any more";
  EXPECT_EQ(desk.machine.balance().threads, 0U) << desk.machine.waiting();
  EXPECT_EQ(desk.machine.forcedEnds(), 0U);
}
