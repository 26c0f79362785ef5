#include "sim/linux/ReportDescriptor.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

namespace sim {
namespace {

// An item's type and tag, without its size. The names are those of the HID specification.
enum Item : std::uint8_t {
  kInput = 0x80,
  kOutput = 0x90,
  kCollection = 0xA0,
  kEndCollection = 0xC0,
  kUsagePage = 0x04,
  kReportSize = 0x74,
  kReportId = 0x84,
  kReportCount = 0x94,
  kPush = 0xA4,
  kPop = 0xB4,
  kUsage = 0x08,
};
constexpr std::uint8_t kItemMask = 0xFC;
constexpr std::uint8_t kLongItem = 0xFE;

constexpr std::size_t kMostBytes = 4096;       // of a descriptor, as in Linux
constexpr std::uint64_t kMostBits = 8 * 8192;  // of a report
constexpr std::size_t kMostCollections = 64;
constexpr std::size_t kDeepest = 64;  // of collections, and of what is pushed

struct Globals {
  std::uint32_t usagePage = 0;
  std::uint32_t size = 0;
  std::uint32_t count = 0;
  std::uint8_t id = 0;
};

// Four bytes bring their own page; else it is the one in force where the usage is used.
struct Usage {
  std::uint32_t value = 0;
  bool hasPage = false;
};

using Bits = std::map<std::uint8_t, std::uint64_t>;

class Parser {
 public:
  std::optional<ReportDescriptor> parse(std::span<const std::uint8_t> bytes) {
    if (bytes.size() > kMostBytes) return std::nullopt;
    while (!bytes.empty()) {
      if (!item(bytes)) return std::nullopt;
    }
    if (depth_ != 0 || mixed()) return std::nullopt;
    return std::move(result_);
  }

 private:
  // Reports without an id beside those that have one: nobody could tell them apart.
  bool mixed() const {
    return result_.numbered &&
           std::any_of(result_.collections.begin(), result_.collections.end(),
                       [](const auto& each) { return each.input.contains(0) || each.output.contains(0); });
  }

  // Takes one from the front.
  bool item(std::span<const std::uint8_t>& bytes) {
    const std::uint8_t prefix = bytes[0];
    if (prefix == kLongItem) {  // none is defined
      const std::size_t length = bytes.size() < 2 ? 0 : 3 + std::size_t{bytes[1]};
      if (length == 0 || bytes.size() < length) return false;
      bytes = bytes.subspan(length);
      return true;
    }
    static constexpr std::array<std::size_t, 4> kSizes{0, 1, 2, 4};
    const std::size_t size = kSizes[prefix & 3];
    if (bytes.size() < 1 + size) return false;
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < size; ++i) value |= std::uint32_t{bytes[1 + i]} << 8 * i;
    bytes = bytes.subspan(1 + size);
    return obey(prefix & kItemMask, value, size);
  }

  bool obey(std::uint8_t item, std::uint32_t value, std::size_t size) {
    switch (item) {
      case kUsagePage:
        return global_.usagePage = value, true;
      case kReportSize:
        return global_.size = value, true;
      case kReportCount:
        return global_.count = value, true;
      case kReportId:
        global_.id = static_cast<std::uint8_t>(value);
        result_.numbered = true;
        return value >= 1 && value <= 255;
      case kPush:
        return pushed_.push_back(global_), pushed_.size() <= kDeepest;
      case kPop:
        if (pushed_.empty()) return false;
        global_ = pushed_.back();
        return pushed_.pop_back(), true;
      case kUsage:
        // The first usage is the collection's.
        if (!usage_) usage_ = {value, size == 4};
        return true;
      case kCollection:
        return begin();
      case kEndCollection:
        usage_.reset();
        return end();
      case kInput:
        return field(input_);
      case kOutput:
        return field(output_);
      default:
        if ((item & 0x0C) == 0) usage_.reset();  // any other main item: a feature
        return true;
    }
  }

  bool begin() {
    const Usage usage = usage_.value_or(Usage{});
    usage_.reset();
    if (++depth_ > kDeepest) return false;
    if (depth_ > 1) return true;
    TopCollection collection;
    collection.usagePage = static_cast<std::uint16_t>(usage.hasPage ? usage.value >> 16 : global_.usagePage);
    collection.usage = static_cast<std::uint16_t>(usage.value);
    result_.collections.push_back(collection);
    return result_.collections.size() <= kMostCollections;
  }

  bool end() {
    if (depth_ == 0) return false;
    if (--depth_ > 0) return true;
    TopCollection& collection = result_.collections.back();
    collection.input = bytesOf(input_);
    collection.output = bytesOf(output_);
    return true;
  }

  bool field(Bits& bits) {
    usage_.reset();
    if (depth_ == 0) return false;
    std::uint64_t& sum = bits[global_.id];
    sum += std::uint64_t{global_.size} * global_.count;  // 32 bits each
    return sum <= kMostBits;
  }

  // The sums begin anew with the next collection.
  static std::map<std::uint8_t, std::uint16_t> bytesOf(Bits& bits) {
    std::map<std::uint8_t, std::uint16_t> bytes;
    for (const auto& [id, sum] : std::exchange(bits, {})) bytes[id] = static_cast<std::uint16_t>(1 + (sum + 7) / 8);
    return bytes;
  }

  ReportDescriptor result_;
  Globals global_;
  std::vector<Globals> pushed_;
  std::optional<Usage> usage_;
  std::size_t depth_ = 0;
  Bits input_;
  Bits output_;
};

std::uint16_t longest(const std::map<std::uint8_t, std::uint16_t>& reports) {
  std::uint16_t most = 0;
  for (const auto& [id, bytes] : reports) most = std::max(most, bytes);
  return most;
}

}  // namespace

std::uint16_t TopCollection::inputLength() const { return longest(input); }
std::uint16_t TopCollection::outputLength() const { return longest(output); }

std::optional<ReportDescriptor> parseReportDescriptor(std::span<const std::uint8_t> bytes) {
  return Parser().parse(bytes);
}

}  // namespace sim
