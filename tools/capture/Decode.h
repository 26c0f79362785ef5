// What a report says, in words: docs/protocol.md as a table.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "models/Models.h"
#include "tools/capture/Capture.h"

namespace capture {

enum class Form {
  Frame,
  Speech,
  OlderKeys,  // the report of an older device
  Damaged,    // begins as ours do, but is none, or has a length that the library ignores
  Other,      // a report of something else
};

struct Decoded {
  Form form = Form::Other;
  std::uint8_t code = 0;  // of a frame, and of speech as the parser gives it
  bool receiver = false;  // to or from the receiver
  bool refuses = false;   // a status that says no
  std::string name;       // "DpiReply"
  std::string words;      // "DPI 1600"; empty when the name says it all
  std::vector<std::uint8_t> payload;
};

// What the host asks, and what answers it.
struct Request {
  std::uint8_t code;
  const char* name;
  std::uint8_t firstAnswer;  // 0: nothing answers it
  std::uint8_t lastAnswer;
  int patience;  // milliseconds that the library waits for an answer, or as good as
};

// Null for a code that is none.
const Request* requestOf(std::uint8_t code);
// In the order in which an answer is given to one of several that wait.
std::span<const Request> requests();

// The sheet of the model that presents itself so; that of an unknown model else.
const ModelSheet& sheetOf(const Interface& hid);

Decoded decode(std::span<const std::uint8_t> report, bool sent, const Interface& hid, const ModelSheet& model);

const char* inWords(KeyAction action);
// "Wren" of "VoxMouse Wren"; empty for an unknown model.
std::string shortName(const ModelSheet& model);
std::string hexOf(std::span<const std::uint8_t> bytes);

}  // namespace capture
