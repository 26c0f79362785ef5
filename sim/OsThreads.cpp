// Threads, what they wait for, and their messages on the simulated machine.
#include <array>
#include <atomic>
#include <optional>
#include <string>

#include "platform/os.h"
#include "sim/Call.h"

namespace {

using sim::Call;

std::optional<sim::Time> limitOf(DWORD milliseconds) {
  if (milliseconds == INFINITE) return std::nullopt;
  return std::chrono::milliseconds(milliseconds);
}

void note(Call& call, const sim::Thread& thread, const std::string& what) REQUIRES(sim::gate) {
  if (call.machine.recording()) call.machine.noteLocked("thread " + std::to_string(thread.id) + " " + what);
}

std::shared_ptr<sim::MessageQueue>& ownQueue(Call& call) REQUIRES(sim::gate) {
  auto& queue = call.kernel.self().messages;
  if (!queue) queue = std::make_shared<sim::MessageQueue>();
  return queue;
}

}  // namespace

namespace os {

// ---- Threads ----

std::uintptr_t _beginthreadex(void*, unsigned, unsigned (*start)(void*), void* argument, unsigned flags,
                              unsigned* threadId) {
  Call call("_beginthreadex");
  if (call.fails(ERROR_NOT_ENOUGH_MEMORY)) return 0;
  if (!start) return call.misused("no function to run", ERROR_INVALID_PARAMETER, std::uintptr_t{0});
  const auto thread = call.kernel.createThread(
      [start, argument] {
        const sim::LibraryCode library;
        start(argument);
      },
      (flags & CREATE_SUSPENDED) != 0);
  if (threadId) *threadId = thread->id;
  note(call, *thread, "created");
  return reinterpret_cast<std::uintptr_t>(call.kernel.open(thread));
}

DWORD ResumeThread(HANDLE thread) {
  Call call("ResumeThread");
  auto* object = call.object<sim::Thread>(thread);
  if (!object) return ~DWORD{0};
  const bool suspended = object->state == sim::Thread::State::suspended;
  call.kernel.resume(*object);
  call.kernel.mayBeOvertaken();
  return suspended ? 1 : 0;
}

BOOL TerminateThread(HANDLE thread, DWORD) {
  Call call("TerminateThread");
  if (!call.object<sim::Thread>(thread)) return FALSE;
  auto object = call.kernel.find<sim::Thread>(thread);
  note(call, *object, "ended by force");
  call.kernel.countForcedEnd();
  call.kernel.terminateSoon(std::move(object));
  return TRUE;
}

BOOL CancelSynchronousIo(HANDLE thread) {
  Call call("CancelSynchronousIo");
  auto* object = call.object<sim::Thread>(thread);
  if (!object) return FALSE;
  if (!call.kernel.cancel(*object)) return call.failed(ERROR_NOT_FOUND, FALSE);
  call.kernel.mayBeOvertaken();
  return TRUE;
}

DWORD TlsAlloc() {
  static std::atomic<DWORD> indexes{0};
  return indexes++;
}

// Tells by an error of 0 that a null pointer is a value.
void* TlsGetValue(DWORD index) {
  sim::Thread& thread = sim::Machine::current().kernel().own();
  thread.lastError = 0;
  return thread.locals.at(index);
}

BOOL TlsSetValue(DWORD index, void* value) {
  sim::Machine::current().kernel().own().locals.at(index) = value;
  return TRUE;
}

DWORD GetCurrentThreadId() {
  sim::Kernel& kernel = sim::Machine::current().kernel();
  const sim::Inside inside;
  return kernel.self().id;
}

DWORD GetLastError() {
  sim::Kernel& kernel = sim::Machine::current().kernel();
  const sim::Inside inside;
  return kernel.self().lastError;
}

BOOL SetThreadPriority(HANDLE thread, int priority) {
  Call call("SetThreadPriority");
  auto* object = call.object<sim::Thread>(thread);
  if (!object) return FALSE;
  object->priority = priority;
  note(call, *object, "priority " + std::to_string(priority));
  return TRUE;
}

// ---- Events, timers, mutexes ----

HANDLE CreateEventW(SECURITY_ATTRIBUTES*, BOOL manualReset, BOOL initialState, const WCHAR*) {
  Call call("CreateEventW");
  if (call.fails(ERROR_NO_SYSTEM_RESOURCES)) return nullptr;
  return call.kernel.open(std::make_shared<sim::Event>(manualReset != FALSE, initialState != FALSE));
}

HANDLE CreateEventExW(SECURITY_ATTRIBUTES*, const WCHAR*, DWORD flags, DWORD access) {
  Call call("CreateEventExW");
  if (flags != 0 || access != (EVENT_MODIFY_STATE | SYNCHRONIZE)) {
    return call.misused("flags, or an access, that the machine does not know", ERROR_INVALID_PARAMETER, HANDLE{});
  }
  if (call.fails(ERROR_NO_SYSTEM_RESOURCES)) return nullptr;
  return call.kernel.open(std::make_shared<sim::Event>(false, false));
}

BOOL SetEvent(HANDLE event) {
  Call call("SetEvent");
  auto* object = call.object<sim::Event>(event);
  if (!object) return FALSE;
  object->set(call.kernel);
  call.kernel.mayBeOvertaken();
  return TRUE;
}

BOOL ResetEvent(HANDLE event) {
  Call call("ResetEvent");
  auto* object = call.object<sim::Event>(event);
  if (object) object->reset();
  return object ? TRUE : FALSE;
}

HANDLE CreateWaitableTimerW(SECURITY_ATTRIBUTES*, BOOL manualReset, const WCHAR*) {
  Call call("CreateWaitableTimerW");
  if (manualReset) return call.misused("the machine has no manual-reset timers", ERROR_INVALID_PARAMETER, HANDLE{});
  if (call.fails(ERROR_NO_SYSTEM_RESOURCES)) return nullptr;
  return call.kernel.open(std::make_shared<sim::WaitableTimer>());
}

BOOL SetWaitableTimer(HANDLE timer, const LARGE_INTEGER* due, LONG period, PTIMERAPCROUTINE routine, void*, BOOL) {
  Call call("SetWaitableTimer");
  auto* object = call.object<sim::WaitableTimer>(timer);
  if (!object) return FALSE;
  if (!due || period < 0) return call.misused("no due time, or a negative period", ERROR_INVALID_PARAMETER, FALSE);
  if (due->QuadPart > 0 || routine) {
    return call.misused("the machine knows relative times alone, and no routines", ERROR_INVALID_PARAMETER, FALSE);
  }
  if (call.fails(ERROR_NO_SYSTEM_RESOURCES)) return FALSE;
  object->set(call.kernel, sim::Time(-due->QuadPart / 10), std::chrono::milliseconds(period));
  return TRUE;
}

BOOL CancelWaitableTimer(HANDLE timer) {
  Call call("CancelWaitableTimer");
  auto* object = call.object<sim::WaitableTimer>(timer);
  if (object) object->cancel();
  return object ? TRUE : FALSE;
}

HANDLE CreateMutexW(SECURITY_ATTRIBUTES*, BOOL initialOwner, const WCHAR*) {
  Call call("CreateMutexW");
  if (call.fails(ERROR_NO_SYSTEM_RESOURCES)) return nullptr;
  const auto mutex = std::make_shared<sim::Mutex>();
  if (initialOwner) mutex->acquired(call.kernel.self());
  return call.kernel.open(mutex);
}

BOOL ReleaseMutex(HANDLE mutex) {
  Call call("ReleaseMutex");
  auto* object = call.object<sim::Mutex>(mutex);
  if (!object) return FALSE;
  if (!object->release(call.kernel, call.kernel.self())) {
    return call.misused("the thread does not own it", ERROR_NOT_OWNER, FALSE);
  }
  call.kernel.mayBeOvertaken();
  return TRUE;
}

// ---- Waiting ----

DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
  Call call("WaitForSingleObject");
  auto* object = call.object<sim::Object>(handle);
  if (!object) return WAIT_FAILED;
  const std::array<sim::Object*, 1> objects{object};
  if (call.kernel.waitAny(objects, limitOf(milliseconds)) < 0) return WAIT_TIMEOUT;
  if (auto* mutex = dynamic_cast<sim::Mutex*>(object); mutex && mutex->takeAbandoned()) return WAIT_ABANDONED;
  return WAIT_OBJECT_0;
}

DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds) {
  Call call("WaitForMultipleObjects");
  std::array<sim::Object*, MAXIMUM_WAIT_OBJECTS> objects;
  if (waitAll) return call.misused("the machine waits for any, not for all", ERROR_INVALID_PARAMETER, WAIT_FAILED);
  if (count == 0 || count > objects.size()) {
    return call.misused("none, or more than 64, to wait for", ERROR_INVALID_PARAMETER, WAIT_FAILED);
  }
  if (!call.kernel.use({handles, count}, objects)) {
    return call.misused("not an open handle", ERROR_INVALID_HANDLE, WAIT_FAILED);
  }
  const int index = call.kernel.waitAny({objects.data(), count}, limitOf(milliseconds));
  if (index < 0) return WAIT_TIMEOUT;
  auto* mutex = dynamic_cast<sim::Mutex*>(objects[static_cast<std::size_t>(index)]);
  return (mutex && mutex->takeAbandoned() ? WAIT_ABANDONED : WAIT_OBJECT_0) + static_cast<DWORD>(index);
}

void Sleep(DWORD milliseconds) {
  Call call("Sleep");
  call.kernel.waitAny({}, limitOf(milliseconds));
}

BOOL CloseHandle(HANDLE handle) {
  Call call("CloseHandle");
  return call.kernel.close(handle) ? TRUE : call.failed(ERROR_INVALID_HANDLE, FALSE);
}

// ---- Messages ----

BOOL PeekMessageW(MSG* message, HWND, UINT, UINT, UINT) {
  Call call("PeekMessageW");
  const auto& queue = ownQueue(call);
  if (queue->messages.empty()) return FALSE;
  *message = queue->messages.front();
  return TRUE;
}

BOOL GetMessageW(MSG* message, HWND, UINT, UINT) {
  Call call("GetMessageW");
  const auto& queue = ownQueue(call);
  const std::array<sim::Object*, 1> objects{queue.get()};
  call.kernel.waitAny(objects, std::nullopt);
  *message = queue->messages.front();
  queue->messages.pop_front();
  return message->message != WM_QUIT ? TRUE : FALSE;
}

// A thread without a queue gets none: that is no mistake, whoever posts cannot know.
BOOL PostThreadMessageW(DWORD thread, UINT message, WPARAM wParam, LPARAM lParam) {
  Call call("PostThreadMessageW");
  MSG posted{};
  posted.message = message;
  posted.wParam = wParam;
  posted.lParam = lParam;
  return call.kernel.post(thread, posted) ? TRUE : call.failed(ERROR_INVALID_THREAD_ID, FALSE);
}

}  // namespace os
