// What is plugged in, what stands in the way of its use, and what to do about it.
#include <fmt/format.h>
#include <algorithm>
#include <cmath>
#include <utility>

#include "Files.h"
#include "Session.h"
#include "Survey.h"
#include "sim/Text.h"
#include "tools/capture/Report.h"

namespace {

constexpr double kLeastSeconds = 4;
constexpr double kLookSeconds = 10;
constexpr double kVoiceSeconds = 2;
constexpr double kMomentSeconds = 0.2;
constexpr double kLastAnswerSeconds = 1.2;      // a little more than the library waits
constexpr int kLowBattery = 20;                 // percent
constexpr capture::Time kSlowAnswer = 250'000;  // microseconds

class Doctor {
 public:
  Doctor(Session& session, const Survey& survey) : session_(session), survey_(survey) {}

  void lookAtInterfaces();
  // Opens each device's voice channel for a while.
  void listen();
  void lookAtDevices();
  void lookAtSound();
  std::vector<capture::Finding> tellFindings();

 private:
  void find(const std::string& about, const std::string& what, const std::string& advice) {
    findings_.push_back({about, what, advice});
  }
  void event(const char* name, const Json& fields) {
    session_.terminal.event(session_.desk->seconds(), name, fields, "");
  }
  void lookAt(const SurveyedInterface& hid, const DeviceView* device);
  void lookAtSpeech(const std::string& about, int device, Json& fields);

  Session& session_;
  const Survey& survey_;
  std::vector<capture::Finding> findings_;
  std::vector<std::pair<int, VoxSpeechCounts>> speech_;  // by device
  std::vector<int> silent_;                              // devices whose voice channel did not open
};

// What helps against something unusual, by its kind.
const char* adviceAgainst(const std::string& kind) {
  if (kind == "silence") return "wake it, charge it, and move it nearer to its receiver or away from other radios";
  if (kind == "refused") return "read in docs/protocol.md what the device may refuse; its firmware may need an update";
  if (kind == "damaged") return "try another USB port without a hub; over radio, move nearer; else send in a capture";
  if (kind == "slow") return "move it nearer, and close programs that use the same radio";
  if (kind == "failed") return "unplug it and plug it in again, or switch Bluetooth off and on";
  if (kind == "gone") return "look at its cable, its receiver and its battery";
  return nullptr;
}

void Doctor::lookAtInterfaces() {
  const auto all = survey_.interfaces(*session_.desk);
  tellInterfaces(session_, all);
  bool any = false;
  for (const SurveyedInterface& hid : all) {
    const bool older = !hid.older.empty();
    any = any || older || !hid.model.empty();
    if (older ? !hid.denied : hid.model.empty() || hid.verdict == "in use") continue;
    // Another interface of the same device may be the one.
    const bool served = std::any_of(all.begin(), all.end(), [&hid](const SurveyedInterface& other) {
      return (other.device > 0 || (other.denied && !hid.denied)) && other.vendor == hid.vendor &&
             other.product == hid.product;
    });
    if (!served) {
      find(older ? hid.older : hid.model, hid.verdict,
           hid.denied ? "install those rules, and plug it in again"
                      : "close other programs that use it, and plug it in again");
    }
  }
  if (!any)
    find("devices", "no HID device of ours is plugged in",
         "plug one in, or pair it in the Bluetooth settings; the oldest mice are none, and voxdesk legacy shows them");
}

void Doctor::listen() {
  CAudioHidCenter& hub = session_.client->hub();
  for (const DeviceView& device : session_.client->devices()) {
    if (interrupted()) return;
    // Somebody else records it: closing its channel would end that.
    VoxSpeechCounts counts{};
    if (hub.GetSpeechCounts(device.number, counts) && counts.unasked > 0) {
      speech_.emplace_back(device.number, counts);
      continue;
    }
    hub.ChooseWorkHidDevice(device.number);
    if (!hub.OpenHidRecord()) {
      silent_.push_back(device.number);
      // It may have opened its channel all the same, and nobody would close it.
      session_.runUntil(kMomentSeconds, {"none"}, [] { return false; });
      if (hub.GetSpeechCounts(device.number, counts) && counts.unasked > 0) hub.CloseHidRecord();
      continue;
    }
    session_.runUntil(kVoiceSeconds, {"none"}, [] { return false; });
    hub.CloseHidRecord();
    session_.client->takeAudio();
    if (!hub.GetSpeechCounts(device.number, counts)) continue;
    counts.unasked = 0;  // what was on its way when the channel was closed
    speech_.emplace_back(device.number, counts);
  }
  if (!session_.client->devices().empty()) session_.runUntil(kLastAnswerSeconds, {"none"}, [] { return false; });
}

void Doctor::lookAtSpeech(const std::string& about, int device, Json& fields) {
  if (std::find(silent_.begin(), silent_.end(), device) != silent_.end()) {
    find(about, "its voice channel does not open", "charge it; another program may be recording it; plug it in again");
  }
  for (const auto& [number, counts] : speech_) {
    if (number != device) continue;
    fields["speech_reports"] = counts.reports;
    fields["speech_late"] = counts.late;
    fields["speech_missing"] = counts.missing;
    fields["speech_unasked"] = counts.unasked;
    session_.terminal.tell("    speech: " + capture::plural(counts.reports, "report") + ", " +
                           std::to_string(counts.late) + " late, " + std::to_string(counts.missing) + " missing");
    if (counts.reports == 0) {
      find(about, "it sends no speech although its voice channel is open", "its firmware may need an update");
    }
    if (counts.missing > 0) {
      find(about, "speech is lost: about " + capture::plural(counts.missing, "report") + " of 15 ms or 20 ms",
           "close busy programs; over radio, move it nearer");
    }
    if (counts.unasked > 0) {
      find(about, "it sends speech that nobody has asked for",
           "close the other program that records it; a program that was killed may have left its channel open");
    }
  }
}

void Doctor::lookAt(const SurveyedInterface& hid, const DeviceView* device) {
  const capture::Story story = capture::tell(survey_.capture(hid.path), kSlowAnswer);
  const std::string about = "#" + std::to_string(hid.device) + " " + hid.model;
  capture::RequestCount beats;
  for (const auto& request : story.requests) {
    if (request.name == "Heartbeat") beats = request;
  }
  const double age = static_cast<double>(story.length) / 1e6;
  const bool never = beats.answered == 0;
  session_.terminal.tell("  " + about + ": " +
                         (device  ? device->link + ", battery " + percent(device->battery)
                          : never ? "silent"
                                  : "silent by now"));
  std::string answers = "none answered";
  if (!never) {
    answers =
        fmt::format("{} after {} (median), {} (worst)",
                    beats.unanswered == 0 ? "all answered"
                                          : fmt::format("{} unanswered; the others were answered", beats.unanswered),
                    capture::milliseconds(beats.median()), capture::milliseconds(beats.slowest()));
  }
  session_.terminal.tell(fmt::format("    {} in {:.1f} s, {}", capture::plural(beats.sent, "heartbeat"), age, answers));
  Json fields{{"device", hid.device}, {"model", hid.model},       {"connected", device != nullptr},
              {"seconds", age},       {"heartbeats", beats.sent}, {"heartbeats_unanswered", beats.unanswered}};
  fields["answer_median_ms"] = never ? Json() : Json(static_cast<double>(beats.median()) / 1000);
  fields["answer_worst_ms"] = never ? Json() : Json(static_cast<double>(beats.slowest()) / 1000);
  fields["battery"] = device && device->battery >= 0 ? Json(device->battery) : Json();
  lookAtSpeech(about, hid.device, fields);
  event("health", fields);

  // What could not be written can have no answer.
  const bool failed = std::any_of(story.unusual.begin(), story.unusual.end(),
                                  [](const capture::Unusual& each) { return each.kind == "failed"; });
  if (!device && beats.sent > 0 && never && !failed) {
    find(about, "it has answered none of " + capture::plural(beats.sent, "heartbeat"), adviceAgainst("silence"));
  } else if (!device && beats.unanswered > 0) {
    find(about, "it does not answer any more", adviceAgainst("silence"));
  }
  for (const auto& unusual : story.unusual) {
    // Who never answers is told of already; a device may leave out what its receiver would answer.
    if (!adviceAgainst(unusual.kind) || (unusual.kind == "silence" && !device)) continue;
    // Others may have come between.
    const auto same = [&](const auto& other) { return other.words == unusual.words && other.kind == unusual.kind; };
    const auto first = std::find_if(story.unusual.begin(), story.unusual.end(), same);
    if (&*first != &unusual) continue;
    std::size_t times = 0;
    for (const auto& other : story.unusual) times += same(other) ? other.times : 0;
    find(about, unusual.words + (times > 1 ? " (" + std::to_string(times) + " times)" : ""),
         adviceAgainst(unusual.kind));
  }
  if (device && device->battery >= 0 && device->battery < kLowBattery) {
    find(about, "its battery is at " + percent(device->battery), "charge it");
  }
}

void Doctor::lookAtDevices() {
  const auto known = session_.client->devices();
  const auto present = survey_.interfaces(*session_.desk);
  const capture::Story story = capture::tell(survey_.capture({}), kSlowAnswer);
  for (const auto& unusual : story.unusual) {
    if (unusual.kind != "gone" || unusual.device < 0) continue;
    const capture::Device& device = story.devices[static_cast<std::size_t>(unusual.device)];
    const auto isIt = [&device](const SurveyedInterface& hid) { return hid.path == device.path; };
    if (std::any_of(present.begin(), present.end(), isIt)) continue;
    find("#" + std::to_string(device.number) + " VoxMouse " + device.model, unusual.words + ", and has not come back",
         adviceAgainst("gone"));
  }
  bool any = false;
  for (const SurveyedInterface& hid : present) {
    if (hid.device <= 0 || !hid.opened) continue;
    if (!std::exchange(any, true)) session_.terminal.tell("Devices:");
    const auto device =
        std::find_if(known.begin(), known.end(), [&hid](const DeviceView& view) { return view.number == hid.device; });
    lookAt(hid, device == known.end() ? nullptr : &*device);
  }
}

void Doctor::lookAtSound() {
  if (const std::string missing = session_.desk->missing(); !missing.empty())
    return session_.terminal.tell(missing + ".");
  const auto microphones = session_.desk->microphones();
  const CVoxRecord::Choice choice = CVoxRecord().ChooseDevice();
  const std::string chosen = choice.index >= 0 ? sim::utf8(choice.name) : "none";
  session_.terminal.tell("Sound:");
  session_.terminal.tell("  of " + capture::plural(microphones.size(), "microphone") + ", " + chosen +
                         " would be recorded: " + choice.rule);
  event("microphone", {{"name", chosen}, {"index", choice.index}, {"rule", choice.rule}});
  const auto endpoints = session_.desk->endpoints();
  for (std::size_t i = 0; i < endpoints.size(); ++i) {
    const SoundEndpoint& endpoint = endpoints[i];
    session_.terminal.tell("  " + endpoint.name + fmt::format(": volume {:.0f} %", 100 * endpoint.volume) +
                           (endpoint.muted ? ", muted" : ""));
    event("endpoint", {{"index", i}, {"name", endpoint.name}, {"volume", endpoint.volume}, {"muted", endpoint.muted}});
    if (endpoint.muted) find(endpoint.name, "it is muted", "take its mute off in the system's sound settings");
  }
  const auto speaker = session_.desk->speaker();
  session_.terminal.tell(speaker ? "  speaker: " + std::to_string(speaker->rate) + " Hz, " +
                                       capture::plural(static_cast<std::size_t>(speaker->channels), "channel")
                                 : std::string("  no speaker"));
  event("speaker", {{"present", speaker.has_value()},
                    {"rate", speaker ? speaker->rate : 0},
                    {"channels", speaker ? speaker->channels : 0}});
}

std::vector<capture::Finding> Doctor::tellFindings() {
  session_.terminal.tell(findings_.empty() ? "Nothing is wrong that could be seen." : "Findings:");
  for (const capture::Finding& finding : findings_) {
    session_.terminal.tell("  " + finding.about + ": " + finding.what + ".");
    session_.terminal.tell("    What may help: " + finding.advice + ".");
    event("finding", {{"about", finding.about}, {"what", finding.what}, {"advice", finding.advice}});
  }
  return findings_;
}

}  // namespace

void doctor(const Options& options) {
  if (options.seconds > 0 && options.seconds < kLeastSeconds) {
    throw Failure(fmt::format("--seconds: devices need {:.0f} s until something can be said of them", kLeastSeconds),
                  kWrongUsage);
  }
  checkOutput(options.reportPage);
  Survey survey;
  std::vector<capture::Finding> findings;
  {
    Session session(options, false, &survey);
    Doctor doctor(session, survey);
    const double seconds = options.seconds > 0 ? options.seconds : kLookSeconds;
    session.terminal.say(fmt::format("voxdesk " VOXDEVICE_VERSION " looks at this computer for {:.0f} s{}", seconds,
                                     options.noVoice ? "." : ", then opens each device's voice channel for 2 s."));
    session.terminal.event(session.desk->seconds(), "version", {{"voxdesk", VOXDEVICE_VERSION}}, "");
    session.runUntil(seconds, {"none"}, [] { return false; });
    if (session.desk->seconds() < kLeastSeconds)
      Session::failIfInterrupted("before anything could be said of the devices");
    if (!options.noVoice) doctor.listen();
    doctor.lookAtInterfaces();
    doctor.lookAtDevices();
    doctor.lookAtSound();
    findings = doctor.tellFindings();
    session.finish();
  }
  if (!options.reportPage.empty()) {
    const std::string page =
        capture::htmlOf(capture::tell(survey.capture({}), kSlowAnswer), "voxdesk doctor", findings);
    writeOutput(options.reportPage, page);
  }
  if (!findings.empty() && !interrupted()) {
    throw Failure("there " + std::string(findings.size() == 1 ? "is " : "are ") +
                  capture::plural(findings.size(), "finding"));
  }
}
