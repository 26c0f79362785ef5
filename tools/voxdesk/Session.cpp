#include "Session.h"

#include <algorithm>
#include <cstdio>

#include "sim/Wav.h"

namespace {

constexpr std::chrono::milliseconds kLook{10};  // how often the client looks at what has happened

}  // namespace

std::vector<std::int16_t> readSpeech(const std::string& path) {
  std::string error;
  auto speech = sim::readSpeech(path, error);
  if (!error.empty()) throw Failure(error);
  return speech;
}

std::string fixed(const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

DeskDescription deskOf(const Options& options, bool busy) {
  if (!options.deskFile.empty()) return readDeskFile(options.deskFile);
  return defaultDesk(readSpeech(std::string(VOXDEVICE_SAMPLES) + "/sentence.wav"), busy);
}

Session::Session(const Options& options, DeskDescription description)
    : terminal(options.json), desk(std::move(description), options.virtualTime) {
  // A double click of the voice key opens the navigation.
  CPreferences::Instance()->SetVoiceClickTimes(2);
  client = std::make_unique<Client>([this] { return desk.seconds(); });
  desk.setUp();
  client->start();
}

bool Session::runUntil(double seconds, const std::vector<std::string>& show, const std::function<bool()>& done) {
  const double end = desk.seconds() + seconds;
  for (;;) {
    for (const ClientEvent& event : client->takeEvents()) {
      if (show.empty() || std::find(show.begin(), show.end(), event.name) != show.end()) {
        terminal.event(event.seconds, event.name, event.fields, event.text);
      }
    }
    if (done()) return true;
    if (interrupted() || desk.seconds() >= end) return false;
    desk.run(kLook);
  }
}

std::optional<ClientEvent> Session::waitFor(double seconds, const std::function<bool(const ClientEvent&)>& wanted) {
  const double end = desk.seconds() + seconds;
  while (!interrupted()) {
    for (const ClientEvent& event : client->takeEvents()) {
      if (wanted(event)) return event;
    }
    if (desk.seconds() >= end) break;
    desk.run(kLook);
  }
  return std::nullopt;
}

void Session::discover(const std::vector<std::string>& show) {
  runUntil(kDiscoverySeconds, show, [this] {
    const auto known = client->devices();
    return known.size() == desk.size() &&
           std::all_of(known.begin(), known.end(), [](const DeviceView& view) { return view.dpi >= 0; });
  });
}

DeviceView Session::choose(int number) {
  const auto devices = client->devices();
  std::string known;
  for (const DeviceView& view : devices) {
    if (number == 0 || view.number == number) return view;
    known += " " + std::to_string(view.number) + " (" + view.model + ")";
  }
  if (devices.empty()) throw Failure("no device has answered within " + fixed("%.0f s", kDiscoverySeconds));
  throw Failure("no device has the number " + std::to_string(number) + "; there are:" + known);
}

void Session::finish(const sim::Balance& byDesign) {
  client.reset();
  const std::string open = desk.leftOpen(byDesign);
  if (!open.empty()) throw Failure("the library has left open: " + open);
}
