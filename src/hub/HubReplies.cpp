// Dispatch of every reply, on the read thread of the reader that received it.
#include <algorithm>
#include <array>
#include <string>

#include "VoxDevice/VoxNet.h"
#include "hid/HidFrame.h"
#include "hub/Hub.h"
#include "models/Models.h"
#include "support/Memory.h"

namespace {

// As signed values: a byte of 0x80 or above is no character of a serial number on any compiler.
bool IsSerialCharacter(std::uint8_t byte) {
  const auto c = static_cast<signed char>(byte);
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

}  // namespace

void CHub::HidDeviceReaderCallback(int device, MouseType model, DataChannel link, CHidData& reply, void* hub) {
  // A report for which there is no memory is lost, as one that does not arrive.
  HadMemory([&] { static_cast<CHub*>(hub)->OnHidDeviceReaderCallback(device, model, link, reply); });
}

void CHub::SpeechIsLost(int device, int missing, int late, void* hub) {
  static_cast<CHub*>(hub)->speechLostCallback(device, missing, late);
}

void CHub::OnHidDeviceReaderCallback(int device, MouseType model, DataChannel link, CHidData& reply) {
  switch (reply.code) {
    case DeviceConnectReply:
      return OnProcDeviceConnectReply(device, model, link, reply);
    case VoiceOpenReply:
      return OnProcVoiceOpenReply(device, model, link, reply);
    case VoiceStopReply:
      return OnProcVoiceStopReply(device, model, link, reply);
    case DevicePowerReply:
      return OnProcDevicePowerReply(device, model, link, reply);
    case DpiReply:
      return OnProcDpiReply(device, model, link, reply);
    case MouseStateReply:
      return OnProcMouseStateReply(device, model, link, reply);
    case DongleStateReply:
      return OnProcDongleStateReply(device, model, link, reply);
    case DownloadUrlReply:
      return OnProcDownloadUrlReply(device, model, link, reply);
    case MouseKeyReply:
      return OnProcMouseKeyReply(device, model, reply);
    case MouseSNReply:
      return OnProcMouseSNReply(device, model, link, reply);
    case AudioDataTern:
      return OnProcAudioData_Tern(device, reply);
    case AudioDataWren:
      return OnProcAudioData_Wren(device, reply);
    default:
      return;  // the reader's own, or unknown
  }
}

void CHub::OnProcDeviceConnectReply(int device, MouseType, DataChannel, CHidData& reply) {
  if (!reply.Has(1)) return;
  const int state = reply.data[0];
  mouseConnectCallback(device, state == 1 || state == 2 ? state : 0);
}

void CHub::OnProcVoiceOpenReply(int device, MouseType, DataChannel, CHidData& reply) {
  if (!reply.Has(1)) return;
  voiceOperateCallback(device, reply.data[0] == 0 ? 3 : 2);
}

void CHub::OnProcVoiceStopReply(int device, MouseType, DataChannel, CHidData&) { voiceOperateCallback(device, 0); }

void CHub::OnProcDevicePowerReply(int device, MouseType, DataChannel, CHidData& reply) {
  if (!reply.Has(1)) return;
  powerReportCallback(device, static_cast<int>(reply.data[0]));
}

void CHub::OnProcDpiReply(int device, MouseType, DataChannel, CHidData& reply) {
  if (!reply.Has(3)) return;
  dpiSetCallback(device, BigEndian16(reply.data), reply.data[2] == 0);
}

void CHub::OnProcMouseStateReply(int device, MouseType model, DataChannel link, CHidData& reply) {
  if (!reply.Has(11)) return;
  const std::uint8_t* p = reply.data;
  CVoxDeviceInfo* info = CVoxDeviceInfo::Instance();
  if (info->BluetoothIdIsEmpty()) {
    std::wstring address = std::to_wstring(p[5]);
    for (int i = 6; i < 11; ++i) address += L"-" + std::to_wstring(p[i]);
    info->SetBluetoothID(address.c_str());
    info->SetBluetoothName(SheetOf(model).name);
  }
  mouseStateCallback(device, model, link, BigEndian16(p), BigEndian16(p + 2), static_cast<int>(p[4]));
}

void CHub::OnProcDongleStateReply(int device, MouseType model, DataChannel link, CHidData& reply) {
  if (!reply.Has(3) && !reply.Has(9)) return;
  dongleStateCallback(device, model, link, BigEndian16(reply.data), reply.data[2] == 1);
}

void CHub::OnProcDownloadUrlReply(int device, MouseType, DataChannel, CHidData& reply) {
  if (!reply.Has(1)) return;
  downloadUrlCallback(device, reply.data[0] == 0);
}

void CHub::OnProcMouseSNReply(int, MouseType model, DataChannel, CHidData& reply) {
  constexpr int kSerialLength = 18;
  if (!reply.Has(kSerialLength) || !std::all_of(reply.data, reply.data + kSerialLength, IsSerialCharacter)) return;
  // Unlike the address in a state reply, a serial number replaces an identity that is there.
  const std::wstring serial(reply.data, reply.data + kSerialLength);
  CVoxDeviceInfo* info = CVoxDeviceInfo::Instance();
  info->SetBluetoothID(serial.c_str());
  info->SetBluetoothName(SheetOf(model).name);
}

void CHub::OnProcMouseKeyReply(int device, MouseType model, CHidData& reply) {
  if (SheetOf(model).keysAreDecoded) OnKeyReply(device, reply, model);
}
