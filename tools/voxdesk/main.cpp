// voxdesk: the command-line client of the device library.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "Commands.h"
#include "DeskFile.h"
#include "Terminal.h"

namespace {

enum ExitCode { kDone = 0, kFailed = 1, kWrongUsage = 2 };

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app(
      "A client of VoxDevice at a desk of virtual voice mice.\n"
      "Without a command: shows the desk's devices, holds the Wren's voice key, records what it hears into a WAV file.",
      "voxdesk");
  app.set_version_flag("--version", "voxdesk " VOXDEVICE_VERSION);
  app.footer(
      "Exit code: 0 done, 1 failed (standard error says why), 2 wrong usage.\n"
      "docs/desk-file.md describes desk files; a command's own options: voxdesk COMMAND --help.");
  app.add_option("--desk", options.deskFile,
                 "A desk file (JSON): which devices, links, faults; default: a Wren, a Heron Plus, a Tern")
      ->type_name("FILE.json");
  app.add_flag("--virtual-time", options.virtualTime, "As fast as the machine can, instead of in real time");
  app.add_flag("--json", options.json, "One JSON object per event, for scripts");
  app.add_option("--out", options.out, "Where the recording goes; default: voxdesk-recording.wav")
      ->type_name("OUT.wav");
  app.add_option("--seconds", options.seconds, "How long to record; default: as long as the speech")
      ->check(CLI::Range(0.001, 86'400.0))
      ->type_name("S");
  app.fallthrough();
  app.require_subcommand(0, 1);

  auto* devices = app.add_subcommand("devices", "List the devices that answer");
  auto* watch = app.add_subcommand("monitor", "Show every callback, button, message and log line, until Ctrl-C");
  watch->add_option("--seconds", options.seconds, "Stop after so long; needed with --virtual-time")
      ->check(CLI::Range(0.001, 86'400.0))
      ->type_name("S");
  auto* take = app.add_subcommand("record", "Record one device");
  take->add_option("--device", options.device, "The number of the device; default: the first")
      ->check(CLI::Range(1, 2'147'483'647))
      ->type_name("N");
  take->add_option("--speech", options.speech, "What the device hears: 16 kHz, mono, 16-bit")
      ->required()
      ->type_name("IN.wav");
  take->add_option("--out", options.out, "What the client received")->required()->type_name("OUT.wav");
  take->add_option("--seconds", options.seconds, "How long to record; default: as long as the speech")
      ->check(CLI::Range(0.001, 86'400.0))
      ->type_name("S");

  try {
    app.parse(argc, argv);
    if (*watch && options.virtualTime && options.seconds <= 0) {
      throw CLI::ValidationError("--virtual-time", "monitor needs --seconds with it, or it would never end");
    }
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kWrongUsage;
  }

  catchInterrupts();
  try {
    if (*devices) {
      listDevices(options);
    } else if (*watch) {
      monitor(options);
    } else if (*take) {
      record(options);
    } else {
      showDesk(options);
    }
    return kDone;
  } catch (const std::exception& error) {
    std::fflush(stdout);
    std::fprintf(stderr, "voxdesk: %s\n", error.what());
    return kFailed;
  }
}
