#include "Update.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>

#include "hid/HidFrame.h"
#include "sim/Text.h"

namespace {

constexpr double kGoneSeconds = 10;
constexpr double kGlanceSeconds = 0.2;
constexpr std::size_t kBlocksEnd = 65536 * kBlockBytes;  // what a 16-bit index reaches

// The library takes any file name; what cannot be sent is said here.
std::size_t checkImage(const std::string& path) {
  namespace fs = std::filesystem;
  std::error_code error;
  if (!sim::isOfBytes(sim::pathOf(path))) throw Failure(path + ": not a file of bytes; expected a firmware image");
  if (!std::ifstream(sim::pathOf(path), std::ios::binary)) throw Failure(path + ": " + std::strerror(errno));
  const std::uintmax_t size = fs::file_size(sim::pathOf(path), error);
  if (error) throw Failure(path + ": " + error.message());
  if (size == 0) throw Failure(path + ": empty; expected a firmware image");
  return static_cast<std::size_t>(std::min<std::uintmax_t>(size, std::numeric_limits<std::size_t>::max()));
}

bool sameContent(const std::string& one, const std::string& other) {
  std::ifstream a(sim::pathOf(one), std::ios::binary);
  std::ifstream b(sim::pathOf(other), std::ios::binary);
  using Bytes = std::istreambuf_iterator<char>;
  return std::equal(Bytes(a), Bytes(), Bytes(b), Bytes());
}

}  // namespace

std::optional<UpdateFrame> updateFrameOf(std::span<const std::uint8_t> report) {
  if (report.size() < 2 || report[0] != kCommandReportId) return std::nullopt;
  const std::size_t magic = report[1] == 0xFF ? 3 : 1;
  if (report.size() <= magic + 3 || report[magic] != 0xFE) return std::nullopt;
  UpdateFrame frame;
  frame.receiver = magic == 3 && report[2] == 0xF0;
  frame.code = report[magic + 2];
  const bool ours = (frame.code >= OtaPrepare && frame.code <= OtaComplete) ||
                    (frame.code >= OtaPrepareReply && frame.code <= OtaCompleteReply);
  if (!ours) return std::nullopt;
  const auto rest = report.subspan(magic + 4);
  frame.payload = rest.first(std::min<std::size_t>(report[magic + 3], rest.size()));
  return frame;
}

std::string Image::result() const {
  static const char* const steps[] = {"preparing", "opening", "sending data", "completing", "aborting"};
  if (state == 0) return begun ? "not finished" : "not sent";
  if (done()) return "done";
  if (completionRefused) return "refused by the device at completing";
  if (state < FwUpdate_PrepareNoAnswer || state > FwUpdate_AbortNoAnswer) return "the device has gone";
  return std::string(state % 2 == 0 ? "refused by the device at " : "no answer from the device within 3.1 s at ") +
         steps[(state - 1) / 2];
}

void UpdateTraffic::follow(int device, FirmwareFamily family) {
  const std::lock_guard lock(mutex_);
  device_ = device;
  family_ = family;
}

void UpdateTraffic::observe(const VoxObservation& observation, std::int64_t) {
  const bool sent = observation.kind == VoxObservation_Sent;
  if (!observation.report || (!sent && observation.kind != VoxObservation_Received)) return;
  const auto frame = updateFrameOf({observation.report, static_cast<std::size_t>(observation.reportLength)});
  if (!frame) return;
  const std::lock_guard lock(mutex_);
  if (observation.device == device_) sent ? onSent(*frame) : onReceived(*frame);
}

void UpdateTraffic::onSent(const UpdateFrame& frame) {
  UpdateMessage message{.code = frame.code, .receiver = frame.receiver};
  message.closing = frame.code == OtaComplete && !messages_.empty() && messages_.back().code == OtaComplete;
  if (frame.code == OtaOpen) positions_.clear();
  if (frame.code == OtaData) {
    const auto length = static_cast<std::uint32_t>(frame.payload.size());
    const auto byte = [&](std::size_t i) { return i < frame.payload.size() ? frame.payload[i] : 0U; };
    const auto index = static_cast<std::uint32_t>(byte(0) + byte(1) * 256);
    const bool byOffset = family_ == FirmwareFamily::Tern;
    message.position = byOffset ? asked_ : index * static_cast<std::uint32_t>(kBlockBytes);
    message.length = byOffset ? length : family_ == FirmwareFamily::Zh ? 2 * kBlockBytes : kBlockBytes;
    message.again = !positions_.insert(message.position).second;
  }
  messages_.push_back(message);
}

void UpdateTraffic::onReceived(const UpdateFrame& frame) {
  const auto& payload = frame.payload;
  const bool request = frame.code == OtaOpenReply || frame.code == OtaDataReply;
  if (family_ == FirmwareFamily::Tern && request && payload.size() == 6) {
    asked_ = 0;
    for (const std::uint8_t byte : payload.first(4)) asked_ = asked_ << 8 | byte;
  }
  const bool waits = !messages_.empty() && messages_.back().code == OtaComplete && !messages_.back().closing;
  if (frame.code == OtaCompleteReply && waits && payload.size() == 1 && payload[0] != 0) {
    refused_.insert(messages_.back().receiver);
  }
}

std::vector<UpdateMessage> UpdateTraffic::messages() {
  const std::lock_guard lock(mutex_);
  return messages_;
}

bool UpdateTraffic::completionRefused(bool receiver) {
  const std::lock_guard lock(mutex_);
  return refused_.contains(receiver);
}

FirmwareFamily familyOf(const DeviceView& device) {
  const auto sheets = ModelSheets();
  const auto model = std::find_if(sheets.begin(), sheets.end(),
                                  [&](const ModelSheet& sheet) { return sim::utf8(sheet.name) == device.model; });
  return model == sheets.end() ? FirmwareFamily::Standard : model->firmware;
}

std::vector<Image> imagesOf(const Options& options) {
  std::vector<Image> images;
  if (!options.first.empty()) images.push_back({.name = "first", .file = options.first});
  if (!options.second.empty()) images.push_back({.name = "second", .file = options.second, .receiver = true});
  for (Image& image : images) image.size = checkImage(image.file);
  std::error_code error;
  if (images.size() < 2) return images;
  if (std::filesystem::equivalent(sim::pathOf(options.first), sim::pathOf(options.second), error)) {
    std::fprintf(stderr, "voxdesk: warning: both images are the same file, %s\n", options.first.c_str());
  } else if (sameContent(options.first, options.second)) {
    std::fprintf(stderr, "voxdesk: warning: both images have the same content\n");
  }
  return images;
}

void checkSizes(const std::vector<Image>& images, const DeviceView& device) {
  const std::size_t most = familyOf(device) == FirmwareFamily::Tern ? 0x7FFFFFFF : kBlocksEnd;
  for (const Image& image : images) {
    if (image.size > most) {
      throw Failure(image.file + ": " + std::to_string(image.size) + " bytes; a " + device.model + " can be sent " +
                    std::to_string(most) + " at most");
    }
    if (image.size < kBlockBytes) {
      std::fprintf(stderr, "voxdesk: warning: %s is shorter than one block of %zu bytes: it has %zu\n",
                   image.file.c_str(), kBlockBytes, image.size);
    }
  }
  if (images.back().receiver && device.link == "Bluetooth LE") {
    throw Failure("over Bluetooth LE there is no receiver: only --first can be sent");
  }
}

std::size_t UpdateRun::again() const {
  return static_cast<std::size_t>(
      std::count_if(messages.begin(), messages.end(), [](const UpdateMessage& message) { return message.again; }));
}

std::string UpdateRun::failure() const {
  if (!begun) return "the device went away before its update began; plug it in and try again";
  if (lost) return "the device went away during the update; plug it in and update it again";
  return whole ? "" : "the update did not succeed";
}

UpdateRun runUpdate(Session& session, const DeviceView& device, std::vector<Image>& images, UpdateTraffic& traffic,
                    const std::function<void(const ClientEvent&)>& seen, const std::function<bool()>& look) {
  UpdateRun run;
  const auto take = [&](const ClientEvent& event) {
    seen(event);
    const bool ours = event.fields.value("device", -1) == device.number;
    run.lost = run.lost || (event.name == "disconnect" && ours);
    if (event.name != "update-result" || !ours) return false;
    const int state = event.fields["state"];
    if (state == FwUpdate_Over) return true;
    const bool receiver = event.fields["link"] == static_cast<int>(DataChannel_Receiver);
    for (Image& image : images) {
      if (image.receiver != receiver || image.state != 0) continue;
      image.state = state;
      image.completionRefused = state == FwUpdate_ImageFinished && traffic.completionRefused(receiver);
    }
    return false;
  };
  const auto isThere = [&] {
    const auto known = session.client->devices();
    return std::any_of(known.begin(), known.end(), [&](const auto& view) { return view.number == device.number; });
  };
  traffic.follow(device.number, familyOf(device));
  std::string files[2];
  for (const Image& image : images) files[image.receiver ? 1 : 0] = image.file;
  const FwUpdateType type = images.size() == 2 ? FwUpdate_Both : images[0].receiver ? FwUpdate_Second : FwUpdate_First;
  const double started = session.desk->seconds();
  session.client->hub().StartOTA(device.number, type, files[0], files[1]);
  // A device that goes is told of within 3.1 s; one that went before its update began is not.
  double patience = kGoneSeconds;
  bool over = false;
  while (!over && patience > 0 && look()) {
    over = session.waitFor(kGlanceSeconds, take).has_value();
    if (!isThere()) patience -= kGlanceSeconds;
  }
  run.begun = patience > 0;
  run.whole = over && std::all_of(images.begin(), images.end(), [](const Image& image) { return image.done(); });
  run.seconds = session.desk->seconds() - started;
  run.messages = traffic.messages();
  for (const UpdateMessage& message : run.messages) {
    for (Image& image : images) {
      if (image.receiver != message.receiver || message.closing) continue;
      image.begun = true;
      const auto left = static_cast<std::uint32_t>(image.size) - message.position;
      if (message.code == OtaData && !message.again) run.bytes += std::min(message.length, left);
    }
  }
  return run;
}
