// A story as a page, a text for a terminal, and JSON.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tools/capture/Story.h"

namespace capture {

// Everything, in the fields of docs/report.md; the summary is without the frames. file: what the recording is called.
nlohmann::ordered_json jsonOf(const Story& story, const std::string& file);
nlohmann::ordered_json summaryOf(const Story& story, const std::string& file);
// Lines for a terminal.
std::string textOf(const Story& story, const std::string& file);
// What stands in the way of somebody, and what may help; sentences without their full stops.
struct Finding {
  std::string about;
  std::string what;
  std::string advice;
};
// One page that needs nothing else. findings: those that are known besides; nothing where nobody has looked for any.
std::string htmlOf(const Story& story, const std::string& file,
                   const std::optional<std::vector<Finding>>& findings = std::nullopt);

std::string dateOf(std::int64_t microseconds);  // "2026-03-01 12:00:00 UTC"
// The name of the WAV file of a voice channel, by its number from 0.
std::string wavName(const Story& story, std::size_t number);

}  // namespace capture
