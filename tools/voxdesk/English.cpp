#include "English.h"

#include <utility>

#include "VoxDevice/VoxCommon.h"
#include "VoxDevice/types.h"

namespace {

// In the order in which they are replaced.
constexpr std::pair<const char*, const char*> kWords[] = {
    {"VoxMouseB(未知类型)", "VoxMouseB (unknown model)"},
    {"（编号：", " (number "},
    {"）连接成功，发送到设备界面", ") is connected and shown"},
    {"）拔出，把该设备从界面上移除", ") is pulled out and no longer shown"},
    {"）休眠，把该设备从界面上移除", ") is asleep and no longer shown"},
    {"读写hid设备失败", "the HID device cannot be opened for writing"},
    {"语音键双击：0  ", "double click of the voice key: 0  "},
    {"程序切换到“鼠标”模式", "switched to mouse mode"},
    {"程序切换到“激光笔”模式", "switched to laser-pen mode"},
    {"语音键盘电量低，请充电", "the voice keyboard's battery is low, please charge it"},
    {"检测到 语音键盘 截图键按下", "the voice keyboard's screenshot key is pressed"},
    {"检测到 语音键盘 导航键按下，打开VoxMouse导航",
     "the voice keyboard's navigation key is pressed, navigation opens"},
    {"未连接VoxMouse硬件，停止键值检测", "no VoxMouse hardware is connected, keys are no longer looked at"},
    {"连接了VoxMouse硬件，开始键值检测", "VoxMouse hardware is connected, keys are looked at"},
    {"扬声器采样率：", "the speaker's sample rate: "},
    {"，通道数：", ", channels: "},
    {"扬声器采样率是", "the speaker's sample rate is "},
    {"，低于16000", ", less than 16000"},
    {"扬声器通道数是", "the speaker's channels are "},
    {"，不是1、2", ", not 1 or 2"},
    {"扬声器录音是", "the speaker is recorded with "},
    {"位，不是16位", " bits, not 16"},
    {"没有找到录音设备", "no recording device is found"},
    {"没有安装驱动程序", "no driver is installed"},
    {"指定的资源已被分配", "the device is in use already"},
    {"打开录音设备失败", "the recording device cannot be opened"},
    {"打开录音设备出现其他错误", "another error when the recording device is opened"},
    {"录音设备的ID越界", "the recording device's index is out of range"},
    {"录音设备不支持请求的波形格式", "the recording device does not support the wave format"},
    {"开始采集声音失败", "the recording cannot begin"},
    {"开始录音时出现错误", "an error when the recording begins"},
    {"开启录音线程失败", "the recording thread cannot be started"},
    {"不能分配或锁定内存", "memory cannot be had or locked"},
    {"设置音量失败", "the volume cannot be set"},
};

}  // namespace

std::string english(const std::string& text) {
  std::string translated = text;
  for (const auto& [foreign, word] : kWords) {
    const std::string from = foreign;
    for (std::size_t at = 0; (at = translated.find(from, at)) != std::string::npos;)
      translated.replace(at, from.size(), word);
  }
  return translated == text ? std::string() : translated;
}

const char* nameOfLogCategory(int category) {
  switch (category) {
    case LogType_Information:
      return "information";
    case LogType_Recording:
      return "recording";
    case LogType_KeyboardNavigation:
      return "keyboard navigation";
    case LogType_DoubleClick:
      return "double click";
    case LogType_KeyboardScreenshot:
      return "keyboard screenshot";
    case LogType_DeviceConnected:
      return "device connected";
    case LogType_DeviceRemoved:
      return "device removed";
    case LogType_KeyChecking:
      return "key checking";
    default:
      return "other";
  }
}

const char* nameOfUpdateState(int state) {
  switch (state) {
    case FwUpdate_DeviceGone:
      return "device gone";
    case FwUpdate_PrepareNoAnswer:
      return "no answer to prepare";
    case FwUpdate_PrepareRefused:
      return "prepare refused";
    case FwUpdate_OpenNoAnswer:
      return "no answer to open";
    case FwUpdate_OpenRefused:
      return "open refused";
    case FwUpdate_DataNoAnswer:
      return "no answer to data";
    case FwUpdate_DataRefused:
      return "data refused";
    case FwUpdate_CompleteNoAnswer:
      return "no answer to complete";
    case FwUpdate_ImageFinished:
      return "image finished";
    case FwUpdate_AbortNoAnswer:
      return "no answer to abort";
    case FwUpdate_Over:
      return "over";
    default:
      return "other";
  }
}
