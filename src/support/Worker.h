// A thread of the library: asked to end by whoever wants it to, and ended by itself.
#pragma once

#include <functional>
#include <memory>

#include "platform/os.h"
#include "support/Deadline.h"

// A thread that is ended by force may hold a lock of the system or of the C++ runtime (the loader's, the heap's), keeps
// its stack, and runs none of its destructors. So a worker is *asked*:
//
// - It waits for its stop event beside whatever else it waits for (Sleep, Wait). A read or write in which it is blocked
//   (Blocking) is cancelled; a wait for messages gets WM_QUIT. It then ends within milliseconds.
// - Its body owns, by shared pointers, all that it works on, and lets go of it as its last act. So nobody waits for
//   a thread that is stuck in a driver that does not let go: it frees everything when it comes back.
// - Force (CUtil::VoxTerminateThread) is what remains for a thread that is still inside the client's code when the
//   patience is over: never before it has begun, inside the system, or while it is not to be cut off.
// - Who ends threads on a thread of the library, inside the client's code, waits a moment only and uses no force: two
//   that end each other would else wait until both are ended by force.
//
// A worker starts once. Any thread may call anything.
class CWorker {
 public:
  // Milliseconds that a thread is given to end.
  static constexpr DWORD kPatience = 2000;
  // The same on a thread of the library: all end in it that neither a driver nor a client keeps.
  static constexpr DWORD kMoment = 100;
  // From now on, for all that the calling thread ends together.
  static CDeadline Patience() noexcept;

  using Body = std::function<unsigned()>;

  // stop: an event that asks the thread to end, and outlives its body; null: one of its own.
  explicit CWorker(HANDLE stop = nullptr);
  // Lets go of the thread; it ends by itself if it was asked to.
  ~CWorker() = default;
  CWorker(const CWorker&) = delete;
  CWorker& operator=(const CWorker&) = delete;

  // ---- For its owner ----
  // Runs `body` on a new thread. False when it cannot be started, or has been asked to end already.
  bool Start(Body body) noexcept;
  // What others see as the thread handle: true from Start until the thread clears it or has ended.
  bool IsSet() const noexcept;
  // No thread is left: none was started, or it has executed its last instruction. Waits so long for that.
  bool HasEnded(DWORD milliseconds = 0) const noexcept;
  bool IsCurrent() const noexcept;
  DWORD Id() const noexcept;
  bool SetPriority(int priority) const noexcept;
  // Asks the thread to end, and does not wait.
  void Ask() noexcept;
  // The same, and the client is told nothing more on it: what it is just being told is the last.
  void Release() noexcept;
  // Cancels the read or write in which the thread is blocked, if it is; asks for nothing.
  void CancelCall() noexcept;
  // Asks, and waits until the thread is gone. False when it is not: it is the calling thread, or it is stuck inside the
  // system and will end when it comes back, or no force may be used.
  bool End(CDeadline deadline) noexcept;
  // The same without force.
  bool AwaitEnd(CDeadline deadline) noexcept { return AskUntilEnded(nullptr, deadline); }
  // The same without force, for another worker, which gives up when it is asked to end itself.
  bool EndUnless(const CWorker& asked, CDeadline deadline) noexcept;

  // ---- For the thread ----
  // Of the worker on which this is called; null and false on any other thread.
  static HANDLE CurrentStopEvent() noexcept;
  static bool CurrentIsAsked() noexcept;
  bool IsAsked() const noexcept;
  bool IsReleased() const noexcept;
  HANDLE StopEvent() const noexcept;
  // False, at once, when the thread is asked to end.
  bool Sleep(DWORD milliseconds) const noexcept;
  // Waits for `other`, a handle. WAIT_OBJECT_0: it is signalled. WAIT_TIMEOUT. WAIT_FAILED: the thread is asked to end.
  DWORD Wait(HANDLE other, DWORD milliseconds) const noexcept;
  // Runs `call`, a read, a write or a wait for messages of the system's that may block for ever.
  template <class Call>
  static void Blocking(Call&& call) noexcept {
    EnterSystem();
    if (!CurrentIsAsked()) call();
    LeaveSystem();
  }
  // Clears the handle that others see. The thread may still run for a while.
  void Clear() noexcept;

 private:
  friend class CClientCode;
  friend class CHeldLock;
  struct Record;

  static unsigned Run(void* record);
  // Asks again and again until the thread has ended. False when it has not, or `asked` is.
  bool AskUntilEnded(const CWorker* asked, CDeadline deadline) noexcept;
  static void EnterSystem() noexcept;
  static void LeaveSystem() noexcept;

  const std::shared_ptr<Record> record_;
};

// Around every call of the client's code: marks the worker on which it runs, if it runs on one. False when that has
// been released: the call is left out.
class CClientCode {
 public:
  CClientCode() noexcept;
  ~CClientCode();
  explicit operator bool() const noexcept { return mayCall_; }
  CClientCode(const CClientCode&) = delete;
  CClientCode& operator=(const CClientCode&) = delete;

 private:
  CWorker::Record* record_;
  bool mayCall_;
};

// Around the time in which a thread holds a lock: while it does, it is not ended by force.
class CHeldLock {
 public:
  static void Begin() noexcept;
  static void End() noexcept;
};

// The same for a scope, for whatever must be carried through: what it refers to does not get lost.
class CNotCutOff {
 public:
  CNotCutOff() noexcept { CHeldLock::Begin(); }
  ~CNotCutOff() { CHeldLock::End(); }
  CNotCutOff(const CNotCutOff&) = delete;
  CNotCutOff& operator=(const CNotCutOff&) = delete;
};
