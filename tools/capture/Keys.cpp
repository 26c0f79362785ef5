#include <algorithm>

#include "hid/HidFrame.h"
#include "tools/capture/Chapters.h"

namespace capture {

void Keys::pass(const Passed& passed, const ModelSheet& model) {
  if (passed.sent) return;
  if (passed.report.form == Form::OlderKeys) return older(passed.report.code, passed.time);
  if (passed.report.code != MouseKeyReply) return;
  const auto key = static_cast<char>(passed.report.payload[0]);
  const auto known =
      std::find_if(model.keys.begin(), model.keys.end(), [key](const auto& each) { return each.key == key; });
  if (known != model.keys.end()) return act(known->action, passed.time);
  report(passed.report.words, passed.time);
}

void Keys::act(KeyAction action, Time time) {
  const bool voiceDown = down_.contains("voice");
  const bool rightDown = down_.contains("right");
  switch (action) {
    case KeyAction::VoiceDown:
      return down("voice", time);
    case KeyAction::VoiceUp:
      return up("voice", time);
    case KeyAction::RightDown:
      return down("right", time);
    case KeyAction::RightUp:
      return up("right", time);
    case KeyAction::MKeyDown:
      return down("M key", time);
    case KeyAction::MKeyUp:
      return up("M key", time);
    case KeyAction::VoiceDownOrRightUp:
      return rightDown ? up("right", time) : down("voice", time);
    case KeyAction::RightDownOrVoiceUp:
      return voiceDown ? up("voice", time) : down("right", time);
    case KeyAction::AllUp:
      return release(time);
    case KeyAction::OpenNavigation:
    case KeyAction::Screenshot:
    case KeyAction::DoubleClick:
    case KeyAction::RightShortPress:
      return report(inWords(action), time);
  }
}

void Keys::down(const char* key, Time time) {
  if (!down_.try_emplace(key, story_.keys.size()).second) return;
  story_.keys.push_back({.device = device_, .key = key, .from = time, .to = time, .down = true});
}

void Keys::up(const char* key, Time time) {
  const auto known = down_.find(key);
  if (known == down_.end()) return;
  KeyPress& press = story_.keys[known->second];
  press.to = time;
  press.down = false;
  down_.erase(known);
}

void Keys::report(std::string key, Time time) {
  story_.keys.push_back({.device = device_, .key = std::move(key), .from = time, .to = time});
}

void Keys::release(Time time) {
  for (const auto& [key, number] : std::map(down_)) up(key.c_str(), time);
}

void Keys::end(Time time) {
  for (const auto& [key, number] : down_) story_.keys[number].to = time;
}

// A report says which key is down now; docs/protocol.md.
void Keys::older(std::uint8_t key, Time time) {
  constexpr std::uint8_t kVoice = 0x21;
  constexpr std::uint8_t kRight = 0x11;
  if (key == older_) return;
  older_ = key;
  if (key != kVoice) up("voice", time);
  if (key != kRight) up("right", time);
  if (key == kVoice) down("voice", time);
  if (key == kRight) down("right", time);
  if (key == 0x41) report("open navigation", time);
  if (key == 0x51) report("screenshot", time);
  if (key == 0x65) report("battery low", time);
}

}  // namespace capture
