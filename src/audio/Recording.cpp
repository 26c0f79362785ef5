#include "audio/Recording.h"

#include <utility>

#include "support/Memory.h"
#include "support/Probe.h"

namespace {

constexpr DWORD kLook = 10;     // ms between two looks at what other threads do
constexpr DWORD kMoment = 100;  // ms for a thread that has nothing left to do

}  // namespace

// Of somebody who stops a recording. The time that the client takes does not count, unless it is a callback that stops:
// that of another recording may be waiting for this one's.
class CRecording::CPatience {
 public:
  bool IsOver(bool clientIsCalled) noexcept {
    if (clientIsCalled && !onWorker_) deadline_ = CDeadline(kDriverPatience);
    return deadline_.HasPassed() || CWorker::CurrentIsAsked();
  }

 private:
  const bool onWorker_ = CWorker::CurrentStopEvent() != nullptr;
  CDeadline deadline_{kDriverPatience};
};

bool CRecording::Claim() noexcept {
  if (ended_.exchange(true)) return false;
  ender_ = os::GetCurrentThreadId();
  return true;
}

bool CRecording::AwaitOver() const noexcept {
  const bool mine = ender_ == os::GetCurrentThreadId() || thread->IsCurrent();
  for (const CDeadline deadline(kDriverPatience); !over_ && !mine; os::Sleep(1)) {
    if (deadline.HasPassed()) return false;
  }
  return true;
}

unsigned CRecording::Stop(const RecordedData& mark) {
  if (!Claim()) {
    Probe<"recording: two stops meet">();
    return AwaitOver() ? kStopped : kStopFailed;
  }
  const bool own = thread->IsCurrent();
  unsigned result = StopSource();
  CPatience patience;
  if (result == kStopped && !own && !AwaitLast(patience)) result = kStopFailed;
  Silence(patience);
  thread->Ask();
  if (!own) thread->AwaitEnd(CDeadline(kMoment));
  if (result == kStopped) result = Close();
  mark(static_cast<const char*>(nullptr), 0);
  over_ = true;
  return result;
}

// Waits until the thread has ended by itself and the driver keeps nothing, or somebody ends it without another word.
bool CRecording::AwaitLast(CPatience& patience) noexcept {
  for (bool ended = false; !(ended = thread->HasEnded(ended ? 0 : kLook)) || SourceKeeps();) {
    if (silent_) {
      Probe<"recording: a stop meets the end of the object">();
      return true;
    }
    if (patience.IsOver(delivering_ && !ended)) return false;
    if (ended) os::Sleep(kLook);
  }
  return true;
}

// Nothing is delivered any more when this returns, but what is being delivered by this very thread.
void CRecording::Silence(CPatience& patience) noexcept {
  silent_ = true;
  if (thread->IsCurrent()) return;
  while (delivering_ && !thread->HasEnded() && !patience.IsOver(true)) os::Sleep(1);
}

void CRecording::Deliver(const char* data, std::size_t byteCount) {
  delivering_ = true;
  if (silent_) Probe<"recording: a delivery after the end is dropped">();
  if (!silent_) (*callback_)(byteCount > 0 ? data : nullptr, static_cast<int>(byteCount));
  delivering_ = false;
}

void CRecording::End(CDeadline deadline, bool force) noexcept {
  Claim();
  silent_ = true;
  LeaveThread();
  if (force || thread->IsCurrent()) {
    thread->End(deadline);
  } else {
    thread->AwaitEnd(deadline);
  }
  over_ = true;
}

void CRecording::CloseElsewhere(std::shared_ptr<CRecording> recording, CDeadline deadline) noexcept {
  bool started = false;
  HadMemory([&] {
    CWorker closer;
    started = closer.Start([recording] {
      recording->Close();
      return 0U;
    });
    if (!started) return;
    recording.reset();
    closer.HasEnded(deadline.Left());
  });
  if (!started) recording->Close();
}

std::shared_ptr<CRecording> CRecorder::Current() noexcept {
  const CAutoLock guard(lock);
  return recording;
}

bool CRecorder::Publish(std::shared_ptr<CRecording> next) noexcept {
  const CAutoLock guard(lock);
  if (!closed) recording.swap(next);
  if (closed) Probe<"microphone: a start meets the end of the object">();
  return !closed;
}

bool CRecorder::IsClosed() noexcept {
  const CAutoLock guard(lock);
  return closed;
}

unsigned CRecorder::Stop() {
  auto stopping = Current();
  if (!stopping) return CRecording::kStopped;
  const unsigned result = stopping->Stop(*callback);
  if (result != CRecording::kStopped) return result;  // it may be open still: it is kept, and closed later
  const CAutoLock guard(lock);
  if (recording == stopping && stopping->IsOver()) recording.reset();
  return result;
}

void CRecorder::Leave(std::shared_ptr<CRecording> left, CDeadline deadline, bool force) noexcept {
  if (!left) return;
  const bool mine = left->IsOf(*callback);
  if (mine) left->End(deadline, force);
  // Another object's goes on.
  if (mine || left->IsOver()) CRecording::CloseElsewhere(std::move(left), deadline);
}

void CRecorder::Close(CDeadline deadline) noexcept {
  std::shared_ptr<CRecording> left;
  {
    const CAutoLock guard(lock);
    closed = true;
    left.swap(recording);
  }
  const bool own = left && left->thread->IsCurrent();
  Leave(std::move(left), deadline, true);
  if (!own) inside.AwaitOthers(deadline);
}

void CRecorder::ShareRecordingOf(CRecorder& other) noexcept {
  auto left = other.Current();
  {
    const CAutoLock guard(lock);
    if (closed || left == recording) return;
    left.swap(recording);
  }
  Leave(std::move(left), CWorker::Patience(), false);
}
