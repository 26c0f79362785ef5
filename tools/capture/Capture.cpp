#include "tools/capture/Capture.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>

#include "tools/capture/Exported.h"
#include "tools/capture/Packets.h"
#include "tools/capture/Usb.h"

namespace capture {
namespace {

constexpr std::uint32_t kExported = 252;

// The interfaces of a capture, each path once.
class Interfaces {
 public:
  explicit Interfaces(std::vector<Interface>& all) : all_(all) {
    for (const Interface& each : all) numbers_.try_emplace(each.path, numbers_.size());
  }
  int add(const Interface& wanted) {
    const auto [known, isNew] = numbers_.try_emplace(wanted.path, all_.size());
    if (isNew) {
      all_.push_back(wanted);
    } else if (wanted.vendor != 0) {
      all_[known->second] = wanted;  // it tells more of itself when it is open
    }
    return static_cast<int>(known->second);
  }

 private:
  std::vector<Interface>& all_;
  std::map<std::string, std::size_t> numbers_;
};

class Reader final : public PacketSink {
 public:
  explicit Reader(Capture& capture) : capture_(capture), interfaces_(capture.interfaces) {}

  void madeBy(std::string_view program) override {
    if (capture_.source.empty()) capture_.source = program;
  }

  void sectionComment(std::string_view comment) override { readPart(comment, capture_); }

  void link(const Link& link) override {
    Interface hid;
    const bool isInterface = link.type == kExported && readInterface(link, hid);
    links_.push_back({link.type, isInterface ? interfaces_.add(hid) : -1});
  }

  void packet(const Packet& packet) override {
    ++packets_;
    const auto [type, hid] = links_[packet.link];
    if (type == kExported) {
      Event event;
      if (!readExported(packet, event)) return;
      event.hid = hid;
      capture_.events.push_back(std::move(event));
    } else if (type == Usb::kUsbPcap || type == Usb::kUsbmon || type == Usb::kUsbmonShort) {
      usb_.add(packet, type);
    }
  }

  void finish() {
    usb_.moveInto(capture_);
    std::stable_sort(capture_.events.begin(), capture_.events.end(),
                     [](const Event& left, const Event& right) { return left.offset < right.offset; });
    capture_.leftOut = packets_ - capture_.events.size();
  }

 private:
  Capture& capture_;
  Interfaces interfaces_;
  std::vector<std::pair<std::uint32_t, int>> links_;  // type, and interface
  Usb usb_;
  std::size_t packets_ = 0;
};

std::string textOf(const std::filesystem::path& path) {
  const auto text = path.u8string();
  return {text.begin(), text.end()};
}

std::vector<std::uint8_t> bytesOf(const std::filesystem::path& path) {
  std::error_code error;
  if (std::filesystem::exists(path, error) && !std::filesystem::is_regular_file(path, error)) {
    throw std::runtime_error(textOf(path) + ": not a file of bytes; expected a capture");
  }
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  if (!file) throw std::runtime_error(textOf(path) + ": " + std::strerror(errno));
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(file.tellg()));
  file.seekg(0);
  if (!file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()))) {
    throw std::runtime_error(textOf(path) + ": cannot be read");
  }
  return bytes;
}

// NAME-2.pcapng of NAME.pcapng.
std::filesystem::path continuation(const std::filesystem::path& path, int number) {
  std::filesystem::path name = path.stem();
  name += "-" + std::to_string(number);
  name += path.extension();
  return path.parent_path() / name;
}

void append(Capture& capture, Capture more, const std::string& name) {
  Interfaces interfaces(capture.interfaces);
  std::vector<int> numbers;
  for (const Interface& hid : more.interfaces) numbers.push_back(interfaces.add(hid));
  for (Event& event : more.events) {
    if (event.hid >= 0) event.hid = numbers[static_cast<std::size_t>(event.hid)];
    capture.events.push_back(std::move(event));
  }
  capture.leftOut += more.leftOut;
  if (more.problem.empty()) return;
  capture.problem += (capture.problem.empty() ? "" : "; ") + name + " " + more.problem;
}

}  // namespace

Capture read(std::span<const std::uint8_t> bytes) {
  Capture capture;
  Reader reader(capture);
  capture.problem = readPackets(bytes, reader);
  reader.finish();
  return capture;
}

Capture readFile(const std::filesystem::path& path) {
  const std::vector<std::uint8_t> bytes = bytesOf(path);
  if (!isCapture(bytes)) throw std::runtime_error(textOf(path) + ": neither pcapng nor pcap");
  Capture capture = read(bytes);
  for (int number = 2;; ++number) {
    const std::filesystem::path next = continuation(path, number);
    if (std::error_code error; !std::filesystem::is_regular_file(next, error)) return capture;
    Capture more = read(bytesOf(next));
    // Another recording may have stood here.
    if (capture.recording.empty() || more.recording != capture.recording || more.part != number) return capture;
    append(capture, std::move(more), textOf(next.filename()));
  }
}

}  // namespace capture
