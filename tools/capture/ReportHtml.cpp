// The page is report.html, which draws what stands in it as JSON. What would be too much for it is left out here.
#include <algorithm>
#include <map>
#include <string_view>
#include <utility>

#include "tools/capture/Report.h"
#include "tools/capture/Sound.h"

extern const unsigned char kReportPage[];
extern const std::size_t kReportPageBytes;

namespace capture {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kMostFrames = 20'000;
constexpr std::size_t kMostRows = 5'000;  // of any table
constexpr std::size_t kMostDevices = 50;
constexpr std::size_t kMostPictures = 60;     // of speech
constexpr std::size_t kPictureColumns = 600;  // of one, and no more than 100 a second
constexpr std::size_t kWaveColumns = 24'000;  // of all together, where that is more
constexpr std::size_t kMostPoints = 300;      // of an update's progress

std::string base64(std::span<const std::uint8_t> bytes) {
  constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    std::uint32_t three = 0;
    for (std::size_t i = 0; i < 3; ++i) three = three << 8 | (at + i < bytes.size() ? bytes[at + i] : 0U);
    for (std::size_t i = 0; i < 4; ++i) text += at + i > bytes.size() ? '=' : kDigits[three >> (18 - 6 * i) & 0x3F];
  }
  return text;
}

// A frame is a list: time in microseconds, device, flags (1 sent, 2 receiver, 4 wrong), name by its number, words,
// bytes, note.
void addFrames(const Story& story, Json& page, std::vector<std::string>& leftOut) {
  const bool tooMany = story.frames.size() > kMostFrames;
  std::size_t routine = 0;
  std::size_t further = 0;
  std::map<std::string, std::size_t> numbers;
  Json names = Json::array();
  Json frames = Json::array();
  for (const Frame& frame : story.frames) {
    if (frame.device >= kMostDevices || frames.size() >= kMostFrames) {
      ++further;
      continue;
    }
    if (tooMany && frame.routine) {
      ++routine;
      continue;
    }
    const auto [name, isNew] = numbers.try_emplace(frame.name, names.size());
    if (isNew) names.push_back(frame.name);
    const int flags = (frame.sent ? 1 : 0) + (frame.receiver ? 2 : 0) + (frame.wrong ? 4 : 0);
    frames.push_back({frame.time, frame.device, flags, name->second, frame.words, frame.bytes, frame.note});
  }
  if (routine > 0) {
    leftOut.push_back(plural(routine, "frame") + " of heartbeats and updates that were answered in time");
  }
  if (further > 0) leftOut.push_back(plural(further, "further frame"));
  page["frames"] = std::move(frames);
  page["names"] = std::move(names);
}

void addPictures(const Story& story, Json& page, std::vector<std::string>& leftOut) {
  std::size_t pictures = 0;
  const std::size_t share = std::max(kPictureColumns, kWaveColumns / std::max<std::size_t>(1, story.speech.size()));
  for (std::size_t i = 0; i < page["speech"].size(); ++i) {
    const auto& pcm = story.speech[i].pcm;
    if (pcm.empty()) continue;
    if (++pictures > kMostPictures) continue;
    const std::size_t hundredths = std::max<std::size_t>(1, pcm.size() / 160);
    page["speech"][i]["wave"] = waveform(pcm, std::min(hundredths, share));
    page["speech"][i]["spectrum"] = base64(spectrogram(pcm, std::min(hundredths, kPictureColumns)));
    page["speech"][i]["rows"] = kSpectrumRows;
  }
  if (pictures > kMostPictures) leftOut.push_back(plural(pictures - kMostPictures, "picture") + " of speech");
  for (std::size_t i = 0; i < page["updates"].size(); ++i) {
    const auto& points = story.updates[i].points;
    const std::size_t step = points.size() / kMostPoints + 1;
    Json progress = Json::array();
    for (std::size_t at = 0; at < points.size(); at += step) progress.push_back({points[at].time, points[at].bytes});
    if (!points.empty()) progress.push_back({points.back().time, points.back().bytes});
    page["updates"][i]["progress"] = std::move(progress);
  }
}

// Tables that nobody would read to their end.
void shorten(Json& page, const char* table, std::size_t most, std::vector<std::string>& leftOut) {
  Json& rows = page[table];
  if (rows.size() <= most) return;
  leftOut.push_back(plural(rows.size() - most, "row") + " of the " + table);
  rows.erase(rows.begin() + static_cast<std::ptrdiff_t>(most), rows.end());
}

// Nothing that a file or a device says ends the element that it stands in.
std::string inScript(const Json& page) {
  std::string text;
  for (const char c : page.dump(-1, ' ', false, Json::error_handler_t::replace)) {
    if (c == '<') {
      text += "\\u003c";
    } else {
      text += c;
    }
  }
  return text;
}

}  // namespace

std::string htmlOf(const Story& story, const std::string& file, const std::optional<std::vector<Finding>>& findings) {
  Json page = summaryOf(story, file);
  std::vector<std::string> leftOut;
  shorten(page, "devices", kMostDevices, leftOut);
  for (const char* const table : {"unusual", "keys", "speech", "updates", "log"}) {
    shorten(page, table, kMostRows, leftOut);
  }
  addFrames(story, page, leftOut);
  addPictures(story, page, leftOut);
  page["not_shown"] = leftOut;
  if (findings) {
    page["findings"] = Json::array();
    for (const Finding& each : *findings) {
      page["findings"].push_back({{"about", each.about}, {"what", each.what}, {"advice", each.advice}});
    }
  }
  constexpr std::string_view kPlace = "{\"the story\":0}";
  std::string html(reinterpret_cast<const char*>(kReportPage), kReportPageBytes);
  html.replace(html.find(kPlace), kPlace.size(), inScript(page));
  return html;
}

}  // namespace capture
