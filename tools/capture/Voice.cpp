#include <algorithm>
#include <cmath>
#include <utility>

#include "hid/HidFrame.h"
#include "tools/capture/Chapters.h"

namespace capture {
namespace {

constexpr Time kSbcReport = 15'000;  // that it takes
constexpr Time kClosedReport = 20'000;
constexpr int kRate = 16'000;
constexpr Time kOnItsWay = 500'000;  // so long speech may still come after its channel has been closed
constexpr Time kNoSpeech = 1'000'000;

// The header that a Wren leaves out of its frames.
constexpr std::uint8_t kSbcHeader[] = {0xAD, 0x31, 0x0C};
constexpr std::size_t kSbcFrame = 20;

void decodeInto(CSbcDecoder& decoder, std::span<const std::uint8_t> payload, std::vector<std::int16_t>& pcm) {
  for (; payload.size() >= kSbcFrame; payload = payload.subspan(kSbcFrame)) {
    const auto frame = payload.first(kSbcFrame);
    std::copy(frame.begin(), frame.end(),
              std::copy(std::begin(kSbcHeader), std::end(kSbcHeader), decoder.Input().begin()));
    if (decoder.DecodeFrame() < 0) continue;
    const auto bytes = decoder.Pcm();
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
      pcm.push_back(static_cast<std::int16_t>(bytes[i] | bytes[i + 1] << 8));
    }
  }
}

Time reportTime(const Speech& speech) { return speech.closedCodec ? kClosedReport : kSbcReport; }

}  // namespace

double Speech::seconds() const {
  return closedCodec ? static_cast<double>(reports) * static_cast<double>(kClosedReport) / 1e6
                     : static_cast<double>(pcm.size()) / kRate;
}

double Speech::peak() const {
  int most = 0;
  for (const int sample : pcm) most = std::max(most, std::abs(sample));
  return most > 0 ? 20 * std::log10(most / 32768.0) : -99;
}

void Voice::pass(const Passed& passed) {
  const std::uint8_t code = passed.report.code;
  if (passed.sent) {
    if (code == VoiceOpen) close(passed.time);
    if (code == VoiceStop && current_) stopAsked_ = passed.time;
  } else if (passed.report.form == Form::Speech) {
    speech(passed);
  } else if (code == VoiceOpenReply && !passed.report.refuses) {
    close(passed.time);
    open(passed.time);
  } else if (code == VoiceStopReply) {
    stopAsked_.reset();
    close(passed.time);
  }
}

void Voice::open(Time time) {
  current_ = Speech{.device = device_, .from = time, .to = time, .first = time, .last = time, .pcm = {}};
  longestPause_ = 0;
  sbc_ = std::make_unique<CSbcDecoder>();
}

void Voice::speech(const Passed& passed) {
  if (!current_ && before_ && passed.time - story_.speech[*before_].to < kOnItsWay) {
    ++story_.speech[*before_].reports;
    return;
  }
  if (!current_) open(passed.time);
  Speech& speech = *current_;
  if (speech.reports++ == 0) {
    speech.first = passed.time;
  } else {
    longestPause_ = std::max(longestPause_, passed.time - speech.last);
  }
  speech.last = passed.time;
  speech.closedCodec = passed.report.code == AudioDataTern;
  if (!speech.closedCodec) decodeInto(*sbc_, passed.report.payload, speech.pcm);
}

void Voice::close(Time time) {
  if (!current_) return;
  Speech& speech = *current_;
  speech.to = std::max(speech.last, stopAsked_ ? *stopAsked_ : time);
  const Time period = reportTime(speech);
  const auto expected =
      static_cast<std::size_t>(std::max<Time>(0, speech.last - speech.first + period / 2) / period + 1);
  if (speech.reports == 0) {
    if (speech.to - speech.from > kNoSpeech)
      story_.note(speech.from, device_, "silence", "a voice channel without speech");
  } else if (expected > speech.reports + std::max<std::size_t>(3, speech.reports / 1000)) {
    speech.missing = expected - speech.reports;
    story_.note(speech.first, device_, "dropped",
                "about " + plural(speech.missing, "report") + " of speech missing; the longest pause is " +
                    milliseconds(longestPause_));
  }
  before_ = story_.speech.size();
  story_.speech.push_back(std::move(speech));
  current_.reset();
  stopAsked_.reset();
}

}  // namespace capture
