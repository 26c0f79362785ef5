#include "SimulatedDesk.h"

#include <algorithm>

#include "sim/Text.h"

SimulatedDesk::SimulatedDesk(DeskDescription description, bool virtualTime)
    : description_(std::move(description)),
      machine_({.clock = virtualTime ? sim::Clock::virtualTime : sim::Clock::realTime}) {
  machine_.install(L"asc_lib.dll", sim::ascLibrary());
  for (std::size_t i = 0; i < description_.devices.size(); ++i) {
    const DeskDevice& sheet = description_.devices[i];
    auto device = sim::makeMouse(sheet.model, sheet.link, "7&1a2b3c" + std::to_string(10 + i) + "&0&0000");
    if (sheet.battery) device->power = *sheet.battery;
    if (sheet.dpi) device->dpi = *sheet.dpi;
    if (sheet.address) device->address = *sheet.address;
    device->serial = sheet.serial;
    device->hear(sheet.speech);
    for (const auto& [code, answering] : sheet.answers) device->answer(code, answering);
    device->update(sim::VirtualMouse::Updated::mouse, sheet.firstUpdate);
    device->update(sim::VirtualMouse::Updated::receiver, sheet.secondUpdate);
    if (sheet.refuseOpen) device->faults.refuseOpen = [](int) { return true; };
    device->faults.failWrites = sheet.failWrites;
    devices_.push_back(device);
    for (const DeskAction& action : sheet.timeline) due_.push_back({action.at, i, action});
  }
  std::stable_sort(due_.begin(), due_.end(), [](const Due& a, const Due& b) { return a.at < b.at; });
}

void SimulatedDesk::setUpSound() {
  machine_.locked([this] {
    sim::SoundSystem& sound = machine_.sound();
    for (const DeskMicrophone& microphone : description_.sound.microphones) {
      sound.microphones.push_back(std::make_shared<sim::Microphone>(sim::wide(microphone.name)));
      sound.microphones.back()->hears = microphone.hears;
    }
    sound.endpoints = description_.sound.endpoints;
    if (const auto& speaker = description_.sound.speaker) {
      sound.hasSpeaker = true;
      sound.speaker.mixFormat = sim::mixFormat(speaker->rate, speaker->channels, !speaker->integers, true);
      sound.speaker.plays = speaker->plays;
    }
  });
}

sim::CaptureEndpoint SimulatedDesk::endpoint(std::size_t index) {
  sim::CaptureEndpoint copy;
  machine_.locked([&] { copy = machine_.sound().endpoints.at(index); });
  return copy;
}

void SimulatedDesk::setUp() {
  setUpSound();
  for (const auto& device : devices_) machine_.plug(device);
}

sim::VirtualMouse* SimulatedDesk::find(const std::string& model) {
  for (const auto& device : devices_) {
    if (device->sheet().name == model) return device.get();
  }
  return nullptr;
}

double SimulatedDesk::seconds() { return std::chrono::duration<double>(machine_.now()).count(); }

void SimulatedDesk::run(std::chrono::milliseconds time) {
  std::size_t done = 0;
  for (const double now = seconds(); done < due_.size() && due_[done].at <= now; ++done) act(due_[done]);
  due_.erase(due_.begin(), due_.begin() + static_cast<std::ptrdiff_t>(done));
  machine_.sleep(time);
}

void SimulatedDesk::act(const Due& due) {
  const auto& device = devices_[due.device];
  switch (due.action.kind) {
    case DeskAction::Kind::key:
      return device->key(due.action.key);
    case DeskAction::Kind::power:
      return device->reportPower(due.action.power);
    case DeskAction::Kind::sleep:
    case DeskAction::Kind::wake:
      return device->sleep(due.action.kind == DeskAction::Kind::sleep);
    case DeskAction::Kind::unplug:
      return machine_.unplug(device);
    case DeskAction::Kind::plug:
      return machine_.plug(device);
  }
}

std::string SimulatedDesk::leftOpen(const sim::Balance& byDesign) {
  const sim::Balance balance = machine_.balance();
  if (balance == byDesign) return {};
  return std::to_string(balance.handles) + " handles, " + std::to_string(balance.threads) + " threads, " +
         std::to_string(balance.deviceLists) + " device lists, " + std::to_string(balance.preparsedData) +
         " parsed descriptors, " + std::to_string(balance.sound.preparedHeaders) + " wave headers, " +
         std::to_string(balance.sound.comReferences) + " COM references";
}
