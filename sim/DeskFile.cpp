#include "sim/DeskFile.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "sim/Replay.h"
#include "sim/Text.h"
#include "sim/Wav.h"

namespace sim {
namespace {

using nlohmann::json;

const std::map<std::string, std::uint8_t> kCommands = {
    {"all", 0x00},       {"app-open", 0x01},  {"app-exit", 0x02},    {"voice-open", 0x03},   {"voice-stop", 0x04},
    {"heartbeat", 0x05}, {"set-dpi", 0x06},   {"mouse-state", 0x0C}, {"dongle-state", 0x0D}, {"set-url", 0x0E},
    {"identify", 0x0F},  {"mkey-list", 0x14}, {"mkey-set", 0x15},
};

const std::map<std::string, UpdateStep> kUpdateSteps = {
    {"ota-prepare", UpdateStep::prepare},
    {"ota-open", UpdateStep::open},
    {"ota-data", UpdateStep::data},
    {"ota-complete", UpdateStep::complete},
};

const std::map<std::string, LegacyKind> kLegacyKinds = {
    {"usb-mouse", LegacyKind::usbMouse},      {"usb-mouse-2", LegacyKind::usbMouseRev2},
    {"usb-mouse-ql", LegacyKind::usbMouseQl}, {"laser-pen", LegacyKind::laserPen},
    {"hid-mouse", LegacyKind::hidMouse},      {"voice-keyboard", LegacyKind::voiceKeyboard},
};

// Of all models.
const std::set<char> kKeys = {'0', '1', '2', '3', '4', '5', '9', '@', 'C', 'I', 'Z', ']'};

const std::map<std::string, int> kVirtualKeys = {
    {"XBUTTON1", 0x05}, {"XBUTTON2", 0x06}, {"PAGEUP", 0x21}, {"PAGEDOWN", 0x22}, {"F9", 0x78},
    {"F15", 0x7E},      {"F16", 0x7F},      {"F17", 0x80},    {"F18", 0x81},      {"F19", 0x82},
    {"F20", 0x83},      {"F22", 0x85},      {"F23", 0x86},    {"F24", 0x87},
};

template <class Map>
std::vector<std::string> namesOf(const Map& map) {
  std::vector<std::string> names;
  names.reserve(map.size());
  for (const auto& [name, value] : map) names.push_back(name);
  return names;
}

template <class Names>
std::string listOf(const Names& names) {
  std::string text;
  for (const auto& name : names) (text += text.empty() ? "" : ", ") += name;
  return text;
}

// A value in the file, and where it stands.
class Place {
 public:
  Place(const json& value, std::string path) : value_(value), path_(std::move(path)) {}

  [[noreturn]] void expected(const std::string& what) const {
    std::string found = value_.dump(-1, ' ', false, json::error_handler_t::replace);
    if (found.size() > 60) found = found.substr(0, 57) + "...";
    throw DeskFileError(path_ + ": expected " + what + ", found " + found);
  }
  // An object that has no entries but these.
  void object(std::initializer_list<const char*> names) const {
    if (!value_.is_object()) expected("an object");
    for (const auto& [name, value] : value_.items()) {
      if (std::find(names.begin(), names.end(), name) == names.end()) {
        throw DeskFileError(path_ + ": no entry is called \"" + name + "\"; there are: " + listOf(names));
      }
    }
  }
  bool has(const char* name) const { return value_.contains(name); }
  Place operator[](const char* name) const {
    if (!has(name)) throw DeskFileError(path_ + ": \"" + name + "\" is missing");
    return {value_.at(name), path_ + "." + name};
  }
  template <class Visit>
  void each(const char* name, Visit visit) const {
    if (!has(name)) return;
    const Place list = (*this)[name];
    if (!list.value_.is_array()) list.expected("a list");
    for (std::size_t i = 0; i < list.value_.size(); ++i) {
      visit(Place(list.value_[i], list.path_ + "[" + std::to_string(i) + "]"));
    }
  }
  template <class Integer>
  Integer integer(int least, int most) const {
    // 50.0 is one, too.
    const double value = value_.is_number() ? value_.get<double>() : most + 1.0;
    if (value < least || value > most || value != std::floor(value)) {
      expected("a whole number from " + std::to_string(least) + " to " + std::to_string(most));
    }
    return static_cast<Integer>(value);
  }
  double seconds() const {
    if (!value_.is_number() || value_.get<double>() < 0 || value_.get<double>() > 1e6)
      expected("seconds, 0 to 1000000");
    return value_.get<double>();
  }
  bool flag() const {
    if (!value_.is_boolean()) expected("true or false");
    return value_.get<bool>();
  }
  std::string text(const std::string& what) const {
    if (!value_.is_string() || value_.get_ref<const std::string&>().empty()) expected(what);
    return value_.get<std::string>();
  }

 private:
  const json& value_;
  std::string path_;
};

// Refuses an object that has an entry twice, of which JSON's readers take the last.
class NoDoubles {
 public:
  explicit NoDoubles(std::string path) : path_(std::move(path)) {}
  bool operator()(int, json::parse_event_t event, json& value) {
    if (event == json::parse_event_t::object_start) names_.emplace_back();
    if (event == json::parse_event_t::object_end) names_.pop_back();
    if (event == json::parse_event_t::key && !names_.back().insert(value.get<std::string>()).second) {
      throw DeskFileError(path_ + ": the entry \"" + value.get<std::string>() + "\" stands twice in one place");
    }
    return true;
  }

 private:
  std::string path_;
  std::vector<std::set<std::string>> names_;  // of the objects that are open
};

DeskAction readAction(const Place& place) {
  place.object({"at", "key", "power", "sleep", "unplug", "plug"});
  DeskAction action;
  action.at = place["at"].seconds();
  int actions = 0;
  if (place.has("key")) {
    const std::string key = place["key"].text("a key character");
    if (key.size() != 1 || !kKeys.contains(key[0]))
      place["key"].expected("one of the keys that a model has: " + listOf(kKeys));
    action.kind = DeskAction::Kind::key;
    action.key = key[0];
    ++actions;
  }
  if (place.has("power")) {
    action.kind = DeskAction::Kind::power;
    action.power = place["power"].integer<std::uint8_t>(0, 255);
    ++actions;
  }
  if (place.has("sleep")) {
    action.kind = place["sleep"].flag() ? DeskAction::Kind::sleep : DeskAction::Kind::wake;
    ++actions;
  }
  for (const auto& [name, kind] : {std::pair("unplug", DeskAction::Kind::unplug), {"plug", DeskAction::Kind::plug}}) {
    if (!place.has(name)) continue;
    if (!place[name].flag()) place[name].expected("true");
    action.kind = kind;
    ++actions;
  }
  if (actions != 1) place.expected("\"at\" and one of key, power, sleep, unplug, plug");
  return action;
}

// Refuses to plug in what is plugged in, and the reverse.
template <class Action>
void checkPlugs(const Place& place, const std::vector<Action>& timeline, bool plugged) {
  std::multimap<double, std::pair<Place, Action>> entries;
  auto next = timeline.begin();
  place.each("timeline", [&](const Place& entry) { entries.emplace(next->at, std::pair(entry, *next)), ++next; });
  for (const auto& [at, each] : entries) {
    const auto& [entry, action] = each;
    const bool plugs = action.kind == Action::Kind::plug;
    if (!plugs && action.kind != Action::Kind::unplug) continue;
    if (plugs == plugged) {
      entry.expected(plugs ? "\"unplug\" before it, as it is plugged in then"
                           : "\"plug\" before it, as it is not plugged in then");
    }
    plugged = plugs;
  }
}

// Returns what it is a fault of, of which there is to be one.
std::string readUpdateFault(const Place& place, UpdateStep step, DeskDevice& device) {
  place.object(step == UpdateStep::data ? std::initializer_list<const char*>{"command", "answer", "image", "message"}
                                        : std::initializer_list<const char*>{"command", "answer", "image"});
  if (step == UpdateStep::prepare && findModel(device.model)->update != UpdateFlow::bytes) {
    place["command"].expected("\"ota-prepare\" with a Tern only; others are opened at once");
  }
  if (place.has("image") && device.link == Link::bluetooth) {
    place["image"].expected("no \"image\" with Bluetooth: there is no receiver");
  }
  std::string image = "first";
  if (place.has("image")) {
    image = place["image"].text("\"first\" or \"second\"");
    if (image != "first" && image != "second") place["image"].expected("\"first\" or \"second\"");
  }
  UpdateScript& script = image == "first" ? device.firstUpdate : device.secondUpdate;
  if (place.has("message")) script.atMessage = place["message"].integer<unsigned>(0, 1'000'000);
  const std::string answer = place["answer"].text("an answer");
  if (answer == "silent") {
    script.silentAt = step;
  } else if (answer == "refuse") {
    script.refuseAt = step;
  } else if (answer == "unplug") {
    script.unplugAt = step;
  } else {
    place["answer"].expected("one of: silent, refuse, unplug");
  }
  return "the " + image + " image";
}

// Likewise.
std::string readFault(const Place& place, DeskDevice& device) {
  place.object({"command", "answer", "delay_ms", "open", "writes", "image", "message"});
  if (place.has("open")) {
    place.object({"open"});
    if (place["open"].text("\"refused\"") != "refused") place["open"].expected("\"refused\"");
    device.refuseOpen = true;
    return "opening";
  }
  if (place.has("writes")) {
    place.object({"writes"});
    if (place["writes"].text("\"fail\"") != "fail") place["writes"].expected("\"fail\"");
    device.failWrites = true;
    return "writing";
  }
  if (!place.has("command")) place.expected("\"command\", \"open\" or \"writes\"");
  std::string name = place["command"].text("a command's name");
  if (const auto step = kUpdateSteps.find(name); step != kUpdateSteps.end()) {
    return readUpdateFault(place, step->second, device);
  }
  std::vector<std::string> names;
  names.reserve(kCommands.size() + kUpdateSteps.size());
  for (const auto& [known, code] : kCommands) names.push_back(known);
  for (const auto& [known, step] : kUpdateSteps) names.push_back(known);
  const auto command = kCommands.find(name);
  if (command == kCommands.end()) place["command"].expected("one of: " + listOf(names));
  Answering answering;
  const std::string answer = place["answer"].text("an answer");
  place.object(answer == "late" ? std::initializer_list<const char*>{"command", "answer", "delay_ms"}
                                : std::initializer_list<const char*>{"command", "answer"});
  if (answer == "silent") {
    answering.silent = true;
  } else if (answer == "refuse") {
    answering.refuse = true;
  } else if (answer == "garbled") {
    answering.garbled = true;
  } else if (answer == "twice") {
    answering.times = 2;
  } else if (answer == "late") {
    answering.delay = std::chrono::milliseconds(place["delay_ms"].integer<int>(0, 60'000));
  } else {
    place["answer"].expected("one of: silent, refuse, garbled, twice, late");
  }
  device.answers.emplace_back(command->second, answering);
  return name;
}

void readModel(const Place& place, DeskDevice& device) {
  std::vector<std::string> names;
  for (const ModelSheet& sheet : modelSheets()) names.emplace_back(sheet.name);
  device.model = place["model"].text("a model's name");
  const ModelSheet* sheet = findModel(device.model);
  if (!sheet) place["model"].expected("one of: " + listOf(names));
  const std::string links = !sheet->usb ? "\"bluetooth\"" : "\"usb\" or \"bluetooth\"";
  if (!place.has("link")) {
    device.link = sheet->usb ? Link::usb : Link::bluetooth;
    return;
  }
  const std::string link = place["link"].text(links);
  if (link != "bluetooth" && (link != "usb" || !sheet->usb)) place["link"].expected(links + " for a " + device.model);
  device.link = link == "usb" ? Link::usb : Link::bluetooth;
}

DeskDevice readDevice(const Place& place, const std::filesystem::path& folder) {
  place.object({"model", "link", "battery", "dpi", "serial", "address", "speech", "faults", "timeline"});
  DeskDevice device;
  readModel(place, device);
  if (place.has("battery")) device.battery = place["battery"].integer<std::uint8_t>(0, 255);
  if (place.has("dpi")) device.dpi = place["dpi"].integer<std::uint16_t>(0, 65535);
  if (place.has("serial")) {
    device.serial = place["serial"].text("a serial number");
    const bool plain = std::all_of(device.serial.begin(), device.serial.end(), [](char c) {
      return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    });
    if (device.serial.size() != 18 || !plain) place["serial"].expected("18 letters and digits");
  }
  if (place.has("address")) {
    std::array<std::uint8_t, 6> address{};
    std::size_t count = 0;
    place.each("address", [&](const Place& byte) {
      if (count == address.size()) place["address"].expected("six bytes");
      address[count++] = byte.integer<std::uint8_t>(0, 255);
    });
    if (count != address.size()) place["address"].expected("six bytes");
    device.address = address;
  }
  if (place.has("speech")) {
    // Beside the desk file, unless it says where.
    const std::filesystem::path file = folder / place["speech"].text("the name of a WAV file");
    std::string error;
    device.speech = readSpeech(file.string(), error);
    if (!error.empty()) throw DeskFileError(error);
  }
  std::set<std::string> faulty;
  place.each("faults", [&](const Place& fault) {
    const std::string what = readFault(fault, device);
    if (!faulty.insert(what).second) fault.expected("no second fault of " + what);
  });
  place.each("timeline", [&](const Place& action) { device.timeline.push_back(readAction(action)); });
  // An update may pull it out at any time.
  if (!device.firstUpdate.unplugAt && !device.secondUpdate.unplugAt) checkPlugs(place, device.timeline, true);
  return device;
}

DeskLegacyAction readLegacyAction(const Place& place, LegacyKind device) {
  using Kind = DeskLegacyAction::Kind;
  place.object({"at", "plug", "unplug", "press", "release", "key"});
  DeskLegacyAction action;
  action.at = place["at"].seconds();
  int actions = 0;
  for (const auto& [name, kind] : {std::pair("plug", Kind::plug), {"unplug", Kind::unplug}}) {
    if (!place.has(name)) continue;
    if (!place[name].flag()) place[name].expected("true");
    action.kind = kind;
    ++actions;
  }
  for (const auto& [name, kind] : {std::pair("press", Kind::press), {"release", Kind::release}}) {
    if (!place.has(name)) continue;
    const auto key = kVirtualKeys.find(place[name].text("a key's name"));
    if (key == kVirtualKeys.end()) place[name].expected("one of: " + listOf(namesOf(kVirtualKeys)));
    action.kind = kind;
    action.code = key->second;
    ++actions;
  }
  if (place.has("key")) {
    if (device != LegacyKind::hidMouse && device != LegacyKind::voiceKeyboard) {
      place["key"].expected("no \"key\" for this kind (press and release its virtual keys)");
    }
    action.kind = Kind::key;
    action.code = place["key"].integer<int>(0, 255);
    ++actions;
  }
  if (actions != 1) place.expected("\"at\" and one of plug, unplug, press, release, key");
  return action;
}

DeskLegacy readLegacy(const Place& place) {
  place.object({"kind", "serial", "plugged", "timeline"});
  const auto kind = kLegacyKinds.find(place["kind"].text("a kind"));
  if (kind == kLegacyKinds.end()) place["kind"].expected("one of: " + listOf(namesOf(kLegacyKinds)));
  DeskLegacy legacy{.kind = kind->second, .serial = {}, .timeline = {}};
  if (place.has("serial")) legacy.serial = place["serial"].text("a serial text");
  if (place.has("plugged")) legacy.plugged = place["plugged"].flag();
  place.each("timeline",
             [&](const Place& action) { legacy.timeline.push_back(readLegacyAction(action, legacy.kind)); });
  checkPlugs(place, legacy.timeline, legacy.plugged);
  return legacy;
}

DeskSound readSound(const Place& place, const std::filesystem::path& folder) {
  place.object({"microphones", "mixers", "endpoints", "speaker"});
  DeskSound sound;
  place.each("microphones", [&](const Place& entry) {
    entry.object({"name", "hears"});
    DeskMicrophone microphone{.name = entry["name"].text("a device's name"), .hears = {}};
    if (entry.has("hears")) {
      std::string error;
      microphone.hears = readSpeech((folder / entry["hears"].text("the name of a WAV file")).string(), error);
      if (!error.empty()) throw DeskFileError(error);
    }
    sound.microphones.push_back(microphone);
  });
  place.each("mixers", [&](const Place& entry) {
    entry.object({"name", "microphone"});
    MixerDevice mixer{.name = wide(entry["name"].text("a device's name"))};
    if (!entry.has("microphone") || entry["microphone"].flag()) mixer.sources.emplace_back();
    sound.mixers.push_back(std::move(mixer));
  });
  place.each("endpoints", [&](const Place& entry) {
    entry.object({"name", "volume", "muted"});
    CaptureEndpoint endpoint{.name = wide(entry["name"].text("a device's name"))};
    if (entry.has("volume")) endpoint.volume = static_cast<float>(entry["volume"].integer<int>(0, 100)) / 100;
    if (entry.has("muted")) endpoint.muted = entry["muted"].flag();
    sound.endpoints.push_back(endpoint);
  });
  if (place.has("speaker")) {
    const Place entry = place["speaker"];
    entry.object({"plays", "integers"});
    sound.speaker = readSpeakerFile((folder / entry["plays"].text("the name of a WAV file")).string());
    if (entry.has("integers")) sound.speaker->integers = entry["integers"].flag();
  }
  return sound;
}

// number: which of its devices, from 1; 0: all of them.
void addReplay(DeskDescription& desk, const std::string& path, std::size_t number) {
  Replay replay;
  try {
    replay = readReplay(path);
  } catch (const std::runtime_error& error) {
    throw DeskFileError(error.what());
  }
  desk.captures.push_back(path);
  if (!replay.problem.empty()) desk.warnings.push_back(path + ": " + replay.problem);
  if (number > replay.devices.size()) {
    throw DeskFileError(path + ": there is no device " + std::to_string(number) + " in this capture; it has " +
                        std::to_string(replay.devices.size()));
  }
  for (std::size_t i = 0; i < replay.devices.size(); ++i) {
    if (number != 0 && i + 1 != number) continue;
    const auto same = [&](const Recording& other) { return other.path == replay.devices[i].path; };
    if (std::any_of(desk.recordings.begin(), desk.recordings.end(), same)) {
      throw DeskFileError(path + ": its device " + std::to_string(i + 1) + " is on the desk already");
    }
    desk.recordings.push_back(std::move(replay.devices[i]));
  }
}

void readReplayEntry(const Place& place, DeskDescription& desk, const std::filesystem::path& folder) {
  place.object({"replay", "device"});
  const std::string file = (folder / place["replay"].text("the name of a capture file")).string();
  addReplay(desk, file, place.has("device") ? place["device"].integer<std::size_t>(1, 1000) : 0);
}

}  // namespace

DeskSpeaker readSpeakerFile(const std::string& path) {
  std::string error;
  const Wav wav = readWav(path, error);
  if (!error.empty()) throw DeskFileError(error);
  if (wav.formatTag != 1 || wav.bitsPerSample != 16 || wav.channels < 1 || wav.channels > 8 || wav.sampleRate < 1) {
    throw DeskFileError(path + ": expected 16-bit PCM of 1 to 8 channels. Convert it with: sox " + path +
                        " -b 16 -e signed-integer playing.wav");
  }
  DeskSpeaker speaker;
  speaker.rate = wav.sampleRate;
  speaker.channels = wav.channels;
  for (std::size_t i = 0; i + 2 <= wav.data.size(); i += 2) {
    speaker.plays.push_back(static_cast<std::int16_t>(wav.data[i] | wav.data[i + 1] << 8));
  }
  return speaker;
}

DeskDescription readDeskFile(const std::string& path) {
  if (!isOfBytes(pathOf(path))) throw DeskFileError(path + ": not a file of bytes; expected a desk file, or a capture");
  std::ifstream file(path);
  if (!file) throw DeskFileError(path + ": " + std::strerror(errno));
  DeskDescription desk;
  if (isCapture(path) || path.ends_with(".pcapng") || path.ends_with(".pcap")) {
    addReplay(desk, path, 0);
    return desk;
  }
  json root;
  try {
    root = json::parse(file, NoDoubles(path));
  } catch (const json::parse_error& error) {
    // Without its mark in brackets, and what it was about to read.
    std::string what = error.what();
    what.erase(0, what.find("] ") + 2);
    const std::size_t at = what.find("syntax error");
    const std::size_t end = at == what.npos ? at : what.find(" - ", at);
    if (end != what.npos) what.erase(at, end + 3 - at);
    throw DeskFileError(path + ": " + utf8(wide(what)));  // it may quote half a character
  } catch (const json::out_of_range& error) {
    const std::string what = error.what();  // names the number in quotes
    throw DeskFileError(path + ": a number is too large: " + what.substr(std::min(what.size(), what.find('\''))));
  }
  const Place place(root, path);
  place.object({"$schema", "devices", "sound", "legacy"});
  if (!place.has("devices") && !place.has("sound") && !place.has("legacy")) {
    place.expected("\"devices\", \"sound\" or \"legacy\"");
  }
  place.each("legacy", [&](const Place& entry) { desk.legacy.push_back(readLegacy(entry)); });
  if (place.has("sound")) desk.sound = readSound(place["sound"], std::filesystem::path(path).parent_path());
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  place.each("devices", [&](const Place& device) {
    if (device.has("replay")) {
      readReplayEntry(device, desk, folder);
    } else {
      desk.devices.push_back(readDevice(device, folder));
    }
  });
  return desk;
}

}  // namespace sim
