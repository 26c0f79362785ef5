#include "Commands.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "Session.h"
#include "sim/Wav.h"

namespace {

constexpr int kSampleRate = 16000;
// A codec's filters and the last report on its way.
constexpr double kAfterSpeechSeconds = 0.1;

double decibels(double amplitude) { return amplitude > 0 ? 20 * std::log10(amplitude / 32768) : -99; }

double level(const std::vector<std::int16_t>& pcm) {
  double sum = 0;
  for (const double sample : pcm) sum += sample * sample;
  return pcm.empty() ? -99 : decibels(std::sqrt(sum / static_cast<double>(pcm.size())));
}

std::string meter(double dB) {
  constexpr int kColumns = 30;
  const int lit = std::clamp(static_cast<int>((dB + 60) / 60 * kColumns), 0, kColumns);
  return "[" + std::string(static_cast<std::size_t>(lit), '#') +
         std::string(static_cast<std::size_t>(kColumns - lit), ' ') + "]";
}

// Fails now rather than after the recording.
void checkWritable(const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "ab");
  if (!file) throw Failure(path + ": " + std::strerror(errno));
  std::fclose(file);
}

// Records the work device for so many seconds of sound, and writes what the client received.
void recordWorkDevice(Session& session, double seconds, const std::string& out) {
  Terminal& terminal = session.terminal;
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
  std::vector<std::int16_t> pcm;
  const auto devices = session.client->devices().size();
  const auto received = [&] { return static_cast<double>(pcm.size()) / kSampleRate; };
  const auto collect = [&] {
    const auto more = session.client->takeAudio();
    if (more.empty()) return;
    pcm.insert(pcm.end(), more.begin(), more.end());
    const double dB = level(more);
    if (terminal.json()) {
      terminal.event(session.desk.seconds(), "level", {{"seconds", received()}, {"dbfs", std::round(dB * 10) / 10}},
                     "");
    } else {
      terminal.progress(session.desk.seconds(),
                        "recording " + fixed("%5.1f s  ", received()) + meter(dB) + fixed(" %6.1f dBFS", dB));
    }
  };
  session.runUntil(seconds + 1, show, [&] {
    collect();
    return received() >= seconds || session.client->devices().size() < devices;
  });
  const bool lost = session.client->devices().size() < devices;
  const bool closed = hub.CloseHidRecord();
  session.runUntil(0, show, [] { return true; });
  collect();

  std::string error;
  if (!sim::writeWav(out, pcm, kSampleRate, error)) throw Failure(error);
  int peak = 0;
  for (const int sample : pcm) peak = std::max(peak, std::abs(sample));
  terminal.event(session.desk.seconds(), "recorded",
                 {{"file", out}, {"seconds", received()}, {"peak_dbfs", std::round(decibels(peak) * 10) / 10}},
                 "wrote " + out + fixed(": %.2f s of speech, 16 kHz mono", received()) +
                     fixed(", peak %.1f dBFS", decibels(peak)));
  if (lost) throw Failure("the device went away during the recording; " + out + " holds what it had sent");
  if (!closed)
    throw Failure("the device did not confirm within 1 s that its voice channel is closed; " + out + " is complete");
}

double durationOf(const std::vector<std::int16_t>& speech) {
  return static_cast<double>(speech.size()) / kSampleRate + kAfterSpeechSeconds;
}

}  // namespace

void showDesk(const Options& options) {
  const std::string out = options.out.empty() ? "voxdesk-recording.wav" : options.out;
  checkWritable(out);
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
  checkWritable(options.out);
  DeskDescription description = deskOf(options);
  // Whichever the client numbers N: they all hear it, and one is recorded.
  for (DeskDevice& device : description.devices) device.speech = speech;
  Session session(options, std::move(description));
  session.discover({"connect"});
  session.client->hub().ChooseWorkHidDevice(session.choose(options.device).number);
  recordWorkDevice(session, options.seconds > 0 ? options.seconds : durationOf(speech), options.out);
  session.finish();
}
