// The enumerations that cross the library boundary. Their numbers travel in callbacks and on the wire and never change.
#pragma once

// A current model. 0 also stands for any model that is not known.
enum MouseType : int {
  MouseType_Unknown = 0,
  MouseType_Tern = 1,
  MouseType_Wren = 2,
  MouseType_Finch = 3,
  MouseType_Robin = 4,
  MouseType_Heron = 5,
  MouseType_Egret = 6,
  MouseType_HeronPlus = 7,
  MouseType_Swift = 8,
};

// The link over which a device is reached. The receiver (dongle) of a USB device is addressed as a channel of its own.
enum DataChannel : int {
  DataChannel_Unknown = 0,
  DataChannel_BluetoothLE = 1,
  DataChannel_Usb = 2,
  DataChannel_Receiver = 3,
};

// The function of an M key: one byte on the wire, any value of which a device may name. Two have a meaning here.
enum MouseMKeyType : int {
  MouseMKeyType_None = 0,
  MouseMKeyType_HeldButton = 2,
  MouseMKeyType_Screenshot = 3,
};

// What came of setting an M key's function.
enum SetMKeyTypeStatus : int {
  SetMKeyType_NotReady = 1,      // no such device, or it takes no command now
  SetMKeyType_NotSupported = 2,  // not in the list of functions that the device sent
  SetMKeyType_NoAnswer = 3,      // no confirmation within 2.5 s
  SetMKeyType_OtherType = 4,     // the device confirmed another function
  SetMKeyType_Confirmed = 5,
};

// Which firmware images an update sends.
enum FwUpdateType : int {
  FwUpdate_First = 1,
  FwUpdate_Second = 2,
  FwUpdate_Both = 3,
};

// A result of a firmware update.
enum FwUpdateState : int {
  FwUpdate_DeviceGone = 0,  // the device went in the middle of the step, which then got no answer; with channel 0
  FwUpdate_PrepareNoAnswer = 1,
  FwUpdate_PrepareRefused = 2,
  FwUpdate_OpenNoAnswer = 3,
  FwUpdate_OpenRefused = 4,
  FwUpdate_DataNoAnswer = 5,
  FwUpdate_DataRefused = 6,
  FwUpdate_CompleteNoAnswer = 7,
  FwUpdate_ImageFinished = 8,  // also when the device refused the completion
  FwUpdate_AbortNoAnswer = 9,
  FwUpdate_Over = 11,
};

enum VoxButtonState : int {
  ButtonDown = 0,
  ButtonUp = 1,
};

// The outcome of the last double click of the voice key.
enum VoxClickMode : int {
  ClickNone = 0,
  ClickDouble = 1,
  ClickDoubleNoNet = 2,  // recognised, but the network was not reachable
};

// What the user works with.
enum VoxHardWare : int {
  HardWare_Mouse = 1,
  HardWare_LaserPen = 2,
};

// The kind of an older HID device.
enum HidDeviceKind : int {
  HidKind_VoiceKeyboard = 0,
  HidKind_Mouse = 1,
};
