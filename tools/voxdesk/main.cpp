// voxdesk: the command-line client of the device library.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <numeric>
#include <sstream>
#include <utility>
#include <vector>

#include "Commands.h"
#include "Desk.h"
#include "Files.h"
#include "System.h"
#include "Terminal.h"

namespace {

// How many letters have to be put in, taken out or replaced.
std::size_t distance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i);
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
      diagonal = std::exchange(row[j], std::min({replaced, row[j] + 1, row[j - 1] + 1}));
    }
  }
  return row.back();
}

// What to say of a word that is no command of voxdesk, or of one of its commands ("mkey ").
std::string notACommand(const CLI::App& app, const std::string& above, const std::string& word) {
  const std::string list = "\"; voxdesk " + above + "--help lists them";
  if (word.starts_with('-')) return "there is no option \"" + word + list;
  const auto commands = app.get_subcommands([](const CLI::App*) { return true; });
  const auto further = [&](const CLI::App* a, const CLI::App* b) {
    return distance(word, a->get_name()) < distance(word, b->get_name());
  };
  const std::string nearest = (*std::min_element(commands.begin(), commands.end(), further))->get_name();
  // A letter in three may be wrong.
  const bool near = 3 * distance(word, nearest) <= std::max(word.size(), nearest.size());
  return "there is no command \"" + above + word + (near ? "\"; the nearest is \"" + above + nearest + '"' : list);
}

// "mkey set".
std::string wholeName(const CLI::App& command) {
  const CLI::App* above = command.get_parent();
  return (above && above->get_parent() ? wholeName(*above) + ' ' : "") + command.get_name();
}

// What is wrong with the arguments.
std::string sentenceOf(const CLI::ParseError& error, const CLI::App& app) {
  const auto given = app.get_subcommands();
  const auto extras = app.remaining(true);
  const CLI::App* command = given.empty() ? nullptr : given.front();
  if (command && !command->get_subcommands().empty()) command = command->get_subcommands().front();
  const std::string called = command ? wholeName(*command) : "";
  if (dynamic_cast<const CLI::ExtrasError*>(&error) && !extras.empty()) {
    if (!command) return notACommand(app, "", extras.front());
    const auto option =
        std::find_if(extras.begin(), extras.end(), [](const std::string& word) { return word.starts_with('-'); });
    const std::string& first = option == extras.end() ? extras.front() : *option;
    const std::string name = first.substr(0, first.find('='));
    if (name.starts_with("--") && command->get_option_no_throw(name))
      return name + ": stands behind its command, as in voxdesk " + called + ' ' + name;
    return called + " does not take \"" + first + "\"; voxdesk " + called + " --help says what it takes";
  }
  if (command && dynamic_cast<const CLI::RequiredError*>(&error) && command->get_require_subcommand_min() > 0) {
    if (!extras.empty() && !extras.front().starts_with('-')) return notACommand(*command, called + ' ', extras.front());
    return called + ": expected one of its commands; voxdesk " + called + " --help lists them";
  }
  std::string what = error.what();
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&error)) {
    const bool tooMany = what.find("At Most") != what.npos;
    what = what.substr(0, what.find(':')) + (tooMany ? ": given more than once" : ": a value is missing");
  }
  return what + "; see voxdesk " + (command ? called + " " : "") + "--help";
}

std::string checkDevice(const std::string& name) {
  if (name.empty()) return "a number or a name is missing";
  const bool zero = std::all_of(name.begin(), name.end(), [](char c) { return c == '0'; });
  return zero ? "devices are numbered from 1" : "";
}

// The exit code, when standard error has been told what there is to say.
int conclude(int exitCode, std::string sentence) {
  const int problem = outputProblem();
  if (problem == EPIPE && exitCode != kFailed) {
    exitCode = kInterrupted;
    sentence = "interrupted: nobody reads standard output any more";
  } else if (problem != 0 && problem != EPIPE) {
    exitCode = kFailed;
    sentence = std::string("standard output: ") + std::strerror(problem) + (sentence.empty() ? "" : "; ") + sentence;
  }
  std::fflush(stdout);
  if (!sentence.empty()) std::fprintf(stderr, "voxdesk: %s\n", printable(sentence).c_str());
  return exitCode;
}

std::string notFound(const std::string& expected, const std::string& found) {
  return "expected " + expected + ", not \"" + found + '"';
}

// whole: in digits, of which the first is no zero, as that would make it octal.
CLI::Validator number(double least, double most, bool whole = false) {
  std::ostringstream bounds;
  bounds.precision(10);
  bounds << least << " to " << most;
  return {[=, range = bounds.str()](const std::string& text) {
            char* end = nullptr;
            const double value = std::strtod(text.c_str(), &end);
            const bool digits = std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
            // (No comparison with a bound finds out what is no number at all.)
            if (!text.empty() && *end == '\0' && value >= least && value <= most &&
                (!whole || (digits && (text == "0" || text[0] != '0')))) {
              return std::string();
            }
            return notFound((whole ? "a whole number from " : "a number from ") + range, text);
          },
          bounds.str()};
}

}  // namespace

int main(int argc, char** argv) {
  prepareConsole();
  if (const auto code = runOther(argc, argv)) return *code;
  catchInterrupts();
  Options options;
  CLI::App app(kAbout, "voxdesk");
  app.allow_windows_style_options(false);  // a path may begin with a slash
  app.set_version_flag("-V,--version", "voxdesk " VOXDEVICE_VERSION);
  app.footer(
      "Ctrl-C, SIGTERM, SIGHUP, or nobody who reads standard output any more: the work ends as if its time were\n"
      "over, and what was recorded is kept. Once more, half a second later or more: the program ends at once. An\n"
      "update that has begun ends by that only.\n"
      "Exit code: 0 done, 1 failed (standard error says why), 2 wrong usage, 130 interrupted.\n"
      "docs/desk-file.md describes desk files; a command's own options: voxdesk COMMAND --help.");
  auto* desk =
      app.add_option(
             "--desk", options.deskFile,
             kSimulated ? "A desk file (JSON): which devices, links, faults; or a capture, whose devices are replayed; "
                          "hardware: what is plugged into this computer; default: a Wren, a Heron Plus, a Tern"
                        : "A simulated desk instead of this computer: a desk file (JSON), a capture, or "
                          "\"default\"")
          ->type_name("FILE");
  auto* virtualTime = app.add_flag("--virtual-time", options.virtualTime,
                                   "As fast as the machine can, instead of in real time (simulated desks)");
  auto* json = app.add_flag("--json", options.json, "One JSON object per event, for scripts");
  auto* quiet = app.add_flag("-q,--quiet", options.quiet, "Results and errors only")->excludes(json);
  const auto takesOut = [&](CLI::App& to, const char* what) {
    auto* out = to.add_option("--out", options.out,
                              what + std::string("; -: standard output, and messages, or events, go to standard error"))
                    ->type_name("OUT.wav");
    to.add_option("--format", options.rawSound,
                  "wav, or raw: 16-bit samples alone, low byte first; 16 kHz, mono; default: wav")
        ->transform(CLI::Validator(
            [](std::string& text) {
              if (text != "wav" && text != "raw") return notFound("wav or raw", text);
              text = text == "raw" ? "true" : "false";
              return std::string();
            },
            ""))
        ->needs(out)
        ->type_name("FORMAT");
    to.add_option("--picture", options.picture, "A picture of it: waveform and spectrum")->type_name("OUT.png");
    return out;
  };
  const auto takesSeconds = [&](CLI::App& to, const char* what) {
    to.add_option("--seconds", options.seconds, what)->check(number(0.001, 86'400))->type_name("S");
  };
  takesOut(app, "Where the recording goes; default: voxdesk-recording.wav");
  takesSeconds(app, kSimulated ? "How long to record; default: as long as the speech" : "The longest recording");
  auto* capture = app.add_option("--capture", options.capture,
                                 "Record everything that passes between the library and the devices, as it happens")
                      ->type_name("FILE.pcapng");
  auto* noSpeech = app.add_flag("--no-speech", options.noSpeech,
                                "... with speech as zeros, and serial numbers and addresses invented, to hand it on")
                       ->needs(capture);
  auto* captureSize = app.add_option("--capture-size", options.captureMegabytes,
                                     "... in files of so many MiB at most, continued in FILE-2.pcapng ...; default: 64")
                          ->needs(capture)
                          ->check(number(0.1, 1'048'576))
                          ->type_name("MIB");
  app.fallthrough();
  app.require_subcommand(0, 1);

  // Each command, what it does when it is the one that was given, and which of the options above it takes.
  struct Command {
    CLI::App* app;
    void (*run)(const Options&);
    std::vector<const CLI::Option*> takes;
  };
  std::vector<Command> commands;
  const std::vector<const CLI::Option*> allOfDesk{desk, virtualTime, json, quiet, capture, noSpeech, captureSize};
  const auto add = [&](CLI::App& parent, const char* name, const char* what, void (*run)(const Options&),
                       const std::vector<const CLI::Option*>& takes) {
    CLI::App* added = parent.add_subcommand(name, what);
    commands.push_back({added, run, takes});
    added->footer([takes] { return CLI::Formatter().make_group("Options of all commands", false, takes); });
    return added;
  };
  const auto command = [&](CLI::App& parent, const char* name, const char* what, void (*run)(const Options&)) {
    return add(parent, name, what, run, allOfDesk);
  };
  const auto needsDevice = [&](CLI::App* to) {
    to->add_option("--device", options.device,
                   "The device: its number, model, identity, or a part of its path; default: the first")
        ->check(&checkDevice)
        ->type_name("DEVICE");
    return to;
  };

  auto* list = command(app, "devices", "List the devices that answer", &listDevices);
  list->add_flag("-v,--verbose", options.verbose,
                 "... and every HID interface, with why it is none of ours or not used");
  auto* examine = command(app, "doctor", "Look for what is wrong with the devices, and say what may help", &doctor);
  takesSeconds(*examine, "How long to look, at least 4; default: 10");
  examine->add_flag("--no-voice", options.noVoice, "Do not open the devices' voice channels");
  examine->add_option("--out", options.reportPage, "What passed meanwhile, as a page")->type_name("REPORT.html");
  auto* rules = needsDevice(command(app, "conform", "Try whether a device keeps the protocol's rules", &conform));
  rules->add_flag(
      "--yes", options.yes,
      "Set the DPI to what it is, and an M key to another function and back, without asking; else these are left out");
  rules->add_option("--url", options.url, "Send it this download URL, too, which replaces the one it has")
      ->type_name("URL");
  rules->add_option("--junit", options.junit, "The results as JUnit XML")->type_name("FILE.xml");
  auto* watch = command(app, "monitor", "Show every callback, button, message and log line, until Ctrl-C", &monitor);
  takesSeconds(*watch, "Stop after so long; needed with --virtual-time");
  watch->add_flag("--raw", options.raw, "Show the reports themselves, too, in hexadecimal");
  auto* take = needsDevice(command(app, "record", "Record one device", &record));
  if (kSimulated) {
    take->add_option("--speech", options.speech,
                     "What the device hears: 16 kHz, mono, 16-bit; needed, but not with --desk hardware")
        ->type_name("IN.wav");
  }
  takesOut(*take, "What the client received")->required();
  takesSeconds(*take,
               kSimulated ? "How long to record; default: as long as the speech" : "How long; default: until Ctrl-C");

  command(app, "sound", "List the computer's microphones, endpoints and speaker, and which is chosen", &listSound);
  auto* mic = command(app, "mic", "Record a microphone of the computer", &recordMicrophone);
  mic->add_option("--device", options.microphone, "Part of its name; default: the library's choice")->type_name("NAME");
  auto* speaker = command(app, "speaker", "Record what the computer plays", &recordSpeaker);
  for (CLI::App* recording : {mic, speaker}) {
    takesOut(*recording, "The recording")->required();
    takesSeconds(*recording, "How long; default: to the end of the source, or Ctrl-C");
  }

  auto* legacy =
      command(app, "legacy", "Show older hardware, its keys and the working mode, until Ctrl-C", &watchLegacy);
  takesSeconds(*legacy, "Stop after so long; needed with --virtual-time");

  auto* told = add(app, "report", "Say what a capture tells; needs no desk", &report, {json});
  told->add_option("FILE", options.recording, "A capture: of voxdesk, or of a USB bus")
      ->required()
      ->type_name("FILE.pcapng");
  told->add_option("--out", options.reportPage, "One page that needs nothing else")->type_name("REPORT.html");
  told->add_flag("--text", options.text, "The same as text; this is what happens without any option")->excludes(json);
  told->add_option("--wav", options.speechFolder, "Write the speech, a file for each voice channel")->type_name("DIR");
  told->add_option("--slow", options.slow, "An answer that takes longer is unusual; default: 250")
      ->check(number(0, 1e9))
      ->type_name("MS");

  needsDevice(command(app, "state", "Ask a device for its state", &showState));
  needsDevice(command(app, "dpi", "Set a device's DPI", &setDpi))
      ->add_option("DPI", options.dpi, "Dots per inch")
      ->required()
      ->check(number(1, 32'767, true));
  needsDevice(command(app, "url", "Send a device its download URL", &setUrl))
      ->add_option("URL", options.url, "Without the scheme: letters, digits, - = . /")
      ->required();
  auto* send = needsDevice(command(app, "send", "Write one report to a device, as it stands", &sendReport));
  send->add_option("HEX", options.hex, "The report with its id, in hexadecimal; filled up with zeros")->required();
  send->add_option("--wait", options.waitMilliseconds, "Show what passes for so long afterwards; default: 0")
      ->check(number(0, 3'600'000))
      ->type_name("MS");
  send->add_flag("--force", options.force, "Even one that belongs to a firmware update");
  auto* mkey = app.add_subcommand("mkey", "The function of a device's M key");
  mkey->require_subcommand(1);
  mkey->fallthrough();
  needsDevice(command(*mkey, "list", "The functions that the device supports", &listMKey));
  needsDevice(command(*mkey, "set", "Give the key another function", &setMKey))
      ->add_option("FUNCTION", options.function, "Its number; 2 is a held button, 3 a screenshot")
      ->required()
      ->check(number(0, 255, true));
  auto* update = needsDevice(command(app, "update", "Update a device's firmware", &updateFirmware));
  update->add_option("--first", options.first, "The device's own image")->type_name("A.bin");
  update->add_option("--second", options.second, "Its receiver's image")->type_name("B.bin");
  auto* yes =
      update->add_flag("--yes", options.yes, "Begin without asking; needed where standard input is no terminal");
  auto* rehearse = update
                       ->add_flag("--rehearse", options.rehearse,
                                  "Try it with a simulated device (--device: its model; default: wren), once for each "
                                  "thing that may go wrong with each message")
                       ->excludes(yes);
  update->add_option("--link", options.link, "... on this link: usb or bluetooth; default: usb, where the model has it")
      ->needs(rehearse)
      ->check([](const std::string& text) {
        return text == "usb" || text == "bluetooth" ? std::string() : notFound("usb or bluetooth", text);
      })
      ->type_name("LINK");
  update
      ->add_option("--tries", options.tries,
                   "... of so many of its messages, and all that carry no data; default: as many as take about a "
                   "minute, and at least 100")
      ->needs(rehearse)
      ->check(number(2, 1e9, true))
      ->type_name("N");

  std::vector<CLI::App*> all{&app};
  for (const Command& each : commands) all.push_back(each.app);
  for (CLI::App* each : all) {
    for (CLI::Option* option : each->get_options()) {
      option->check([](const std::string& text) { return std::string(text.empty() ? "a value is missing" : ""); });
    }
  }
  void (*run)(const Options&) = &showDesk;
  bool records = true;
  // What stands before a command is for all of them, or for none.
  const auto chooseCommand = [&] {
    for (const Command& candidate : commands) {
      if (!candidate.app->parsed()) continue;
      run = candidate.run;
      records = candidate.app->get_option_no_throw("--picture") != nullptr;
      const std::string name = wholeName(*candidate.app);
      for (const CLI::Option* given : app.get_options()) {
        const bool takes = std::find(candidate.takes.begin(), candidate.takes.end(), given) != candidate.takes.end();
        if (given->count() == 0 || takes) continue;
        const bool behind = candidate.app->get_option_no_throw(given->get_name()) != nullptr;
        throw CLI::ValidationError(given->get_name(),
                                   behind ? "stands behind its command, as in voxdesk " + name + ' ' + given->get_name()
                                          : name + " does not take this option");
      }
    }
  };
  try {
    try {
      for (int i = 1; i < argc; ++i) {
        // The next word would be taken for what is missing.
        const std::string word = argv[i];
        if (word == "--") break;
        if (!word.starts_with("--") || word.find('=') != word.size() - 1) continue;
        const std::string name = word.substr(0, word.size() - 1);
        const bool flag = std::any_of(all.begin(), all.end(), [&name](const CLI::App* each) {
          const CLI::Option* option = each->get_option_no_throw(name);
          return option && option->get_items_expected_max() == 0;
        });
        if (flag) throw CLI::ValidationError(name, "takes no value");
        throw CLI::ArgumentMismatch(name, CLI::ExitCodes::ArgumentMismatch);
      }
      app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
      if (error.get_exit_code() != 0) chooseCommand();
      throw;
    }
    chooseCommand();
    for (std::string* const file :
         {&options.out, &options.picture, &options.reportPage, &options.junit, &options.capture}) {
      if (*file == "/dev/stdout" || *file == "/dev/fd/1" || *file == "/proc/self/fd/1") *file = kStandardOutput;
    }
    if ((*watch || *legacy) && options.virtualTime && options.seconds <= 0) {
      throw CLI::ValidationError("--virtual-time", "this needs --seconds with it, or it would never end");
    }
    if (kSimulated && options.deskFile == kHardware) {
      if (options.virtualTime) throw CLI::ValidationError("--virtual-time", "real devices have a time of their own");
      if (!options.speech.empty()) throw CLI::ValidationError("--speech", "real devices hear for themselves");
    } else if (kSimulated && *take && options.speech.empty()) {
      throw CLI::RequiredError("--speech");
    }
    if (options.out == kStandardOutput && isScreen(stdout)) {
      throw CLI::ValidationError("--out", "standard output is a terminal, which shows no sound");
    }
    for (const CLI::Option* given : {virtualTime, capture}) {
      if (options.rehearse && given->count() > 0) {
        throw CLI::ValidationError(given->get_name(), "a rehearsal does not take this option");
      }
    }
    if (*update && options.first.empty() && options.second.empty()) {
      throw CLI::RequiredError("--first or --second");
    }
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() != 0) return conclude(kWrongUsage, sentenceOf(error, app));
    app.exit(error);
    if (!std::cout.flush()) outputFailed(errno);
    return conclude(kDone, {});
  }

  try {
    checkFiles(options, records);
    run(options);
    return interrupted() ? conclude(kInterrupted, outputProblem() ? "" : "interrupted") : conclude(kDone, {});
  } catch (const Failure& failure) {
    return conclude(failure.exitCode(), failure.what());
  } catch (const std::exception& error) {
    return conclude(kFailed, error.what());
  }
}
