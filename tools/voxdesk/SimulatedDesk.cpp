#include "SimulatedDesk.h"

#include <algorithm>

#include "System.h"
#include "sim/Text.h"
#include "sim/Wav.h"

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
  for (std::size_t i = 0; i < description_.legacy.size(); ++i) {
    const DeskLegacy& sheet = description_.legacy[i];
    legacy_.push_back(std::make_unique<sim::LegacyDevice>(machine_, sheet.kind, sheet.serial));
    for (const DeskLegacyAction& action : sheet.timeline) dueLegacy_.push_back({action.at, i, action});
  }
  const auto earlier = [](const auto& a, const auto& b) { return a.at < b.at; };
  std::stable_sort(due_.begin(), due_.end(), earlier);
  std::stable_sort(dueLegacy_.begin(), dueLegacy_.end(), earlier);
}

std::size_t SimulatedDesk::legacyHids() {
  return static_cast<std::size_t>(std::count_if(legacy_.begin(), legacy_.end(),
                                                [](const auto& device) { return device->hid() && device->plugged(); }));
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

std::vector<SoundSource> SimulatedDesk::microphones() {
  std::vector<SoundSource> sources;
  for (const DeskMicrophone& microphone : description_.sound.microphones) {
    sources.push_back({microphone.name, std::nullopt});
    if (!microphone.hears.empty()) sources.back().seconds = secondsOf(microphone.hears.size());
  }
  return sources;
}

std::vector<SoundEndpoint> SimulatedDesk::endpoints() {
  std::vector<SoundEndpoint> all;
  machine_.locked([&] {
    for (const sim::CaptureEndpoint& endpoint : machine_.sound().endpoints) {
      all.push_back({sim::utf8(endpoint.name), static_cast<double>(endpoint.volume), endpoint.muted});
    }
  });
  return all;
}

std::optional<SoundOutput> SimulatedDesk::speaker() {
  const auto& speaker = description_.sound.speaker;
  if (!speaker) return std::nullopt;
  return SoundOutput{speaker->rate, speaker->channels,
                     static_cast<double>(speaker->plays.size()) / speaker->channels / speaker->rate};
}

void SimulatedDesk::setUp() {
  setUpSound();
  for (const auto& device : devices_) machine_.plug(device);
  for (std::size_t i = 0; i < legacy_.size(); ++i) {
    if (description_.legacy[i].plugged) legacy_[i]->plug();
  }
}

std::string SimulatedDesk::greeting() const {
  if (wren() == devices_.size()) {
    throw Failure("the desk has no Wren, whose voice key would be held; 'voxdesk record' records any device");
  }
  return "A desk with " + std::to_string(devices_.size()) + " virtual devices; looking for them ...";
}

std::size_t SimulatedDesk::wren() const {
  const auto& sheets = description_.devices;
  const auto found =
      std::find_if(sheets.begin(), sheets.end(), [](const auto& sheet) { return sheet.model == "Wren"; });
  return static_cast<std::size_t>(found - sheets.begin());
}

void SimulatedDesk::holdVoiceKey(bool down) {
  sim::VirtualMouse& mouse = *devices_.at(wren());
  down ? mouse.pressVoiceKey() : mouse.releaseVoiceKey();
}

std::optional<double> SimulatedDesk::speechSeconds() const {
  if (devices_.empty()) return std::nullopt;
  const std::size_t speaker = wren() < devices_.size() ? wren() : 0;
  return secondsOf(description_.devices[speaker].speech.size());
}

double SimulatedDesk::seconds() { return std::chrono::duration<double>(machine_.now()).count(); }

void SimulatedDesk::run(std::chrono::milliseconds time) {
  const double now = seconds();
  const auto catchUp = [this, now](auto& due) {
    std::size_t done = 0;
    for (; done < due.size() && due[done].at <= now; ++done) act(due[done]);
    due.erase(due.begin(), due.begin() + static_cast<std::ptrdiff_t>(done));
  };
  catchUp(due_);
  catchUp(dueLegacy_);
  machine_.sleep(time);
}

void SimulatedDesk::act(const DueLegacy& due) {
  sim::LegacyDevice& device = *legacy_[due.device];
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

std::string SimulatedDesk::leftOpen(const LeftOpen& byDesign) {
  const sim::Balance balance = machine_.balance();
  sim::Balance allowed{};
  allowed.handles = byDesign.handles;
  allowed.sound.comReferences = byDesign.comReferences;
  if (balance == allowed) return {};
  return std::to_string(balance.handles) + " handles, " + std::to_string(balance.threads) + " threads, " +
         std::to_string(balance.deviceLists) + " device lists, " + std::to_string(balance.preparsedData) +
         " parsed descriptors, " + std::to_string(balance.sound.preparedHeaders) + " wave headers, " +
         std::to_string(balance.sound.comReferences) + " COM references";
}

const bool kSimulated = true;
const char* const kAbout =
    "A client of VoxDevice at a desk of virtual voice mice.\n"
    "Without a command: shows the desk's devices, holds the Wren's voice key, records what it hears into a WAV file.";

std::optional<int> runOther(int, char**) { return std::nullopt; }

namespace {

std::vector<std::int16_t> readSpeech(const std::string& path) {
  std::string error;
  auto speech = sim::readSpeech(path, error);
  if (!error.empty()) throw Failure(error);
  return speech;
}

// The sentence that the default desk speaks: beside the program, where the package puts it, or in the source.
std::string sentencePath() {
  const std::filesystem::path program = programFolder();
  for (const auto& folder : {program, program.parent_path() / "share" / "VoxDevice"}) {
    if (std::filesystem::exists(folder / "sentence.wav")) return (folder / "sentence.wav").string();
  }
  return std::string(VOXDEVICE_SAMPLES) + "/sentence.wav";
}

}  // namespace

std::unique_ptr<Desk> makeDesk(const Options& options, bool busy) {
  const bool named = !options.deskFile.empty() && options.deskFile != "default";
  DeskDescription description = named ? readDeskFile(options.deskFile) : defaultDesk(readSpeech(sentencePath()), busy);
  if (!options.speech.empty()) {
    // Whichever the client numbers N: they all hear it, and one is recorded.
    const auto speech = readSpeech(options.speech);
    for (DeskDevice& device : description.devices) device.speech = speech;
  }
  return std::make_unique<SimulatedDesk>(std::move(description), options.virtualTime);
}
