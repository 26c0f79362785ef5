// The current models, a data sheet each: every fact of a model stands there, and nowhere else in the library.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>

#include "VoxDevice/types.h"

// How a model presents itself on a link.
struct HidId {
  std::uint16_t vendor;
  std::uint16_t product;
  bool operator==(const HidId&) const = default;
};

// A family of firmware: how a device is identified and updated. Each has its own CDeviceReader.
enum class FirmwareFamily {
  Tern,      // is not asked who it is; an update goes by bytes
  Standard,  // an update goes by blocks
  Zh,        // an update goes by pairs of blocks with checksums
};

// What a model's speech is encoded with. Each codec has its own reports, by which the library chooses the decoder,
// whatever the model.
enum class SpeechCodec { Closed, Sbc, Either };

// What a key does. CHub::Act has the rules.
enum class KeyAction {
  VoiceDown,
  VoiceUp,
  RightDown,
  RightUp,
  MKeyDown,
  MKeyUp,
  OpenNavigation,
  Screenshot,
  DoubleClick,         // of the voice key, recognised by the device
  RightShortPress,     // recognised by the device
  VoiceDownOrRightUp,  // right up while the right key is down
  RightDownOrVoiceUp,  // voice up while the voice key is down, if the user has chosen so
  AllUp,
};

struct KeyOfModel {
  char key;  // the character that the device sends
  KeyAction action;
};

// The lists of a sheet live as long as it does, since sheets are constants of static storage only.
struct ModelSheet {
  MouseType number;
  const wchar_t* name;
  // A recording device belongs to this model when its name contains one of these.
  std::initializer_list<const wchar_t*> recordingNames{};
  std::initializer_list<HidId> usb{};  // over a cable or a receiver
  std::initializer_list<HidId> bluetooth{};
  FirmwareFamily firmware{};
  std::optional<std::uint8_t> identifyReply{};  // the code with which it names itself
  SpeechCodec codec{};
  bool hasMKeys = false;  // it is asked for their functions when it connects
  bool keysAreDecoded = true;
  std::initializer_list<KeyOfModel> keys{};
};

// In the order in which identifiers and recording names are looked for.
std::span<const ModelSheet> ModelSheets() noexcept;
// That of an unknown model, with a name and nothing else, for any other number.
const ModelSheet& SheetOf(MouseType model) noexcept;
// Null for the code of any other reply.
const ModelSheet* FindByIdentifyReply(std::uint8_t code) noexcept;
