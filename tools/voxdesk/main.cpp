// voxdesk: the command-line client of the device library.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

#include "Commands.h"
#include "Desk.h"
#include "System.h"
#include "Terminal.h"

namespace {

enum ExitCode { kDone = 0, kFailed = 1, kWrongUsage = 2 };

}  // namespace

int main(int argc, char** argv) {
  prepareConsole();
  if (const auto code = runOther(argc, argv)) return *code;
  Options options;
  CLI::App app(kAbout, "voxdesk");
  app.allow_windows_style_options(false);  // a path may begin with a slash
  app.set_version_flag("--version", "voxdesk " VOXDEVICE_VERSION);
  app.footer(
      "Exit code: 0 done, 1 failed (standard error says why), 2 wrong usage.\n"
      "docs/desk-file.md describes desk files; a command's own options: voxdesk COMMAND --help.");
  app.add_option("--desk", options.deskFile,
                 kSimulated
                     ? "A desk file (JSON): which devices, links, faults; or a capture, whose devices are replayed; "
                       "default: a Wren, a Heron Plus, a Tern"
                     : "A simulated desk instead of this computer: a desk file (JSON), a capture, or "
                       "\"default\"")
      ->type_name("FILE");
  app.add_flag("--virtual-time", options.virtualTime,
               "As fast as the machine can, instead of in real time (simulated desks)");
  app.add_flag("--json", options.json, "One JSON object per event, for scripts");
  app.add_option("--out", options.out, "Where the recording goes; default: voxdesk-recording.wav")
      ->type_name("OUT.wav");
  app.add_option("--seconds", options.seconds,
                 kSimulated ? "How long to record; default: as long as the speech" : "The longest recording")
      ->check(CLI::Range(0.001, 86'400.0))
      ->type_name("S");
  auto* capture =
      app.add_option("--capture", options.capture,
                     "Record everything that passes between the library and the devices, as it happens")
          ->type_name("FILE.pcapng")
          ->check([](const std::string& name) { return std::string(name.empty() ? "a file's name is missing" : ""); });
  app.add_flag("--no-speech", options.noSpeech,
               "... with speech as zeros, and serial numbers and addresses invented, to hand it on")
      ->needs(capture);
  app.add_option("--capture-size", options.captureMegabytes,
                 "... in files of so many MiB at most, continued in FILE-2.pcapng ...; default: 64")
      ->needs(capture)
      ->check(CLI::Range(0.1, 1'048'576.0))
      ->type_name("MIB");
  app.fallthrough();
  app.require_subcommand(0, 1);

  // Each command, and what it does when it is the one that was given.
  std::vector<std::pair<CLI::App*, void (*)(const Options&)>> commands;
  const auto command = [&](CLI::App& parent, const char* name, const char* what, void (*run)(const Options&)) {
    CLI::App* added = parent.add_subcommand(name, what);
    if (run) commands.emplace_back(added, run);
    return added;
  };
  const auto needsDevice = [&](CLI::App* to) {
    to->add_option("--device", options.device, "The number of the device; default: the first")
        ->check(CLI::Range(1, 2'147'483'647))
        ->type_name("N");
    return to;
  };
  const auto takesSeconds = [&](CLI::App* to, const char* what) {
    to->add_option("--seconds", options.seconds, what)->check(CLI::Range(0.001, 86'400.0))->type_name("S");
  };

  command(app, "devices", "List the devices that answer", &listDevices);
  auto* watch = command(app, "monitor", "Show every callback, button, message and log line, until Ctrl-C", &monitor);
  takesSeconds(watch, "Stop after so long; needed with --virtual-time");
  watch->add_flag("--raw", options.raw, "Show the reports themselves, too, in hexadecimal");
  auto* take = needsDevice(command(app, "record", "Record one device", &record));
  if (kSimulated) {
    take->add_option("--speech", options.speech, "What the device hears: 16 kHz, mono, 16-bit")
        ->required()
        ->type_name("IN.wav");
  }
  take->add_option("--out", options.out, "What the client received")->required()->type_name("OUT.wav");
  takesSeconds(take,
               kSimulated ? "How long to record; default: as long as the speech" : "How long; default: until Ctrl-C");

  command(app, "sound", "List the computer's microphones, endpoints and speaker, and which is chosen", &listSound);
  auto* mic = command(app, "mic", "Record a microphone of the computer", &recordMicrophone);
  mic->add_option("--device", options.microphone, "Part of its name; default: the library's choice")->type_name("NAME");
  auto* speaker = command(app, "speaker", "Record what the computer plays", &recordSpeaker);
  for (CLI::App* recording : {mic, speaker}) {
    recording->add_option("--out", options.out, "The recording")->required()->type_name("OUT.wav");
    takesSeconds(recording, "How long; default: to the end of the source, or Ctrl-C");
  }

  auto* legacy =
      command(app, "legacy", "Show older hardware, its keys and the working mode, until Ctrl-C", &watchLegacy);
  takesSeconds(legacy, "Stop after so long; needed with --virtual-time");

  auto* told = command(app, "report", "Say what a capture tells; needs no desk", &report);
  told->add_option("FILE", options.recording, "A capture: of voxdesk, or of a USB bus")
      ->required()
      ->type_name("FILE.pcapng");
  told->add_option("--out", options.reportPage, "One page that needs nothing else")->type_name("REPORT.html");
  told->add_flag("--text", options.text, "The same as text; this is what happens without any option");
  told->add_option("--wav", options.speechFolder, "Write the speech, a file for each voice channel")->type_name("DIR");
  told->add_option("--slow", options.slow, "An answer that takes longer is unusual; default: 250")
      ->check(CLI::Range(0.0, 1e9))
      ->type_name("MS");

  needsDevice(command(app, "state", "Ask a device for its state", &showState));
  needsDevice(command(app, "dpi", "Set a device's DPI", &setDpi))
      ->add_option("DPI", options.dpi, "Dots per inch")
      ->required()
      ->check(CLI::Range(1, 32'767));
  needsDevice(command(app, "url", "Send a device its download URL", &setUrl))
      ->add_option("URL", options.url, "Without the scheme: letters, digits, - = . /")
      ->required();
  auto* send = needsDevice(command(app, "send", "Write one report to a device, as it stands", &sendReport));
  send->add_option("HEX", options.hex, "The report with its id, in hexadecimal; filled up with zeros")->required();
  send->add_option("--wait", options.waitMilliseconds, "Show what passes for so long afterwards; default: 0")
      ->check(CLI::Range(0.0, 3'600'000.0))
      ->type_name("MS");
  send->add_flag("--force", options.force, "Even one that belongs to a firmware update");
  auto* mkey = command(app, "mkey", "The function of a device's M key", nullptr);
  mkey->require_subcommand(1);
  mkey->fallthrough();
  needsDevice(command(*mkey, "list", "The functions that the device supports", &listMKey));
  needsDevice(command(*mkey, "set", "Give the key another function", &setMKey))
      ->add_option("FUNCTION", options.function, "Its number; 2 is a held button, 3 a screenshot")
      ->required()
      ->check(CLI::Range(0, 255));
  auto* update = needsDevice(command(app, "update", "Update a device's firmware", &updateFirmware));
  update->add_option("--first", options.first, "The device's own image")->type_name("A.bin");
  update->add_option("--second", options.second, "Its receiver's image")->type_name("B.bin");

  try {
    app.parse(argc, argv);
    if ((*watch || *legacy) && options.virtualTime && options.seconds <= 0) {
      throw CLI::ValidationError("--virtual-time", "this needs --seconds with it, or it would never end");
    }
    if (*update && options.first.empty() && options.second.empty()) {
      throw CLI::RequiredError("--first or --second");
    }
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kWrongUsage;
  }

  catchInterrupts();
  try {
    const auto given = std::find_if(commands.begin(), commands.end(), [](const auto& c) { return c.first->parsed(); });
    (given == commands.end() ? &showDesk : given->second)(options);
    return kDone;
  } catch (const std::exception& error) {
    std::fflush(stdout);
    std::fprintf(stderr, "voxdesk: %s\n", error.what());
    return kFailed;
  }
}
