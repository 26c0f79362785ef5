#include "Commands.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "Session.h"
#include "Take.h"

namespace {

// A codec's filters and the last report on its way.
constexpr double kAfterSpeechSeconds = 0.1;

// Records the work device for so many seconds of sound, and writes what the client received.
void recordWorkDevice(Session& session, double seconds, const std::string& out) {
  CAudioHidCenter& hub = session.client->hub();
  const std::vector<std::string> show{"voice", "disconnect"};
  const bool opened = hub.OpenHidRecord();
  if (!opened) {
    bool refused = false;
    for (const ClientEvent& event : session.client->takeEvents()) {
      refused = refused || (event.name == "voice" && event.fields["operation"] == 2);
    }
    throw Failure(refused ? "the device refused to open its voice channel"
                          : "the device did not confirm its voice channel within 1 s");
  }
  Take take(session);
  const auto devices = session.client->devices().size();
  session.runUntil(seconds + 1, show, [&] {
    take.add(session.client->takeAudio());
    return take.seconds() >= seconds || session.client->devices().size() < devices;
  });
  const bool lost = session.client->devices().size() < devices;
  const bool closed = hub.CloseHidRecord();
  session.runUntil(0, show, [] { return true; });
  take.add(session.client->takeAudio());
  take.write(out);
  if (lost) throw Failure("the device went away during the recording; " + out + " holds what it had sent");
  if (!closed) throw Failure("the device did not confirm within 1 s that it has closed; " + out + " is complete");
}

double durationOf(const std::vector<std::int16_t>& speech) {
  return Take::secondsOf(speech.size()) + kAfterSpeechSeconds;
}

}  // namespace

void showDesk(const Options& options) {
  const std::string out = options.out.empty() ? "voxdesk-recording.wav" : options.out;
  Take::checkWritable(out);
  DeskDescription description = deskOf(options);
  const auto sheet = std::find_if(description.devices.begin(), description.devices.end(),
                                  [](const DeskDevice& device) { return device.model == "Wren"; });
  if (sheet == description.devices.end()) {
    throw Failure("the desk has no Wren, whose voice key would be held; 'voxdesk record' records any device");
  }
  const double seconds = options.seconds > 0 ? options.seconds : durationOf(sheet->speech);
  Session session(options, description);
  session.terminal.say("A desk with " + std::to_string(session.desk.size()) + " virtual devices; looking for them ...");
  session.discover({"connect", "state"});
  if (interrupted()) return session.finish();

  sim::VirtualMouse& wren = *session.desk.find("Wren");
  session.terminal.say("Holding the Wren's voice key.");
  wren.pressVoiceKey();
  CAudioHidCenter& hub = session.client->hub();
  if (!session.runUntil(1, {"button"}, [&] { return hub.GetButtonState_Left() == ButtonDown; })) {
    throw Failure("the Wren's voice key is down, but its device does not report it");
  }
  recordWorkDevice(session, seconds, out);
  wren.releaseVoiceKey();
  session.runUntil(1, {"button"}, [&] { return hub.GetButtonState_Left() == ButtonUp; });
  session.finish();
  session.terminal.say("Stopped: nothing is left open.");
}

void listDevices(const Options& options) {
  Session session(options, deskOf(options));
  session.discover({"none"});
  const auto devices = session.client->devices();
  session.terminal.say(devices.empty() ? "No device has answered within " + fixed("%.0f s.", Session::kDiscoverySeconds)
                                       : "   #  model                 link          battery   DPI  identity");
  for (const DeviceView& view : devices) {
    char line[160];
    std::snprintf(line, sizeof line, "%4d  %-20s  %-12s  %7s  %4s  %s", view.number, view.model.c_str(),
                  view.link.c_str(), percent(view.battery).c_str(),
                  view.dpi < 0 ? "?" : std::to_string(view.dpi).c_str(),
                  view.identity.empty() ? "-" : view.identity.c_str());
    session.terminal.say(line);
    if (!session.terminal.json()) continue;
    Json fields{{"device", view.number}, {"model", view.model}, {"link", view.link}};
    fields["battery"] = view.battery < 0 ? Json() : Json(view.battery);
    fields["dpi"] = view.dpi < 0 ? Json() : Json(view.dpi);
    fields["identity"] = view.identity.empty() ? Json() : Json(view.identity);
    session.terminal.event(session.desk.seconds(), "device", fields, "");
  }
  session.finish();
}

void monitor(const Options& options) {
  Session session(options, deskOf(options, true));
  if (options.seconds <= 0) session.terminal.say("Everything that happens, until Ctrl-C.");
  session.runUntil(options.seconds > 0 ? options.seconds : HUGE_VAL, {}, [&] {
    session.client->pollButtons();
    return false;
  });
  session.finish();
}

void record(const Options& options) {
  const std::vector<std::int16_t> speech = readSpeech(options.speech);
  Take::checkWritable(options.out);
  DeskDescription description = deskOf(options);
  // Whichever the client numbers N: they all hear it, and one is recorded.
  for (DeskDevice& device : description.devices) device.speech = speech;
  Session session(options, std::move(description));
  session.discover({"connect"});
  session.client->hub().ChooseWorkHidDevice(session.choose(options.device).number);
  recordWorkDevice(session, options.seconds > 0 ? options.seconds : durationOf(speech), options.out);
  session.finish();
}
