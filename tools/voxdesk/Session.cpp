#include "Session.h"

#include <fmt/format.h>
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <utility>

#include "Files.h"
#include "platform/os.h"
#include "sim/Text.h"

std::string lower(std::string text) {
  for (char& c : text) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  return text;
}

namespace {

constexpr std::chrono::milliseconds kLook{10};  // how often the client looks at what has happened
constexpr double kQuietSeconds = 1;             // devices that are there are announced together
constexpr double kMegabyte = 1024 * 1024;
const std::string kMaker = "voxmouse ";                            // what every model's name begins with
constexpr std::int64_t kVirtualBeginning = 1'767'225'600'000'000;  // microseconds since 1970: 2026-01-01

std::string listOf(const std::vector<DeviceView>& devices) {
  std::string text;
  for (const DeviceView& view : devices) {
    text += (text.empty() ? "" : ", ") + std::to_string(view.number) + " (" + view.model + ")";
  }
  return text;
}

}  // namespace

Session::Session(const Options& options, bool busy, Watcher* watcher, std::unique_ptr<Desk> other)
    : terminal(options.json, options.out == kStandardOutput, options.quiet),
      desk(other ? std::move(other) : makeDesk(options, busy)),
      raw_(options.raw),
      watcher_(watcher) {
  if (const std::string hint = desk->hint(); !hint.empty()) terminal.say(hint);
  // A double click of the voice key opens the navigation.
  CPreferences::Instance()->SetVoiceClickTimes(2);
  client = std::make_unique<Client>([this] { return desk->seconds(); });
  try {
    startCapture(options);
    desk->setUp();
    client->start();
  } catch (...) {
    stop();
    throw;
  }
}

Session::~Session() {
  stop();
  if (!captureProblem_.empty()) std::fprintf(stderr, "voxdesk: %s\n", captureProblem_.c_str());
}

void Session::startCapture(const Options& options) {
  if (!options.capture.empty()) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const std::int64_t began =
        options.virtualTime ? kVirtualBeginning : std::chrono::duration_cast<std::chrono::microseconds>(now).count();
    recorder_ = std::make_unique<capture::Recorder>(
        sim::pathOf(options.capture),
        capture::RecorderOptions{.noSpeech = options.noSpeech,
                                 .fileBytes = static_cast<std::uint64_t>(options.captureMegabytes * kMegabyte),
                                 .now = [this, began] { return began + std::llround(desk->seconds() * 1e6); },
                                 .open = &openOutput});
  }
  VoxObserver::SetCallback(&Session::observe, this);
}

void Session::observe(const VoxObservation& observation, void* session) {
  auto* self = static_cast<Session*>(session);
  if (self->recorder_) capture::Recorder::observe(observation, self->recorder_.get());
  if (self->watcher_) self->watcher_->observe(observation, std::llround(self->desk->seconds() * 1e6));
  self->client->observe(observation, self->raw_);
}

void Session::writeReport(int device, std::vector<std::uint8_t> report) {
  const HANDLE file = os::CreateFileW(client->pathOf(device).c_str(), GENERIC_READ | GENERIC_WRITE,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    throw Failure("the device cannot be opened once more (error " + std::to_string(os::GetLastError()) + ")");
  }
  PHIDP_PREPARSED_DATA preparsed = nullptr;
  HIDP_CAPS caps{};
  if (os::HidD_GetPreparsedData(file, &preparsed)) {
    os::HidP_GetCaps(preparsed, &caps);
    os::HidD_FreePreparsedData(preparsed);
  }
  const std::size_t length = caps.OutputReportByteLength;
  DWORD error = 0;
  if (report.size() <= length) {
    report.resize(length);
    VoxObservation sent{};
    sent.kind = VoxObservation_Sent;
    sent.device = device;
    sent.link = client->hub().GetDeviceConnectMode(device);
    sent.inputLength = caps.InputReportByteLength;
    sent.outputLength = caps.OutputReportByteLength;
    HIDD_ATTRIBUTES attributes{};
    attributes.Size = sizeof attributes;
    if (os::HidD_GetAttributes(file, &attributes)) {
      sent.vendor = attributes.VendorID;
      sent.product = attributes.ProductID;
    }
    const std::wstring path = client->pathOf(device);
    sent.path = path.c_str();
    sent.report = report.data();
    sent.reportLength = static_cast<int>(length);
    observe(sent, this);
    DWORD count = 0;
    if (!os::WriteFile(file, report.data(), static_cast<DWORD>(length), &count, nullptr)) {
      error = os::GetLastError();
      sent.kind = VoxObservation_WriteFailed;
      sent.error = error;
      sent.report = nullptr;
      sent.reportLength = 0;
      observe(sent, this);
    }
  }
  os::CloseHandle(file);
  if (report.size() > length) {
    throw Failure("the device takes reports of " + std::to_string(length) + " bytes, and this has " +
                  std::to_string(report.size()));
  }
  if (error != 0) throw Failure("the device has not taken the report (error " + std::to_string(error) + ")");
}

void Session::stop() {
  if (!client) return;
  client->stop();
  VoxObserver::SetCallback(nullptr, nullptr);
  if (raw_) runUntil(0, {"report"}, [] { return true; });
  client.reset();
  for (const std::string& sentence : desk->replayed()) {
    terminal.event(desk->seconds(), "replayed", {{"text", sentence}}, terminal.quiet() ? "" : sentence);
  }
  if (!recorder_) return;
  recorder_->finish();
  const std::string problem = recorder_->problem();
  if (problem.empty()) terminal.say("Captured in " + recorder_->summary() + ".");
  if (!problem.empty()) captureProblem_ = "the capture is not whole: " + problem;
  recorder_.reset();
}

bool Session::runUntil(double seconds, const std::vector<std::string>& show, const std::function<bool()>& done) {
  const double end = desk->seconds() + seconds;
  for (;;) {
    for (const ClientEvent& event : client->takeEvents()) {
      if (show.empty() || (raw_ && event.name == "report") ||
          (!terminal.quiet() && std::find(show.begin(), show.end(), event.name) != show.end())) {
        terminal.event(event.seconds, event.name, event.fields, event.text);
      }
    }
    if (done()) return true;
    if (interrupted() || desk->seconds() >= end) return false;
    desk->run(kLook);
  }
}

std::optional<ClientEvent> Session::waitFor(double seconds, const std::function<bool(const ClientEvent&)>& wanted) {
  const double end = desk->seconds() + seconds;
  while (!interrupted()) {
    for (const ClientEvent& event : client->takeEvents()) {
      if (wanted(event)) return event;
    }
    if (desk->seconds() >= end) break;
    desk->run(kLook);
  }
  return std::nullopt;
}

void Session::discover(const std::vector<std::string>& show) {
  const auto expected = desk->expectedDevices();
  std::size_t count = 0;
  double changed = 0;
  runUntil(kDiscoverySeconds, show, [&] {
    const auto known = client->devices();
    if (std::exchange(count, known.size()) != known.size()) changed = desk->seconds();
    if (std::any_of(known.begin(), known.end(), [](const DeviceView& view) { return view.dpi < 0; })) return false;
    return expected ? count == *expected : count > 0 && desk->seconds() - changed >= kQuietSeconds;
  });
}

std::string Session::noDevice() const {
  if (desk->expectedDevices() == 0U) return "the desk has no devices that could answer";
  const std::string advice = desk->advice();
  return fmt::format("no device has answered within {:.0f} s{}{}", kDiscoverySeconds, advice.empty() ? "" : "; ",
                     advice);
}

void Session::failIfInterrupted(const std::string& when) {
  if (interrupted()) throw Failure("interrupted " + when, kInterrupted);
}

DeviceView Session::choose(const std::string& name) {
  const auto devices = client->devices();
  failIfInterrupted("before a device had answered");
  if (devices.empty()) throw Failure(noDevice());
  if (name.empty()) return devices.front();
  const std::string wanted = lower(name);
  const bool number = std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; });
  const std::function<bool(const DeviceView&)> rules[] = {
      [&](const DeviceView& view) { return std::to_string(view.number) == wanted; },
      [&](const DeviceView& view) { return lower(view.model) == wanted || lower(view.model) == kMaker + wanted; },
      [&](const DeviceView& view) { return lower(view.identity) == wanted; },
      [&](const DeviceView& view) {
        return !number && lower(sim::utf8(client->pathOf(view.number))).find(wanted) != std::string::npos;
      },
  };
  // The first of these by which there is any decides.
  for (const auto& fits : rules) {
    std::vector<DeviceView> found;
    std::copy_if(devices.begin(), devices.end(), std::back_inserter(found), fits);
    if (found.size() == 1) return found.front();
    if (found.size() > 1) throw Failure('"' + name + "\" may be any of: " + listOf(found) + "; give the number");
  }
  throw Failure((number ? "no device has the number " + name : "no device is called \"" + name + '"') +
                "; there are: " + listOf(devices));
}

void Session::finish(const LeftOpen& byDesign) {
  stop();
  if (!captureProblem_.empty()) throw Failure(std::exchange(captureProblem_, {}));
  const std::string open = desk->leftOpen(byDesign);
  if (!open.empty()) throw Failure("the library has left open: " + open);
}
