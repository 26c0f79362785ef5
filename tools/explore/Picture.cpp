#include "tools/explore/Picture.h"

#include <algorithm>
#include <cstddef>
#include <sstream>
#include <vector>

namespace {

constexpr const char* kHead = R"(<!DOCTYPE html>
<html lang="en"><meta charset="utf-8">
<style>
body { font: 13px/1.3 system-ui, sans-serif; margin: 1em }
table { border-collapse: collapse }
th { position: sticky; top: 0; background: #fff; text-align: left; padding: 2px 8px; border-bottom: 2px solid #888 }
td { border-left: 1px solid #ddd; padding: 0 8px; max-width: 26em; overflow: hidden; text-overflow: ellipsis;
     white-space: nowrap }
td:hover { white-space: normal; overflow-wrap: anywhere }
td:first-child { border: 0; text-align: right; color: #666; font-variant-numeric: tabular-nums }
tr.later td { border-top: 1px solid #bbb }
.client { background: #dff0d8 } .device { background: #fdf2cc } .choice { background: #f8d7da } .on { background: #e8eef8 }
</style>
)";

std::string escaped(const std::string& text) {
  std::string html;
  for (const char c : text) {
    if (c == '<') {
      html += "&lt;";
    } else if (c == '&') {
      html += "&amp;";
    } else if (c == '"') {
      html += "&quot;";
    } else {
      html += c;
    }
  }
  return html;
}

// A line of the log: "TIME TEXT (thread N, device NAME, handle H)", the last two where it has them.
struct Event {
  std::string time;
  std::string text;
  std::string thread;
  std::string device;
};

Event parse(const std::string& line) {
  Event event;
  const std::size_t space = line.find(' ');
  const std::size_t who = line.rfind(" (thread ");
  event.time = line.substr(0, space);
  if (space == std::string::npos || who == std::string::npos || who < space) return event;
  event.text = line.substr(space + 1, who - space - 1);
  std::istringstream parts(line.substr(who + 2, line.size() - who - 3));
  for (std::string part; std::getline(parts, part, ',');) {
    part.erase(0, part.find_first_not_of(' '));
    if (part.rfind("thread ", 0) == 0) event.thread = part;
    if (part.rfind("device ", 0) == 0) event.device = part.substr(7);
    if (part.rfind("handle ", 0) == 0) event.text += " (" + part + ")";
  }
  return event;
}

std::size_t laneOf(std::vector<std::string>& lanes, const std::string& name) {
  const auto known = std::find(lanes.begin(), lanes.end(), name);
  if (known != lanes.end()) return static_cast<std::size_t>(known - lanes.begin());
  lanes.push_back(name);
  return lanes.size() - 1;
}

}  // namespace

std::string picture(const std::string& title, const std::string& log) {
  std::vector<Event> events;
  std::vector<std::string> threads;
  std::vector<std::string> devices;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    events.push_back(parse(line));
    laneOf(threads, events.back().thread);
    if (!events.back().device.empty()) laneOf(devices, events.back().device);
  }
  std::string html = kHead + ("<title>" + escaped(title) + "</title><h1>" + escaped(title) + "</h1><table><tr><th>ms");
  for (const auto* lanes : {&threads, &devices}) {
    for (const std::string& lane : *lanes) html += "<th>" + escaped(lane);
  }
  std::string time;
  for (const Event& event : events) {
    html += event.time == time ? "\n<tr><td>" : "\n<tr class=later><td>" + event.time;
    time = event.time;
    const char* kind = event.text.rfind("client ", 0) == 0   ? "client"
                       : event.text.rfind("choice ", 0) == 0 ? "choice"
                                                             : "on";
    for (const std::string& lane : threads) {
      if (lane == event.thread) {
        const std::string text = escaped(event.text);
        html += "<td class=";
        html += kind;
        html += " title=\"";
        html += text;
        html += "\">";
        html += text;
      } else {
        html += "<td>";
      }
    }
    for (const std::string& lane : devices) html += lane == event.device ? "<td class=device>&bull;" : "<td>";
  }
  return html + "</table></html>\n";
}
