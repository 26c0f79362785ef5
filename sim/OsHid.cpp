// Files and HID on the simulated machine.
#include <algorithm>
#include <cstring>
#include <span>
#include <string>

#include "platform/os.h"
#include "sim/Call.h"

namespace sim {

// What stands behind a PHIDP_PREPARSED_DATA.
struct ParsedDescriptor {
  std::uint16_t inputLength;
  std::uint16_t outputLength;
  bool noCaps;
};

}  // namespace sim

namespace {

using sim::Call;
using sim::HidOpen;
using sim::Kernel;

std::string hex(const std::uint8_t* bytes, std::size_t count) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < count; ++i) {
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
  }
  return text;
}

// The open file behind a handle, for a read or a write with these arguments; null when it may not be.
HidOpen* fileFor(Call& call, HANDLE file, DWORD access, const void* buffer, DWORD* count, OVERLAPPED* overlapped)
    REQUIRES(sim::gate) {
  auto* open = call.object<HidOpen>(file);
  HidOpen* const none = nullptr;
  if (!open) return none;
  if (!buffer || !count || overlapped) {
    return call.misused("no buffer, no count, or an overlapped call on a synchronous file", ERROR_INVALID_PARAMETER,
                        none);
  }
  *count = 0;
  if ((open->access & access) == 0) {
    return call.misused("the handle was not opened for that", ERROR_ACCESS_DENIED, none);
  }
  return open;
}

// Waits for what a device does in its own time; 0, or the error with which the call ends.
DWORD outcome(Call& call, const std::shared_ptr<sim::HidTransfer>& shared) REQUIRES(sim::gate) {
  if (!shared) return 0;
  sim::HidTransfer* const transfer = shared.get();
  call.kernel.keep(shared);
  sim::Object* const object = transfer;
  const int by = call.kernel.waitCancellable({&object, 1}, std::nullopt);
  return by == Kernel::kCancelled ? ERROR_OPERATION_ABORTED : transfer->error();
}

const sim::ParsedDescriptor* parsed(Call& call, PHIDP_PREPARSED_DATA data) REQUIRES(sim::gate) {
  const auto it = call.machine.preparsedData.find(data);
  if (it != call.machine.preparsedData.end()) return it->second.get();
  return call.misused("not preparsed data, or freed before", static_cast<const sim::ParsedDescriptor*>(nullptr));
}

}  // namespace

namespace os {

HANDLE CreateFileW(const WCHAR* path, DWORD access, DWORD shareMode, SECURITY_ATTRIBUTES*, DWORD creationDisposition,
                   DWORD flagsAndAttributes, HANDLE) {
  Call call("CreateFileW");
  if (!path) return call.misused("no path", ERROR_INVALID_PARAMETER, INVALID_HANDLE_VALUE);
  if (creationDisposition != OPEN_EXISTING || flagsAndAttributes != 0) {
    return call.misused("the machine opens devices that are there, and those for synchronous calls",
                        ERROR_INVALID_PARAMETER, INVALID_HANDLE_VALUE);
  }
  if (call.fails(ERROR_GEN_FAILURE)) return INVALID_HANDLE_VALUE;
  const std::wstring text(path);
  const auto& usb = call.machine.peripherals().usb;
  const auto device =
      std::find_if(usb.begin(), usb.end(), [&](const sim::UsbDevice& known) { return known.path == text; });
  if (device != usb.end()) {
    const bool answers = device->answers;
    if (const sim::Time openTime = device->openTime; openTime.count() > 0) call.kernel.waitAny({}, openTime);
    if (!answers) return call.failed(ERROR_GEN_FAILURE, INVALID_HANDLE_VALUE);
    return call.kernel.open(std::make_shared<sim::Event>(true, false));
  }
  DWORD error = ERROR_FILE_NOT_FOUND;
  auto file = call.machine.hid().open(text, access, shareMode, error);
  if (!file) {
    if (call.machine.recording()) call.machine.noteLocked("open refused " + std::string(text.begin(), text.end()));
    return call.failed(error, INVALID_HANDLE_VALUE);
  }
  const sim::HidDevice* const opened = file->device.get();
  const sim::Time openTime = opened->faults.openTime;
  const HidOpen& made = *file;
  const HANDLE handle = call.kernel.open(std::move(file));
  if (const DWORD refused = outcome(call, made.opening); refused != 0) {
    call.kernel.close(handle);
    return call.failed(refused, INVALID_HANDLE_VALUE);
  }
  if (openTime.count() > 0) call.kernel.waitAny({}, openTime);
  if (call.machine.recording()) call.machine.noteLocked("open", opened, handle);
  return handle;
}

BOOL ReadFile(HANDLE file, void* buffer, DWORD bytesToRead, DWORD* bytesRead, OVERLAPPED* overlapped) {
  Call call("ReadFile");
  auto* open = fileFor(call, file, GENERIC_READ | FILE_READ_DATA, buffer, bytesRead, overlapped);
  if (!open || call.fails(ERROR_DEVICE_NOT_CONNECTED)) return FALSE;
  // The length is the device's: who does not ask for it fails, and has broken no rule.
  if (bytesToRead < open->device->inputLength) return call.failed(ERROR_INVALID_USER_BUFFER, FALSE);
  if (open->device->faults.failReads) return call.failed(ERROR_DEVICE_NOT_CONNECTED, FALSE);
  sim::Object* const object = open;
  ++open->calls;
  if (const sim::Time entry = open->device->faults.readEntry; entry.count() > 0) call.kernel.waitAny({}, entry);
  const int by = open->device->faults.ignoreCancel ? call.kernel.waitAny({&object, 1}, std::nullopt)
                                                   : call.kernel.waitCancellable({&object, 1}, std::nullopt);
  --open->calls;
  if (by == Kernel::kCancelled) return call.failed(ERROR_OPERATION_ABORTED, FALSE);
  if (open->gone || open->reports.empty()) return call.failed(ERROR_DEVICE_NOT_CONNECTED, FALSE);
  const sim::Bytes report = std::move(open->reports.front());
  open->reports.pop_front();
  std::size_t count = std::min<std::size_t>(report.size(), bytesToRead);
  if (open->device->faults.shortRead != 0) count = std::min(count, open->device->faults.shortRead);
  std::memcpy(buffer, report.data(), count);
  *bytesRead = static_cast<DWORD>(count);
  if (call.machine.recording()) call.machine.noteLocked("read " + hex(report.data(), count), open->device.get(), file);
  return TRUE;
}

BOOL WriteFile(HANDLE file, const void* buffer, DWORD bytesToWrite, DWORD* bytesWritten, OVERLAPPED* overlapped) {
  Call call("WriteFile");
  auto* open = fileFor(call, file, GENERIC_WRITE, buffer, bytesWritten, overlapped);
  if (!open || call.fails(ERROR_GEN_FAILURE)) return FALSE;
  const sim::HidFaults& faults = open->device->faults;
  if (faults.hangWrites || faults.writeTime.count() > 0) {
    const auto time = faults.hangWrites ? std::nullopt : std::optional(faults.writeTime);
    ++open->calls;
    const int by = faults.ignoreCancel ? call.kernel.waitAny({}, time) : call.kernel.waitCancellable({}, time);
    --open->calls;
    if (by == Kernel::kCancelled) return call.failed(ERROR_OPERATION_ABORTED, FALSE);
  }
  if (open->gone) return call.failed(ERROR_DEVICE_NOT_CONNECTED, FALSE);
  if (open->writesFail) return call.failed(ERROR_DEVICE_NOT_CONNECTED, FALSE);
  if (faults.failWrites) return call.failed(ERROR_GEN_FAILURE, FALSE);
  if (bytesToWrite != open->device->outputLength) return call.failed(ERROR_INVALID_USER_BUFFER, FALSE);
  const std::span report(static_cast<const std::uint8_t*>(buffer), bytesToWrite);
  if (call.machine.recording())
    call.machine.noteLocked("write " + hex(report.data(), report.size()), open->device.get(), file);
  const auto taken = sim::HidBus::deliver(*open->device, report);
  ++open->calls;
  const DWORD error = outcome(call, taken);
  --open->calls;
  if (error != 0) return call.failed(error, FALSE);
  *bytesWritten = bytesToWrite;
  return TRUE;
}

// HID devices have no such timeouts: who asks for them all the same breaks no rule.
BOOL GetCommTimeouts(HANDLE file, COMMTIMEOUTS*) {
  Call call("GetCommTimeouts");
  return call.object<HidOpen>(file) ? call.failed(ERROR_INVALID_FUNCTION, FALSE) : FALSE;
}

BOOL SetCommTimeouts(HANDLE file, COMMTIMEOUTS*) {
  Call call("SetCommTimeouts");
  return call.object<HidOpen>(file) ? call.failed(ERROR_INVALID_FUNCTION, FALSE) : FALSE;
}

BOOLEAN HidD_GetAttributes(HANDLE device, HIDD_ATTRIBUTES* attributes) {
  Call call("HidD_GetAttributes");
  const auto* open = call.object<HidOpen>(device);
  if (!open) return FALSE;
  if (!attributes || attributes->Size != sizeof *attributes) {
    return call.misused("Size is not that of the structure", ERROR_INVALID_USER_BUFFER, BOOLEAN{FALSE});
  }
  if (call.fails(ERROR_GEN_FAILURE) || open->device->faults.noAttributes || open->gone) return FALSE;
  attributes->VendorID = open->device->vendor;
  attributes->ProductID = open->device->product;
  attributes->VersionNumber = 0x0100;
  return TRUE;
}

BOOLEAN HidD_GetPreparsedData(HANDLE device, PHIDP_PREPARSED_DATA* preparsed) {
  Call call("HidD_GetPreparsedData");
  const auto* open = call.object<HidOpen>(device);
  if (!open || call.fails(ERROR_NOT_ENOUGH_MEMORY) || open->device->faults.noPreparsedData || open->gone) return FALSE;
  const auto made = std::make_shared<sim::ParsedDescriptor>(
      sim::ParsedDescriptor{open->device->inputLength, open->device->outputLength, open->device->faults.noCaps});
  *preparsed = reinterpret_cast<PHIDP_PREPARSED_DATA>(made.get());
  call.machine.preparsedData[*preparsed] = made;
  return TRUE;
}

BOOLEAN HidD_FreePreparsedData(PHIDP_PREPARSED_DATA preparsed) {
  Call call("HidD_FreePreparsedData");
  if (!parsed(call, preparsed)) return FALSE;
  call.machine.preparsedData.erase(preparsed);
  return TRUE;
}

BOOLEAN HidD_SetNumInputBuffers(HANDLE device, ULONG count) {
  Call call("HidD_SetNumInputBuffers");
  auto* open = call.object<HidOpen>(device);
  if (!open || call.fails(ERROR_GEN_FAILURE) || open->gone) return FALSE;
  if (count < 2 || count > 512) return call.misused("not 2 to 512 reports", ERROR_INVALID_PARAMETER, BOOLEAN{FALSE});
  open->reportsKept = count;
  return TRUE;
}

NTSTATUS HidP_GetCaps(PHIDP_PREPARSED_DATA preparsed, HIDP_CAPS* caps) {
  constexpr auto kInvalidPreparsedData = static_cast<NTSTATUS>(0xC0110001);
  Call call("HidP_GetCaps");
  const auto* data = parsed(call, preparsed);
  if (!data || data->noCaps || call.fails(ERROR_GEN_FAILURE)) return kInvalidPreparsedData;
  *caps = {};
  caps->InputReportByteLength = data->inputLength;
  caps->OutputReportByteLength = data->outputLength;
  return HIDP_STATUS_SUCCESS;
}

}  // namespace os
