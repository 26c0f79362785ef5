// A stream of input reports, as a hostile device would send them, through every reader and the hub.
#include <algorithm>
#include <memory>
#include <vector>

#include "VoxDevice/VoxDevice.h"
#include "hid/ReaderVariants.h"
#include "sim/Machine.h"
#include "sim/devices/AscCodec.h"

namespace {

// One machine for the whole run; nothing waits on it.
struct Desk {
  Desk() { machine.install(L"asc_lib.dll", sim::ascLibrary()); }
  sim::Machine machine;
  CAudioHidCenter hub;
};

}  // namespace

// data: reports, each a byte that says how long it is (0 to 100 bytes) and the bytes themselves.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  static Desk desk;
  CVoxHidDeviceReader standard(MouseType_Wren);
  CZhHidDeviceReader zh(MouseType_HeronPlus);
  CHidDeviceReader_Tern tern;
  standard.mKeyQuery = 1;
  // Each in the middle of an update, whose sizes promise more than there is.
  const auto image = std::make_shared<const std::vector<std::uint8_t>>(100, std::uint8_t{1});
  for (CDeviceReader* reader :
       {static_cast<CDeviceReader*>(&standard), static_cast<CDeviceReader*>(&zh), static_cast<CDeviceReader*>(&tern)}) {
    reader->image1 = image;
    reader->image1Size = 200;
    reader->image2Size = 50;
    reader->otaActive = true;
    reader->otaTarget = DataChannel_Usb;
    reader->otaPlan = FwUpdate_Second;
    reader->otaStage = OtaStage_Data;
  }
  for (std::size_t at = 0; at < size;) {
    const std::size_t length = std::min<std::size_t>(data[at] % 101, size - at - 1);
    // A copy of its own, so that a step out of it is seen.
    std::vector<unsigned char> report(data + at + 1, data + at + 1 + length);
    at += 1 + length;
    for (CDeviceReader* reader : {static_cast<CDeviceReader*>(&standard), static_cast<CDeviceReader*>(&zh),
                                  static_cast<CDeviceReader*>(&tern)}) {
      for (const DataChannel link : {DataChannel_BluetoothLE, DataChannel_Usb}) {
        reader->channel = link;
        CHidData reply;
        if (ParseReport(report, link, reply)) reader->OnReport(reply);
        CAudioHidCenter::HidDeviceReaderCallback(1, reader->GetMouseType(), link, report.data(),
                                                 static_cast<int>(report.size()), &desk.hub);
      }
    }
  }
  return 0;
}
