// What keys do: the four buttons that all devices share, and the actions that keys trigger directly.
#include "VoxDevice/VoxCommon.h"
#include "hub/Hub.h"
#include "models/Models.h"

void CHub::OnKeyReply(int device, const CHidData& reply, MouseType model) {
  if (!reply.Has(1)) return;
  for (const auto& [key, action] : SheetOf(model).keys) {
    if (static_cast<std::uint8_t>(key) == reply.data[0]) return Act(action, device);
  }
}

void CHub::Act(KeyAction action, int device) {
  switch (action) {
    case KeyAction::VoiceDown:
      return LeftPress(device);
    case KeyAction::VoiceUp:
      return LeftRelease(device);
    case KeyAction::RightDown:
      return RightPress(device);
    case KeyAction::RightUp:
      return RightRelease(device);
    case KeyAction::MKeyDown:
      return SwiftKey1Press(device);
    case KeyAction::MKeyUp:
      return Key1Release(device);
    case KeyAction::OpenNavigation:
      return VoxMessage::PostMainMenu(OpenNavigation);
    case KeyAction::Screenshot:
      return VoxMessage::MainMenu(Screenshot);
    case KeyAction::DoubleClick:
      return TernDoubleClick(device);
    case KeyAction::RightShortPress:
      return TernShortPressRight(device);
    case KeyAction::VoiceDownOrRightUp:
      return TernI(device);
    case KeyAction::RightDownOrVoiceUp:
      return TernZ(device);
    case KeyAction::AllUp:
      return TernReleaseAll(device);
  }
}

// ---- The buttons. At most one is down, across all devices; only the device that pressed it releases it. ----

bool CHub::AllKeyUp() const {
  return ButtonState_Left == ButtonUp && ButtonState_Right == ButtonUp && ButtonState_Key1 == ButtonUp &&
         ButtonState_Key2 == ButtonUp;
}

void CHub::SetButton(Button button, VoxButtonState state) {
  const auto set = [&](Shared<VoxButtonState>& field, int device) {
    if (field.exchange(state) == state) return;
    buttonCallback(device, button, state == ButtonDown ? ButtonEvent::down : ButtonEvent::up);
  };
  switch (button) {
    case Button::left:
      return set(ButtonState_Left, ButtonHid_Left);
    case Button::right:
      return set(ButtonState_Right, ButtonHid_Right);
    case Button::key1:
      return set(ButtonState_Key1, ButtonHid_Key1);
    case Button::key2:
      return set(ButtonState_Key2, ButtonHid_Key2);
  }
}

void CHub::TellDoubleClick(int device) {
  const VoxClickMode mode = DoubleClick.GetClickMode();
  if (mode == ClickNone) return;
  buttonCallback(device, Button::left, mode == ClickDouble ? ButtonEvent::doubleClick : ButtonEvent::doubleClickNoNet);
}

void CHub::InitButtonState() {
  DoubleClick.Clear();
  SetButton(Button::left, ButtonUp);
  LastState_Left = ButtonUp;
  SetButton(Button::right, ButtonUp);
  ShortPress_R = false;
  SetButton(Button::key1, ButtonUp);
  SetButton(Button::key2, ButtonUp);
  ButtonHid_Left = -1;
  ButtonHid_Right = -1;
  ButtonHid_Key1 = -1;
  ButtonHid_Key2 = -1;
}

void CHub::LeftPress(int device) {
  if (!AllKeyUp()) return;
  ButtonHid_Left = device;
  ButtonState_Left = ButtonDown;
  DoubleClick.SetKeyState(ButtonDown);  // takes the time, which a callback may not delay
  buttonCallback(device, Button::left, ButtonEvent::down);
}

void CHub::LeftRelease(int device) {
  if (ButtonHid_Left != device) return;
  const bool wasDown = ButtonState_Left.exchange(ButtonUp) == ButtonDown;
  const bool before = DoubleClick.GetClickMode() != ClickNone;
  DoubleClick.SetKeyState(ButtonUp);
  if (wasDown) buttonCallback(device, Button::left, ButtonEvent::up);
  if (!before) TellDoubleClick(device);
}

void CHub::RightPress(int device) {
  if (!AllKeyUp()) return;
  ButtonHid_Right = device;
  SetButton(Button::right, ButtonDown);
}

void CHub::RightRelease(int device) {
  if (ButtonHid_Right == device) SetButton(Button::right, ButtonUp);
}

void CHub::Key1Release(int device) {
  if (ButtonHid_Key1 == device) SetButton(Button::key1, ButtonUp);
}

void CHub::SwiftKey1Press(int device) {
  if (!AllKeyUp()) return;
  if (GetMKeyType_Key1(device, 1) == MouseMKeyType_HeldButton) {
    ButtonHid_Key1 = device;
    SetButton(Button::key1, ButtonDown);
  } else if (GetMKeyType_Key1(device, 1) == MouseMKeyType_Screenshot) {
    VoxMessage::MainMenu(Screenshot);
  }
}

// ---- The Tern tells long from short presses itself. ----

void CHub::TernDoubleClick(int device) {
  if (AllKeyUp()) {
    ButtonHid_Left = device;
  } else if (ButtonState_Left != ButtonDown || ButtonHid_Left != device) {
    return;
  }
  SetButton(Button::left, ButtonUp);
  DoubleClick.SetDoubleClick();
  TellDoubleClick(device);
}

void CHub::TernShortPressRight(int device) {
  if (!AllKeyUp() && (ButtonState_Right != ButtonDown || ButtonHid_Right != device)) return;
  ButtonHid_Right = device;
  SetButton(Button::right, ButtonUp);
  ShortPress_R = true;
  buttonCallback(device, Button::right, ButtonEvent::shortPress);
}

void CHub::TernI(int device) {
  if (ButtonState_Left != ButtonUp) return;
  if (AllKeyUp()) {
    LeftPress(device);
  } else if (ButtonState_Right == ButtonDown && ButtonHid_Right == device) {
    SetButton(Button::right, ButtonUp);
  }
}

void CHub::TernZ(int device) {
  if (AllKeyUp()) {
    RightPress(device);
  } else if (ButtonState_Left == ButtonDown && ButtonHid_Left == device &&
             CPreferences::Instance()->GetVoxButtonLongDown() == 1) {
    LeftRelease(device);
  }
}

void CHub::TernReleaseAll(int device) {
  LeftRelease(device);
  RightRelease(device);
}

// ---- Polling. The work device follows the device that the user last used. ----

VoxButtonState CHub::GetButtonState_Left() {
  workDevice = ButtonHid_Left;
  return ButtonState_Left;
}

VoxButtonState CHub::GetButtonState_Right() {
  workDevice = ButtonHid_Right;
  return ButtonState_Right;
}

VoxButtonState CHub::GetButtonState_Key1() {
  workDevice = ButtonHid_Key1;
  return ButtonState_Key1;
}

VoxButtonState CHub::GetButtonState_Key2() {
  workDevice = ButtonHid_Key2;
  return ButtonState_Key2;
}

bool CHub::LeftKeyDown_Up() {
  workDevice = ButtonHid_Left;
  const VoxButtonState current = ButtonState_Left;
  const VoxButtonState previous = LastState_Left.exchange(current);
  return previous == ButtonDown && current == ButtonUp;
}

bool CHub::Tern_IsShortPress_R() { return ShortPress_R.exchange(false); }
