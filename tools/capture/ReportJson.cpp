#include <fmt/format.h>
#include <chrono>
#include <cmath>

#include "tools/capture/Report.h"

namespace capture {
namespace {

using Json = nlohmann::ordered_json;

double seconds(Time time) { return static_cast<double>(time) / 1e6; }
double millis(Time time) { return static_cast<double>(time) / 1e3; }
double tenths(double value) { return std::round(value * 10) / 10; }
Json orNull(int value) { return value < 0 ? Json() : Json(value); }
Json orNull(const std::string& text) { return text.empty() ? Json() : Json(text); }

template <typename All, typename Each>
Json list(const All& all, const Each& each) {
  Json array = Json::array();
  for (const auto& one : all) array.push_back(each(one));
  return array;
}

Json jsonOf(const Device& device) {
  return {{"title", device.title()},
          {"number", orNull(device.number)},
          {"model", orNull(device.model)},
          {"link", device.link},
          {"vendor", orNull(device.vendor)},
          {"product", orNull(device.product)},
          {"path", device.path},
          {"serial", orNull(device.serial)},
          {"address", orNull(device.address)},
          {"battery", orNull(device.battery)},
          {"dpi", orNull(device.dpi)},
          {"receiver", device.receiver},
          {"states", list(device.states, [](const State& state) {
             return Json{{"from", seconds(state.from)}, {"to", seconds(state.to)}, {"state", state.name}};
           })}};
}

Json jsonOf(const Frame& frame) {
  return {{"time", seconds(frame.time)}, {"device", frame.device},   {"sent", frame.sent}, {"receiver", frame.receiver},
          {"wrong", frame.wrong},        {"routine", frame.routine}, {"name", frame.name}, {"words", frame.words},
          {"bytes", frame.bytes},        {"note", frame.note}};
}

Json jsonOf(const RequestCount& count) {
  return {{"name", count.name},
          {"sent", count.sent},
          {"answered", count.answered},
          {"unanswered", count.unanswered},
          {"median_ms", count.delays.empty() ? Json() : Json(millis(count.median()))},
          {"slowest_ms", count.delays.empty() ? Json() : Json(millis(count.slowest()))}};
}

Json jsonOf(const KeyPress& press) {
  return {{"device", press.device},
          {"key", press.key},
          {"from", seconds(press.from)},
          {"to", seconds(press.to)},
          {"down", press.down}};
}

Json jsonOf(const Speech& speech) {
  return {{"device", speech.device},      {"from", seconds(speech.from)},
          {"to", seconds(speech.to)},     {"first", seconds(speech.first)},
          {"last", seconds(speech.last)}, {"codec", speech.closedCodec ? "closed" : "SBC"},
          {"reports", speech.reports},    {"missing", speech.missing},
          {"seconds", speech.seconds()},  {"peak_dbfs", speech.pcm.empty() ? Json() : Json(tenths(speech.peak()))}};
}

Json jsonOf(const Update& update) {
  return {{"device", update.device},  {"receiver", update.receiver}, {"from", seconds(update.from)},
          {"to", seconds(update.to)}, {"messages", update.messages}, {"bytes", update.bytes},
          {"good", update.good},      {"result", update.result}};
}

Json jsonOf(const Unusual& unusual) {
  return {{"time", seconds(unusual.time)}, {"until", seconds(unusual.until)},
          {"times", unusual.times},        {"device", orNull(unusual.device)},
          {"kind", unusual.kind},          {"words", unusual.words}};
}

Json jsonOf(const ToldLine& line) {
  return {{"time", seconds(line.time)}, {"number", orNull(line.device)}, {"event", line.name}, {"text", line.text}};
}

}  // namespace

nlohmann::ordered_json summaryOf(const Story& story, const std::string& file) {
  const Counts& counts = story.counts;
  const auto each = [](const auto& one) { return jsonOf(one); };
  return {{"file", file},
          {"source", story.source},
          {"problem", orNull(story.problem)},
          {"left_out", story.leftOut},
          {"start", dateOf(story.start)},
          {"seconds", seconds(story.length)},
          {"slow_ms", millis(story.slow)},
          {"counts",
           {{"sent", counts.sent},
            {"received", counts.received},
            {"speech", counts.speech},
            {"damaged", counts.damaged},
            {"other", counts.other},
            {"told", counts.told}}},
          {"devices", list(story.devices, each)},
          {"requests", list(story.requests, each)},
          {"unusual", list(story.unusual, each)},
          {"keys", list(story.keys, each)},
          {"speech", list(story.speech, each)},
          {"updates", list(story.updates, each)},
          {"log", list(story.told, each)}};
}

nlohmann::ordered_json jsonOf(const Story& story, const std::string& file) {
  Json all = summaryOf(story, file);
  all["frames"] = list(story.frames, [](const Frame& frame) { return jsonOf(frame); });
  return all;
}

std::string dateOf(std::int64_t microseconds) {
  using namespace std::chrono;
  const sys_seconds time{std::chrono::seconds(microseconds / 1'000'000)};
  const auto days = floor<std::chrono::days>(time);
  const std::int64_t ofDay = (time - days).count();
  const year_month_day date{days};
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} UTC", static_cast<int>(date.year()),
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), ofDay / 3600,
                     ofDay / 60 % 60, ofDay % 60);
}

std::string wavName(const Story& story, std::size_t number) {
  const Speech& speech = story.speech[number];
  const Device& device = story.devices[speech.device];
  return fmt::format("speech-{:03}-device-{}.wav", number + 1,
                     device.number >= 0 ? device.number : static_cast<int>(speech.device));
}

}  // namespace capture
