// Commands to one device: firmware, DPI, download URL, M key, state.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <utility>

#include "Session.h"
#include "System.h"
#include "hid/HidFrame.h"
#include "sim/Text.h"

namespace {

constexpr double kAnswerSeconds = 1;  // devices answer within some ms
constexpr double kGoneSeconds = 10;
constexpr double kMKeySeconds = 2.5;  // the library's own bound
constexpr double kLookSeconds = 0.2;
constexpr std::size_t kBlockBytes = 16;
constexpr std::size_t kBlocksEnd = 65536 * kBlockBytes;  // what a 16-bit index reaches

// A session in which the chosen device has been found.
struct DeviceSession : Session {
  explicit DeviceSession(const Options& options) : Session(options) {
    discover({"none"});
    chosen = choose(options.device);
  }
  CAudioHidCenter& hub() { return client->hub(); }
  bool isThere() {
    const auto known = client->devices();
    return std::any_of(known.begin(), known.end(),
                       [&](const DeviceView& view) { return view.number == chosen.number; });
  }
  // The answer to a command: an event of this name from the chosen device. Shown when it comes.
  ClientEvent answer(const std::string& name, double seconds = kAnswerSeconds) {
    const auto event = waitFor(seconds, [&](const ClientEvent& candidate) {
      return candidate.name == name && candidate.fields["device"] == chosen.number;
    });
    if (!event) {
      failIfInterrupted("before device " + std::to_string(chosen.number) + " (" + chosen.model + ") had answered");
      throw Failure("device " + std::to_string(chosen.number) + " (" + chosen.model + ") did not answer within " +
                    fixed("%.1f s", seconds));
    }
    terminal.event(event->seconds, event->name, event->fields, event->text);
    return *event;
  }

  DeviceView chosen;
};

// The library takes any file name; what cannot be sent is said here.
std::size_t checkImage(const std::string& path) {
  namespace fs = std::filesystem;
  std::error_code error;
  const fs::file_status status = fs::status(sim::pathOf(path), error);
  if (status.type() == fs::file_type::not_found) throw Failure(path + ": No such file or directory");
  if (status.type() != fs::file_type::regular) throw Failure(path + ": not a file of bytes; expected a firmware image");
  const std::uintmax_t size = fs::file_size(sim::pathOf(path), error);
  if (error) throw Failure(path + ": " + error.message());
  if (size == 0) throw Failure(path + ": empty; expected a firmware image");
  if (!std::ifstream(path, std::ios::binary)) throw Failure(path + ": " + std::strerror(errno));
  return static_cast<std::size_t>(std::min<std::uintmax_t>(size, std::numeric_limits<std::size_t>::max()));
}

bool isTern(const DeviceView& device) { return device.model.find("Tern") != std::string::npos; }

// What a result says of its image, and whether it is a failure.
std::pair<std::string, bool> sentence(int state) {
  static const char* const steps[] = {"preparing", "opening", "sending data", "completing", "aborting"};
  if (state == FwUpdate_ImageFinished) return {"done", false};
  if (state < FwUpdate_PrepareNoAnswer || state > FwUpdate_AbortNoAnswer) return {"the device has gone", true};
  const std::string step = steps[(state - 1) / 2];
  return {(state % 2 == 0 ? "refused by the device at " : "no answer from the device within 3.1 s at ") + step, true};
}

// One image on its way.
struct Image {
  const char* name;
  std::string file;
  std::size_t size = 0;
  bool receiver = false;
  int state = 0;  // its first result
};

// Follows an update: shows its progress, notes its results.
class UpdateView {
 public:
  UpdateView(DeviceSession& session, std::vector<Image>& images) : session_(session), images_(images) {
    bytesBefore_ = 0;
    begin_ = session.desk->seconds();
  }
  // True when the update is over.
  bool take(const ClientEvent& event) {
    if (event.name == "update-progress") progress(event);
    if (event.name == "disconnect" && event.fields["device"] == session_.chosen.number) lost_ = true;
    if (event.name != "update-result" || event.fields["device"] != session_.chosen.number) return false;
    if (session_.terminal.json()) session_.terminal.event(event.seconds, event.name, event.fields, "");
    const int state = event.fields["state"];
    if (state == FwUpdate_Over) return true;
    const bool receiver = event.fields["link"] == static_cast<int>(DataChannel_Receiver);
    for (Image& image : images_) {
      if (image.receiver == receiver && image.state == 0) image.state = state;
    }
    return false;
  }
  bool lost() const { return lost_; }

 private:
  void progress(const ClientEvent& event) {
    if (session_.terminal.json()) return session_.terminal.event(event.seconds, event.name, event.fields, "");
    // Totals are not always those of the image at hand, so they are counted here.
    const auto current =
        std::find_if(images_.begin(), images_.end(), [](const Image& image) { return image.state == 0; });
    if (current == images_.end() || (event.fields["done"] == 100 && event.fields["total"] == 100)) return;
    const bool counted = isTern(session_.chosen) && current != images_.begin();
    const double done =
        std::clamp(event.fields["done"].get<double>() - (counted ? static_cast<double>(images_.front().size) : 0), 0.0,
                   static_cast<double>(current->size));
    if (current->name != shown_) {
      shown_ = current->name;
      begin_ = event.seconds;
    }
    const double rate = event.seconds > begin_ ? done / (event.seconds - begin_) : 0;
    const double fraction = done / static_cast<double>(current->size);
    std::string tail = fixed(" %3.0f %%", 100 * fraction) + fixed("  %.1f kB/s", rate / 1000);
    if (rate > 0) tail += fixed("  %.0f s left", std::ceil((static_cast<double>(current->size) - done) / rate));
    session_.terminal.progress(event.seconds, std::string(current->name) + " image ", fraction, '=', tail);
  }

  DeviceSession& session_;
  std::vector<Image>& images_;
  double bytesBefore_ = 0;
  double begin_ = 0;
  const char* shown_ = nullptr;
  bool lost_ = false;
};

// What is going to be sent, a line for each image.
std::string summaryOf(const std::vector<Image>& images, const DeviceView& device) {
  std::string text =
      "Device " + std::to_string(device.number) + " (" + device.model + ", " + device.link + ") gets new firmware:\n";
  for (const Image& image : images) {
    text += std::string("  the ") + image.name + " image, " + image.file + ", " + std::to_string(image.size) + " bytes";
    if (!isTern(device)) text += " in " + std::to_string((image.size + kBlockBytes - 1) / kBlockBytes) + " blocks";
    text += image.receiver ? ", for its receiver\n" : ", for the device itself\n";
  }
  return text;
}

// Asks, where there is somebody to ask.
void confirm(const std::string& summary) {
  std::fprintf(stderr, "%sBegin? [y/N] ", summary.c_str());
  std::fflush(stderr);
  char answer[64] = "";
  const bool answered = waitForLine(answer, sizeof answer);
  if (!answered) std::fputs("\n", stderr);
  Session::failIfInterrupted("before the update began");
  if (!answered || (answer[0] != 'y' && answer[0] != 'Y'))
    throw Failure("the update was not begun: the answer was not y");
}

std::vector<Image> imagesOf(const Options& options) {
  std::vector<Image> images;
  if (!options.first.empty()) images.push_back({.name = "first", .file = options.first});
  if (!options.second.empty()) images.push_back({.name = "second", .file = options.second, .receiver = true});
  for (Image& image : images) image.size = checkImage(image.file);
  std::error_code error;
  if (images.size() == 2 &&
      std::filesystem::equivalent(sim::pathOf(options.first), sim::pathOf(options.second), error)) {
    std::fprintf(stderr, "voxdesk: warning: both images are the same file, %s\n", options.first.c_str());
  }
  return images;
}

void checkSizes(const std::vector<Image>& images, const DeviceView& device) {
  const std::size_t most = isTern(device) ? 0x7FFFFFFF : kBlocksEnd;
  for (const Image& image : images) {
    if (image.size > most) {
      throw Failure(image.file + ": " + std::to_string(image.size) + " bytes; a " + device.model + " can be sent " +
                    std::to_string(most) + " at most");
    }
    if (image.size < kBlockBytes) {
      std::fprintf(stderr, "voxdesk: warning: %s has %zu bytes, less than one block\n", image.file.c_str(), image.size);
    }
  }
  if (images.size() == 2 && device.link == "Bluetooth LE") {
    throw Failure("over Bluetooth LE there is no receiver: only --first can be sent");
  }
}

}  // namespace

void updateFirmware(const Options& options) {
  const bool asks = !options.yes;
  if (asks && !isScreen(stdin)) {
    throw Failure("an update asks before it begins, and standard input is no terminal: --yes begins it", kWrongUsage);
  }
  std::vector<Image> images = imagesOf(options);
  DeviceSession session(options);
  checkSizes(images, session.chosen);
  if (asks) confirm(summaryOf(images, session.chosen));
  const FwUpdateType type = images.size() == 2 ? FwUpdate_Both : images[0].receiver ? FwUpdate_Second : FwUpdate_First;
  session.terminal.say("Updating device " + std::to_string(session.chosen.number) + " (" + session.chosen.model +
                       "). Leave it plugged in.");
  UpdateView view(session, images);
  const double begin = session.desk->seconds();
  // Half of its firmware is none.
  declineInterrupts();
  session.hub().StartOTA(session.chosen.number, type, options.first, options.second);
  // A device that goes is told of within 3.1 s; one that went before its update began is not.
  double patience = kGoneSeconds;
  bool over = false;
  bool warned = false;
  while (!over && patience > 0) {
    over = session.waitFor(kLookSeconds, [&](const ClientEvent& event) { return view.take(event); }).has_value();
    if (!session.isThere()) patience -= kLookSeconds;
    if (!over && endRequested() && !std::exchange(warned, true)) {
      std::fputs(
          "\nvoxdesk: the update goes on. Once more ends it at once: the device's firmware is incomplete then, and the "
          "update has to be repeated.\n",
          stderr);
    }
  }

  bool failed = false;
  for (const Image& image : images) {
    const auto [text, bad] = image.state == 0 ? std::pair(std::string("not sent"), true) : sentence(image.state);
    failed = failed || bad;
    session.terminal.event(
        session.desk->seconds(), "image",
        {{"image", image.name}, {"file", image.file}, {"bytes", image.size}, {"state", image.state}, {"result", text}},
        std::string("the ") + image.name + " image (" + image.file + ", " + std::to_string(image.size) +
            " bytes): " + text);
  }
  session.terminal.say(fixed("The update took %.1f s.", session.desk->seconds() - begin));
  session.finish();
  if (patience <= 0) throw Failure("the device went away before its update began; plug it in and try again");
  if (view.lost()) throw Failure("the device went away during the update; plug it in and update it again");
  if (failed) throw Failure("the update did not succeed");
}

void setDpi(const Options& options) {
  DeviceSession session(options);
  session.hub().SetDpi(session.chosen.number, static_cast<short>(options.dpi));
  const ClientEvent event = session.answer("dpi");
  session.finish();
  if (event.fields["ok"] != true) throw Failure("the device refused the DPI " + std::to_string(options.dpi));
}

void setUrl(const Options& options) {
  for (const char c : options.url) {
    if (std::isalnum(static_cast<unsigned char>(c)) != 0 || std::strchr("-=./", c)) continue;
    throw Failure(std::string("a URL can be sent in letters, digits, - = . and / only, not with '") + c + "'" +
                  (c == ':' ? "; leave out the scheme and its colon" : ""));
  }
  DeviceSession session(options);
  std::vector<unsigned char> url(options.url.begin(), options.url.end());  // replaced by the codes that are sent
  session.hub().SetDownloadURL(session.chosen.number, url.data(), static_cast<int>(url.size()));
  const ClientEvent event = session.answer("url");
  session.finish();
  if (event.fields["ok"] != true) throw Failure("the device refused the URL");
}

void listMKey(const Options& options) {
  DeviceSession session(options);
  session.hub().getMKeyTypeList_Key1(session.chosen.number);
  session.answer("mkey-list");
  session.finish();
}

void setMKey(const Options& options) {
  DeviceSession session(options);
  // Only a function that the device has listed can be set.
  session.hub().getMKeyTypeList_Key1(session.chosen.number);
  const ClientEvent list = session.answer("mkey-list");
  const auto status =
      session.hub().setMKeyType_Key1(session.chosen.number, static_cast<MouseMKeyType>(options.function));
  const std::string function = std::to_string(options.function);
  const int now = session.hub().GetMKeyType_Key1(session.chosen.number, 1);
  session.terminal.event(session.desk->seconds(), "mkey",
                         {{"device", session.chosen.number}, {"status", static_cast<int>(status)}, {"function", now}},
                         status == SetMKeyType_Confirmed ? "M key 1 has function " + function : "");
  session.finish();
  switch (status) {
    case SetMKeyType_Confirmed:
      return;
    case SetMKeyType_NotSupported:
      throw Failure("the device does not support function " + function + "; it has " + list.fields["supported"].dump());
    case SetMKeyType_NoAnswer:
      throw Failure(fixed("the device did not confirm within %.1f s", kMKeySeconds));
    case SetMKeyType_OtherType:
      throw Failure("the device kept function " + std::to_string(now));
    case SetMKeyType_NotReady:
      throw Failure("the device has gone");
  }
}

void showState(const Options& options) {
  DeviceSession session(options);
  session.hub().GetMouseState(session.chosen.number);
  session.answer("state");
  if (session.chosen.link == "USB") {
    session.hub().GetDongleState(session.chosen.number);
    session.answer("dongle-state");
  }
  session.finish();
}

namespace {

// "05 ff:f1FE" and the like.
std::vector<std::uint8_t> bytesOf(const std::vector<std::string>& words) {
  std::string digits;
  for (const std::string& word : words) {
    for (const char c : word) {
      if (c == ' ' || c == ':') continue;
      if (!std::isxdigit(static_cast<unsigned char>(c))) {
        throw Failure(word + ": expected a report in hexadecimal, as 05 FF F1 FE C0 0C 00 EF");
      }
      digits += c;
    }
  }
  if (digits.empty() || digits.size() % 2 != 0) throw Failure("a report has two digits to each byte");
  std::vector<std::uint8_t> bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes.push_back(static_cast<std::uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

bool belongsToUpdate(const std::vector<std::uint8_t>& report) {
  const std::size_t magic = report.size() > 1 && report[1] == 0xFF ? 3 : 1;
  return report.size() > magic + 2 && report[0] == kCommandReportId && report[magic] == 0xFE &&
         report[magic + 2] >= OtaPrepare && report[magic + 2] <= OtaComplete;
}

}  // namespace

void sendReport(const Options& options) {
  const std::vector<std::uint8_t> report = bytesOf(options.hex);
  if (belongsToUpdate(report) && !options.force) {
    throw Failure("this report belongs to a firmware update, and can leave the device unusable; --force sends it");
  }
  Session session(options);
  session.discover({"none"});
  const int device = session.choose(options.device).number;
  session.showReports(true);
  session.writeReport(device, report);
  session.runUntil(options.waitMilliseconds / 1000, {"report"}, [] { return false; });
  session.showReports(false);
  session.finish();
}
