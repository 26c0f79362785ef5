#include "sim/devices/Mice.h"

#include <stdexcept>

namespace sim {
namespace {

// The Swift presents itself with the Heron Plus's identifiers.
constexpr LinkSheet kHeronPlusUsb{"248a", "8100", 0x248A, 0x8100};
constexpr LinkSheet kHeronPlusBluetooth{"02248a", "8266", 0x248A, 0x8266};

constexpr ModelSheet kModels[] = {
    {"Tern", 1, LinkSheet{"0d8c", "0137", 0x0D8C, 0x0137}, LinkSheet{"020d8d", "0138", 0x0D8D, 0x0138}, false,
     SpeechCodec::asc, UpdateFlow::bytes, '1', '0'},
    {"Wren", 2, LinkSheet{"6d8c", "6137", 0x6D8C, 0x6137}, LinkSheet{"026d8d", "6138", 0x6D8D, 0x6138}, true,
     SpeechCodec::sbc, UpdateFlow::blocks, '0', '9'},
    {"Finch", 3, std::nullopt, LinkSheet{"023d8d", "3138", 0x3D8D, 0x3138}, true, SpeechCodec::sbc, UpdateFlow::blocks,
     '0', '9'},
    {"Robin", 4, std::nullopt, LinkSheet{"022d8d", "2138", 0x2D8D, 0x2138}, true, SpeechCodec::sbc, UpdateFlow::blocks,
     '0', '9'},
    {"Heron", 5, std::nullopt, LinkSheet{"021d8d", "1138", 0x1D8D, 0x1138}, true, SpeechCodec::sbc, UpdateFlow::blocks,
     '0', '9'},
    {"Egret", 6, std::nullopt, LinkSheet{"024d8d", "6138", 0x4D8D, 0x6138}, true, SpeechCodec::sbc, UpdateFlow::blocks,
     '0', '9'},
    {"Heron Plus", 7, kHeronPlusUsb, kHeronPlusBluetooth, true, SpeechCodec::sbc, UpdateFlow::checkedBlocks, '0', '9'},
    {"Swift", 8, kHeronPlusUsb, kHeronPlusBluetooth, true, SpeechCodec::sbc, UpdateFlow::checkedBlocks, '0', '9'},
};

}  // namespace

std::span<const ModelSheet> modelSheets() { return kModels; }

const ModelSheet* findModel(const std::string& name) {
  for (const ModelSheet& sheet : kModels) {
    if (name == sheet.name) return &sheet;
  }
  return nullptr;
}

std::shared_ptr<VirtualMouse> makeMouse(const std::string& model, Link link, const std::string& instance) {
  const ModelSheet* sheet = findModel(model);
  const std::optional<LinkSheet>* presented = !sheet ? nullptr : link == Link::usb ? &sheet->usb : &sheet->bluetooth;
  if (!presented || !*presented) throw std::invalid_argument("no " + model + " on this link");
  return std::make_shared<VirtualMouse>(*sheet, **presented, link, instance);
}

}  // namespace sim
