#include "sim/devices/FirmwareTarget.h"

#include <algorithm>
#include <utility>

namespace sim {
namespace {

enum Command : std::uint8_t { otaPrepare = 0x07, otaOpen = 0x08, otaData = 0x09, otaAbort = 0x0A, otaComplete = 0x0B };
enum Reply : std::uint8_t {
  prepareReply = 0x97,
  openReply = 0x98,
  dataReply = 0x99,
  endReply = 0x9A,
  completeReply = 0x9B,
};

constexpr std::int64_t kBlock = 16;
constexpr std::size_t kCheckedBlock = 20;
constexpr std::size_t kLongestImage = 1U << 22;

// CRC-16/MODBUS, a table instead of shifts: the checksum written down a second time.
std::uint16_t crc16(std::span<const std::uint8_t> bytes) {
  static const auto table = [] {
    std::array<std::uint16_t, 256> t{};
    for (unsigned i = 0; i < 256; ++i) {
      unsigned value = i;
      for (int bit = 0; bit < 8; ++bit) value = (value & 1) != 0 ? value >> 1 ^ 0xA001 : value >> 1;
      t[i] = static_cast<std::uint16_t>(value);
    }
    return t;
  }();
  std::uint16_t crc = 0xFFFF;
  for (const std::uint8_t byte : bytes) crc = static_cast<std::uint16_t>(crc >> 8 ^ table[(crc ^ byte) & 0xFF]);
  return crc;
}

int little(std::span<const std::uint8_t> bytes, std::size_t at) { return bytes[at] | bytes[at + 1] << 8; }

bool allOnes(std::span<const std::uint8_t> bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte == 0xFF; });
}

}  // namespace

void FirmwareTarget::follow(UpdateScript script) { script_ = std::move(script); }

std::int64_t FirmwareTarget::stride() const {
  return flow_ == UpdateFlow::bytes    ? std::max<std::int64_t>(script_.chunk, 1)
         : flow_ == UpdateFlow::blocks ? kBlock
                                       : 2 * kBlock;
}

FirmwareTarget::Outcome FirmwareTarget::take(std::uint8_t code, const Bytes& payload,
                                             std::optional<UpdateFault> fault) {
  if (fault == UpdateFault::silence) return {};
  if (fault == UpdateFault::unplug) return {.answer = {}, .unplug = true};
  switch (code) {
    case otaPrepare:
      if (flow_ != UpdateFlow::bytes) violation("prepared without need");
      return obey(UpdateStep::prepare, payload, fault);
    case otaOpen:
      begin(payload);
      return obey(UpdateStep::open, payload, fault);
    case otaData:
      if (!active_) violation("data outside a transfer");
      return obey(UpdateStep::data, payload, fault);
    case otaComplete:
      if (!active_) return {};  // hosts say so once more when an image is done
      return obey(UpdateStep::complete, payload, fault);
    case otaAbort:
      active_ = false;
      return obey(UpdateStep::abort, payload, fault);
    default:
      return {};
  }
}

void FirmwareTarget::finish() {
  active_ = false;
  ++completed_;
  // Firmware that lacks a part does not start.
  if (script_.size == 0 || image_.size() >= script_.size) state_ = FirmwareState::updated;
}

FirmwareTarget::Outcome FirmwareTarget::obey(UpdateStep step, const Bytes& payload, std::optional<UpdateFault> fault) {
  if (step == UpdateStep::data) takeData(payload);
  const bool here = step != UpdateStep::data || messages_++ == script_.atMessage;
  Outcome outcome;
  outcome.unplug = here && script_.unplugAt == step;
  if (here && (script_.silentAt == step || script_.unplugAt == step)) return outcome;
  const bool refuse = fault == UpdateFault::refusal || (here && script_.refuseAt == step);
  const bool again = fault == UpdateFault::again;
  switch (step) {
    case UpdateStep::prepare:
      outcome.answer = {prepareReply, status(step, refuse)};
      break;
    case UpdateStep::open:
      if (!refuse) state_ = FirmwareState::incomplete;
      outcome.answer = {openReply, flow_ == UpdateFlow::bytes ? request(step, refuse, again) : status(step, refuse)};
      break;
    case UpdateStep::data:
      outcome.answer = {dataReply, request(step, refuse, again)};
      break;
    case UpdateStep::complete:
      if (!refuse) finish();
      outcome.answer = {completeReply, status(step, refuse)};
      break;
    case UpdateStep::abort:
      if (script_.endsAborts) outcome.answer = {endReply, status(step, false)};
      break;
  }
  return outcome;
}

void FirmwareTarget::begin(const Bytes& opening) {
  const std::size_t most = flow_ == UpdateFlow::blocks ? 16 : flow_ == UpdateFlow::checkedBlocks ? 32 : 10;
  if (opening.size() > most) violation("an opening of " + std::to_string(opening.size()) + " bytes");
  opening_ = opening;
  image_.clear();
  active_ = true;
  messages_ = 0;
  asked_ = 0;
  plan_.clear();
  if (!script_.order) return;
  // Block 0 comes by itself after the opening; then the others, shuffled, then whatever is behind the end.
  for (std::int64_t at = 0; at < static_cast<std::int64_t>(script_.size); at += stride()) plan_.push_back(at);
  std::mt19937_64 random(*script_.order);
  std::shuffle(plan_.begin(), plan_.end(), random);
  if (flow_ != UpdateFlow::bytes) std::erase(plan_, 0);
}

Bytes FirmwareTarget::status(UpdateStep, bool refuse) { return {static_cast<std::uint8_t>(refuse ? 1 : 0)}; }

// What to send next, in the answer to the opening or to a message.
Bytes FirmwareTarget::request(UpdateStep step, bool refuse, bool again) {
  const auto wire = [&](std::int64_t offset, std::uint8_t count) -> Bytes {
    const auto stat = static_cast<std::uint8_t>(refuse ? 1 : 0);
    if (flow_ == UpdateFlow::bytes) {
      const auto value = static_cast<std::uint32_t>(offset);
      const auto byte = [value](int shift) { return static_cast<std::uint8_t>(value >> shift); };
      return {byte(24), byte(16), byte(8), byte(0), count, stat};
    }
    const auto index = static_cast<std::uint16_t>(offset);
    return {stat, static_cast<std::uint8_t>(index), static_cast<std::uint8_t>(index >> 8)};
  };
  if (!script_.strangeRequests.empty()) {
    asked_ = script_.strangeRequests.front();
    script_.strangeRequests.erase(script_.strangeRequests.begin());
    return wire(asked_, script_.chunk);
  }
  const bool nth = script_.loseEvery != 0 && messages_ % script_.loseEvery == 0;
  const bool lost = step == UpdateStep::data && (again || nth);
  // Block 0 cannot be asked for again: its index would end the transfer.
  if (!lost || (asked_ == 0 && flow_ != UpdateFlow::bytes)) {
    if (script_.order) {
      asked_ = plan_.empty() ? static_cast<std::int64_t>(script_.size) : plan_.back();
      if (!plan_.empty()) plan_.pop_back();
    } else if (step == UpdateStep::data) {
      asked_ = static_cast<std::int64_t>(image_.size());
    }
    const bool all = script_.size != 0 && asked_ >= static_cast<std::int64_t>(script_.size);
    if (all && script_.endsWithZero && flow_ != UpdateFlow::bytes) {
      finish();
      return wire(0, 0);
    }
  }
  if (flow_ == UpdateFlow::bytes) return wire(asked_, script_.chunk);
  // The index of the first block that begins at or after the offset.
  return wire((asked_ + kBlock - 1) / kBlock, 0);
}

void FirmwareTarget::takeData(const Bytes& payload) {
  switch (flow_) {
    case UpdateFlow::blocks:
      return takeBlock(payload);
    case UpdateFlow::checkedBlocks:
      return takeCheckedBlocks(payload);
    case UpdateFlow::bytes:
      if (payload.empty() || payload.size() > script_.chunk) violation("not the bytes that were asked for");
      return store(asked_, payload);
  }
}

void FirmwareTarget::takeBlock(const Bytes& payload) {
  if (payload.size() < 3 || payload.size() > 2 + kBlock) return violation("a block of another length");
  const std::int64_t offset = std::int64_t{little(payload, 0)} * kBlock;
  if (offset != asked_) violation("a block that was not asked for");
  store(offset, std::span(payload).subspan(2));
}

void FirmwareTarget::takeCheckedBlocks(const Bytes& payload) {
  if (payload.size() != 2 * kCheckedBlock) return violation("two blocks of another length");
  const std::span<const std::uint8_t> both(payload);
  std::int64_t offset = 0;
  for (const auto block : {both.first(kCheckedBlock), both.last(kCheckedBlock)}) {
    const bool second = block.data() != both.data();
    if (second && allOnes(block)) break;
    if (crc16(block.first(kCheckedBlock - 2)) != little(block, kCheckedBlock - 2)) return violation("a wrong checksum");
    const std::int64_t at = std::int64_t{little(block, 0)} * kBlock;
    if (at != (second ? offset + kBlock : asked_)) violation("a block that was not asked for");
    offset = at;
    auto bytes = block.subspan(2, static_cast<std::size_t>(kBlock));
    if (const auto end = static_cast<std::int64_t>(script_.size); end != 0 && offset + kBlock > end) {
      const auto kept = static_cast<std::size_t>(std::max<std::int64_t>(end - offset, 0));
      if (!allOnes(bytes.subspan(kept))) violation("padding that is not FF");
      bytes = bytes.first(kept);
    }
    store(offset, bytes);
  }
}

void FirmwareTarget::store(std::int64_t offset, std::span<const std::uint8_t> bytes) {
  const std::size_t end = static_cast<std::size_t>(offset) + bytes.size();
  if (offset < 0 || end > kLongestImage) return violation("bytes outside of any image");
  if (image_.size() < end) image_.resize(end);
  std::copy(bytes.begin(), bytes.end(), image_.begin() + static_cast<std::ptrdiff_t>(offset));
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const std::size_t at = static_cast<std::size_t>(offset) + i;
    if (at < opening_.size() && opening_[at] != bytes[i]) return violation("an opening that is not the image's");
  }
}

}  // namespace sim
