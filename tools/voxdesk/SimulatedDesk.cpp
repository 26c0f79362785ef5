#include "SimulatedDesk.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <set>

#include "HardwareDesk.h"
#include "Survey.h"
#include "System.h"
#include "sim/Hardware.h"
#include "sim/Text.h"
#include "sim/Wav.h"
#include "tools/capture/Story.h"

namespace {

sim::MachineOptions machineOptions(bool virtualTime) {
  sim::MachineOptions options;
  options.clock = virtualTime ? sim::Clock::virtualTime : sim::Clock::realTime;
  // For tests, which compare the machine's log with what else is recorded.
  if (const char* file = std::getenv("VOXDEVICE_MACHINE_LOG")) options.logFile = file;
  return options;
}

}  // namespace

SimulatedDesk::SimulatedDesk(sim::DeskDescription description, bool virtualTime, std::string hint)
    : machine_(machineOptions(virtualTime)), desk_(machine_, std::move(description)), hint_(std::move(hint)) {}

std::size_t SimulatedDesk::legacyHids() {
  const auto ours = std::count_if(desk_.legacy().begin(), desk_.legacy().end(),
                                  [](const auto& device) { return device->hid() && device->plugged(); });
  const auto recorded = std::count_if(desk_.recorded().begin(), desk_.recorded().end(), [](const auto& device) {
    return device->vendor == 0x0D8C && (device->product == 0x0132 || device->product == 0x0135) && device->plugged();
  });
  return static_cast<std::size_t>(ours + recorded);
}

std::vector<SoundSource> SimulatedDesk::microphones() {
  std::vector<SoundSource> sources;
  for (const sim::DeskMicrophone& microphone : desk_.description().sound.microphones) {
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
  const auto& speaker = desk_.description().sound.speaker;
  if (!speaker) return std::nullopt;
  return SoundOutput{speaker->rate, speaker->channels,
                     static_cast<double>(speaker->plays.size()) / speaker->channels / speaker->rate};
}

std::optional<std::size_t> SimulatedDesk::expectedDevices() const {
  const auto announced = std::count_if(desk_.recorded().begin(), desk_.recorded().end(),
                                       [](const auto& device) { return device->wasAnnounced(); });
  return desk_.devices().size() + static_cast<std::size_t>(announced);
}

std::string SimulatedDesk::greeting() const {
  const std::size_t recorded = desk_.recorded().size();
  const std::size_t count = desk_.devices().size() + recorded;
  if (recorded == 0 && wren() == count) {
    throw Failure("the desk has no Wren, whose voice key would be held; 'voxdesk record' records any device");
  }
  return "A desk with " + std::to_string(count) + (recorded == 0 ? " virtual" : "") +
         (count == 1 ? " device" : " devices") + (recorded == 0 ? "" : ", " + std::to_string(recorded) + " recorded") +
         (count == 1 ? "; looking for it ..." : "; looking for them ...");
}

std::size_t SimulatedDesk::wren() const {
  const auto& sheets = desk_.description().devices;
  const auto found =
      std::find_if(sheets.begin(), sheets.end(), [](const auto& sheet) { return sheet.model == "Wren"; });
  return static_cast<std::size_t>(found - sheets.begin());
}

void SimulatedDesk::holdVoiceKey(bool down) {
  sim::VirtualMouse& mouse = *desk_.devices().at(wren());
  down ? mouse.pressVoiceKey() : mouse.releaseVoiceKey();
}

std::optional<double> SimulatedDesk::speechSeconds() const {
  if (!desk_.recorded().empty()) {
    sim::Time longest{0};
    for (const auto& device : desk_.recorded()) longest = std::max(longest, device->recording().length);
    return std::chrono::duration<double>(longest).count();
  }
  if (desk_.devices().empty()) return std::nullopt;
  const std::size_t speaker = wren() < desk_.devices().size() ? wren() : 0;
  return secondsOf(desk_.description().devices[speaker].speech.size());
}

double SimulatedDesk::seconds() { return std::chrono::duration<double>(machine_.now()).count(); }

void SimulatedDesk::run(std::chrono::milliseconds time) {
  desk_.catchUp();
  machine_.sleep(time);
}

std::vector<std::string> SimulatedDesk::replayed() {
  std::vector<std::string> sentences;
  const auto list = [](const std::map<std::string, std::size_t>& commands) {
    std::string text;
    for (const auto& [name, times] : commands) {
      text += (text.empty() ? "" : ", ") + name + (times > 1 ? " (" + std::to_string(times) + " times)" : "");
    }
    return text;
  };
  for (std::size_t i = 0; i < desk_.recorded().size(); ++i) {
    const sim::RecordingUse use = desk_.recorded()[i]->use(machine_);
    const std::string device = "Recorded device " + std::to_string(i + 1) + ": ";
    sentences.push_back(device + std::to_string(use.used) + " of its " + capture::plural(use.recorded, "report") +
                        (use.used == 1 ? " was sent." : " were sent."));
    if (!use.unanswerable.empty()) {
      sentences.push_back(device + "the recording does not hold " + list(use.unanswerable) + ".");
    }
    if (!use.repeated.empty()) {
      sentences.push_back(device +
                          "sent more often than recorded, and answered as the last time: " + list(use.repeated) + ".");
    }
  }
  return sentences;
}

std::string SimulatedDesk::leftOpen(const LeftOpen& byDesign) { return leftOpenOn(machine_, byDesign); }

std::string leftOpenOn(sim::Machine& machine, const LeftOpen& byDesign) {
  const sim::Balance balance = machine.balance();
  sim::Balance allowed{};
  allowed.handles = byDesign.handles;
  allowed.sound.comReferences = byDesign.comReferences;
  if (balance == allowed) return {};
  const std::pair<std::size_t, const char*> counts[] = {
      {balance.handles, "handle"},
      {balance.threads, "thread"},
      {balance.deviceLists, "device list"},
      {balance.preparsedData, "parsed descriptor"},
      {balance.sound.preparedHeaders, "wave header"},
      {balance.sound.comReferences, "COM reference"},
  };
  std::string text;
  for (const auto& [count, what] : counts) {
    if (count > 0) text += (text.empty() ? "" : ", ") + capture::plural(count, what);
  }
  return text.empty() ? "something else" : text;
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

// For who has plugged a device in, and would look for it on a simulated desk.
std::string hintAtHardware() {
  std::set<std::string> models;
  for (const std::wstring& path : sim::Hardware::paths()) {
    const std::string text = sim::utf8(path);
    models.insert(modelOf(text) + olderOf(text));
  }
  std::string names;
  for (const std::string& model : models) names += (names.empty() || model.empty() ? "" : ", ") + model;
  if (names.empty()) return {};
  return "Plugged into this computer: " + names + ". To work with it: voxdesk --desk hardware. This desk is simulated.";
}

}  // namespace

std::unique_ptr<Desk> makeDesk(const Options& options, bool busy) {
  if (options.deskFile == kHardware) return makeHardwareDesk();
  const bool named = !options.deskFile.empty() && options.deskFile != "default";
  sim::DeskDescription description =
      named ? sim::readDeskFile(options.deskFile) : sim::defaultDesk(readSpeech(sentencePath()), busy);
  for (const std::string& source : description.captures) {
    std::error_code error;
    if (!options.capture.empty() &&
        std::filesystem::equivalent(sim::pathOf(options.capture), sim::pathOf(source), error)) {
      throw Failure(options.capture + " is what is replayed; capture into another file");
    }
  }
  for (const std::string& warning : description.warnings) std::fprintf(stderr, "voxdesk: %s\n", warning.c_str());
  if (!options.speech.empty()) {
    // Whichever the client numbers N: they all hear it, and one is recorded.
    const auto speech = readSpeech(options.speech);
    for (sim::DeskDevice& device : description.devices) device.speech = speech;
  }
  return std::make_unique<SimulatedDesk>(std::move(description), options.virtualTime,
                                         options.deskFile.empty() ? hintAtHardware() : "");
}
