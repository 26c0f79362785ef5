#include "tools/capture/Usb.h"

#include <algorithm>
#include <cstdio>

#include "hid/HidFrame.h"

namespace capture {
namespace {

constexpr std::uint8_t kIn = 0x80;
// Channels of control requests, by the interface that they are for; endpoints are below.
constexpr int kControl = 0x1000;

constexpr std::uint32_t kLinuxNoDevice = 19;
constexpr std::uint32_t kLinuxShutDown = 108;
constexpr std::uint32_t kWindowsDeviceGone = 0xC0007000;

enum Descriptor : std::uint8_t { kDeviceDescriptor = 1, kConfiguration = 2, kInterface = 4, kEndpoint = 5 };

// Other reports of an endpoint belong to other collections, which Windows shows as interfaces of their own.
bool hasOurId(Span report) {
  return !report.empty() && (report[0] == kCommandReportId || report[0] == 0x1A || report[0] == 0x1B);
}

// A frame has a form of its own; speech has only its id, and its length.
bool isOurs(Span report) {
  CHidData data;
  if (!ParseReport(report, DataChannel_Usb, data)) return false;
  return data.code < AudioDataTern || report.size() >= static_cast<std::size_t>(kMinReportLength);
}

}  // namespace

// Bit 0 of byte 16 tells who speaks: the host as long as nothing is done.
Usb::Transfer Usb::usbPcap(const Numbers& packet) {
  constexpr std::uint8_t kInterrupt = 1;
  constexpr std::uint8_t kControlTransfer = 2;
  constexpr std::uint8_t kSetupStage = 0;
  constexpr std::uint8_t kCompleteStage = 3;
  const std::uint8_t transfer = packet.u8(22);
  Transfer result{.id = packet.u64(2),
                  .interrupt = transfer == kInterrupt,
                  .control = transfer == kControlTransfer,
                  .done = (packet.u8(16) & 1) != 0,
                  .error = packet.u32(10),
                  .bus = packet.u16(17),
                  .device = packet.u16(19),
                  .endpoint = packet.u8(21),
                  .data = packet.part(packet.u16(0), packet.u32(23))};
  result.gone = result.error == kWindowsDeviceGone;
  if (!result.control) return result;
  const std::uint8_t stage = packet.u8(27);
  result.done = result.done || stage == kCompleteStage;
  result.hasSetup = stage == kSetupStage && result.data.size() >= result.setup.size();
  if (result.hasSetup) {
    std::copy_n(result.data.begin(), result.setup.size(), result.setup.begin());
    result.data = result.data.subspan(result.setup.size());
  }
  return result;
}

Usb::Transfer Usb::usbmon(const Numbers& packet, std::size_t headBytes) {
  constexpr std::uint8_t kInterrupt = 1;
  constexpr std::uint8_t kControlTransfer = 2;
  const std::uint8_t transfer = packet.u8(9);
  Transfer result{.id = packet.u64(0),
                  .interrupt = transfer == kInterrupt,
                  .control = transfer == kControlTransfer,
                  .done = packet.u8(8) != 'S',
                  .error = std::uint32_t{0} - packet.u32(28),  // minus an error number
                  .bus = packet.u16(12),
                  .device = packet.u8(11),
                  .endpoint = packet.u8(10),
                  .hasSetup = packet.u8(14) == 0 && packet.u8(8) == 'S',
                  .data = packet.part(headBytes, packet.u32(36))};
  result.gone = result.error == kLinuxNoDevice || result.error == kLinuxShutDown;
  const Span setup = packet.part(40, result.setup.size());
  std::copy(setup.begin(), setup.end(), result.setup.begin());
  return result;
}

void Usb::add(const Packet& packet, std::uint32_t form) {
  constexpr std::size_t kUsbPcapHead = 27;
  const std::size_t head = form == kUsbPcap ? kUsbPcapHead : form == kUsbmon ? 64 : 48;
  if (packet.data.size() < head) return;
  Transfer transfer =
      form == kUsbPcap ? usbPcap(Numbers(packet.data, false)) : usbmon(Numbers(packet.data, packet.bigEndian), head);
  if (transfer.control) {
    addControl(packet, transfer);
  } else if (transfer.interrupt) {
    addTransfer(packet, transfer, transfer.endpoint);
  }
}

// Of control transfers, descriptors tell who a device is, and a report may go out by one.
void Usb::addControl(const Packet& packet, Transfer& transfer) {
  constexpr std::uint8_t kSetReport[] = {0x21, 0x09};
  constexpr std::uint8_t kGetDescriptor[] = {0x80, 0x06};
  constexpr std::uint8_t kOutputReport = 2;
  if (transfer.hasSetup) {
    setups_[transfer.id] = transfer.setup;
  } else if (const auto known = setups_.find(transfer.id); known != setups_.end()) {
    transfer.setup = known->second;
    if (transfer.done) setups_.erase(known);
  } else {
    return;
  }
  const Setup& setup = transfer.setup;
  const auto is = [&setup](Span request) { return std::equal(request.begin(), request.end(), setup.begin()); };
  if (is(kSetReport) && setup[3] == kOutputReport) {
    transfer.endpoint = 0;
    addTransfer(packet, transfer, kControl | setup[4]);
  } else if (is(kGetDescriptor)) {
    describe(transfer, setup);
  }
}

// What comes in is there when the read is done; what goes out, when the write begins.
void Usb::addTransfer(const Packet& packet, const Transfer& transfer, int endpoint) {
  const bool in = (transfer.endpoint & kIn) != 0;
  if (in) {
    const bool tells = transfer.error == 0 ? !transfer.data.empty() : transfer.gone;
    if (transfer.done && tells) report(packet, transfer, endpoint, true);
  } else if (!transfer.done) {
    if (!transfer.data.empty()) report(packet, transfer, endpoint, false);
  } else if (const auto sent = sent_.find(transfer.id); sent != sent_.end()) {
    if (transfer.error != 0) {
      events_[sent->second].kind = Kind::WriteFailed;
      events_[sent->second].error = transfer.error;
    }
    sent_.erase(sent);
  }
}

void Usb::report(const Packet& packet, const Transfer& transfer, int endpoint, bool in) {
  const std::size_t number = channelOf(transfer, endpoint, in);
  Channel& channel = channels_[number];
  const bool failed = in && transfer.error != 0;
  channel.ours = channel.ours || (!failed && isOurs(transfer.data));
  if (hasOurId(transfer.data)) channel.longest = std::max(channel.longest, static_cast<int>(transfer.data.size()));
  Event event;
  event.kind = failed ? Kind::ReadFailed : in ? Kind::Received : Kind::Sent;
  event.error = failed ? transfer.error : 0;
  event.time = packet.time;
  event.offset = packet.offset;
  event.hid = static_cast<int>(number);
  if (!failed) event.report.assign(transfer.data.begin(), transfer.data.end());
  if (!in) sent_[transfer.id] = events_.size();
  events_.push_back(std::move(event));
}

void Usb::describe(const Transfer& transfer, const Setup& setup) {
  const Numbers data(transfer.data, false);
  if (setup[3] == kDeviceDescriptor && data.u8(1) == kDeviceDescriptor && data.bytes.size() >= 12) {
    const std::uint16_t vendor = data.u16(8);
    const std::uint16_t product = data.u16(10);
    std::size_t number = deviceOf(transfer);
    const Device& before = devices_[number];
    if (before.vendor != 0 && (before.vendor != vendor || before.product != product)) {
      // Another one has got the address.
      present_.erase({transfer.bus, transfer.device});
      number = deviceOf(transfer);
    }
    devices_[number].vendor = vendor;
    devices_[number].product = product;
  }
  if (setup[3] != kConfiguration) return;
  int hid = -1;
  for (std::size_t at = 0; at < data.bytes.size() && data.u8(at) >= 2; at += data.u8(at)) {
    if (data.u8(at + 1) == kInterface) hid = data.u8(at + 2);
    if (data.u8(at + 1) == kEndpoint) devices_[deviceOf(transfer)].interfaceOf[data.u8(at + 2)] = hid;
  }
}

std::size_t Usb::deviceOf(const Transfer& transfer) {
  const auto [known, isNew] = present_.try_emplace({transfer.bus, transfer.device}, devices_.size());
  if (isNew) devices_.push_back({.bus = transfer.bus, .address = transfer.device, .interfaceOf = {}});
  return known->second;
}

std::size_t Usb::channelOf(const Transfer& transfer, int endpoint, bool in) {
  const std::size_t device = deviceOf(transfer);
  const auto [known, isNew] = channelNumbers_.try_emplace({device, endpoint}, channels_.size());
  if (isNew) channels_.push_back({.device = device, .endpoint = endpoint, .in = in});
  return known->second;
}

// -1: unknown.
int Usb::interfaceNumber(const Channel& channel) const {
  if (channel.endpoint >= kControl) return channel.endpoint - kControl;
  const auto& known = devices_[channel.device].interfaceOf;
  const auto found = known.find(channel.endpoint);
  return found != known.end() ? found->second : -1;
}

int Usb::addInterface(Capture& capture, const Channel& channel) const {
  const Device& device = devices_[channel.device];
  const int number = interfaceNumber(channel);
  char path[160];
  char part[16] = "";
  if (number >= 0) std::snprintf(part, sizeof part, "&mi_%02x", number & 0xFF);
  // The instance: bus, address, and what tells apart the interfaces of one device, and devices of one address.
  std::snprintf(path, sizeof path,
                "\\\\?\\hid#vid_%04x&pid_%04x%s#7&%x%02x%04x&0&%04x#{4d1e55b2-f16f-11cf-88cb-001111000030}",
                unsigned{device.vendor}, unsigned{device.product}, part, unsigned{device.bus}, unsigned{device.address},
                static_cast<unsigned>(channel.device), static_cast<unsigned>(channel.endpoint));
  capture.interfaces.push_back(
      {.path = path, .vendor = device.vendor, .product = device.product, .link = DataChannel_Usb});
  return static_cast<int>(capture.interfaces.size()) - 1;
}

// A report goes out to the interface whose number it bears, or else to the one that answers on the endpoint of the same
// number, or else to the first one that answers at all.
void Usb::assignInterfaces(Capture& capture) {
  for (Channel& channel : channels_) {
    if (channel.in && channel.ours) channel.hid = addInterface(capture, channel);
  }
  for (Channel& out : channels_) {
    if (out.in || !out.ours) continue;
    int best = 0;
    for (const Channel& in : channels_) {
      if (in.device != out.device || in.hid < 0 || &in == &out) continue;
      const int number = interfaceNumber(out);
      const int rank = number >= 0 && number == interfaceNumber(in) ? 3 : (in.endpoint ^ kIn) == out.endpoint ? 2 : 1;
      if (rank <= best) continue;
      best = rank;
      out.hid = in.hid;
    }
    if (best == 0) out.hid = addInterface(capture, out);
  }
  for (const Channel& channel : channels_) {
    if (channel.hid < 0) continue;
    Interface& hid = capture.interfaces[static_cast<std::size_t>(channel.hid)];
    int& length = channel.in ? hid.inputLength : hid.outputLength;
    length = std::max(length, channel.longest);
  }
}

void Usb::moveInto(Capture& capture) {
  assignInterfaces(capture);
  for (Event& event : events_) {
    event.hid = channels_[static_cast<std::size_t>(event.hid)].hid;
    if (event.hid < 0 || (event.kind != Kind::ReadFailed && !hasOurId(event.report))) continue;
    capture.events.push_back(std::move(event));
  }
}

}  // namespace capture
