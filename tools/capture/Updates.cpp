#include <algorithm>
#include <utility>

#include "hid/HidFrame.h"
#include "tools/capture/Chapters.h"

namespace capture {
namespace {

constexpr std::uint64_t kBlock = 16;
constexpr std::size_t kZhMessage = 40;
constexpr std::size_t kZhBlock = 20;

bool isCommand(std::uint8_t code) { return code >= OtaPrepare && code <= OtaComplete; }
bool isReply(std::uint8_t code) { return code >= OtaPrepareReply && code <= OtaCompleteReply; }

// How far into the image a message of blocks leads.
std::uint64_t endOf(std::span<const std::uint8_t> payload) {
  if (payload.size() < 2) return 0;
  const std::uint64_t from = kBlock * (payload[0] | std::uint64_t{payload[1]} << 8);
  if (payload.size() < kZhMessage) return from + payload.size() - 2;
  const auto second = payload.subspan(kZhBlock, kZhBlock);
  const bool empty = std::all_of(second.begin(), second.end(), [](std::uint8_t byte) { return byte == 0xFF; });
  return from + (empty ? kBlock : 2 * kBlock);
}

}  // namespace

bool Updates::isFarewell(const Decoded& report) const { return finished_ && report.code == OtaComplete; }

void Updates::pass(const Passed& passed) {
  if (passed.report.form != Form::Frame) return;
  if (passed.sent && isCommand(passed.report.code)) command(passed);
  if (!passed.sent && isReply(passed.report.code)) reply(passed);
}

void Updates::command(const Passed& passed) {
  const Decoded& report = passed.report;
  if (isFarewell(report)) {
    finished_ = false;
    return;
  }
  finished_ = false;
  const bool continues = current_ && waitsFor_.empty() && prepared_ && report.code == OtaOpen;
  if (report.code == OtaPrepare || (report.code == OtaOpen && !continues)) {
    close("cut off by another");
    begin(passed);
  }
  if (!current_) return;
  if (report.code == OtaAbort && !waitsFor_.empty()) current_->result = "no answer to " + waitsFor_;
  waitsFor_ = report.name;
  current_->to = passed.time;
  if (report.code != OtaData) return;
  ++current_->messages;
  const std::uint64_t end = prepared_ ? offset_ + report.payload.size() : endOf(report.payload);
  current_->bytes = std::max(current_->bytes, end);
  current_->points.push_back({passed.time, end});
}

void Updates::begin(const Passed& passed) {
  current_ =
      Update{.device = device_, .receiver = passed.report.receiver, .from = passed.time, .result = {}, .points = {}};
  prepared_ = passed.report.code == OtaPrepare;
  offset_ = 0;
}

void Updates::reply(const Passed& passed) {
  if (!current_) return;
  const Decoded& report = passed.report;
  const auto& payload = report.payload;
  current_->to = passed.time;
  if (report.refuses) current_->result = "refused at " + waitsFor_;
  waitsFor_.clear();
  if (payload.size() == 6) {
    offset_ = 0;
    for (std::size_t i = 0; i < 4; ++i) offset_ = offset_ << 8 | payload[i];
  }
  const bool hasAll = report.code == OtaDataReply && payload.size() == 3 && payload[1] == 0 && payload[2] == 0;
  if (!report.refuses && (hasAll || report.code == OtaCompleteReply)) {
    current_->good = true;
    current_->result = "done";
    close("");
    finished_ = true;
  } else if (report.code == OtaEndReply) {
    close("aborted");
  }
}

void Updates::close(const char* why) {
  finished_ = false;
  if (!current_) return;
  if (current_->result.empty())
    current_->result = waitsFor_.empty() ? why : std::string(why) + ", waiting for an answer to " + waitsFor_;
  if (!current_->good) {
    const char* const what = current_->receiver ? "the receiver's update: " : "the update: ";
    story_.note(current_->from, device_, "update", what + current_->result, current_->to);
  }
  story_.updates.push_back(std::move(*current_));
  current_.reset();
  waitsFor_.clear();
}

}  // namespace capture
