#include "sim/windows/HidPort.h"

// SetupAPI's installer side.
#include <newdev.h>

#include <array>
#include <stdexcept>

#include "platform/os.h"

namespace {

constexpr GUID kHidClass{0x745a17a0, 0x74d3, 0x11d0, {0xb6, 0xfe, 0x00, 0xa0, 0xc9, 0x0f, 0x57, 0xda}};
constexpr DWORD kReportBytes = 64;

[[noreturn]] void fail(const char* what) {
  throw std::runtime_error(std::string(what) + ": error " + std::to_string(::GetLastError()));
}

HANDLE makePipe(const std::wstring& name, DWORD direction) {
  const HANDLE pipe = CreateNamedPipeW((L"\\\\.\\pipe\\" + name).c_str(), direction, PIPE_TYPE_BYTE | PIPE_WAIT, 1,
                                       4096, 4096, 0, nullptr);
  if (pipe == INVALID_HANDLE_VALUE) fail("CreateNamedPipe");
  return pipe;
}

// A program that was ended while its device was plugged in has left it behind.
void removeLeftOver(const std::wstring& deviceNode) {
  const HDEVINFO list = SetupDiCreateDeviceInfoList(nullptr, nullptr);
  SP_DEVINFO_DATA device{};
  device.cbSize = sizeof device;
  if (SetupDiOpenDeviceInfoW(list, deviceNode.c_str(), nullptr, 0, &device)) {
    SetupDiCallClassInstaller(DIF_REMOVE, list, &device);
  }
  SetupDiDestroyDeviceInfoList(list);
}

}  // namespace

std::wstring programFolder() {
  std::array<wchar_t, MAX_PATH> path{};
  const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
  const std::wstring text(path.data(), length);
  return text.substr(0, text.rfind(L'\\') + 1);
}

HidPort::HidPort(sim::Machine& machine, std::shared_ptr<sim::VirtualMouse> device)
    : machine_(machine), device_(std::move(device)) {
  // \\?\hid#NAME#INSTANCE#{class}
  const std::wstring& path = device_->path();
  const std::size_t name = path.find(L'#') + 1;
  const std::size_t instance = path.find(L'#', name) + 1;
  name_ = path.substr(name, instance - name - 1);
  deviceNode_ = L"root\\" + name_ + L"\\" + path.substr(instance, path.find(L'#', instance) - instance);
}

HidPort::~HidPort() { unplug(); }

void HidPort::plug() {
  inputPipe_ = makePipe(name_ + L"-in", PIPE_ACCESS_OUTBOUND);
  outputPipe_ = makePipe(name_ + L"-out", PIPE_ACCESS_INBOUND);
  machine_.plug(device_);
  simulated_ =
      os::CreateFileW(device_->path().c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);

  const std::wstring folder = programFolder();
  wchar_t system[MAX_PATH];
  GetSystemDirectoryW(system, MAX_PATH);
  if (!CopyFileW((folder + L"VirtualHid.sys").c_str(), (std::wstring(system) + L"\\drivers\\VirtualHid.sys").c_str(),
                 FALSE)) {
    // The driver is loaded already.
    if (::GetLastError() != ERROR_SHARING_VIOLATION && ::GetLastError() != ERROR_ACCESS_DENIED) fail("CopyFile");
  }
  removeLeftOver(deviceNode_);
  node_ = SetupDiCreateDeviceInfoList(&kHidClass, nullptr);
  nodeData_ = {};
  nodeData_.cbSize = sizeof nodeData_;
  if (!SetupDiCreateDeviceInfoW(node_, deviceNode_.c_str(), &kHidClass, nullptr, nullptr, 0, &nodeData_)) {
    fail("SetupDiCreateDeviceInfo");
  }
  const std::wstring hardwareId = L"voxtest\\" + name_ + std::wstring(2, L'\0');
  SetupDiSetDeviceRegistryPropertyW(node_, &nodeData_, SPDRP_HARDWAREID,
                                    reinterpret_cast<const BYTE*>(hardwareId.data()),
                                    static_cast<DWORD>(hardwareId.size() * sizeof(wchar_t)));
  if (!SetupDiCallClassInstaller(DIF_REGISTERDEVICE, node_, &nodeData_)) fail("DIF_REGISTERDEVICE");
  BOOL restart = FALSE;
  if (!UpdateDriverForPlugAndPlayDevicesW(nullptr, hardwareId.c_str(), (folder + L"VirtualHid.inf").c_str(),
                                          INSTALLFLAG_FORCE, &restart)) {
    fail("UpdateDriverForPlugAndPlayDevices");
  }
  inputCarrier_ = machine_.spawn([this] { carryInput(); });
  outputCarrier_ = std::thread([this] { carryOutput(); });
}

void HidPort::unplug() {
  if (node_ == INVALID_HANDLE_VALUE) return;
  SetupDiCallClassInstaller(DIF_REMOVE, node_, &nodeData_);
  SetupDiDestroyDeviceInfoList(node_);
  node_ = INVALID_HANDLE_VALUE;
  machine_.unplug(device_);
  if (inputCarrier_) inputCarrier_->join();
  CloseHandle(inputPipe_);
  if (outputCarrier_.joinable()) outputCarrier_.join();
  inputCarrier_.reset();
  CloseHandle(outputPipe_);
  os::CloseHandle(simulated_);
}

void HidPort::carryInput() {
  sim::Bytes report(kReportBytes);
  DWORD count = 0;
  while (os::ReadFile(simulated_, report.data(), kReportBytes, &count, nullptr) &&
         ::WriteFile(inputPipe_, report.data(), kReportBytes, &count, nullptr)) {
  }
}

void HidPort::carryOutput() {
  sim::Bytes report(kReportBytes);
  DWORD count = 0;
  while (::ReadFile(outputPipe_, report.data(), kReportBytes, &count, nullptr) && count == kReportBytes) {
    os::WriteFile(simulated_, report.data(), kReportBytes, &count, nullptr);
  }
}
