#include <fmt/format.h>
#include <algorithm>
#include <utility>

#include "tools/capture/Report.h"

namespace capture {
namespace {

std::string at(Time time) { return fmt::format("{:10.3f} s  ", static_cast<double>(time) / 1e6); }

// What a device, or a file, says may hold anything, but nothing that moves a cursor.
std::string plain(const std::string& text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = [&text](std::size_t at) { return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U; };
    const bool control = byte(i) == 0xC2 && byte(i + 1) >= 0x80 && byte(i + 1) < 0xA0;  // U+0080 to U+009F
    result += control || byte(i) < 0x20 || byte(i) == 0x7F ? ' ' : text[i];
    if (control) ++i;
  }
  return result;
}

class Lines {
 public:
  explicit Lines(const Story& story) : story_(story) {}

  void add(const std::string& line) {
    text_ += plain(line);
    text_.erase(text_.find_last_not_of(' ') + 1);
    text_ += '\n';
  }
  void title(const char* text) { text_ += std::string("\n") + text + "\n"; }
  // A part of the report; none where there is nothing to say.
  template <typename All, typename Each>
  void part(const char* heading, const All& all, const Each& line) {
    if (all.empty()) return;
    title(heading);
    for (const auto& one : all) add(line(one));
  }
  // Filled up to a width, in characters of UTF-8.
  static std::string column(std::string text, std::size_t width) {
    std::size_t length = 0;
    for (const char c : text) length += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    if (length < width) text.append(width - length, ' ');
    return text + "  ";
  }
  std::string device(int index) const {
    return column(index < 0 ? "-" : story_.devices[static_cast<std::size_t>(index)].title(), 14);
  }
  std::string device(std::size_t index) const { return device(static_cast<int>(index)); }
  std::string take() { return std::move(text_); }

 private:
  const Story& story_;
  std::string text_;
};

std::string describe(const Device& device) {
  std::string text = "  " + Lines::column(device.title(), 20) + device.link;
  const auto more = [&text](bool known, const std::string& words) {
    if (known) text += ", " + words;
  };
  more(!device.vendor.empty(), device.vendor + ":" + device.product);
  more(device.battery >= 0, "battery " + std::to_string(device.battery) + " %");
  more(device.dpi >= 0, "DPI " + std::to_string(device.dpi));
  more(!device.serial.empty(), "serial number " + device.serial);
  more(!device.address.empty(), "address " + device.address);
  more(device.receiver, "with a receiver");
  for (const State& state : device.states) text += "\n" + at(state.from) + state.name;
  return text;
}

}  // namespace

std::string textOf(const Story& story, const std::string& file) {
  const Counts& counts = story.counts;
  Lines lines(story);
  lines.add(file + ": " + dateOf(story.start) + ", " +
            fmt::format("{:.3f} s", static_cast<double>(story.length) / 1e6) +
            (story.source.empty() ? "" : ", made by " + story.source));
  if (!story.problem.empty()) lines.add("NOT WHOLE: " + story.problem);
  lines.add(plural(counts.sent, "report") + " sent, " + std::to_string(counts.received) +
            " received: " + std::to_string(counts.speech) + " with speech, " + std::to_string(counts.damaged) +
            " damaged, " + std::to_string(counts.other) + " of something else");
  lines.add("The client was told " + plural(counts.told, "thing") + "; " + plural(story.leftOut, "packet") +
            " left out");
  // The states of a device are lines of their own.
  if (!story.devices.empty()) lines.title("Devices");
  for (const Device& device : story.devices) {
    const std::string text = describe(device);
    for (std::size_t from = 0; from <= text.size();) {
      const std::size_t end = std::min(text.find('\n', from), text.size());
      lines.add(text.substr(from, end - from));
      from = end + 1;
    }
  }
  lines.part("Unusual", story.unusual, [&](const Unusual& each) {
    return at(each.time) + lines.device(each.device) + Lines::column(each.kind, 8) + each.words +
           (each.times > 1 ? " (" + std::to_string(each.times) + " times)" : "");
  });
  lines.part("Requests              sent  answered  unanswered     median    slowest", story.requests,
             [](const RequestCount& each) {
               std::string line = "  " + Lines::column(each.name, 16) +
                                  fmt::format("{:6}  {:8}  {:10}", each.sent, each.answered, each.unanswered);
               if (each.delays.empty()) return line;
               return line + fmt::format("  {:>9}  {:>9}", milliseconds(each.median()), milliseconds(each.slowest()));
             });
  lines.part("Keys", story.keys, [&](const KeyPress& each) {
    const std::string held = fmt::format("{:.3f} s", static_cast<double>(each.to - each.from) / 1e6);
    return at(each.from) + lines.device(each.device) + Lines::column(each.key, 18) +
           (each.down             ? "down to the end"
            : each.to > each.from ? held
                                  : "");
  });
  lines.part("Speech", story.speech, [&](const Speech& each) {
    return at(each.from) + lines.device(each.device) + fmt::format("{:.2f} s in ", each.seconds()) +
           plural(each.reports, "report") +
           (each.closedCodec   ? ", in the closed codec: not decoded"
            : each.pcm.empty() ? std::string()
                               : fmt::format(", peak {:.1f} dBFS", each.peak())) +
           (each.missing > 0 ? ", about " + std::to_string(each.missing) + " missing" : "");
  });
  lines.part("Updates", story.updates, [&](const Update& each) {
    return at(each.from) + lines.device(each.device) + (each.receiver ? "receiver, " : "") +
           std::to_string(each.bytes) + " bytes in " + plural(each.messages, "message") +
           fmt::format(", {:.1f} s: ", static_cast<double>(each.to - each.from) / 1e6) + each.result;
  });
  lines.part("Log", story.told, [&](const ToldLine& each) {
    return at(each.time) + Lines::column(each.device >= 0 ? "#" + std::to_string(each.device) : "", 3) +
           Lines::column(each.name, 12) + each.text;
  });
  return lines.take();
}

}  // namespace capture
