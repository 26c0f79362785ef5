// What stands behind the handles of the flat interface.
#pragma once

#include <algorithm>
#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "VoxDevice/voxdevice.h"
#include "platform/os.h"
#include "support/CLock.h"
#include "support/CallbackSlot.h"
#include "support/Deadline.h"

namespace flat {

// Of the tick counter, whose differences are signed: 24 days.
constexpr std::uint32_t kLongestWait = 0x7FFFFFFF;  // ms

// A function of the interface: no exception leaves it.
template <class Work>
vox_result Guarded(Work&& work) noexcept {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    return VOX_ERROR_MEMORY;
  } catch (const std::exception&) {
    return VOX_ERROR_SYSTEM;
  }
}

// Copies a text as every function that gives one does.
inline vox_result Give(std::string_view text, char* out, std::int32_t capacity) noexcept {
  const auto needed = static_cast<std::int32_t>(text.size() + 1);
  if (out && capacity >= needed) *std::copy(text.begin(), text.end(), out) = '\0';
  return needed;
}

// The text in a field of a structure. False when it does not fit.
template <std::size_t Size>
bool GiveWhole(std::string_view text, char (&field)[Size]) noexcept {
  return Give(text, field, Size) <= static_cast<std::int32_t>(Size);
}

// As much of the text as a field of a structure holds; no character is cut in two.
template <std::size_t Size>
void GiveStart(std::string_view text, char (&field)[Size]) noexcept {
  std::size_t size = std::min(text.size(), Size - 1);
  if (size < text.size()) {
    while (size > 0 && (static_cast<unsigned char>(text[size]) & 0xC0) == 0x80) --size;
  }
  Give(text.substr(0, size), field, Size);
}

// What was told and nobody has asked for yet. Bounded: the oldest give way to new ones, and are counted.
template <class T>
class Queue {
 public:
  // Takes its memory at once.
  explicit Queue(std::size_t most) : items_(most), filled_(os::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
  ~Queue() {
    if (filled_) os::CloseHandle(filled_);
  }
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;

  bool IsWhole() const noexcept { return filled_ != nullptr; }

  void Put(const T* items, std::size_t count) noexcept {
    const CNotCutOff whole;
    const CAutoLock lock(lock_);
    if (isClosed_ || hasEnded_) return;
    for (std::size_t i = 0; i < count; ++i) {
      if (count_ == items_.size()) {
        first_ = (first_ + 1) % items_.size();
        --count_;
        ++lost_;
      }
      items_[(first_ + count_++) % items_.size()] = items[i];
    }
    os::SetEvent(filled_);
  }
  // Nothing more comes, until Begin.
  void End() noexcept { Set(hasEnded_, true); }
  void Close() noexcept { Set(isClosed_, true); }
  void Begin() noexcept {
    const CAutoLock lock(lock_);
    hasEnded_ = false;
    count_ = 0;
    lost_ = 0;
    if (!isClosed_) os::ResetEvent(filled_);
  }

  // Lets `take` have the items that are there, as (first, count) in one piece; it says how many it has taken. Its
  // result, or 0 when nothing comes in time, VOX_ERROR_END, VOX_ERROR_HANDLE when it is closed.
  template <class Take>
  vox_result Get(std::uint32_t milliseconds, Take&& take) noexcept {
    const CDeadline deadline(std::min(milliseconds, kLongestWait));
    for (;;) {
      {
        const CNotCutOff whole;
        const CAutoLock lock(lock_);
        if (isClosed_) return VOX_ERROR_HANDLE;
        if (count_ > 0) {
          const auto [taken, result] = take(&items_[first_], std::min(count_, items_.size() - first_));
          first_ = (first_ + taken) % items_.size();
          count_ -= taken;
          if (count_ == 0 && !hasEnded_) os::ResetEvent(filled_);
          return result;
        }
        if (hasEnded_) return VOX_ERROR_END;
        os::ResetEvent(filled_);  // it was set for what is no longer there
      }
      const DWORD left = milliseconds == INFINITE ? INFINITE : deadline.Left();
      if (left == 0) return 0;
      if (os::WaitForSingleObject(filled_, left) == WAIT_FAILED) return VOX_ERROR_SYSTEM;
    }
  }
  // How many have given way since this was asked last.
  std::size_t TakeLost() noexcept {
    const CAutoLock lock(lock_);
    return std::exchange(lost_, 0);
  }

 private:
  void Set(bool& what, bool value) noexcept {
    const CNotCutOff whole;
    const CAutoLock lock(lock_);
    what = value;
    os::SetEvent(filled_);
  }

  CLock lock_;
  std::vector<T> items_;
  const HANDLE filled_;  // manual-reset: somebody who asks need not wait
  std::size_t first_ = 0;
  std::size_t count_ = 0;
  std::size_t lost_ = 0;
  bool hasEnded_ = false;
  bool isClosed_ = false;
};

// One of the process, for good: a thread of the library's or a client's may still ask for it while the process ends.
template <class T>
class Lasting {
 public:
  static T& It() {
    T* it = it_;
    if (it) return *it;
    auto made = std::make_unique<T>();
    return it_.compare_exchange_strong(it, made.get()) ? *made.release() : *it;
  }
  static void Renew() noexcept { delete it_.exchange(nullptr); }

 private:
  inline static Atomic<T*> it_{nullptr};
};

class Object {
 public:
  Object() = default;
  virtual ~Object() = default;
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  // Ends what it does. Nothing of it calls the client any more, and who waits in it returns.
  virtual void End() noexcept {}

  vox_handle handle = 0;
};

// The objects by their handles.
class Objects {
 public:
  static Objects& All() { return Lasting<Objects>::It(); }

  // Makes an object, and gives its handle.
  template <class T, class... Arguments>
  vox_result Add(Arguments&&... arguments) {
    auto object = std::make_shared<T>(std::forward<Arguments>(arguments)...);
    return Enter(std::move(object));
  }
  template <class T>
  std::shared_ptr<T> Find(vox_handle handle) noexcept {
    return std::dynamic_pointer_cast<T>(FindAny(handle));
  }
  std::shared_ptr<Object> Take(vox_handle handle) noexcept;
  // Until `visit` says that it is enough: whether it has.
  template <class T, class Visit>
  bool ForEach(Visit&& visit) noexcept {
    const CAutoLock lock(lock_);
    for (const auto& [handle, object] : objects_) {
      if (T* const it = dynamic_cast<T*>(object.get()); it && visit(*it)) return true;
    }
    return false;
  }

 private:
  vox_result Enter(std::shared_ptr<Object> object);
  std::shared_ptr<Object> FindAny(vox_handle handle) noexcept;

  CLock lock_;
  std::map<vox_handle, std::shared_ptr<Object>> objects_ GUARDED_BY(lock_);
  vox_handle last_ GUARDED_BY(lock_) = 0;
};

// Calls `work` with the object, if it is there.
template <class T, class Work>
vox_result With(vox_handle handle, Work&& work) noexcept {
  return Guarded([&]() -> vox_result {
    const std::shared_ptr<T> object = Objects::All().Find<T>(handle);
    if (!object) return VOX_ERROR_HANDLE;
    const vox_result result = work(*object);
    // What has failed because the object went meanwhile.
    return result < 0 && !Objects::All().Find<T>(handle) ? VOX_ERROR_HANDLE : result;
  });
}

// What a callback of the library's is given, so that it finds the object, or that it has gone.
inline void* ContextOf(vox_handle handle) noexcept {
  return reinterpret_cast<void*>(static_cast<std::intptr_t>(handle));
}
inline vox_handle HandleIn(void* context) noexcept {
  return static_cast<vox_handle>(reinterpret_cast<std::intptr_t>(context));
}

// An object that records.
class Source : public Object {
 public:
  Source();
  // Who reads returns, and nobody is told anything any more.
  void End() noexcept override;
  // VOX_ERROR_BUSY while another thread is inside one of them.
  vox_result Start();
  vox_result Stop();

  // Audio for the source with the handle in `context`: to its callback, or to who reads.
  static void Deliver(const void* data, int byteCount, void* context) noexcept;

  CallbackSlot<vox_audio_fn> callback;
  Queue<std::int16_t> audio;

 protected:
  virtual vox_result StartRecording() = 0;
  virtual vox_result StopRecording() = 0;

 private:
  // Deliveries of one source come one after the other: the rest of a recording comes on the thread that stops it. But
  // no longer than a callback may take, which may have been ended by force; and not after one on the thread's own
  // stack. False in the last case.
  bool TakeTurn() noexcept;
  void GiveTurn() noexcept;

  Atomic<bool> busy_{false};
  Atomic<bool> records_{false};
  Atomic<DWORD> turn_{0};  // the thread that delivers, 0 none
};

// Tells the process of an event: its callback, or who asks.
void Tell(std::int32_t kind, std::int32_t device, std::initializer_list<std::int32_t> values) noexcept;
// Receives the library's messages from now on. VOX_ERROR_SYSTEM where there is nothing left to wait with.
vox_result Listen() noexcept;
// For tests: nothing of the process's is left open on a machine that goes. All objects have been destroyed.
void Restart() noexcept;
// The list of a device's M key, as it came last.
vox_result MKeyList(std::int32_t device, std::int32_t key, std::uint8_t* functions, std::int32_t capacity) noexcept;

}  // namespace flat
