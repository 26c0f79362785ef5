// A desk for tests: a simulated machine, the hub, and a record of everything that reaches the client.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <concepts>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "VoxDevice/VoxDevice.h"
#include "sim/Machine.h"
#include "sim/devices/Mice.h"

using namespace std::chrono_literals;

using Lines = std::vector<std::string>;

// What the client has been told, a line each: "MouseState 1 2 2 1 1600 80", "Log 43 ...", "HidConnect 1", ...
class Record : public VoxMessageSink {
 public:
  void add(const std::string& line);
  // The same, and what the client does inside it. It may be ended there, and leaves nothing.
  void hear(const char* what, std::string line) {
    add(std::exchange(line, {}));
    tell(what);
  }
  std::vector<std::string> lines();
  // Those that begin with `beginning`.
  std::vector<std::string> lines(const std::string& beginning);
  std::string last();
  void clear();
  // What a client does inside its messages; called after the line is there, with "HidConnect", "Log 43", ...
  std::function<void(const std::string&)> during;

  void Log(const wchar_t* text, LogType type) override;
  void DebugLog(const wchar_t* text, LogType type) override;
  void MainWndWork(UserWorkType work) override;
  void Tray(const wchar_t* text, VoxTrayParams parameters) override;
  void HidConnect(int device) override;
  void HidDisconnect(int device) override;
  void MKeyTypeSet(int device, int key, const unsigned char* types, int length) override;
  void OtaProgress(int done, int total) override;
  void MainMenu(MainMenuType menu) override;
  void PostMainMenu(MainMenuType menu) override;

 private:
  void say(const char* what, int value);
  void tell(const std::string& message) {
    if (during) during(message);
  }

  std::mutex mutex_;
  std::vector<std::string> lines_;
};

std::string hex(const std::vector<std::uint8_t>& bytes);
// What has arrived at a device: prefix, code and payload of each; of what is drawn at random, the length alone.
std::string frames(const std::vector<sim::HostFrame>& received);

// Owns the machine, the hub and the record; checks at its end that nothing is left open and no rule of the system's was
// broken.
class Desk {
 public:
  explicit Desk(sim::MachineOptions options = {});
  ~Desk();
  Desk(const Desk&) = delete;
  Desk& operator=(const Desk&) = delete;

  // Plugs a device in and waits until it is announced and has been asked for its state.
  std::shared_ptr<sim::VirtualMouse> connect(const std::string& model, sim::Link link = sim::Link::usb);
  // The first one, with which the hub is opened.
  std::shared_ptr<sim::VirtualMouse> openWith(const std::string& model, sim::Link link = sim::Link::usb) {
    open();
    return connect(model, link);
  }
  std::shared_ptr<sim::VirtualMouse> make(const std::string& model, sim::Link link = sim::Link::usb);
  void open() { hub->OpenDevice(reinterpret_cast<void*>(&Desk::onAudio), this); }
  void run(sim::Time time) { machine.sleep(time); }
  // A new hub with every callback, in place of the one before.
  void makeHub(std::unique_ptr<CAudioHidCenter> made = std::make_unique<CAudioHidCenter>());
  // CloseDevice and Release, and no hub any more.
  void close();
  std::vector<std::int16_t> pcm();
  std::int64_t milliseconds() { return machine.now().count() / 1000; }

  // What a callback of the hub's is given.
  struct Teller {
    Record& record;
    const char* name;
  };
  void* teller(const char* name) { return &tellers_.emplace_back(Teller{record, name}); }

  sim::Machine machine;
  sim::Balance leftOpen;  // what is left at the end by design
  Record record;
  std::unique_ptr<CAudioHidCenter> hub;
  std::mutex audioMutex;
  std::vector<int> deliveries;  // byte counts of the audio callback; 0 is the end mark
  std::vector<unsigned char> audio;

 private:
  static void onAudio(const unsigned char* data, int byteCount, void* desk);
  std::deque<Teller> tellers_;
  int instances_ = 0;
};

struct ModelOnLink {
  const char* model;
  sim::Link link;
};
std::vector<ModelOnLink> everyModelOnEachLink();

constexpr std::int64_t kBound = 2000;  // ms in which everything ends

// With VOXDEVICE_COARSE_TIMER in the environment, waits with a limit end at multiples of 15.625 ms, as on a real
// system, and GetTickCount begins anew after four seconds, as after 49 days.
bool hasCoarseTimer();

// Milliseconds that something took; up to two periods more where the timer is coarse.
struct Took {
  std::int64_t milliseconds;
  operator std::int64_t() const { return milliseconds; }
  static std::int64_t late() { return hasCoarseTimer() ? 32 : 0; }
  friend bool operator==(Took took, std::integral auto expected) {
    return took.milliseconds >= expected && took <= expected;
  }
  friend bool operator<=(Took took, std::integral auto bound) { return took.milliseconds <= bound + late(); }
};

// Runs `action`, and returns how long it took.
Took timeOf(Desk& desk, const std::function<void()>& action);
