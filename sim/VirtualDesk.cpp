#include "sim/VirtualDesk.h"

#include <algorithm>

#include "sim/Text.h"
#include "sim/devices/AscCodec.h"

namespace sim {

VirtualDesk::VirtualDesk(Machine& machine, DeskDescription description)
    : machine_(machine), description_(std::move(description)) {
  machine_.install(L"asc_lib.dll", ascLibrary());
  for (std::size_t i = 0; i < description_.devices.size(); ++i) {
    const DeskDevice& sheet = description_.devices[i];
    auto device = makeMouse(sheet.model, sheet.link, "7&1a2b3c" + std::to_string(10 + i) + "&0&0000");
    if (sheet.battery) device->power = *sheet.battery;
    if (sheet.dpi) device->dpi = *sheet.dpi;
    if (sheet.address) device->address = *sheet.address;
    device->serial = sheet.serial;
    device->hear(sheet.speech);
    for (const auto& [code, answering] : sheet.answers) device->answer(code, answering);
    device->update(VirtualMouse::Updated::mouse, sheet.firstUpdate);
    device->update(VirtualMouse::Updated::receiver, sheet.secondUpdate);
    if (sheet.refuseOpen) device->faults.refuseOpen = [](int) { return true; };
    device->faults.failWrites = sheet.failWrites;
    devices_.push_back(device);
    for (const DeskAction& action : sheet.timeline) due_.push_back({action.at, i, action});
  }
  for (std::size_t i = 0; i < description_.legacy.size(); ++i) {
    const DeskLegacy& sheet = description_.legacy[i];
    legacy_.push_back(std::make_unique<LegacyDevice>(machine_, sheet.kind, sheet.serial));
    for (const DeskLegacyAction& action : sheet.timeline) dueLegacy_.push_back({action.at, i, action});
  }
  for (const Recording& recording : description_.recordings) {
    recorded_.push_back(std::make_shared<RecordedDevice>(recording));
  }
  const auto earlier = [](const auto& a, const auto& b) { return a.at < b.at; };
  std::stable_sort(due_.begin(), due_.end(), earlier);
  std::stable_sort(dueLegacy_.begin(), dueLegacy_.end(), earlier);
}

void VirtualDesk::setUpSound() {
  machine_.locked([this]() REQUIRES(gate) {
    SoundSystem& sound = machine_.sound();
    for (const DeskMicrophone& microphone : description_.sound.microphones) {
      sound.microphones.push_back(std::make_shared<Microphone>(wide(microphone.name)));
      sound.microphones.back()->hears = microphone.hears;
    }
    sound.mixers = description_.sound.mixers;
    sound.endpoints = description_.sound.endpoints;
    if (const auto& speaker = description_.sound.speaker) {
      sound.hasSpeaker = true;
      sound.speaker.mixFormat = mixFormat(speaker->rate, speaker->channels, !speaker->integers, true);
      sound.speaker.plays = speaker->plays;
    }
  });
}

void VirtualDesk::setUp() {
  setUpSound();
  for (const auto& device : devices_) machine_.plug(device);
  for (const auto& device : recorded_) RecordedDevice::start(machine_, device);
  for (std::size_t i = 0; i < legacy_.size(); ++i) {
    if (description_.legacy[i].plugged) legacy_[i]->plug();
  }
}

void VirtualDesk::catchUp() {
  const double now = std::chrono::duration<double>(machine_.now()).count();
  const auto catchUp = [this, now](auto& due) {
    std::size_t done = 0;
    for (; done < due.size() && due[done].at <= now; ++done) act(due[done]);
    due.erase(due.begin(), due.begin() + static_cast<std::ptrdiff_t>(done));
  };
  catchUp(due_);
  catchUp(dueLegacy_);
}

void VirtualDesk::act(const DueLegacy& due) {
  LegacyDevice& device = *legacy_[due.device];
  switch (due.action.kind) {
    case DeskLegacyAction::Kind::plug:
      return device.plug();
    case DeskLegacyAction::Kind::unplug:
      return device.unplug();
    case DeskLegacyAction::Kind::press:
    case DeskLegacyAction::Kind::release:
      return device.press(due.action.code, due.action.kind == DeskLegacyAction::Kind::press);
    case DeskLegacyAction::Kind::key:
      if (device.plugged()) device.hid()->key(static_cast<std::uint8_t>(due.action.code));
      return;
  }
}

void VirtualDesk::act(const Due& due) {
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

}  // namespace sim
