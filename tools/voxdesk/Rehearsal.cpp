// An update that is tried with a simulated device, once for each thing that may go wrong with each of its messages.
// No other device can be reached from here: the library is linked with the simulated machine.
#include <fmt/format.h>
#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <optional>
#include <set>
#include <tuple>
#include <utility>

#include "SimulatedDesk.h"
#include "Table.h"
#include "Update.h"
#include "hid/HidFrame.h"
#include "sim/Text.h"
#include "tools/capture/Story.h"

namespace {

using SteadyClock = std::chrono::steady_clock;
using sim::FirmwareState;
using sim::UpdateFault;

constexpr std::array<std::pair<UpdateFault, const char*>, 4> kFaults{{{UpdateFault::refusal, "refused"},
                                                                      {UpdateFault::silence, "silence"},
                                                                      {UpdateFault::unplug, "pulled out"},
                                                                      {UpdateFault::again, "asked again"}}};
const char* const kStates[] = {"old", "incomplete", "new"};  // as FirmwareState

// What one run has led to.
struct Outcome {
  std::string failure;  // for standard error; empty: none
  std::size_t again = 0;
  std::vector<std::pair<std::string, std::string>> results;  // the images' names, and what became of them
  FirmwareState device = FirmwareState::old;
  std::optional<FirmwareState> receiver;  // nothing: there is none

  auto key() const { return std::tie(results, failure, device, receiver); }
  // With what the images say; empty: it has not failed.
  std::string sentence() const;
};

std::string Outcome::sentence() const {
  if (failure.empty()) return {};
  std::string text = failure;
  for (const auto& [image, result] : results) {
    if (result == "done") continue;
    text += text == failure ? ": the " : ", the ";
    text.append(image).append(" image: ").append(result);
  }
  return text;
}

const char* nameOf(const Outcome& outcome) {
  return !outcome.failure.empty() ? "failed" : outcome.again > 0 ? "done again" : "done";
}

// Runs with the same message and fault that have led to the same.
struct Row {
  std::string image;
  std::string step;
  std::string fault;
  Outcome outcome;
  std::size_t runs = 0;
};

struct Spoiling {
  unsigned message;
  UpdateFault fault;
};

struct Twin {
  sim::DeskDevice device;
  std::vector<Image> images;
};

bool hasLink(const sim::ModelSheet& sheet, sim::Link link) {
  return (link == sim::Link::usb ? sheet.usb : sheet.bluetooth).has_value();
}

sim::DeskDevice healthy(const std::string& model, sim::Link link) {
  sim::DeskDevice device;
  device.model = model;
  device.link = link;
  return device;
}

// The devices that there could be: those of the desk file; without one, every model on each of its links.
std::vector<sim::DeskDevice> candidates(const Options& options) {
  std::vector<sim::DeskDevice> all;
  if (options.deskFile == kHardware) throw Failure("a rehearsal touches no real device; leave --desk out", kWrongUsage);
  if (!options.deskFile.empty() && options.deskFile != "default") {
    for (const sim::DeskDevice& device : sim::readDeskFile(options.deskFile).devices) {
      all.push_back(healthy(device.model, device.link));
    }
    if (all.empty()) throw Failure(options.deskFile + ": no device of its own that an update could be rehearsed with");
    return all;
  }
  for (const sim::ModelSheet& sheet : sim::modelSheets()) {
    for (const sim::Link link : {sim::Link::usb, sim::Link::bluetooth}) {
      if (hasLink(sheet, link)) all.push_back(healthy(sheet.name, link));
    }
  }
  return all;
}

// By its place in the desk file, or its model. Of the models without a desk file, on the first link.
sim::DeskDevice chosen(const Options& options) {
  const auto all = candidates(options);
  const bool ofDesk = !options.deskFile.empty() && options.deskFile != "default";
  const std::string wanted = lower(options.device.empty() && !ofDesk ? "wren" : options.device);
  std::string names;
  std::string fitting;
  std::vector<sim::DeskDevice> found;
  for (std::size_t i = 0; i < all.size(); ++i) {
    const std::string model = lower(all[i].model);
    const std::string link = all[i].link == sim::Link::usb ? "usb" : "bluetooth";
    const std::string name = (ofDesk ? std::to_string(i + 1) + " " : "") + all[i].model + " (" + link + ")";
    names += (names.empty() ? "" : ", ") + name;
    const bool named = wanted.empty() || wanted == model || wanted == "voxmouse " + model ||
                       (ofDesk && wanted == std::to_string(i + 1));
    if (!named || (!options.link.empty() && options.link != link)) continue;
    fitting += (fitting.empty() ? "" : ", ") + name;
    found.push_back(all[i]);
  }
  if (found.empty()) throw Failure("there is no such device to rehearse with; there are: " + names);
  if (ofDesk && found.size() > 1) throw Failure("which device? --device gives its number; there are: " + fitting);
  return found.front();
}

// The messages that an update sends are noted in `sent`.
Outcome rehearse(const Twin& twin, std::optional<Spoiling> spoiling, std::vector<UpdateMessage>& sent) {
  sim::DeskDescription description;
  description.devices = {twin.device};
  auto owned = std::make_unique<SimulatedDesk>(std::move(description), true, "");
  const std::shared_ptr<sim::VirtualMouse> mouse = owned->desk().devices().front();
  if (spoiling) mouse->spoilUpdate(spoiling->message, spoiling->fault);
  UpdateTraffic traffic;
  Options quiet;
  quiet.quiet = true;  // and what it prints goes where the library's own texts go: a terminal is there already
  Session session(quiet, false, &traffic, std::move(owned));
  session.discover({"none"});
  const DeviceView device = session.choose({});
  std::vector<Image> images = twin.images;
  const UpdateRun run = runUpdate(
      session, device, images, traffic, [](const ClientEvent&) {}, [] { return !interrupted(); });
  Outcome outcome;
  outcome.failure = run.failure();
  outcome.again = run.again();
  for (const Image& image : images) outcome.results.emplace_back(image.name, image.result());
  outcome.device = mouse->firmware(sim::VirtualMouse::Updated::mouse).state();
  if (twin.device.link == sim::Link::usb) {
    outcome.receiver = mouse->firmware(sim::VirtualMouse::Updated::receiver).state();
  }
  session.finish();
  sent = run.messages;
  return outcome;
}

const char* stepOf(const UpdateMessage& message) {
  switch (message.code) {
    case OtaPrepare:
      return "prepare";
    case OtaOpen:
      return "open";
    case OtaData:
      return "data";
    case OtaComplete:
      return message.closing ? "closing" : "complete";
    default:
      return "abort";
  }
}

// Nothing answers a closing message. Only data can be asked for again; of blocks not the first one, whose index says
// that all has arrived.
bool canHappen(UpdateFault fault, const UpdateMessage& message, FirmwareFamily family) {
  if (fault == UpdateFault::unplug) return true;
  if (fault != UpdateFault::again) return !message.closing;
  return message.code == OtaData && (message.position > 0 || family == FirmwareFamily::Tern);
}

// Each run is as long as the update, so that twice the update would take four times as long. Of a long one only some
// messages are spoilt: the first, the last and those evenly between, and all that carry no data.
std::vector<std::size_t> messagesToSpoil(const std::vector<UpdateMessage>& messages, int tries) {
  constexpr std::size_t kMinute = 2'200'000;  // messages for each fault; measured
  constexpr std::size_t kLeast = 100;
  const std::size_t most = tries > 0 ? static_cast<std::size_t>(tries)
                                     : std::max(kLeast, kMinute / std::max<std::size_t>(1, messages.size()));
  std::vector<std::size_t> spoilt;
  std::size_t next = 0;
  for (std::size_t i = 0; i < messages.size(); ++i) {
    const bool even = i >= next * (messages.size() - 1) / (most - 1);
    if (messages.size() > most && !even && messages[i].code == OtaData) continue;
    spoilt.push_back(i);
    next += even ? 1 : 0;
  }
  return spoilt;
}

class Rehearsal {
 public:
  Rehearsal(const Options& options, Terminal& terminal) : terminal_(terminal) {
    twin_.device = chosen(options);
    tries_ = options.tries;
    twin_.images = imagesOf(options);
    view_.model = "VoxMouse " + twin_.device.model;
    view_.link = twin_.device.link == sim::Link::usb ? "USB" : "Bluetooth LE";
    checkSizes(twin_.images, view_);
    for (const Image& image : twin_.images) {
      (image.receiver ? twin_.device.secondUpdate : twin_.device.firstUpdate).size = image.size;
    }
  }

  void run();
  void tell();

 private:
  void add(const std::string& image, const std::string& step, const char* fault, const Outcome& outcome);
  double seconds() const { return std::chrono::duration<double>(SteadyClock::now() - begin_).count(); }
  std::size_t count(const std::function<bool(const Row&)>& wanted) const {
    std::size_t runs = 0;
    for (const Row& row : rows_) runs += wanted(row) ? row.runs : 0;
    return runs;
  }

  Terminal& terminal_;
  Twin twin_;
  DeviceView view_;
  std::vector<Row> rows_;
  int tries_ = 0;
  std::size_t messages_ = 0;
  std::vector<std::size_t> spoilt_;  // of those
  std::size_t tried_ = 0;            // with every fault
  const SteadyClock::time_point begin_ = SteadyClock::now();
};

void Rehearsal::add(const std::string& image, const std::string& step, const char* fault, const Outcome& outcome) {
  for (Row& row : rows_) {
    if (row.image == image && row.step == step && row.fault == fault && row.outcome.key() == outcome.key() &&
        nameOf(row.outcome) == nameOf(outcome)) {
      ++row.runs;
      return;
    }
  }
  rows_.push_back({image, step, fault, outcome, 1});
}

void Rehearsal::run() {
  std::vector<UpdateMessage> messages;
  std::vector<UpdateMessage> unused;
  const Outcome sound = rehearse(twin_, std::nullopt, messages);
  if (interrupted()) return;
  if (!sound.failure.empty()) throw Failure("without any fault, the update fails: " + sound.failure);
  messages_ = messages.size();
  spoilt_ = messagesToSpoil(messages, tries_);
  terminal_.say("Rehearsing with a simulated " + view_.model + " over " + view_.link + ": the update has " +
                capture::plural(messages_, "message") +
                (spoilt_.size() == messages_ ? "."
                                             : ", of which " + std::to_string(spoilt_.size()) +
                                                   " are tried: first, last, evenly between, and all but data."));
  std::string image;
  for (std::size_t done = 0; done < spoilt_.size(); ++done) {
    const std::size_t i = spoilt_[done];
    const UpdateMessage& message = messages[i];
    if (!message.closing) image = message.receiver ? "second" : "first";
    for (const auto& [fault, name] : kFaults) {
      if (!canHappen(fault, message, familyOf(view_))) continue;
      const Outcome outcome = rehearse(twin_, Spoiling{static_cast<unsigned>(i), fault}, unused);
      if (interrupted()) return;
      add(image, stepOf(message), name, outcome);
    }
    ++tried_;
    const double fraction = static_cast<double>(done + 1) / static_cast<double>(spoilt_.size());
    terminal_.progress(seconds(), "rehearsing ", fraction, '=', fmt::format(" {:3.0f} %", 100 * fraction));
  }
}

void Rehearsal::tell() {
  Table table({{"image"}, {"message"}, {"fault"}, {"runs", Table::Side::right}, {"outcome"}, {"device"}, {"receiver"}});
  std::set<std::string> sentences;
  for (const Row& row : rows_) {
    const Outcome& outcome = row.outcome;
    const std::string receiver = outcome.receiver ? kStates[static_cast<int>(*outcome.receiver)] : "-";
    const std::string device = kStates[static_cast<int>(outcome.device)];
    table.add({row.image, row.step, row.fault, std::to_string(row.runs), nameOf(outcome), device, receiver});
    Json fields{{"image", row.image}, {"step", row.step},           {"fault", row.fault},
                {"runs", row.runs},   {"outcome", nameOf(outcome)}, {"failure", outcome.failure},
                {"first", Json()},    {"second", Json()},           {"device_firmware", device}};
    for (const auto& [name, result] : outcome.results) fields[name] = result;
    fields["receiver_firmware"] = outcome.receiver ? Json(receiver) : Json();
    terminal_.event(seconds(), "rehearsed", fields, "");
  }
  terminal_.table(table);
  const auto named = [&](const std::string& name) {
    return count([&](const Row& row) { return nameOf(row.outcome) == name; });
  };
  const std::size_t all = count([](const Row&) { return true; });
  terminal_.tell(fmt::format("{} in {:.1f} s: {} done, {} done after data was sent again, {} failed.",
                             capture::plural(all, "run"), seconds(), named("done"), named("done again"),
                             named("failed")));
  for (const Row& row : rows_) sentences.insert(row.outcome.sentence());
  sentences.erase("");
  for (const std::string& sentence : sentences) {
    terminal_.tell("  " + std::to_string(count([&](const Row& row) { return row.outcome.sentence() == sentence; })) +
                   " with: " + sentence);
  }
  terminal_.event(seconds(), "rehearsal",
                  {{"model", view_.model},
                   {"link", view_.link},
                   {"messages", messages_},
                   {"tried", tried_},
                   {"runs", all},
                   {"done", named("done")},
                   {"done_again", named("done again")},
                   {"failed", named("failed")}},
                  "");
}

}  // namespace

void rehearseUpdate(const Options& options) {
  Terminal terminal(options.json, false, options.quiet);
  Rehearsal rehearsal(options, terminal);
  rehearsal.run();
  rehearsal.tell();
}
