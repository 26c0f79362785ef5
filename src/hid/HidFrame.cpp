#include "hid/HidFrame.h"

#include <algorithm>

namespace {

constexpr std::uint8_t kMagic[] = {0xFE, 0xC0};
constexpr std::uint8_t kPrefix = 0xFF;
constexpr std::uint8_t kPrefixDevice = 0xF1;
constexpr std::uint8_t kPrefixReceiver = 0xF0;
constexpr std::uint8_t kEnd = 0xEF;
constexpr std::uint8_t kTernAudioReportId = 0x1A;
constexpr std::uint8_t kWrenAudioReportId = 0x1B;
constexpr std::uint8_t kWrenAudioMark = 0xAD;  // second byte of an audio report with the command report id
constexpr std::size_t kTernAudioBytes = 40;

// Reads a report as if it were followed by zeros for ever.
class Reader {
 public:
  explicit Reader(std::span<const std::uint8_t> report) : report_(report) {}
  std::uint8_t operator[](std::size_t at) const { return at < report_.size() ? report_[at] : std::uint8_t{0}; }
  void Copy(std::size_t from, std::size_t count, std::uint8_t* to) const {
    const std::size_t present = from < report_.size() ? std::min(count, report_.size() - from) : 0;
    std::copy_n(report_.data() + from, present, to);
    std::fill_n(to + present, count - present, std::uint8_t{0});
  }

 private:
  std::span<const std::uint8_t> report_;
};

// Character to keyboard usage code; 0 where there is none.
constexpr std::array<std::uint8_t, 256> HidUsageMap = [] {
  std::array<std::uint8_t, 256> map{};
  for (std::size_t i = 0; i < 26; ++i) {
    map['a' + i] = map['A' + i] = static_cast<std::uint8_t>(0x04 + i);
  }
  for (std::size_t i = 0; i < 9; ++i) map['1' + i] = static_cast<std::uint8_t>(0x1E + i);
  map['0'] = 0x27;
  map['-'] = 0x2D;
  map['='] = 0x2E;
  map['.'] = 0x37;
  map['/'] = 0x38;
  return map;
}();

}  // namespace

std::size_t BuildFrame(std::uint8_t code, const std::uint8_t* payload, int length, DataChannel channel,
                       std::span<std::uint8_t> out) noexcept {
  if (!payload) length = 0;
  if (length < 0 || static_cast<std::size_t>(length) > kMaxPayload) return 0;
  std::array<std::uint8_t, kMaxFrame> frame;
  std::size_t size = 0;
  frame[size++] = kCommandReportId;
  if (channel == DataChannel_BluetoothLE || channel == DataChannel_Usb) {
    frame[size++] = kPrefix;
    frame[size++] = kPrefixDevice;
  } else if (channel == DataChannel_Receiver) {
    frame[size++] = kPrefix;
    frame[size++] = kPrefixReceiver;
  }
  frame[size++] = kMagic[0];
  frame[size++] = kMagic[1];
  frame[size++] = code;
  frame[size++] = static_cast<std::uint8_t>(length);
  std::copy_n(payload, length, frame.data() + size);
  size += static_cast<std::size_t>(length);
  frame[size++] = kEnd;
  if (size > out.size()) return 0;
  std::copy_n(frame.data(), size, out.data());
  return size;
}

bool ParseReport(std::span<const std::uint8_t> report, DataChannel channel, CHidData& out) noexcept {
  const Reader bytes(report);

  const auto accept = [&](DataChannel link, std::uint8_t code, std::size_t from, std::size_t count) {
    bytes.Copy(from, count, out.payload_.data());
    out.reportId = bytes[0];
    out.channel = link;
    out.code = code;
    out.data = count > 0 ? out.payload_.data() : nullptr;
    out.length = static_cast<int>(count);
    return true;
  };
  const auto body = [&](DataChannel link, std::size_t from) {
    if (bytes[from] != kMagic[1]) return false;
    const std::size_t count = bytes[from + 2];
    if (bytes[from + 3 + count] != kEnd) return false;
    return accept(link, bytes[from + 1], from + 3, count);
  };

  switch (bytes[0]) {
    case kCommandReportId:
      if (bytes[1] == kWrenAudioMark) return accept(DataChannel_BluetoothLE, AudioDataWren, 2, kWrenPayload);
      if (bytes[1] == kMagic[0]) return body(DataChannel_BluetoothLE, 2);
      if (bytes[1] != kPrefix || bytes[3] != kMagic[0]) return false;
      if (bytes[2] == kPrefixDevice) return body(DataChannel_Usb, 4);
      if (bytes[2] == kPrefixReceiver) return body(DataChannel_Receiver, 4);
      return false;
    case kTernAudioReportId:
      if (channel == DataChannel_BluetoothLE) return accept(channel, AudioDataTern, 1, kTernAudioBytes);
      if (bytes[1] != kPrefix || bytes[2] != kPrefixDevice) return false;
      return accept(DataChannel_Usb, AudioDataTern, 3, kTernAudioBytes);
    case kWrenAudioReportId:
      return accept(DataChannel_BluetoothLE, AudioDataWren, 2, kWrenPayload);
    default:
      return false;
  }
}

std::optional<std::uint8_t> HidUsageOf(std::uint8_t character) noexcept {
  const std::uint8_t usage = HidUsageMap[character];
  return usage != 0 ? std::optional(usage) : std::nullopt;
}
