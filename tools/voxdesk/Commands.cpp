#include "Commands.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <vector>

#include "Session.h"
#include "Survey.h"
#include "Table.h"
#include "Take.h"

namespace {

// A codec's filters and the last report on its way.
constexpr double kAfterSpeechSeconds = 0.1;

// Records the work device for so many seconds of sound, or until `enough`.
void recordWorkDevice(
    Session& session, double seconds, const Options& options,
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
  Take take(session, options);
  const auto devices = session.client->devices().size();
  session.runUntil(seconds + 1, show, [&] {
    take.add(session.client->takeAudio());
    return take.seconds() >= seconds || take.over() || enough() || session.client->devices().size() < devices;
  });
  const bool lost = session.client->devices().size() < devices;
  const bool closed = hub.CloseHidRecord();
  take.add(session.client->takeAudio());
  session.runUntil(0, show, [] { return true; });
  take.finish(lost ? "the device went away during the recording" : "");
  if (!closed) {
    throw Failure("the device did not confirm within 1 s that it has closed; " + options.out + " is complete");
  }
}

// How long to record when nobody has said: as long as there is speech; else until Ctrl-C or what else ends it.
double durationOf(const Options& options, const Desk& desk) {
  auto speech = desk.speechSeconds();
  if (speech) *speech += kAfterSpeechSeconds;
  return Take::durationOf(options, speech);
}

}  // namespace

void showDesk(const Options& options) {
  Take::checkWritable(options);
  Session session(options);
  session.terminal.say(session.desk->greeting());
  session.discover({"connect", "state"});
  session.choose({});

  CAudioHidCenter& hub = session.client->hub();
  const auto isDown = [&hub] { return hub.GetButtonState_Left() == ButtonDown; };
  const auto isUp = [&hub] { return hub.GetButtonState_Left() == ButtonUp; };
  const std::string owner = session.desk->voiceKeyOwner();
  if (owner.empty()) {
    const auto replay = session.desk->speechSeconds();
    if (!replay) session.terminal.say("Hold the voice key of a device and speak; release it to stop.");
    if (!session.runUntil(replay.value_or(HUGE_VAL), {"button", "disconnect"}, isDown)) {
      session.finish();
      session.failIfInterrupted("before a voice key was pressed");
      throw Failure("no voice key is pressed in the recording");
    }
    recordWorkDevice(session, durationOf(options, *session.desk), options, isUp);
  } else {
    session.terminal.say("Holding the " + owner + "'s voice key.");
    session.desk->holdVoiceKey(true);
    if (!session.runUntil(1, {"button"}, isDown)) {
      session.failIfInterrupted("before anything was recorded");
      throw Failure("the " + owner + "'s voice key is down, but its device does not report it");
    }
    recordWorkDevice(session, durationOf(options, *session.desk), options);
    session.desk->holdVoiceKey(false);
    session.runUntil(1, {"button"}, isUp);
  }
  session.finish();
  session.terminal.say(kSimulated ? "Stopped: nothing is left open." : "Stopped.");
}

void listDevices(const Options& options) {
  Survey survey;
  Session session(options, false, options.verbose ? &survey : nullptr);
  session.terminal.say("Looking for devices ...");
  session.discover({"none"});
  const auto devices = session.client->devices();
  if (devices.empty()) session.failIfInterrupted("before a device had answered");
  Table table({{"#", Table::Side::right},
               {"model"},
               {"link"},
               {"battery", Table::Side::right},
               {"DPI", Table::Side::right},
               {"identity"}});
  for (const DeviceView& view : devices) {
    table.add({std::to_string(view.number), view.model, view.link, percent(view.battery),
               view.dpi < 0 ? "?" : std::to_string(view.dpi), view.identity.empty() ? "-" : view.identity});
    Json fields{{"device", view.number}, {"model", view.model}, {"link", view.link}};
    fields["battery"] = view.battery < 0 ? Json() : Json(view.battery);
    fields["dpi"] = view.dpi < 0 ? Json() : Json(view.dpi);
    fields["identity"] = view.identity.empty() ? Json() : Json(view.identity);
    session.terminal.event(session.desk->seconds(), "device", fields, "");
  }
  devices.empty() ? session.terminal.tell("There is nothing to list: " + session.noDevice() + ".")
                  : session.terminal.table(table);
  if (options.verbose) tellInterfaces(session, survey.interfaces(*session.desk));
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
  Take::checkWritable(options);
  Session session(options);
  session.discover({"connect"});
  session.client->hub().ChooseWorkHidDevice(session.choose(options.device).number);
  recordWorkDevice(session, durationOf(options, *session.desk), options);
  session.finish();
}
