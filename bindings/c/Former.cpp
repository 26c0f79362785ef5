// Older hardware, and the switch of the working mode.
#include <atomic>
#include <variant>

#include "Objects.h"
#include "VoxDevice/AudioHidCenter.h"
#include "VoxDevice/FormerMouse.h"
#include "VoxDevice/SoftModeSwitch.h"

namespace flat {

// Defined with the hub: its class, as long as `keeper` lasts.
CAudioHidCenter* CenterOf(vox_handle hub, std::shared_ptr<Object>& keeper) noexcept;

namespace {

class Former final : public Object {
 public:
  template <class Mouse>
  explicit Former(std::in_place_type_t<Mouse> which) : mouse(which) {}
  void End() noexcept override {
    std::visit([](auto& it) { it.Release(); }, mouse);
  }

  std::variant<CFormerMouse, CFormerMouse_Usb, CFormerMouse_Hid> mouse;
};

class Switch final : public Object {
 public:
  void End() noexcept override {
    const CAutoLock lock(lock_);
    mode.Release();
    kept_.clear();
  }
  void Start(CFormerMouse& mouse, CAudioHidCenter& hub, const std::shared_ptr<Object>& first,
             const std::shared_ptr<Object>& second) {
    const CAutoLock lock(lock_);
    for (const auto& each : {first, second}) {
      if (std::find(kept_.begin(), kept_.end(), each) == kept_.end()) kept_.push_back(each);
    }
    mode.StartCheck(reinterpret_cast<void*>(&MayNotSwitch), ContextOf(handle), &mouse, &hub, &pen_);
  }

  CSoftModeSwitch mode;
  std::atomic<bool> paused{false};

 private:
  static bool MayNotSwitch(void* context) {
    const CNotCutOff whole;
    const auto it = Objects::All().Find<Switch>(HandleIn(context));
    return !it || it->paused;
  }

  CFormerLaserPen pen_;
  CLock lock_;
  std::vector<std::shared_ptr<Object>> kept_ GUARDED_BY(lock_);
};

// Calls `work` with the class behind the handle; it is VOX_ERROR_NOT_SUPPORTED where the class has not what it uses.
template <class Work>
vox_result WithMouse(vox_handle mouse, Work&& work) noexcept {
  return With<Former>(mouse, [&](Former& it) {
    return std::visit(
        [&](auto& which) -> vox_result {
          if constexpr (requires { work(which); }) {
            return work(which);
          } else {
            return VOX_ERROR_NOT_SUPPORTED;
          }
        },
        it.mouse);
  });
}

vox_result Flag(bool value) { return value ? 1 : 0; }

}  // namespace
}  // namespace flat

using flat::Flag;
using flat::Former;
using flat::Guarded;
using flat::Objects;
using flat::Switch;
using flat::With;
using flat::WithMouse;

vox_result VOX_CALL vox_former_create(int32_t kind) {
  return Guarded([&]() -> vox_result {
    if (const vox_result result = flat::Listen(); result < 0) return result;
    switch (kind) {
      case VOX_FORMER_MOUSE:
        return Objects::All().Add<Former>(std::in_place_type<CFormerMouse>);
      case VOX_FORMER_USB:
        return Objects::All().Add<Former>(std::in_place_type<CFormerMouse_Usb>);
      case VOX_FORMER_HID:
        return Objects::All().Add<Former>(std::in_place_type<CFormerMouse_Hid>);
      default:
        return VOX_ERROR_ARGUMENT;
    }
  });
}

vox_result VOX_CALL vox_former_init(vox_handle mouse) {
  return WithMouse(mouse, [](auto& it) -> decltype(it.Init(), vox_result()) { return it.Init(), VOX_OK; });
}

vox_result VOX_CALL vox_former_start(vox_handle mouse) {
  return WithMouse(mouse, [](auto& it) -> vox_result { return it.StartCheck(), VOX_OK; });
}

vox_result VOX_CALL vox_former_stop(vox_handle mouse) {
  return WithMouse(mouse, [](auto& it) -> vox_result { return it.StopCheck(), VOX_OK; });
}

vox_result VOX_CALL vox_former_close(vox_handle mouse) {
  return WithMouse(mouse, [](auto& it) -> vox_result { return it.CloseThread(), VOX_OK; });
}

vox_result VOX_CALL vox_former_release(vox_handle mouse) {
  return WithMouse(mouse, [](auto& it) -> vox_result { return it.Release(), VOX_OK; });
}

vox_result VOX_CALL vox_former_threads_closed(vox_handle mouse) {
  return WithMouse(mouse, [](auto& it) { return Flag(it.ThreadIsClosed()); });
}

vox_result VOX_CALL vox_former_is_checking(vox_handle mouse) {
  return WithMouse(mouse, [](auto& it) -> decltype(it.IsChecking(), vox_result()) { return Flag(it.IsChecking()); });
}

vox_result VOX_CALL vox_former_recheck(vox_handle mouse) {
  return WithMouse(mouse,
                   [](auto& it) -> decltype(vox_result(it.ReCheckHardwareKind())) { return it.ReCheckHardwareKind(); });
}

vox_result VOX_CALL vox_former_hardware(void) {
  return Guarded([]() -> vox_result { return CFormerMouse::InitVoxHardwareKind(); });
}

vox_result VOX_CALL vox_former_sound_index(vox_handle mouse) {
  return WithMouse(mouse, [](auto& it) -> decltype(vox_result(it.IsConnect())) {
    const int index = it.IsConnect();
    return index < 0 ? VOX_ERROR_NO_DEVICE : index;
  });
}

vox_result VOX_CALL vox_former_revision(vox_handle mouse) {
  return WithMouse(mouse,
                   [](auto& it) -> decltype(vox_result(it.GetMouseRevision())) { return it.GetMouseRevision(); });
}

vox_result VOX_CALL vox_former_button(vox_handle mouse, int32_t button) {
  if (button != VOX_BUTTON_LEFT && button != VOX_BUTTON_RIGHT) return VOX_ERROR_ARGUMENT;
  return WithMouse(mouse, [&](auto& it) {
    return Flag((button == VOX_BUTTON_LEFT ? it.GetKey_M_L() : it.GetKey_M_R()) == ButtonDown);
  });
}

vox_result VOX_CALL vox_former_left_pressed(vox_handle mouse) {
  return WithMouse(mouse,
                   [](auto& it) -> decltype(it.LeftKeyDown_Up(), vox_result()) { return Flag(it.LeftKeyDown_Up()); });
}

vox_result VOX_CALL vox_former_click_mode(vox_handle mouse) {
  return WithMouse(mouse, [](auto& it) -> vox_result { return it.GetClickMode_L(); });
}

vox_result VOX_CALL vox_former_imitate(vox_handle mouse, int32_t button) {
  if (button != VOX_BUTTON_LEFT && button != VOX_BUTTON_RIGHT) return VOX_ERROR_ARGUMENT;
  return WithMouse(mouse, [&](auto& it) -> decltype(it.ImitateKeyM_L(), vox_result()) {
    button == VOX_BUTTON_LEFT ? it.ImitateKeyM_L() : it.ImitateKeyM_R();
    return VOX_OK;
  });
}

vox_result VOX_CALL vox_pen_button(int32_t key) {
  const CFormerLaserPen pen;
  switch (key) {
    case VOX_PEN_SUBTITLE:
      return Flag(pen.GetKey_P_subtitle() == ButtonDown);
    case VOX_PEN_TRANSLATE:
      return Flag(pen.GetKey_P_translate() == ButtonDown);
    case VOX_PEN_CONTROL:
      return Flag(pen.GetKey_P_control() == ButtonDown);
    case VOX_PEN_DISTURB:
      return Flag(pen.GetKey_P_disturb() == ButtonDown);
    case VOX_PEN_CLOSE:
      return Flag(pen.GetKey_P_close() == ButtonDown);
    default:
      return VOX_ERROR_ARGUMENT;
  }
}

vox_result VOX_CALL vox_pen_imitate(int32_t key) {
  const CFormerLaserPen pen;
  switch (key) {
    case VOX_PEN_SUBTITLE:
      return pen.ImitateKeyP_subtitle(), VOX_OK;
    case VOX_PEN_CONTROL:
      return pen.ImitateKeyP_control(), VOX_OK;
    default:
      return VOX_ERROR_ARGUMENT;
  }
}

vox_result VOX_CALL vox_keys_down(int32_t first, int32_t second) {
  const auto isKey = [](std::int32_t key) { return key > 0 && key < 0xFF; };
  if (!isKey(first) || !isKey(second)) return VOX_ERROR_ARGUMENT;
  return Flag(CFormerLaserPen::CheckKeys(first, second) == ButtonDown);
}

vox_result VOX_CALL vox_switch_create(void) {
  return Guarded([]() -> vox_result {
    if (const vox_result result = flat::Listen(); result < 0) return result;
    return Objects::All().Add<Switch>();
  });
}

vox_result VOX_CALL vox_switch_start(vox_handle mode, vox_handle mouse, vox_handle hub) {
  return With<Switch>(mode, [&](Switch& it) -> vox_result {
    const auto former = Objects::All().Find<Former>(mouse);
    std::shared_ptr<flat::Object> keeper;
    CAudioHidCenter* const center = flat::CenterOf(hub, keeper);
    if (!former || !center) return VOX_ERROR_HANDLE;
    auto* const whole = std::get_if<CFormerMouse>(&former->mouse);
    if (!whole) return VOX_ERROR_NOT_SUPPORTED;
    it.Start(*whole, *center, former, keeper);
    return VOX_OK;
  });
}

vox_result VOX_CALL vox_switch_pause(vox_handle mode, int32_t paused) {
  return With<Switch>(mode, [&](Switch& it) -> vox_result { return it.paused = paused != 0, VOX_OK; });
}

vox_result VOX_CALL vox_switch_stop(vox_handle mode) {
  return With<Switch>(mode, [](Switch& it) -> vox_result { return it.mode.StopCheck(), VOX_OK; });
}

vox_result VOX_CALL vox_switch_release(vox_handle mode) {
  return With<Switch>(mode, [](Switch& it) -> vox_result { return it.End(), VOX_OK; });
}
