#include "Survey.h"

#include <algorithm>

#include "hid/HidFrame.h"
#include "models/Models.h"
#include "sim/Text.h"

namespace {

constexpr std::uint32_t kSharedByNobody = 32;  // ERROR_SHARING_VIOLATION
constexpr std::uint32_t kAccessDenied = 5;

const char* const kFamilies[] = {"Tern", "Standard", "Zh"};  // as FirmwareFamily

std::string digits(std::uint16_t id) {
  static const char* const hex = "0123456789abcdef";
  std::string text;
  for (int shift = 12; shift >= 0; shift -= 4) text += hex[id >> shift & 15];
  return text;
}

// What the path tells. Bluetooth LE spells the vendor with its two-digit source, 02, in front.
void identify(SurveyedInterface& hid) {
  HidPathIdentity identity;
  if (CAudioHidCenter::ParseUsbHidPath(hid.path, identity)) {
    hid.link = DataChannel_Usb;
  } else if (CAudioHidCenter::ParseBluetoothHidPath(hid.path, identity)) {
    hid.link = DataChannel_BluetoothLE;
    if (identity.vid.size() == 6 && identity.vid.starts_with("02")) identity.vid.erase(0, 2);
  } else {
    return;
  }
  hid.vendor = identity.vid;
  hid.product = identity.pid;
  if (hid.link == DataChannel_Usb && hid.vendor == "0d8c" && hid.product == "0132") hid.older = "older mouse";
  if (hid.link == DataChannel_Usb && hid.vendor == "0d8c" && hid.product == "0135") hid.older = "older voice keyboard";
  for (const ModelSheet& sheet : ModelSheets()) {
    const auto& ids = hid.link == DataChannel_Usb ? sheet.usb : sheet.bluetooth;
    const bool ours = std::any_of(ids.begin(), ids.end(), [&hid](const HidId& id) {
      return digits(id.vendor) == hid.vendor && digits(id.product) == hid.product;
    });
    if (!ours) continue;
    hid.model = sim::utf8(sheet.name);
    hid.family = kFamilies[static_cast<int>(sheet.firmware)];
    return;
  }
}

std::string verdictOf(const SurveyedInterface& hid) {
  if (hid.link == DataChannel_Unknown) return "not a USB or Bluetooth LE device: its path names no vendor";
  if (!hid.older.empty()) return "an " + hid.older + ", which voxdesk legacy listens to";
  if (hid.model.empty()) return "no model of ours has " + hid.vendor + ":" + hid.product;
  if (hid.device > 0 && hid.opened) return "in use";
  if (hid.error == kAccessDenied) return "access is denied, as to each device's own mouse and keyboard collections";
  if (hid.error == kSharedByNobody) return "another program has it for itself";
  if (hid.error != 0) return "cannot be opened (error " + std::to_string(hid.error) + ")";
  if (hid.inputLength > 0 || hid.outputLength > 0) {
    return "its reports have " + std::to_string(hid.inputLength) + " and " + std::to_string(hid.outputLength) +
           " bytes; ours have " + std::to_string(kMinReportLength) + " to " + std::to_string(kMaxInputReportLength);
  }
  return "not looked at yet";
}

}  // namespace

void Survey::observe(const VoxObservation& observation, std::int64_t microseconds) {
  static constexpr capture::Kind kinds[] = {
      capture::Kind::Sent,   capture::Kind::WriteFailed, capture::Kind::Received, capture::Kind::ReadFailed,
      capture::Kind::Opened, capture::Kind::Refused,     capture::Kind::Told};
  capture::Event event;
  event.time = microseconds;
  event.kind = kinds[observation.kind];
  event.device = observation.device;
  event.thread = observation.thread;
  event.error = observation.error;
  if (observation.report) event.report.assign(observation.report, observation.report + observation.reportLength);
  if (observation.name) event.name = observation.name;
  if (observation.text) event.text = sim::utf8(observation.text);
  event.values.assign(observation.values, observation.values + observation.valueCount);
  const std::lock_guard lock(mutex_);
  if (observation.path) {
    const std::string path = sim::utf8(observation.path);
    auto& known = seen_.interfaces;
    auto at = std::find_if(known.begin(), known.end(), [&path](const auto& each) { return each.path == path; });
    if (at == known.end()) {
      capture::Interface added;
      added.path = path;
      added.link = observation.link;
      known.push_back(std::move(added));
      at = known.end() - 1;
    }
    if (observation.inputLength > 0) {
      at->vendor = observation.vendor;
      at->product = observation.product;
      at->inputLength = observation.inputLength;
      at->outputLength = observation.outputLength;
    }
    event.hid = static_cast<int>(at - known.begin());
  }
  seen_.events.push_back(std::move(event));
}

capture::Capture Survey::capture(const std::string& path) const {
  const std::lock_guard lock(mutex_);
  return path.empty() ? seen_ : captureOf(path);
}

capture::Capture Survey::captureOf(const std::string& path) const {
  capture::Capture some;
  some.interfaces = seen_.interfaces;
  std::copy_if(seen_.events.begin(), seen_.events.end(), std::back_inserter(some.events), [&](const auto& event) {
    return event.hid >= 0 && seen_.interfaces[static_cast<std::size_t>(event.hid)].path == path;
  });
  return some;
}

const ModelSheet* namedModel(const capture::Capture& passed) {
  const ModelSheet* model = nullptr;
  for (const capture::Event& event : passed.events) {
    CHidData reply;
    if (event.kind != capture::Kind::Received || event.hid < 0 ||
        !ParseReport(event.report, passed.interfaces[static_cast<std::size_t>(event.hid)].link, reply)) {
      continue;
    }
    if (const ModelSheet* named = FindByIdentifyReply(reply.code)) model = named;
  }
  return model;
}

std::string modelOf(const std::string& path) {
  SurveyedInterface hid;
  hid.path = path;
  identify(hid);
  return hid.model;
}

std::string olderOf(const std::string& path) {
  SurveyedInterface hid;
  hid.path = path;
  identify(hid);
  return hid.older;
}

std::vector<SurveyedInterface> Survey::interfaces(Desk& desk) const {
  std::vector<std::wstring> paths;
  CAudioHidCenter::EnumerateHidInterfaces(paths);
  std::vector<SurveyedInterface> present;
  const std::lock_guard lock(mutex_);
  for (const std::wstring& path : paths) {
    SurveyedInterface hid;
    hid.path = sim::utf8(path);
    identify(hid);
    for (const auto& event : seen_.events) {
      if (event.hid < 0) continue;
      const auto& known = seen_.interfaces[static_cast<std::size_t>(event.hid)];
      if (known.path != hid.path) continue;
      hid.inputLength = known.inputLength;
      hid.outputLength = known.outputLength;
      if (event.kind == capture::Kind::Opened || event.kind == capture::Kind::Refused) {
        hid.opened = event.kind == capture::Kind::Opened;
        hid.error = event.error;
      }
      if (event.device > 0) hid.device = event.device;
    }
    // By what it has said, whether it still answers or not: its path may be another model's, too.
    if (const ModelSheet* named = namedModel(captureOf(hid.path))) hid.model = sim::utf8(named->name);
    // Nobody has tried to open an older device here.
    const bool asked = hid.error == kAccessDenied || !hid.older.empty();
    const std::string denied = asked ? desk.denied(hid.path) : "";
    hid.denied = !denied.empty();
    hid.verdict = hid.denied ? denied : verdictOf(hid);
    present.push_back(std::move(hid));
  }
  return present;
}

void tellInterfaces(Session& session, const std::vector<SurveyedInterface>& interfaces) {
  session.terminal.tell(interfaces.empty() ? "This computer has no HID interface." : "HID interfaces:");
  for (const SurveyedInterface& hid : interfaces) {
    const bool known = hid.inputLength > 0 || hid.outputLength > 0;
    session.terminal.tell("  " +
                          (hid.model.empty() ? std::string(hid.denied ? hid.older : "-")
                                             : hid.model + ", firmware family " + hid.family) +
                          (known ? ", reports of " + std::to_string(hid.inputLength) + " and " +
                                       std::to_string(hid.outputLength) + " bytes"
                                 : "") +
                          (hid.device > 0 ? ", #" + std::to_string(hid.device) : "") + ": " + hid.verdict);
    session.terminal.tell("    " + hid.path);
    session.terminal.event(session.desk->seconds(), "interface",
                           {{"path", hid.path},
                            {"vendor", hid.vendor},
                            {"product", hid.product},
                            {"model", hid.model},
                            {"firmware_family", hid.family},
                            {"input_length", hid.inputLength},
                            {"output_length", hid.outputLength},
                            {"device", hid.device},
                            {"error", hid.error},
                            {"verdict", hid.verdict}},
                           "");
  }
  for (const std::string& sentence : session.desk->damaged()) session.terminal.tell("  " + sentence + ".");
}
