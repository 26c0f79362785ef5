// Data sheets of the current models.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "sim/devices/VirtualMouse.h"

namespace sim {

// How a model presents itself on one of its links.
struct LinkSheet {
  const char* vendorInPath;  // as the interface path spells it
  const char* productInPath;
  std::uint16_t vendor;
  std::uint16_t product;
};

enum class SpeechCodec { asc, sbc };

struct ModelSheet {
  const char* name;
  int number;                    // the model number in an identify reply (Tern: never asked)
  std::optional<LinkSheet> usb;  // cable or receiver
  std::optional<LinkSheet> bluetooth;
  bool identifies;
  SpeechCodec codec;
  UpdateFlow update;
  char voiceKeyDown;
  char voiceKeyUp;
};

std::span<const ModelSheet> modelSheets();
// By name, as "Heron Plus"; null when there is none.
const ModelSheet* findModel(const std::string& name);
// Makes a device. The model must have the link.
std::shared_ptr<VirtualMouse> makeMouse(const std::string& model, Link link, const std::string& instance);

}  // namespace sim
