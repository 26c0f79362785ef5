#include "support/Worker.h"

#include <new>
#include <utility>

#include "VoxDevice/Shared.h"
#include "support/CUtil.h"
#include "support/Probe.h"

namespace {

// A thread may be on its way into a blocking call when that is cancelled: it is cancelled again after so many ms.
constexpr DWORD kAskAgain = 10;

DWORD Slot() {
  static const DWORD slot = os::TlsAlloc();
  return slot;
}

// Where a thread is, in the low bits of its record's word; above them, how many locks it holds.
enum Place : unsigned {
  kNotBegun = 0,
  kInLibrary,
  kInSystem,    // in a call that may block for ever
  kCancelling,  // the same, and just being cancelled
  kInClient,
  kCondemned,  // about to be ended by force: it must not go on
};
constexpr unsigned kPlaceMask = 7;
constexpr unsigned kOneLock = 8;

}  // namespace

void CUtil::VoxTerminateThread(HANDLE thread, DWORD exitCode) noexcept {
  constexpr DWORD kTermination = 20;  // ms
  os::TerminateThread(thread, exitCode);
  os::WaitForSingleObject(thread, kTermination);
}

struct CWorker::Record {
  explicit Record(HANDLE given)
      : ownStop(given ? nullptr : os::CreateEventW(nullptr, TRUE, FALSE, nullptr)), stop(given ? given : ownStop) {}
  ~Record() {
    if (ownStop) os::CloseHandle(ownStop);
    if (HANDLE last = thread) os::CloseHandle(last);
  }
  Record(const Record&) = delete;
  Record& operator=(const Record&) = delete;

  static Record* Current() noexcept { return static_cast<Record*>(os::TlsGetValue(Slot())); }

  // Changes the word by `change`, unless the thread is condemned: then it stops here, for whoever ends it.
  template <class Change>
  void Update(Change change) noexcept {
    unsigned was = word;
    for (;;) {
      if ((was & kPlaceMask) == kCondemned) {
        for (;;) os::Sleep(INFINITE);
      }
      if ((was & kPlaceMask) == kCancelling) {
        Probe<"worker: a thread waits for who cancels its call">();
        os::Sleep(0);
        was = word;
      } else if (word.compare_exchange_weak(was, change(was))) {
        return;
      }
    }
  }
  void Go(unsigned place) noexcept {
    Update([place](unsigned was) { return (was & ~kPlaceMask) | place; });
  }
  bool CompareAndGo(unsigned from, unsigned to) noexcept { return word.compare_exchange_strong(from, to); }

  // Cancels the call in which the thread is blocked, and none that the client's code makes on it.
  void Cancel() noexcept {
    const CNotCutOff whole;  // the thread does not go on before this is done
    unsigned was = word;
    if ((was & kPlaceMask) != kInSystem || !word.compare_exchange_strong(was, (was & ~kPlaceMask) | kCancelling)) {
      return;
    }
    Probe<"worker: a call is cancelled">();
    os::CancelSynchronousIo(thread);
    os::PostThreadMessageW(id, WM_QUIT, 0, 0);
    word = (was & ~kPlaceMask) | kInSystem;  // the thread itself changes nothing meanwhile
  }

  const HANDLE ownStop;
  const HANDLE stop;  // manual-reset
  Atomic<bool> asked{false};
  Atomic<bool> released{false};
  Atomic<bool> set{false};
  Atomic<bool> started{false};
  Atomic<bool> left{false};  // has not ended within somebody's patience
  Atomic<unsigned> word{kNotBegun};
  Atomic<HANDLE> thread{nullptr};
  Atomic<DWORD> id{0};
  Body body;
  std::shared_ptr<Record> running;  // itself, as long as the thread runs
};

CWorker::CWorker(HANDLE stop) : record_(std::make_shared<Record>(stop)) {}

bool CWorker::Start(Body body) noexcept {
  Record& record = *record_;
  if (record.asked) return true;
  if (!record.stop || record.started.exchange(true)) return false;
  record.body = std::move(body);
  record.running = record_;
  unsigned id = 0;
  const auto thread =
      reinterpret_cast<HANDLE>(os::_beginthreadex(nullptr, 0, &CWorker::Run, &record, CREATE_SUSPENDED, &id));
  if (!thread) {
    record.running.reset();
    record.body = nullptr;
    return false;
  }
  record.id = id;
  record.set = true;
  record.thread = thread;
  os::ResumeThread(thread);
  return true;
}

unsigned CWorker::Run(void* argument) {
  auto* record = static_cast<Record*>(argument);
  os::TlsSetValue(Slot(), record);
  record->Go(kInLibrary);
  const bool late = record->asked;
  if (late) Probe<"worker: asked to end before it began">();
  const unsigned result = late ? 0 : record->body();
  record->body = nullptr;  // lets go of what it worked on
  record->set = false;
  os::TlsSetValue(Slot(), nullptr);
  const std::shared_ptr<Record> last = std::move(record->running);
  return result;
}

bool CWorker::IsSet() const noexcept { return record_->set; }

bool CWorker::HasEnded(DWORD milliseconds) const noexcept {
  const HANDLE thread = record_->thread;
  return !thread || os::WaitForSingleObject(thread, milliseconds) == WAIT_OBJECT_0;
}

DWORD CWorker::Id() const noexcept { return record_->id; }

bool CWorker::IsCurrent() const noexcept { return Record::Current() == record_.get(); }

bool CWorker::SetPriority(int priority) const noexcept {
  const HANDLE thread = record_->thread;
  return thread && os::SetThreadPriority(thread, priority) != FALSE;
}

void CWorker::Ask() noexcept {
  record_->asked = true;
  if (record_->stop) os::SetEvent(record_->stop);
  record_->Cancel();
}

void CWorker::CancelCall() noexcept { record_->Cancel(); }

void CWorker::Release() noexcept {
  record_->released = true;
  Ask();
}

CDeadline CWorker::Patience() noexcept { return CDeadline(Record::Current() ? kMoment : kPatience); }

bool CWorker::AskUntilEnded(const CWorker* asked, CDeadline deadline) noexcept {
  Ask();
  const HANDLE thread = record_->thread;
  if (!thread) return true;
  for (;;) {
    const DWORD time = deadline.Left(kAskAgain);
    const DWORD result = asked ? asked->Wait(thread, time) : os::WaitForSingleObject(thread, time);
    if (result == WAIT_OBJECT_0) return true;
    if (deadline.HasPassed() || (asked && asked->IsAsked())) return false;
    record_->Cancel();
  }
}

bool CWorker::EndUnless(const CWorker& asked, CDeadline deadline) noexcept { return AskUntilEnded(&asked, deadline); }

bool CWorker::End(CDeadline deadline) noexcept {
  if (IsCurrent()) {
    Ask();
    Clear();
    return false;
  }
  // One that was left once is not waited for again.
  if (AskUntilEnded(nullptr, record_->left ? CDeadline(0) : deadline)) return true;
  Clear();
  if (Record::Current()) return false;
  record_->left = true;
  // Only inside the client's code, and without a lock.
  if (!record_->CompareAndGo(kInClient, kCondemned)) return false;
  CUtil::VoxTerminateThread(record_->thread, 0);
  record_->body = nullptr;
  record_->running.reset();
  return true;
}

bool CWorker::IsAsked() const noexcept { return record_->asked; }

bool CWorker::IsReleased() const noexcept { return record_->released; }

HANDLE CWorker::CurrentStopEvent() noexcept {
  const Record* record = Record::Current();
  return record ? record->stop : nullptr;
}

bool CWorker::CurrentIsAsked() noexcept {
  const Record* record = Record::Current();
  return record && record->asked;
}

HANDLE CWorker::StopEvent() const noexcept { return record_->stop; }

bool CWorker::Sleep(DWORD milliseconds) const noexcept {
  os::WaitForSingleObject(record_->stop, milliseconds);
  return !record_->asked;
}

DWORD CWorker::Wait(HANDLE other, DWORD milliseconds) const noexcept {
  const HANDLE handles[] = {record_->stop, other};
  const DWORD result = os::WaitForMultipleObjects(2, handles, FALSE, milliseconds);
  if (record_->asked || result == WAIT_OBJECT_0) return WAIT_FAILED;
  return result == WAIT_OBJECT_0 + 1 ? WAIT_OBJECT_0 : result;
}

void CWorker::EnterSystem() noexcept {
  if (Record* record = Record::Current()) record->Go(kInSystem);
}

void CWorker::LeaveSystem() noexcept {
  if (Record* record = Record::Current()) record->Go(kInLibrary);
}

void CWorker::Clear() noexcept { record_->set = false; }

CClientCode::CClientCode() noexcept : record_(CWorker::Record::Current()) {
  AtClientCode(1);
  // Client code inside client code (a callback that has called the library) stays what it is.
  mayCall_ = !record_ || (record_->word & kPlaceMask) != kInLibrary || !record_->released;
  if (record_ && !record_->CompareAndGo(kInLibrary, kInClient)) record_ = nullptr;
}

CClientCode::~CClientCode() {
  AtClientCode(-1);
  if (record_) record_->Go(kInLibrary);
}

void CHeldLock::Begin() noexcept {
  if (auto* record = CWorker::Record::Current()) record->Update([](unsigned was) { return was + kOneLock; });
}

void CHeldLock::End() noexcept {
  if (auto* record = CWorker::Record::Current()) record->Update([](unsigned was) { return was - kOneLock; });
}
