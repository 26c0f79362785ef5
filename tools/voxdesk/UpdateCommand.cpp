// The update command: asks, shows how far it is, and says what has become of it.
#include <fmt/format.h>
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <utility>

#include "System.h"
#include "Table.h"
#include "Update.h"
#include "hid/HidFrame.h"
#include "tools/capture/Story.h"

namespace {

constexpr std::array<std::pair<std::uint8_t, const char*>, 5> kSteps{
    {{OtaPrepare, "prepare"}, {OtaOpen, "open"}, {OtaData, "data"}, {OtaComplete, "complete"}, {OtaAbort, "abort"}}};

// Shows how far an update is.
class UpdateView {
 public:
  UpdateView(Session& session, const DeviceView& device, const std::vector<Image>& images)
      : session_(session), device_(device), images_(images), begin_(session.desk->seconds()) {}

  void take(const ClientEvent& event) {
    const bool progressed = event.name == "update-progress";
    if (!progressed && (event.name != "update-result" || event.fields["device"] != device_.number)) return;
    if (session_.terminal.json()) {
      session_.terminal.event(event.seconds, event.name, event.fields, "");
    } else if (progressed) {
      progress(event);
    }
  }

 private:
  void progress(const ClientEvent& event) {
    // Totals are not always those of the image at hand, so they are counted here.
    const auto current =
        std::find_if(images_.begin(), images_.end(), [](const Image& image) { return image.state == 0; });
    if (current == images_.end() || (event.fields["done"] == 100 && event.fields["total"] == 100)) return;
    const bool counted = familyOf(device_) == FirmwareFamily::Tern && current != images_.begin();
    const double done =
        std::clamp(event.fields["done"].get<double>() - (counted ? static_cast<double>(images_.front().size) : 0), 0.0,
                   static_cast<double>(current->size));
    if (current->name != shown_) {
      shown_ = current->name;
      begin_ = event.seconds;
    }
    const double rate = event.seconds > begin_ ? done / (event.seconds - begin_) : 0;
    const double fraction = done / static_cast<double>(current->size);
    std::string tail = fmt::format(" {:3.0f} %  {:.1f} kB/s", 100 * fraction, rate / 1000);
    if (rate > 0) tail += fmt::format("  {:.0f} s left", std::ceil((static_cast<double>(current->size) - done) / rate));
    session_.terminal.progress(event.seconds, std::string(current->name) + " image ", fraction, '=', tail);
  }

  Session& session_;
  const DeviceView& device_;
  const std::vector<Image>& images_;
  double begin_;
  const char* shown_ = nullptr;
};

// What is going to be sent, a line for each image.
std::string planOf(const std::vector<Image>& images, const DeviceView& device) {
  std::string text =
      "Device " + std::to_string(device.number) + " (" + device.model + ", " + device.link + ") gets new firmware:\n";
  for (const Image& image : images) {
    text += std::string("  the ") + image.name + " image, " + image.file + ", " + capture::plural(image.size, "byte");
    if (familyOf(device) != FirmwareFamily::Tern) {
      text += " in " + capture::plural((image.size + kBlockBytes - 1) / kBlockBytes, "block");
    }
    text += image.receiver ? ", for its receiver\n" : ", for the device itself\n";
  }
  return text;
}

// Asks, where there is somebody to ask.
void confirm(const std::string& plan) {
  std::fprintf(stderr, "%sBegin? [y/N] ", plan.c_str());
  std::fflush(stderr);
  char answer[64] = "";
  const bool answered = waitForLine(answer, sizeof answer);
  if (!answered) std::fputs("\n", stderr);
  Session::failIfInterrupted("before the update began");
  std::string said = answer;
  while (!said.empty() && (said.back() == '\n' || said.back() == '\r' || said.back() == ' ')) said.pop_back();
  if (said != "y" && said != "Y" && said != "yes") throw Failure("the update was not begun: the answer was not y");
}

void tellImages(Session& session, const std::vector<Image>& images) {
  for (const Image& image : images) {
    session.terminal.event(session.desk->seconds(), "image",
                           {{"image", image.name},
                            {"file", image.file},
                            {"bytes", image.size},
                            {"state", image.state},
                            {"result", image.result()}},
                           std::string("the ") + image.name + " image (" + image.file + ", " +
                               capture::plural(image.size, "byte") + "): " + image.result());
  }
}

void tellSummary(Session& session, const DeviceView& device, const UpdateRun& run) {
  const std::size_t again = run.again();
  session.terminal.tell(fmt::format("Sent {} in {:.1f} s; {} had to be sent again.",
                                    capture::plural(static_cast<std::size_t>(run.bytes), "byte"), run.seconds,
                                    again == 0 ? "nothing" : capture::plural(again, "data message")));
  Json fields{{"device", device.number},
              {"bytes", run.bytes},
              {"seconds", std::round(run.seconds * 1000) / 1000},
              {"messages", run.messages.size()},
              {"again", again}};
  Table table({{"step"}, {"messages", Table::Side::right}, {"sent again", Table::Side::right}});
  for (const auto& [code, name] : kSteps) {
    std::size_t sent = 0;
    std::size_t repeated = 0;
    for (const UpdateMessage& message : run.messages) {
      sent += message.code == code ? 1 : 0;
      repeated += message.code == code && message.again ? 1 : 0;
    }
    fields[name] = sent;
    if (sent > 0) table.add({name, std::to_string(sent), std::to_string(repeated)});
  }
  session.terminal.table(table);
  session.terminal.event(session.desk->seconds(), "update-summary", fields, "");
}

}  // namespace

void updateFirmware(const Options& options) {
  if (options.rehearse) return rehearseUpdate(options);
  const bool asks = !options.yes;
  if (asks && !isScreen(stdin)) {
    throw Failure("an update asks before it begins, and standard input is no terminal: --yes begins it", kWrongUsage);
  }
  std::vector<Image> images = imagesOf(options);
  UpdateTraffic traffic;
  Session session(options, false, &traffic);
  session.discover({"none"});
  const DeviceView device = session.choose(options.device);
  checkSizes(images, device);
  if (asks) confirm(planOf(images, device));
  session.terminal.say("Updating device " + std::to_string(device.number) + " (" + device.model +
                       "). Leave it plugged in.");
  UpdateView view(session, device, images);
  // Half of its firmware is none.
  declineInterrupts();
  bool warned = false;
  const UpdateRun run = runUpdate(
      session, device, images, traffic, [&](const ClientEvent& event) { view.take(event); },
      [&] {
        if (endRequested() && !std::exchange(warned, true)) {
          std::fputs(
              "\nvoxdesk: the update goes on. Once more ends it at once: the device's firmware is incomplete then, and "
              "the update has to be repeated.\n",
              stderr);
        }
        return true;
      });
  tellImages(session, images);
  tellSummary(session, device, run);
  session.finish();
  if (!run.failure().empty()) throw Failure(run.failure());
}
