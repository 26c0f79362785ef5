#include "tests/Desk.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "sim/Text.h"

namespace {

template <class... Values>
std::string line(const char* name, Values... values) {
  std::ostringstream text;
  text << name;
  ((text << ' ' << values), ...);
  return text.str();
}

// A callback of the hub's that tells the record of its arguments.
template <class... Arguments>
void* slot() {
  return reinterpret_cast<void*>(+[](Arguments... arguments, void* to) {
    auto& [record, name] = *static_cast<Desk::Teller*>(to);
    record.hear(name, line(name, static_cast<int>(arguments)...));
  });
}

}  // namespace

std::string hex(const std::vector<std::uint8_t>& bytes) {
  std::string text;
  for (const std::uint8_t value : bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    text += digits[value >> 4];
    text += digits[value & 15];
  }
  return text;
}

std::string frames(const std::vector<sim::HostFrame>& received) {
  std::string text;
  for (const sim::HostFrame& frame : received) {
    const std::string prefix = frame.prefix == 0 ? "" : hex({frame.prefix}) + ":";
    text += (text.empty() ? "" : " ") + prefix + hex({frame.code}) +
            (frame.code == 0x0F ? "(" + std::to_string(frame.payload.size()) + ")" : hex(frame.payload));
  }
  return text;
}

void Record::add(const std::string& text) {
  {
    const std::lock_guard lock(mutex_);
    lines_.push_back(text);
  }
  sim::Machine::current().note("client " + text);
}

std::vector<std::string> Record::lines() {
  const std::lock_guard lock(mutex_);
  return lines_;
}

std::vector<std::string> Record::lines(const std::string& beginning) {
  std::vector<std::string> result = lines();
  std::erase_if(result, [&](const std::string& text) { return text.rfind(beginning, 0) != 0; });
  return result;
}

std::string Record::last() {
  const std::lock_guard lock(mutex_);
  return lines_.empty() ? std::string() : lines_.back();
}

void Record::clear() {
  const std::lock_guard lock(mutex_);
  lines_.clear();
}

void Record::Log(const wchar_t* text, LogType type) {
  add(line("Log", static_cast<int>(type), sim::utf8(text)));
  tell("Log " + std::to_string(static_cast<int>(type)));
}
void Record::DebugLog(const wchar_t* text, LogType type) {
  add(line("DebugLog", static_cast<int>(type), sim::utf8(text)));
  tell("DebugLog");
}
void Record::Tray(const wchar_t* text, VoxTrayParams parameters) {
  add(line("Tray", static_cast<int>(parameters), sim::utf8(text)));
  tell("Tray");
}
void Record::say(const char* what, int value) { hear(what, line(what, value)); }
void Record::MainWndWork(UserWorkType work) { say("MainWndWork", work); }
void Record::HidConnect(int device) { say("HidConnect", device); }
void Record::HidDisconnect(int device) { say("HidDisconnect", device); }
void Record::MainMenu(MainMenuType menu) { say("MainMenu", menu); }
void Record::PostMainMenu(MainMenuType menu) { say("PostMainMenu", menu); }
void Record::MKeyTypeSet(int device, int key, const unsigned char* types, int length) {
  add(line("MKeyTypeSet", device, key, hex({types, types + length})));
}
void Record::OtaProgress(int done, int total) { hear("OtaProgress", line("OtaProgress", done, total)); }

namespace {

sim::MachineOptions withTimer(sim::MachineOptions options) {
  if (hasCoarseTimer() && options.clock == sim::Clock::virtualTime) {
    options.timerPeriod = std::chrono::microseconds(15'625);
    if (options.firstTick == sim::MachineOptions{}.firstTick) options.firstTick = DWORD{0} - 4'000;
  }
  return options;
}

}  // namespace

Desk::Desk(sim::MachineOptions options) : machine(withTimer(options)) {
  CPreferences::Instance()->SetVoiceClickTimes(1);
  CPreferences::Instance()->SetDoubleClickTimeInterval_ms(400);
  CPreferences::Instance()->SetVoxButtonLongDown(0);
  CEnvironmentMonitor::SetNet(true);
  CEnvironmentMonitor::SetOsVersion(WindowsVersion_Current);
  CPreferences::Instance()->SetHardWare(HardWare_Mouse);
  CPreferences::Instance()->SetToggleButton(1);
  CDeviceData::Instance()->SetHardwareChecked(true);
  CDeviceData::Instance()->SetHidDeviceKind(HidKind_Mouse);
  CDeviceData::Instance()->SetRecordByName(false);
  CVoxDeviceInfo::Instance()->ClearBluetooth();
  VoxMessage::SetSink(&record);
  machine.install(L"asc_lib.dll", sim::ascLibrary());
  makeHub();
}

void Desk::makeHub(std::unique_ptr<CAudioHidCenter> made) {
  close();
  hub = std::move(made);
  hub->SetCallback_MouseConnect(slot<int, int>(), teller("MouseConnect"));
  hub->SetCallback_VoiceOperate(slot<int, int>(), teller("VoiceOperate"));
  hub->SetCallback_DpiSet(slot<int, int, bool>(), teller("DpiSet"));
  hub->SetCallback_MouseState(slot<int, MouseType, DataChannel, int, int, int>(), teller("MouseState"));
  hub->SetCallback_DongleState(slot<int, MouseType, DataChannel, int, bool>(), teller("DongleState"));
  hub->SetCallback_PowerReport(slot<int, int>(), teller("PowerReport"));
  hub->SetCallback_FwOtaResult(slot<int, DataChannel, FwUpdateState>(), teller("FwOtaResult"));
  hub->SetCallback_DownloadUrl(slot<int, bool>(), teller("DownloadUrl"));
}

Desk::~Desk() {
  close();
  VoxMessage::SetSink(nullptr);
  EXPECT_EQ(machine.balance(), leftOpen);
  EXPECT_EQ(machine.misuses(), std::vector<std::string>{});
}

void Desk::close() {
  if (!hub) return;
  hub->CloseDevice();
  hub->Release();
  hub.reset();
}

std::shared_ptr<sim::VirtualMouse> Desk::make(const std::string& model, sim::Link link) {
  return sim::makeMouse(model, link, "7&1a2b3c" + std::to_string(10 + instances_++) + "&0&0000");
}

std::shared_ptr<sim::VirtualMouse> Desk::connect(const std::string& model, sim::Link link) {
  auto device = make(model, link);
  machine.plug(device);
  const auto announced = record.lines("HidConnect").size();
  EXPECT_TRUE(machine.waitFor([&] { return record.lines("HidConnect").size() > announced; }, 5s));
  run(400ms);
  return device;
}

std::vector<std::int16_t> Desk::pcm() {
  const std::lock_guard lock(audioMutex);
  std::vector<std::int16_t> samples(audio.size() / 2);
  if (!samples.empty()) std::memcpy(samples.data(), audio.data(), samples.size() * 2);
  return samples;
}

void Desk::onAudio(const unsigned char* data, int byteCount, void* desk) {
  auto* self = static_cast<Desk*>(desk);
  const std::lock_guard lock(self->audioMutex);
  self->deliveries.push_back(byteCount);
  if (data) self->audio.insert(self->audio.end(), data, data + byteCount);
}

std::vector<ModelOnLink> everyModelOnEachLink() {
  std::vector<ModelOnLink> all;
  for (const sim::ModelSheet& sheet : sim::modelSheets()) {
    if (sheet.usb) all.push_back({sheet.name, sim::Link::usb});
    if (sheet.bluetooth) all.push_back({sheet.name, sim::Link::bluetooth});
  }
  return all;
}

bool hasCoarseTimer() { return std::getenv("VOXDEVICE_COARSE_TIMER") != nullptr; }

Took timeOf(Desk& desk, const std::function<void()>& action) {
  const auto begin = desk.milliseconds();
  action();
  return {desk.milliseconds() - begin};
}
