#include <string>

#include "sim/DeskFile.h"
#include "sim/Text.h"

namespace sim {
namespace {

constexpr int kF19 = 0x82;  // virtual key codes
constexpr int kF23 = 0x86;

}  // namespace

DeskDescription defaultDesk(const std::vector<std::int16_t>& speech, bool busy) {
  using Kind = DeskAction::Kind;
  DeskDevice wren{.model = "Wren", .link = Link::usb, .battery = std::uint8_t{80}, .dpi = std::uint16_t{1600}};
  wren.serial = "WR0123456789ABCDEF";
  wren.speech = speech;
  DeskDevice heronPlus{
      .model = "Heron Plus", .link = Link::bluetooth, .battery = std::uint8_t{64}, .dpi = std::uint16_t{1200}};
  heronPlus.address = {0x24, 0x8A, 0x10, 0x20, 0x30, 0x40};
  DeskDevice tern{.model = "Tern", .link = Link::usb, .battery = std::uint8_t{93}, .dpi = std::uint16_t{800}};
  tern.address = {0x0D, 0x8C, 0x01, 0x02, 0x03, 0x04};
  tern.speech = speech;
  if (busy) {
    for (const double second : {3.0, 3.2, 9.0}) {  // a double click, later a single one
      wren.timeline.push_back({.at = second, .key = '0'});
      wren.timeline.push_back({.at = second + 0.1, .key = '9'});
    }
    heronPlus.timeline = {{.at = 4.5, .key = '1'}, {.at = 5.0, .key = '@'}, {.at = 5.5, .key = '2'}};
    heronPlus.timeline.push_back({.at = 6.0, .kind = Kind::power, .power = 63});
    tern.timeline = {{.at = 7.0, .key = '3'}, {.at = 8.0, .kind = Kind::unplug}, {.at = 10.0, .kind = Kind::plug}};
  }
  DeskSound sound;
  for (const char* name : {"Line In (HD Audio)", "Microphone (VoxMouse Pipit)", "Microphone (VoxMouse Lark)"}) {
    const bool ours = std::string(name).find("VoxMouse") != std::string::npos;
    sound.microphones.push_back({.name = name, .hears = ours ? speech : std::vector<std::int16_t>()});
    sound.endpoints.push_back({.name = wide(name)});
  }
  sound.speaker = DeskSpeaker{.plays = speech};
  DeskDescription desk{{wren, heronPlus, tern}, sound};
  if (busy) {
    // A mouse that is used and goes, a laser pen that comes and is used.
    using Legacy = DeskLegacyAction::Kind;
    DeskLegacy mouse{.kind = LegacyKind::usbMouse, .serial = {}, .timeline = {}};
    for (const double second : {2.0, 2.2}) {
      mouse.timeline.push_back({.at = second, .kind = Legacy::press, .code = kF19});
      mouse.timeline.push_back({.at = second + 0.1, .kind = Legacy::release, .code = kF19});
    }
    mouse.timeline.push_back({.at = 14, .kind = Legacy::unplug});
    DeskLegacy pen{.kind = LegacyKind::laserPen, .serial = {}, .plugged = false, .timeline = {}};
    pen.timeline = {{.at = 5, .kind = Legacy::plug},
                    {.at = 10, .kind = Legacy::press, .code = kF23},
                    {.at = 10.5, .kind = Legacy::release, .code = kF23}};
    desk.legacy = {mouse, pen};
  }
  return desk;
}

}  // namespace sim
