#include "Commands.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <vector>

#include "Session.h"
#include "Take.h"

namespace {

// A codec's filters and the last report on its way.
constexpr double kAfterSpeechSeconds = 0.1;

// Records the work device for so many seconds of sound, or until `enough`, and writes what the client received.
void recordWorkDevice(
    Session& session, double seconds, const std::string& out,
    const std::function<bool()>& enough = [] { return false; }) {
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
    return take.seconds() >= seconds || enough() || session.client->devices().size() < devices;
  });
  const bool lost = session.client->devices().size() < devices;
  const bool closed = hub.CloseHidRecord();
  session.runUntil(0, show, [] { return true; });
  take.add(session.client->takeAudio());
  take.write(out);
  if (lost) throw Failure("the device went away during the recording; " + out + " holds what it had sent");
  if (!closed) throw Failure("the device did not confirm within 1 s that it has closed; " + out + " is complete");
}

// How long to record when nobody has said: as long as there is speech; else until Ctrl-C or what else ends it.
double durationOf(const Options& options, const Desk& desk) {
  if (options.seconds > 0) return options.seconds;
  const auto speech = desk.speechSeconds();
  return speech ? *speech + kAfterSpeechSeconds : HUGE_VAL;
}

}  // namespace

void showDesk(const Options& options) {
  const std::string out = options.out.empty() ? "voxdesk-recording.wav" : options.out;
  Take::checkWritable(out);
  Session session(options);
  session.terminal.say(session.desk->greeting());
  session.discover({"connect", "state"});
  if (interrupted()) return session.finish();
  if (session.client->devices().empty()) throw Failure(Session::noDevice());

  CAudioHidCenter& hub = session.client->hub();
  const auto isDown = [&hub] { return hub.GetButtonState_Left() == ButtonDown; };
  const auto isUp = [&hub] { return hub.GetButtonState_Left() == ButtonUp; };
  const std::string owner = session.desk->voiceKeyOwner();
  if (owner.empty()) {
    const auto replay = session.desk->speechSeconds();
    if (!replay) session.terminal.say("Hold the voice key of a device and speak; release it to stop.");
    if (!session.runUntil(replay.value_or(HUGE_VAL), {"button", "disconnect"}, isDown)) {
      session.finish();
      if (replay && !interrupted()) throw Failure("no voice key is pressed in the recording");
      return;
    }
    recordWorkDevice(session, durationOf(options, *session.desk), out, isUp);
  } else {
    session.terminal.say("Holding the " + owner + "'s voice key.");
    session.desk->holdVoiceKey(true);
    if (!session.runUntil(1, {"button"}, isDown)) {
      throw Failure("the " + owner + "'s voice key is down, but its device does not report it");
    }
    recordWorkDevice(session, durationOf(options, *session.desk), out);
    session.desk->holdVoiceKey(false);
    session.runUntil(1, {"button"}, isUp);
  }
  session.finish();
  session.terminal.say(kSimulated ? "Stopped: nothing is left open." : "Stopped.");
}

void listDevices(const Options& options) {
  Session session(options);
  session.discover({"none"});
  const auto devices = session.client->devices();
  session.terminal.say(devices.empty() ? "There is nothing to list: " + Session::noDevice() + "."
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
    session.terminal.event(session.desk->seconds(), "device", fields, "");
  }
  session.finish();
}

void monitor(const Options& options) {
  Session session(options, true);
  if (options.seconds <= 0) session.terminal.say("Everything that happens, until Ctrl-C.");
  session.runUntil(options.seconds > 0 ? options.seconds : HUGE_VAL, {}, [&] {
    session.client->pollButtons();
    return false;
  });
  session.finish();
}

void record(const Options& options) {
  Take::checkWritable(options.out);
  Session session(options);
  session.discover({"connect"});
  session.client->hub().ChooseWorkHidDevice(session.choose(options.device).number);
  recordWorkDevice(session, durationOf(options, *session.desk), options.out);
  session.finish();
}
