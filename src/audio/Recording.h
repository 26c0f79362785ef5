// What both recorders have in common: one recording, who ends it, and what stands behind the object of the client's.
#pragma once

#include <memory>

#include "VoxDevice/Shared.h"
#include "support/CLock.h"
#include "support/CallbackSlot.h"
#include "support/Deadline.h"
#include "support/Operation.h"
#include "support/Worker.h"

using RecordedData = CallbackSlot<void (*)(const char* data, int byteCount, void* context)>;

// From one StartRecord to its end. Its thread, the objects that share it and every operation on it hold a reference;
// the last one closes the device, if nobody has before.
class CRecording {
 public:
  // Milliseconds in which a driver must have given back what it was asked for.
  static constexpr DWORD kDriverPatience = 3000;
  enum Result : unsigned { kStopped = 0, kStopFailed = 7 };

  // callback: of the object that records, whatever is assigned to that later.
  explicit CRecording(std::shared_ptr<const RecordedData> callback) : callback_(std::move(callback)) {}
  virtual ~CRecording() = default;
  CRecording(const CRecording&) = delete;
  CRecording& operator=(const CRecording&) = delete;

  // Stops the source, waits until the thread has delivered what it still gives, closes, and marks the end with `mark`,
  // the caller's callback. On the recording's own thread nothing more is delivered. When another thread is just ending
  // it: waits for that, and says nothing.
  unsigned Stop(const RecordedData& mark);
  // Ends it without another word, whoever else is just stopping it. `force`: also a callback that does not come back.
  void End(CDeadline deadline, bool force) noexcept;
  // Closes on a thread of its own, and waits for that: a driver may keep whoever calls it.
  static void CloseElsewhere(std::shared_ptr<CRecording> recording, CDeadline deadline) noexcept;

  // Exactly one caller may end a recording: to whom this is true.
  bool Claim() noexcept;
  // Waits until it has been ended; not on the thread that does it, nor on the recording's own.
  bool AwaitOver() const noexcept;
  bool IsOver() const noexcept { return over_; }
  bool IsOf(const RecordedData& callback) const noexcept { return callback_.get() == &callback; }

  // Closes the device; 0, or what StopRecord says. Any thread, again and again.
  virtual unsigned Close() noexcept = 0;

  std::shared_ptr<CWorker> thread;

 protected:
  // Makes the source give what it has and no more; 0, or what StopRecord says.
  virtual unsigned StopSource() noexcept = 0;
  // Whether the driver still works on what the recording owns.
  virtual bool SourceKeeps() noexcept { return false; }
  // What only the thread can do that started the recording, which is often the one that ends it.
  virtual void LeaveThread() noexcept {}
  // On the recording's thread, without a lock.
  void Deliver(const char* data, std::size_t byteCount);

 private:
  class CPatience;
  bool AwaitLast(CPatience& patience) noexcept;
  void Silence(CPatience& patience) noexcept;

  const std::shared_ptr<const RecordedData> callback_;
  Atomic<bool> ended_{false};
  Atomic<DWORD> ender_{0};  // the thread that ends it
  Atomic<bool> over_{false};
  Atomic<bool> silent_{false};  // nothing is delivered any more
  Atomic<bool> delivering_{false};
};

// What stands behind the object of the client's. Operations hold it, so that the object may go meanwhile.
class CRecorder {
 public:
  CRecorder() = default;
  CRecorder(const CRecorder&) = delete;
  CRecorder& operator=(const CRecorder&) = delete;

  unsigned Stop();
  // For the object's destructor: ends the recording, if it is this object's, and waits for who is inside. Nothing is
  // recorded any more. In a callback of the recording it waits for nobody.
  void Close(CDeadline deadline) noexcept;
  // Shares the other's recording. One of this object's own ends.
  void ShareRecordingOf(CRecorder& other) noexcept;

  std::shared_ptr<CRecording> Current() noexcept;
  // From now on, this is the recording. False when the object has gone meanwhile.
  bool Publish(std::shared_ptr<CRecording> next) noexcept;
  bool IsClosed() noexcept;

  CLock lock;
  bool closed GUARDED_BY(lock) = false;
  std::shared_ptr<CRecording> recording GUARDED_BY(lock);

  Atomic<bool> starting{false};
  const std::shared_ptr<RecordedData> callback = std::make_shared<RecordedData>();

  CInside inside{lock};

 private:
  void Leave(std::shared_ptr<CRecording> left, CDeadline deadline, bool force) noexcept;
};
