// Events and texts: what the library tells, to callbacks or to who asks.
#include <array>
#include <atomic>
#include <cstring>
#include <string>

#include "Objects.h"
#include "VoxDevice/Observation.h"
#include "VoxDevice/VoxCommon.h"
#include "support/Memory.h"
#include "support/Text.h"

namespace flat {
namespace {

constexpr std::size_t kMostEvents = 1024;
constexpr std::size_t kMostTexts = 256;
constexpr std::size_t kMostLists = 32;

struct Text {
  std::int32_t kind = 0;
  std::int32_t category = 0;
  std::string text;
};

// A list of functions, as a device has named them.
struct KeyList {
  std::int32_t device = -1;
  std::int32_t key = 0;
  std::int32_t count = 0;
  std::array<std::uint8_t, 256> functions{};
};

class Told final : public VoxMessageSink {
 public:
  static Told& It() { return Lasting<Told>::It(); }

  bool IsWhole() const noexcept { return events.IsWhole() && texts.IsWhole(); }
  void Event(std::int32_t kind, std::int32_t device, std::initializer_list<std::int32_t> values) noexcept {
    vox_event event{sizeof event, kind, device, {}};
    std::copy(values.begin(), values.end(), event.value);
    const auto pair = onEvent.Get();
    if (!pair.function) return events.Put(&event, 1);
    for (vox_event lost{sizeof lost, 0, 0, {}}; NextLost(lost);) pair.function(&lost, pair.context);
    pair.function(&event, pair.context);
  }
  void Observed(const VoxObservation& seen) noexcept;
  // What was lost, and has not been told of yet.
  bool NextLost(vox_event& event) noexcept;

  CallbackSlot<vox_event_fn> onEvent;
  CallbackSlot<vox_text_fn> onText;
  CallbackSlot<vox_observation_fn> onObservation;
  Queue<vox_event> events{kMostEvents};
  Queue<std::shared_ptr<const Text>> texts{kMostTexts};
  std::atomic<std::size_t> lostForMemory{0};  // texts
  CLock listLock;
  std::array<KeyList, kMostLists> lists GUARDED_BY(listLock);  // the newest first

 private:
  void Log(const wchar_t* text, LogType type) override { Say(VOX_TEXT_LOG, type, text); }
  void DebugLog(const wchar_t* text, LogType type) override { Say(VOX_TEXT_DEBUG, type, text); }
  void Tray(const wchar_t* text, VoxTrayParams parameters) override { Say(VOX_TEXT_TRAY, parameters, text); }
  void MainWndWork(UserWorkType work) override { Event(VOX_EVENT_MAIN_WINDOW, -1, {work}); }
  void HidConnect(int device) override { Event(VOX_EVENT_CONNECT, device, {}); }
  void HidDisconnect(int device) override { Event(VOX_EVENT_DISCONNECT, device, {}); }
  void OtaProgress(int done, int total) override { Event(VOX_EVENT_UPDATE_PROGRESS, -1, {done, total}); }
  void MainMenu(MainMenuType menu) override { Event(VOX_EVENT_MAIN_MENU, -1, {menu, 0}); }
  void PostMainMenu(MainMenuType menu) override { Event(VOX_EVENT_MAIN_MENU, -1, {menu, 1}); }
  void MKeyTypeSet(int device, int key, const unsigned char* types, int length) override {
    if (length < 1) return;
    {
      const CNotCutOff whole;
      const CAutoLock lock(listLock);
      const auto old = std::find_if(lists.begin(), lists.end() - 1,
                                    [&](const KeyList& list) { return list.device == device && list.key == key; });
      std::rotate(lists.begin(), old, old + 1);
      lists[0].device = device;
      lists[0].key = key;
      lists[0].count = std::min(length - 1, static_cast<int>(lists[0].functions.size()));
      std::copy_n(types + 1, lists[0].count, lists[0].functions.begin());
    }
    Event(VOX_EVENT_MKEYS, device, {key, types[0]});
  }

  void Say(std::int32_t kind, std::int32_t category, const wchar_t* wide) noexcept {
    const auto pair = onText.Get();
    std::shared_ptr<const Text> text;
    {
      const CNotCutOff whole;
      if (!HadMemory([&] { text = std::make_shared<Text>(Text{kind, category, Utf8(wide)}); })) {
        ++lostForMemory;
        return;
      }
      if (!pair.function) return texts.Put(&text, 1);
    }
    pair.function(kind, category, text->text.c_str(), pair.context);
  }
};

// One for whose texts there is no memory is left out.
void Told::Observed(const VoxObservation& seen) noexcept {
  const auto pair = onObservation.Get();
  if (!pair.function) return;
  std::string path;
  std::string text;
  {
    const CNotCutOff whole;
    const bool had = HadMemory([&] {
      if (seen.path) path = Utf8(seen.path);
      if (seen.text) text = Utf8(seen.text);
    });
    if (!had) return;
  }
  vox_observation observation{};
  observation.size = sizeof observation;
  observation.kind = seen.kind;
  observation.thread = seen.thread;
  observation.tick = seen.tick;
  observation.device = seen.device;
  observation.error = seen.error;
  observation.path = seen.path ? path.c_str() : nullptr;
  observation.link = seen.link;
  observation.vendor = seen.vendor;
  observation.product = seen.product;
  observation.input_length = seen.inputLength;
  observation.output_length = seen.outputLength;
  observation.report = seen.report;
  observation.report_length = seen.reportLength;
  observation.name = seen.name;
  observation.text = seen.text ? text.c_str() : nullptr;
  observation.values = seen.values;
  observation.value_count = seen.valueCount;
  pair.function(&observation, pair.context);
}

bool Told::NextLost(vox_event& event) noexcept {
  const auto lost = [&](std::int32_t what, std::size_t count, vox_handle handle) {
    if (count == 0) return false;
    event.kind = VOX_EVENT_LOST;
    event.device = -1;
    event.value[0] = what;
    event.value[1] = static_cast<std::int32_t>(std::min<std::size_t>(count, INT32_MAX));
    event.value[2] = handle;
    return true;
  };
  return lost(1, events.TakeLost(), 0) || lost(2, texts.TakeLost() + lostForMemory.exchange(0), 0) ||
         Objects::All().ForEach<Source>(
             [&](Source& source) { return lost(3, source.audio.TakeLost(), source.handle); });
}

}  // namespace

void Tell(std::int32_t kind, std::int32_t device, std::initializer_list<std::int32_t> values) noexcept {
  Told::It().Event(kind, device, values);
}

vox_result Listen() noexcept {
  return Guarded([]() -> vox_result {
    if (!Told::It().IsWhole()) return VOX_ERROR_SYSTEM;
    VoxMessage::SetSink(&Told::It());
    return VOX_OK;
  });
}

void Restart() noexcept {
  VoxObserver::SetCallback(nullptr, nullptr);
  VoxMessage::SetSink(nullptr);
  Lasting<Told>::Renew();
  Lasting<Objects>::Renew();
}

vox_result MKeyList(std::int32_t device, std::int32_t key, std::uint8_t* functions, std::int32_t capacity) noexcept {
  Told& told = Told::It();
  const CAutoLock lock(told.listLock);
  for (const KeyList& list : told.lists) {
    if (list.device != device || list.key != key) continue;
    if (functions) std::copy_n(list.functions.begin(), std::min(list.count, std::max(capacity, 0)), functions);
    return list.count;
  }
  return 0;
}

}  // namespace flat

using flat::Told;

constexpr DWORD kLookForLost = 500;  // ms

vox_result VOX_CALL vox_on_event(vox_event_fn function, void* context) {
  if (const vox_result result = flat::Listen(); result < 0) return result;
  Told::It().onEvent.Set(function, context);
  return VOX_OK;
}

vox_result VOX_CALL vox_on_text(vox_text_fn function, void* context) {
  if (const vox_result result = flat::Listen(); result < 0) return result;
  Told::It().onText.Set(function, context);
  return VOX_OK;
}

vox_result VOX_CALL vox_on_observation(vox_observation_fn function, void* context) {
  if (const vox_result result = flat::Listen(); result < 0) return result;
  Told::It().onObservation.Set(function, context);
  const VoxObserver::Callback observed = [](const VoxObservation& seen, void*) { Told::It().Observed(seen); };
  VoxObserver::SetCallback(function ? observed : nullptr, nullptr);
  return VOX_OK;
}

vox_result VOX_CALL vox_next_event(vox_event* event, uint32_t milliseconds) {
  if (!event || event->size < sizeof *event) return VOX_ERROR_ARGUMENT;
  if (const vox_result result = flat::Listen(); result < 0) return result;
  const std::uint32_t size = event->size;
  vox_event next{};
  vox_result result = 0;
  const CDeadline deadline(std::min(milliseconds, flat::kLongestWait));
  do {
    if (Told::It().NextLost(next)) {
      result = 1;
      break;
    }
    const DWORD left = milliseconds == INFINITE ? kLookForLost : deadline.Left(kLookForLost);
    result = Told::It().events.Get(left, [&](const vox_event* first, std::size_t) {
      next = *first;
      return std::pair(std::size_t{1}, vox_result{1});
    });
  } while (result == 0 && (milliseconds == INFINITE || !deadline.HasPassed()));
  if (result == 1) {
    *event = next;
    event->size = size;
  }
  return result;
}

vox_result VOX_CALL vox_next_text(int32_t* kind, int32_t* category, char* text, int32_t capacity,
                                  uint32_t milliseconds) {
  if (capacity < 0 || (!text && capacity > 0)) return VOX_ERROR_ARGUMENT;
  if (const vox_result result = flat::Listen(); result < 0) return result;
  return Told::It().texts.Get(milliseconds, [&](const auto* first, std::size_t) {
    const flat::Text& next = **first;
    if (kind) *kind = next.kind;
    if (category) *category = next.category;
    const vox_result needed = flat::Give(next.text, text, capacity);
    return std::pair(std::size_t{needed <= capacity ? 1U : 0U}, needed);
  });
}
