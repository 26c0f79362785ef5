#include "models/Models.h"

#include <algorithm>
#include <iterator>

namespace {

using enum KeyAction;

constexpr ModelSheet kSheets[] = {
    // The Kite counts as one.
    {
        .number = MouseType_Tern,
        .name = L"VoxMouse Tern",
        .recordingNames = {L"Tern", L"Kite"},
        .usb = {{0x0D8C, 0x0137}},
        .bluetooth = {{0x0D8D, 0x0138}},
        .firmware = FirmwareFamily::Tern,
        .codec = SpeechCodec::Closed,
        .keys = {{'0', VoiceUp},
                 {'1', VoiceDown},
                 {'2', DoubleClick},
                 {'3', RightShortPress},
                 {'4', RightDown},
                 {'5', RightUp},
                 {'9', VoiceUp},
                 {'@', RightUp},
                 {'I', VoiceDownOrRightUp},
                 {'Z', RightDownOrVoiceUp},
                 {']', AllUp}},
    },
    {
        .number = MouseType_Wren,
        .name = L"VoxMouse Wren",
        .recordingNames = {L"Wren"},
        .usb = {{0x6D8C, 0x6137}},
        .bluetooth = {{0x6D8D, 0x6138}},
        .firmware = FirmwareFamily::Standard,
        .identifyReply = 0xA0,
        .codec = SpeechCodec::Sbc,
        .keys = {{'0', VoiceDown}, {'9', VoiceUp}},
    },
    // Finch and Heron deliberately carry the keys 2 and 3 in swapped order.
    {
        .number = MouseType_Finch,
        .name = L"VoxMouse Finch",
        .recordingNames = {L"Finch"},
        .bluetooth = {{0x3D8D, 0x3138}},
        .firmware = FirmwareFamily::Standard,
        .identifyReply = 0xA1,
        .codec = SpeechCodec::Either,
        .keys = {{'0', VoiceDown},
                 {'1', RightDown},
                 {'2', OpenNavigation},
                 {'3', Screenshot},
                 {'9', VoiceUp},
                 {'@', RightUp}},
    },
    {
        .number = MouseType_Robin,
        .name = L"VoxMouse Robin",
        .recordingNames = {L"Robin"},
        .bluetooth = {{0x2D8D, 0x2138}},
        .firmware = FirmwareFamily::Standard,
        .identifyReply = 0xA2,
        .codec = SpeechCodec::Either,
        .keys = {{'0', VoiceDown}, {'1', RightDown}, {'9', VoiceUp}, {'@', RightUp}},
    },
    {
        .number = MouseType_Heron,
        .name = L"VoxMouse Heron",
        .recordingNames = {L"Heron"},
        .bluetooth = {{0x1D8D, 0x1138}},
        .firmware = FirmwareFamily::Standard,
        .identifyReply = 0xA3,
        .codec = SpeechCodec::Either,
        .keys = {{'0', VoiceDown},
                 {'1', RightDown},
                 {'2', Screenshot},
                 {'3', OpenNavigation},
                 {'9', VoiceUp},
                 {'@', RightUp}},
    },
    {
        .number = MouseType_Egret,
        .name = L"VoxMouse Egret",
        .recordingNames = {L"Egret"},
        .bluetooth = {{0x4D8D, 0x6138}},
        .firmware = FirmwareFamily::Standard,
        .identifyReply = 0xA4,
        .codec = SpeechCodec::Either,
        .keys = {{'0', VoiceDown},
                 {'1', RightDown},
                 {'2', Screenshot},
                 {'3', OpenNavigation},
                 {'9', VoiceUp},
                 {'@', RightUp}},
    },
    // Deliberately found by no recording name: "Heron Plus" finds a Heron.
    {
        .number = MouseType_HeronPlus,
        .name = L"VoxMouse Heron Plus",
        .usb = {{0x248A, 0x8100}},
        .bluetooth = {{0x248A, 0x8266}},
        .firmware = FirmwareFamily::Zh,
        .identifyReply = 0xA5,
        .codec = SpeechCodec::Either,
        .keys = {{'0', VoiceDown}, {'1', RightDown}, {'2', Screenshot}, {'9', VoiceUp}, {'@', RightUp}},
    },
    // Has no identifier: it presents itself as a Heron Plus, and its answer tells them apart. Its keys are deliberately
    // not decoded.
    {
        .number = MouseType_Swift,
        .name = L"VoxMouse Swift",
        .recordingNames = {L"Swift"},
        .firmware = FirmwareFamily::Zh,
        .identifyReply = 0xA6,
        .codec = SpeechCodec::Either,
        .hasMKeys = true,
        .keysAreDecoded = false,
        .keys = {{'0', VoiceDown}, {'1', RightDown}, {'4', MKeyDown}, {'9', VoiceUp}, {'@', RightUp}, {'C', MKeyUp}},
    },
};

constexpr bool Share(std::initializer_list<HidId> ours, std::initializer_list<HidId> theirs) {
  return std::any_of(ours.begin(), ours.end(), [&theirs](const HidId& id) {
    return std::find(theirs.begin(), theirs.end(), id) != theirs.end();
  });
}

// A device could be either of two sheets that share any of these.
constexpr bool IsTaken(const ModelSheet* sheet) {
  return std::any_of(std::begin(kSheets), sheet, [sheet](const ModelSheet& earlier) {
    return earlier.number == sheet->number || (sheet->identifyReply && earlier.identifyReply == sheet->identifyReply) ||
           Share(earlier.usb, sheet->usb) || Share(earlier.bluetooth, sheet->bluetooth);
  });
}
static_assert([] {
  for (const ModelSheet& sheet : kSheets) {
    if (IsTaken(&sheet)) return false;
  }
  return true;
}());

constexpr ModelSheet kUnknown{.number = MouseType_Unknown, .name = L"VoxMouseB(未知类型)"};

}  // namespace

std::span<const ModelSheet> ModelSheets() noexcept { return kSheets; }

const ModelSheet& SheetOf(MouseType model) noexcept {
  const auto* sheet = std::find_if(std::begin(kSheets), std::end(kSheets),
                                   [model](const ModelSheet& known) { return known.number == model; });
  return sheet != std::end(kSheets) ? *sheet : kUnknown;
}

const ModelSheet* FindByIdentifyReply(std::uint8_t code) noexcept {
  const auto* sheet = std::find_if(std::begin(kSheets), std::end(kSheets),
                                   [code](const ModelSheet& known) { return known.identifyReply == code; });
  return sheet != std::end(kSheets) ? sheet : nullptr;
}
