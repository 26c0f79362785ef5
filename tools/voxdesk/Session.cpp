#include "Session.h"

#include <algorithm>
#include <cstdio>

namespace {

constexpr std::chrono::milliseconds kLook{10};  // how often the client looks at what has happened

}  // namespace

std::string fixed(const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

Session::Session(const Options& options, bool busy) : terminal(options.json), desk(makeDesk(options, busy)) {
  // A double click of the voice key opens the navigation.
  CPreferences::Instance()->SetVoiceClickTimes(2);
  client = std::make_unique<Client>([this] { return desk->seconds(); });
  desk->setUp();
  client->start();
}

bool Session::runUntil(double seconds, const std::vector<std::string>& show, const std::function<bool()>& done) {
  const double end = desk->seconds() + seconds;
  for (;;) {
    for (const ClientEvent& event : client->takeEvents()) {
      if (show.empty() || std::find(show.begin(), show.end(), event.name) != show.end()) {
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
  runUntil(kDiscoverySeconds, show, [this] {
    const auto known = client->devices();
    return desk->expectedDevices() == known.size() &&
           std::all_of(known.begin(), known.end(), [](const DeviceView& view) { return view.dpi >= 0; });
  });
}

std::string Session::noDevice() {
  return "no device has answered within " + fixed("%.0f s", kDiscoverySeconds) +
         (kSimulated ? "" : "; plug one in, or try a simulated desk: voxdesk --desk default");
}

DeviceView Session::choose(int number) {
  const auto devices = client->devices();
  std::string known;
  for (const DeviceView& view : devices) {
    if (number == 0 || view.number == number) return view;
    known += " " + std::to_string(view.number) + " (" + view.model + ")";
  }
  if (devices.empty()) throw Failure(interrupted() ? "interrupted before a device had answered" : noDevice());
  throw Failure("no device has the number " + std::to_string(number) + "; there are:" + known);
}

void Session::finish(const LeftOpen& byDesign) {
  client.reset();
  const std::string open = desk->leftOpen(byDesign);
  if (!open.empty()) throw Failure("the library has left open: " + open);
}
