// Captures of a USB bus: which of its devices are ours shows only when the whole has been seen.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "tools/capture/Capture.h"
#include "tools/capture/Packets.h"

namespace capture {

class Usb {
 public:
  enum Form : std::uint32_t { kUsbPcap = 249, kUsbmon = 220, kUsbmonShort = 189 };

  void add(const Packet& packet, std::uint32_t form);
  // Adds what was ours: interfaces, and events in the order of the file.
  void moveInto(Capture& capture);

 private:
  using Setup = std::array<std::uint8_t, 8>;

  // One packet, whoever captured it.
  struct Transfer {
    std::uint64_t id = 0;
    bool interrupt = false;
    bool control = false;
    bool done = false;        // the device, or its driver, has answered
    std::uint32_t error = 0;  // of what is done
    bool gone = false;        // an error that says so
    std::uint16_t bus = 0;
    std::uint16_t device = 0;
    std::uint8_t endpoint = 0;
    bool hasSetup = false;
    Setup setup{};
    Span data;
  };

  struct Device {
    std::uint16_t bus = 0;
    std::uint16_t address = 0;
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
    std::map<int, int> interfaceOf;  // of an endpoint, as far as the descriptors were seen
  };

  // Reports of one direction: of an endpoint, or of the control requests for an interface.
  struct Channel {
    std::size_t device = 0;
    int endpoint = 0;
    bool in = false;
    bool ours = false;
    int longest = 0;
    int hid = -1;  // of the capture, at the end
  };

  static Transfer usbPcap(const Numbers& packet);
  static Transfer usbmon(const Numbers& packet, std::size_t headBytes);
  void addControl(const Packet& packet, Transfer& transfer);
  void addTransfer(const Packet& packet, const Transfer& transfer, int endpoint);
  void describe(const Transfer& transfer, const Setup& setup);
  void report(const Packet& packet, const Transfer& transfer, int endpoint, bool in);
  std::size_t deviceOf(const Transfer& transfer);
  std::size_t channelOf(const Transfer& transfer, int endpoint, bool in);
  int interfaceNumber(const Channel& channel) const;
  void assignInterfaces(Capture& capture);
  int addInterface(Capture& capture, const Channel& channel) const;

  std::vector<Device> devices_;
  std::map<std::pair<std::uint16_t, std::uint16_t>, std::size_t> present_;  // by bus and address
  std::vector<Channel> channels_;
  std::map<std::pair<std::size_t, int>, std::size_t> channelNumbers_;
  std::map<std::uint64_t, Setup> setups_;      // of control transfers under way
  std::map<std::uint64_t, std::size_t> sent_;  // reports under way, and their events
  std::vector<Event> events_;                  // each with its channel for an interface
};

}  // namespace capture
