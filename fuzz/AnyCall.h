// Any function of the flat interface, with arguments of any kind.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <tuple>
#include <utility>
#include <vector>

#include "VoxDevice/voxdevice.h"

class AnyCall {
 public:
  static constexpr std::size_t kHandles = 8;

  // random: what is drawn. handles: objects that there are, or were.
  AnyCall(std::function<std::uint64_t()> random, std::atomic<vox_handle> (&handles)[kHandles])
      : random_(std::move(random)), handles_(handles) {}

  // Makes an object of any kind in the place of another, which is destroyed. VOX_FORMER_... where it was one of those,
  // or -1.
  int create() {
    const auto kind = static_cast<int32_t>(random_() % 4) - 1;
    const std::uint64_t which = random_() % 6;
    const vox_result made = which == 0   ? vox_hub_create()
                            : which == 1 ? vox_microphone_create()
                            : which == 2 ? vox_speaker_create()
                            : which == 3 ? vox_former_create(kind)
                            : which == 4 ? vox_switch_create()
                                         : vox_click_create();
    if (made > 0) vox_destroy(handles_[random_() % kHandles].exchange(made));
    return which == 3 ? kind : -1;
  }
  // A call, and whether its result is one that the header names. least: the last error that there may be here.
  bool call(vox_result least = VOX_ERROR_END) {
    const vox_result result = one(random_() % std::tuple_size_v<decltype(kFunctions)>,
                                  std::make_index_sequence<std::tuple_size_v<decltype(kFunctions)>>());
    return result >= least;
  }

 private:
  static constexpr auto kFunctions = std::make_tuple(
      &vox_destroy, &vox_on_event, &vox_on_text, &vox_on_observation, &vox_next_event, &vox_next_text,
      &vox_record_start, &vox_record_stop, &vox_on_audio, &vox_read, &vox_hub_open, &vox_hub_stop, &vox_hub_close,
      &vox_hub_threads_closed, &vox_hub_is_connected, &vox_hub_newest, &vox_hub_devices, &vox_hub_model, &vox_hub_link,
      &vox_hub_harden, &vox_hub_speech, &vox_model_name, &vox_hub_choose, &vox_hub_choose_by_microphone,
      &vox_hub_work_is_wren, &vox_hub_ask_mouse_state, &vox_hub_ask_dongle_state, &vox_hub_set_dpi, &vox_hub_set_url,
      &vox_hub_ask_mkeys, &vox_hub_mkey, &vox_hub_mkey_list, &vox_hub_set_mkey, &vox_hub_update, &vox_hub_button,
      &vox_hub_left_pressed, &vox_hub_right_short_press, &vox_hub_click_mode, &vox_hid_path, &vox_parse_hid_path,
      &vox_set, &vox_get, &vox_get_text, &vox_set_text, &vox_click_key, &vox_click_mode, &vox_click_clear,
      &vox_former_init, &vox_former_start, &vox_former_stop, &vox_former_close, &vox_former_release,
      &vox_former_threads_closed, &vox_former_is_checking, &vox_former_recheck, &vox_former_hardware,
      &vox_former_sound_index, &vox_former_revision, &vox_former_button, &vox_former_left_pressed,
      &vox_former_click_mode, &vox_former_imitate, &vox_pen_button, &vox_pen_imitate, &vox_keys_down, &vox_switch_start,
      &vox_switch_pause, &vox_switch_stop, &vox_switch_release, &vox_microphone_choice, &vox_microphone_pen_meeting,
      &vox_sound_card_check);

  template <std::size_t... Index>
  vox_result one(std::uint64_t which, std::index_sequence<Index...>) {
    vox_result result = 0;
    ((which == Index ? void(result = with(std::get<Index>(kFunctions))) : void()), ...);
    return result;
  }
  template <class... Arguments>
  vox_result with(vox_result(VOX_CALL* function)(Arguments...)) {
    return function(Argument<Arguments>{*this}...);
  }

  // What an argument of the type may be.
  template <class T>
  struct Argument {
    AnyCall& it;
    operator T() const { return it.any(static_cast<T*>(nullptr)); }
  };
  int32_t any(const int32_t*) {
    static constexpr int32_t kOdd[] = {-1, 0, 1, 2, 3, 4, 5, 17, 255, 256, 70000, INT32_MAX, INT32_MIN};
    return random_() % 2 == 0 ? handles_[random_() % kHandles].load() : kOdd[random_() % std::size(kOdd)];
  }
  uint32_t any(const uint32_t*) { return static_cast<uint32_t>(random_() % 3 * 40); }
  const char* any(const char* const*) {
    static constexpr const char* kTexts[] = {nullptr, "",         "a",        "vox.example/a",
                                             "a:b",   "\xFF\xC3", "/nowhere", R"(\\?\hid#vid_0d8c&pid_0137#7#)"};
    return kTexts[random_() % std::size(kTexts)];
  }
  // Larger than anything that is ever written.
  template <class T>
  T* any(T* const*) {
    if (random_() % 4 == 0) return nullptr;
    if constexpr (std::is_class_v<T>) {
      const auto size = static_cast<uint32_t>(random_() % 4 == 0 ? 8 : sizeof(T));
      std::memcpy(room_.data(), &size, sizeof size);
    }
    return static_cast<T*>(static_cast<void*>(room_.data()));
  }
  void* any(void* const*) { return nullptr; }
  vox_event_fn any(const vox_event_fn*) {
    return random_() % 2 == 0 ? nullptr : +[](const vox_event*, void*) {};
  }
  vox_text_fn any(const vox_text_fn*) {
    return random_() % 2 == 0 ? nullptr : +[](int32_t, int32_t, const char*, void*) {};
  }
  vox_audio_fn any(const vox_audio_fn*) {
    return random_() % 2 == 0 ? nullptr : +[](const int16_t*, int32_t, void*) {};
  }

  vox_observation_fn any(const vox_observation_fn*) {
    return random_() % 2 == 0 ? nullptr : +[](const vox_observation*, void*) {};
  }

  std::function<std::uint64_t()> random_;
  std::atomic<vox_handle> (&handles_)[kHandles];
  std::vector<std::uint64_t> room_ = std::vector<std::uint64_t>(1 << 17);
};
