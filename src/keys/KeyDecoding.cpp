// What each model's keys do: the four buttons that all devices share, and the actions that keys trigger directly.
#include <iterator>

#include "VoxDevice/VoxCommon.h"
#include "hub/HidDeviceEntry.h"

// One key of a model: its character, and what it does.
struct CAudioHidCenter::KeyRule {
  char key;
  void (CAudioHidCenter::*act)(int device);
};

void CAudioHidCenter::OnKeyReply(int device, const CHidData& reply, const KeyRule* rules, std::size_t count) {
  if (!reply.Has(1)) return;
  for (const KeyRule* rule = rules; rule != rules + count; ++rule) {
    if (static_cast<std::uint8_t>(rule->key) == reply.data[0]) return (this->*rule->act)(device);
  }
}

void CAudioHidCenter::OnKeyReply_Tern(int device, CHidData& reply) {
  static constexpr KeyRule rules[] = {
      {'0', &CAudioHidCenter::LeftRelease},     {'1', &CAudioHidCenter::LeftPress},
      {'2', &CAudioHidCenter::TernDoubleClick}, {'3', &CAudioHidCenter::TernShortPressRight},
      {'4', &CAudioHidCenter::RightPress},      {'5', &CAudioHidCenter::RightRelease},
      {'9', &CAudioHidCenter::LeftRelease},     {'@', &CAudioHidCenter::RightRelease},
      {'I', &CAudioHidCenter::TernI},           {'Z', &CAudioHidCenter::TernZ},
      {']', &CAudioHidCenter::TernReleaseAll},
  };
  OnKeyReply(device, reply, rules, std::size(rules));
}

void CAudioHidCenter::OnKeyReply_Wren(int device, CHidData& reply) {
  static constexpr KeyRule rules[] = {
      {'0', &CAudioHidCenter::LeftPress},
      {'9', &CAudioHidCenter::LeftRelease},
  };
  OnKeyReply(device, reply, rules, std::size(rules));
}

// Finch and Heron deliberately carry the keys 2 and 3 in swapped order.
void CAudioHidCenter::OnKeyReply_Finch(int device, CHidData& reply) {
  static constexpr KeyRule rules[] = {
      {'0', &CAudioHidCenter::LeftPress},         {'1', &CAudioHidCenter::RightPress},
      {'2', &CAudioHidCenter::OpenNavigationKey}, {'3', &CAudioHidCenter::ScreenshotKey},
      {'9', &CAudioHidCenter::LeftRelease},       {'@', &CAudioHidCenter::RightRelease},
  };
  OnKeyReply(device, reply, rules, std::size(rules));
}

void CAudioHidCenter::OnKeyReply_Robin(int device, CHidData& reply) {
  static constexpr KeyRule rules[] = {
      {'0', &CAudioHidCenter::LeftPress},
      {'1', &CAudioHidCenter::RightPress},
      {'9', &CAudioHidCenter::LeftRelease},
      {'@', &CAudioHidCenter::RightRelease},
  };
  OnKeyReply(device, reply, rules, std::size(rules));
}

void CAudioHidCenter::OnKeyReply_Heron(int device, CHidData& reply) {
  static constexpr KeyRule rules[] = {
      {'0', &CAudioHidCenter::LeftPress},     {'1', &CAudioHidCenter::RightPress},
      {'2', &CAudioHidCenter::ScreenshotKey}, {'3', &CAudioHidCenter::OpenNavigationKey},
      {'9', &CAudioHidCenter::LeftRelease},   {'@', &CAudioHidCenter::RightRelease},
  };
  OnKeyReply(device, reply, rules, std::size(rules));
}

void CAudioHidCenter::OnKeyReply_Egret(int device, CHidData& reply) { OnKeyReply_Heron(device, reply); }

void CAudioHidCenter::OnKeyReply_Heron_Plus(int device, CHidData& reply) {
  static constexpr KeyRule rules[] = {
      {'0', &CAudioHidCenter::LeftPress},     {'1', &CAudioHidCenter::RightPress},
      {'2', &CAudioHidCenter::ScreenshotKey}, {'9', &CAudioHidCenter::LeftRelease},
      {'@', &CAudioHidCenter::RightRelease},
  };
  OnKeyReply(device, reply, rules, std::size(rules));
}

void CAudioHidCenter::OnKeyReply_Swift(int device, CHidData& reply) {
  static constexpr KeyRule rules[] = {
      {'0', &CAudioHidCenter::LeftPress},      {'1', &CAudioHidCenter::RightPress},
      {'4', &CAudioHidCenter::SwiftKey1Press}, {'9', &CAudioHidCenter::LeftRelease},
      {'@', &CAudioHidCenter::RightRelease},   {'C', &CAudioHidCenter::Key1Release},
  };
  OnKeyReply(device, reply, rules, std::size(rules));
}

// ---- The buttons. At most one is down at a time, across all devices; only the device that pressed it releases it.
// ----

bool CAudioHidCenter::AllKeyUp() const {
  return ButtonState_Left == ButtonUp && ButtonState_Right == ButtonUp && ButtonState_Key1 == ButtonUp &&
         ButtonState_Key2 == ButtonUp;
}

void CAudioHidCenter::InitButtonState() {
  DoubleClick.Clear();
  ButtonState_Left = ButtonUp;
  LastState_Left = ButtonUp;
  ButtonState_Right = ButtonUp;
  ShortPress_R = false;
  ButtonState_Key1 = ButtonUp;
  ButtonState_Key2 = ButtonUp;
  ButtonHid_Left = -1;
  ButtonHid_Right = -1;
  ButtonHid_Key1 = -1;
  ButtonHid_Key2 = -1;
}

void CAudioHidCenter::LeftPress(int device) {
  if (!AllKeyUp()) return;
  ButtonHid_Left = device;
  ButtonState_Left = ButtonDown;
  DoubleClick.SetKeyState(ButtonDown);
}

void CAudioHidCenter::LeftRelease(int device) {
  if (ButtonHid_Left != device) return;
  ButtonState_Left = ButtonUp;
  DoubleClick.SetKeyState(ButtonUp);
}

void CAudioHidCenter::RightPress(int device) {
  if (!AllKeyUp()) return;
  ButtonHid_Right = device;
  ButtonState_Right = ButtonDown;
}

void CAudioHidCenter::RightRelease(int device) {
  if (ButtonHid_Right == device) ButtonState_Right = ButtonUp;
}

void CAudioHidCenter::Key1Release(int device) {
  if (ButtonHid_Key1 == device) ButtonState_Key1 = ButtonUp;
}

void CAudioHidCenter::SwiftKey1Press(int device) {
  if (!AllKeyUp()) return;
  if (GetMKeyType_Key1(device, 1) == MouseMKeyType_HeldButton) {
    ButtonHid_Key1 = device;
    ButtonState_Key1 = ButtonDown;
  } else if (GetMKeyType_Key1(device, 1) == MouseMKeyType_Screenshot) {
    VoxMessage::MainMenu(Screenshot);
  }
}

void CAudioHidCenter::OpenNavigationKey(int) { VoxMessage::PostMainMenu(OpenNavigation); }

void CAudioHidCenter::ScreenshotKey(int) { VoxMessage::MainMenu(Screenshot); }

// ---- The Tern tells long from short presses itself. ----

void CAudioHidCenter::TernDoubleClick(int device) {
  if (AllKeyUp()) {
    ButtonHid_Left = device;
  } else if (ButtonState_Left != ButtonDown || ButtonHid_Left != device) {
    return;
  }
  ButtonState_Left = ButtonUp;
  DoubleClick.SetDoubleClick();
}

void CAudioHidCenter::TernShortPressRight(int device) {
  if (!AllKeyUp() && (ButtonState_Right != ButtonDown || ButtonHid_Right != device)) return;
  ButtonHid_Right = device;
  ButtonState_Right = ButtonUp;
  ShortPress_R = true;
}

void CAudioHidCenter::TernI(int device) {
  if (ButtonState_Left != ButtonUp) return;
  if (AllKeyUp()) {
    LeftPress(device);
  } else if (ButtonState_Right == ButtonDown && ButtonHid_Right == device) {
    ButtonState_Right = ButtonUp;
  }
}

void CAudioHidCenter::TernZ(int device) {
  if (AllKeyUp()) {
    RightPress(device);
  } else if (ButtonState_Left == ButtonDown && ButtonHid_Left == device &&
             CPreferences::Instance()->GetVoxButtonLongDown() == 1) {
    LeftRelease(device);
  }
}

void CAudioHidCenter::TernReleaseAll(int device) {
  LeftRelease(device);
  RightRelease(device);
}

// ---- Polling. The work device follows the device that the user last used. ----

VoxButtonState CAudioHidCenter::GetButtonState_Left() {
  workDevice = ButtonHid_Left;
  return ButtonState_Left;
}

VoxButtonState CAudioHidCenter::GetButtonState_Right() {
  workDevice = ButtonHid_Right;
  return ButtonState_Right;
}

VoxButtonState CAudioHidCenter::GetButtonState_Key1() {
  workDevice = ButtonHid_Key1;
  return ButtonState_Key1;
}

VoxButtonState CAudioHidCenter::GetButtonState_Key2() {
  workDevice = ButtonHid_Key2;
  return ButtonState_Key2;
}

bool CAudioHidCenter::LeftKeyDown_Up() {
  workDevice = ButtonHid_Left;
  const VoxButtonState current = ButtonState_Left;
  const VoxButtonState previous = LastState_Left.exchange(current);
  return previous == ButtonDown && current == ButtonUp;
}

bool CAudioHidCenter::Tern_IsShortPress_R() { return ShortPress_R.exchange(false); }
