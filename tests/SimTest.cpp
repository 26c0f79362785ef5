// The simulated machine itself: its clock, its schedules, its forced ends and its books.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <vector>

#include "audio/CoreAudio.h"
#include "platform/os.h"
#include "sim/Text.h"
#include "sim/Wav.h"
#include "tests/Desk.h"
#include "tests/Folder.h"

namespace {

HANDLE startThread(unsigned (*entry)(void*), void* argument) {
  unsigned id = 0;
  return reinterpret_cast<HANDLE>(os::_beginthreadex(nullptr, 0, entry, argument, 0, &id));
}

std::string logOfAMinute(std::uint64_t seed) {
  Desk desk({.seed = seed});
  desk.machine.record(true);
  desk.open();
  auto wren = desk.make("Wren");
  auto tern = desk.make("Tern", sim::Link::bluetooth);
  desk.machine.plug(wren);
  desk.machine.plug(tern);
  desk.run(10s);
  desk.hub->ChooseWorkHidDevice(1);
  desk.hub->OpenHidRecord();
  desk.run(2s);
  desk.hub->CloseHidRecord();
  desk.machine.unplug(wren);
  desk.run(10s);
  desk.machine.plug(wren);
  desk.run(36s);
  desk.close();
  return desk.machine.log();
}

TEST(Machine, SameSeedGivesTheSameLogByteForByte) {
  for (const std::uint64_t seed : {0U, 7U, 8U}) {
    const std::string log = logOfAMinute(seed);
    EXPECT_GT(log.size(), 20'000U);
    EXPECT_EQ(log, logOfAMinute(seed)) << seed;
  }
  EXPECT_NE(logOfAMinute(7), logOfAMinute(8));
}

TEST(Machine, EventsAndMutexesKeepTheirRules) {
  sim::Machine machine;
  const HANDLE automatic = os::CreateEventW(nullptr, FALSE, TRUE, nullptr);
  EXPECT_EQ(os::WaitForSingleObject(automatic, 0), WAIT_OBJECT_0);
  EXPECT_EQ(os::WaitForSingleObject(automatic, 250), WAIT_TIMEOUT);
  EXPECT_EQ(machine.now(), 250ms);
  const HANDLE manual = os::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  os::SetEvent(manual);
  EXPECT_EQ(os::WaitForSingleObject(manual, 0), WAIT_OBJECT_0);
  EXPECT_EQ(os::WaitForSingleObject(manual, 0), WAIT_OBJECT_0);

  // A mutex goes to its owner again and again, and to the next taker when its owner is ended.
  static HANDLE mutex;
  mutex = os::CreateMutexW(nullptr, FALSE, nullptr);
  const HANDLE holder = startThread(
      [](void*) -> unsigned {
        os::WaitForSingleObject(mutex, INFINITE);
        os::WaitForSingleObject(mutex, INFINITE);
        os::Sleep(INFINITE);
        return 0;
      },
      nullptr);
  machine.sleep(1ms);
  EXPECT_EQ(os::WaitForSingleObject(mutex, 100), WAIT_TIMEOUT);
  EXPECT_EQ(os::ReleaseMutex(mutex), FALSE) << "not ours";
  EXPECT_EQ(os::TerminateThread(holder, 0), TRUE);
  EXPECT_EQ(os::WaitForSingleObject(mutex, 0), WAIT_TIMEOUT) << "it is not ended at once";
  EXPECT_EQ(os::WaitForSingleObject(holder, 1), WAIT_OBJECT_0);
  EXPECT_EQ(os::WaitForSingleObject(mutex, 0), WAIT_ABANDONED);
  EXPECT_EQ(os::ReleaseMutex(mutex), TRUE);
  EXPECT_EQ(os::WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
  for (HANDLE handle : {automatic, manual, mutex, holder}) EXPECT_EQ(os::CloseHandle(handle), TRUE);
  EXPECT_EQ(os::CloseHandle(manual), FALSE) << "closed before";
  EXPECT_EQ(machine.misuses(),
            (std::vector<std::string>{"ReleaseMutex: the thread does not own it", "CloseHandle: not an open handle"}));
  EXPECT_EQ(machine.balance(), sim::Balance{});
}

TEST(Machine, ThreadsBeginWhenResumedAndEndWhereTheyWait) {
  sim::Machine machine({.seed = 3});
  static int steps;
  steps = 0;
  const auto work = [](void*) -> unsigned {
    for (;; ++steps) os::Sleep(10);
  };
  unsigned id = 0;
  const auto thread = reinterpret_cast<HANDLE>(os::_beginthreadex(nullptr, 0, work, nullptr, CREATE_SUSPENDED, &id));
  machine.sleep(100ms);
  EXPECT_EQ(steps, 0);
  EXPECT_EQ(os::ResumeThread(thread), 1U);
  machine.sleep(105ms);
  EXPECT_EQ(steps, 10);
  EXPECT_EQ(machine.balance().threads, 1U);
  os::TerminateThread(thread, 0);
  machine.sleep(100ms);
  EXPECT_EQ(steps, 10);
  EXPECT_EQ(machine.balance(), (sim::Balance{.handles = 1}));
  os::CloseHandle(thread);
}

TEST(Machine, TicksStartAnywhereAndWrap) {
  sim::Machine machine({.firstTick = 0xFFFFFFF0U});
  EXPECT_EQ(os::GetTickCount(), 0xFFFFFFF0U);
  os::Sleep(20);
  EXPECT_EQ(os::GetTickCount(), 4U);
}

TEST(Machine, ReadersOfOneInterfaceEachGetEveryReportAndTheEndOfIt) {
  sim::Machine machine;
  auto wren = sim::makeMouse("Wren", sim::Link::usb, "7&1&0&0000");
  machine.plug(wren);
  const auto open = [&] {
    return os::CreateFileW(wren->path().c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                           nullptr, OPEN_EXISTING, 0, nullptr);
  };
  const HANDLE a = open();
  const HANDLE b = open();
  std::array<std::uint8_t, 64> buffer{};
  DWORD count = 0;
  for (int i = 0; i < 40; ++i) wren->key(static_cast<char>('0' + i));
  for (HANDLE file : {a, b}) {
    ASSERT_TRUE(os::ReadFile(file, buffer.data(), 64, &count, nullptr));
    EXPECT_EQ(buffer[7], '0' + 8) << "the class driver keeps the last 32";
  }
  EXPECT_FALSE(os::ReadFile(a, buffer.data(), 63, &count, nullptr)) << "a read must have room for a whole report";
  EXPECT_FALSE(os::WriteFile(a, buffer.data(), 63, &count, nullptr)) << "a write must be a whole report";
  machine.unplug(wren);
  EXPECT_FALSE(os::ReadFile(b, buffer.data(), 64, &count, nullptr));
  os::CloseHandle(a);
  os::CloseHandle(b);
  EXPECT_EQ(machine.balance(), sim::Balance{});
}

TEST(Machine, HandlesOfAnInterfaceAgreeOnWhatTheyShare) {
  constexpr DWORD kAll = FILE_SHARE_READ | FILE_SHARE_WRITE;
  const struct {
    DWORD access, share, otherAccess, otherShare;
    bool opens;
  } cases[] = {{GENERIC_READ, kAll, GENERIC_READ | GENERIC_WRITE, kAll, true},
               {GENERIC_READ, FILE_SHARE_READ, FILE_READ_DATA, FILE_SHARE_READ, true},
               {GENERIC_READ, FILE_SHARE_READ, GENERIC_WRITE, kAll, false},
               {GENERIC_WRITE, kAll, GENERIC_READ, FILE_SHARE_READ, false},
               {GENERIC_READ, 0, GENERIC_READ, kAll, false},
               {0, 0, 0, 0, true}};
  for (const auto& c : cases) {
    sim::Machine machine;
    auto wren = sim::makeMouse("Wren", sim::Link::usb, "7&1&0&0000");
    machine.plug(wren);
    const auto open = [&](DWORD access, DWORD share) {
      return os::CreateFileW(wren->path().c_str(), access, share, nullptr, OPEN_EXISTING, 0, nullptr);
    };
    const HANDLE first = open(c.access, c.share);
    EXPECT_EQ(open(c.otherAccess, c.otherShare) != INVALID_HANDLE_VALUE, c.opens);
    if (!c.opens) {
      EXPECT_EQ(os::GetLastError(), DWORD{ERROR_SHARING_VIOLATION});
    }
    os::CloseHandle(first);
    EXPECT_NE(open(c.otherAccess, c.otherShare), INVALID_HANDLE_VALUE);
    EXPECT_EQ(machine.misuses(), std::vector<std::string>{});
  }
}

// ---- The rules of the seam: each is broken once, and the machine says which ----

// A machine with something of everything, for calls right at the seam.
struct Seam {
  Seam() {
    machine.plug(wren);
    machine.sound().microphones = {std::make_shared<sim::Microphone>(L"VoxMouse Tern")};
    machine.sound().mixers = {{.name = L"VoxMouse Tern", .sources = {{}}}};
    machine.sound().endpoints = {{L"VoxMouse Tern"}};
    machine.sound().hasSpeaker = true;
    machine.sound().speaker.mixFormat = sim::mixFormat(48000, 2, true, false);
  }
  HANDLE open(DWORD access = GENERIC_READ | GENERIC_WRITE) {
    return os::CreateFileW(wren->path().c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                           nullptr);
  }
  HDEVINFO list() {
    GUID hid;
    os::HidD_GetHidGuid(&hid);
    return os::SetupDiGetClassDevsW(&hid, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
  }
  HWAVEIN wave() {
    HWAVEIN handle = nullptr;
    os::waveInOpen(&handle, 0, &format, os::GetCurrentThreadId(), 0, CALLBACK_THREAD);
    return handle;
  }
  HWAVEIN prepared() {
    const HWAVEIN handle = wave();
    os::waveInPrepareHeader(handle, &header, sizeof header);
    return handle;
  }
  HWAVEIN queued() {
    const HWAVEIN handle = prepared();
    os::waveInAddBuffer(handle, &header, sizeof header);
    return handle;
  }
  HMIXEROBJ mixer() {
    HMIXER handle = nullptr;
    os::mixerOpen(&handle, 0, 0, 0, MIXER_OBJECTF_MIXER);
    return reinterpret_cast<HMIXEROBJ>(handle);
  }
  IMMDevice* speaker() {
    os::CoInitialize(nullptr);
    ComPtr<IMMDeviceEnumerator> enumerator;
    MakeDeviceEnumerator(enumerator);
    IMMDevice* device = nullptr;
    enumerator->GetDefaultAudioEndpoint(eRender, eConsole, &device);
    return device;
  }
  IAudioClient* client() {
    void* made = nullptr;
    speaker()->Activate(kIidAudioClient, CLSCTX_ALL, nullptr, &made);
    return static_cast<IAudioClient*>(made);
  }
  HRESULT initialize(IAudioClient* client, DWORD streamFlags = kLoopback,
                     AUDCLNT_SHAREMODE mode = AUDCLNT_SHAREMODE_SHARED, REFERENCE_TIME periodicity = 0) {
    return client->Initialize(mode, streamFlags, 0, periodicity, &mix, nullptr);
  }
  IAudioClient* initialized(DWORD streamFlags = kLoopback) {
    IAudioClient* made = client();
    initialize(made, streamFlags);
    return made;
  }
  // With a packet at hand.
  IAudioCaptureClient* capture() {
    machine.sound().speaker.plays.assign(96'000, 1);
    machine.sound().speaker.played = 0;
    IAudioClient* made = initialized();
    void* service = nullptr;
    made->GetService(kIidAudioCaptureClient, &service);
    made->Start();
    machine.sleep(25ms);
    return static_cast<IAudioCaptureClient*>(service);
  }
  HRESULT take(IAudioCaptureClient* from) { return from->GetBuffer(&packet, &frames, &flags, nullptr, nullptr); }

  static constexpr DWORD kLoopback = AUDCLNT_STREAMFLAGS_LOOPBACK;
  static constexpr DWORD kEvents = AUDCLNT_STREAMFLAGS_LOOPBACK | AUDCLNT_STREAMFLAGS_EVENTCALLBACK;
  sim::Machine machine;
  std::shared_ptr<sim::VirtualMouse> wren = sim::makeMouse("Wren", sim::Link::usb, "7&1&0&0000");
  WAVEFORMATEX format{WAVE_FORMAT_PCM, 1, 16000, 32000, 2, 16, 0};
  WAVEFORMATEX mix{WAVE_FORMAT_PCM, 2, 48000, 192'000, 4, 16, 0};
  std::array<char, 4096> data{};
  WAVEHDR header{data.data(), static_cast<DWORD>(data.size()), 0, 0, 0, 0, nullptr, 0};
  std::array<std::uint8_t, 64> report{};
  DWORD count = 0;
  BYTE* packet = nullptr;
  UINT32 frames = 0;
  DWORD flags = 0;
};

// Gets the details with one of them changed.
template <class Change>
std::int64_t getDetails(Seam& seam, Change change) {
  MIXERCONTROLDETAILS_UNSIGNED value{};
  MIXERCONTROLDETAILS details{};
  details.cbStruct = sizeof details;
  details.dwControlID = 1;
  details.cChannels = 1;
  details.cbDetails = sizeof value;
  details.paDetails = &value;
  change(details);
  return os::mixerGetControlDetailsW(seam.mixer(), &details, MIXER_OBJECTF_HMIXER | MIXER_GETCONTROLDETAILSF_VALUE);
}

// Initialises with one field of the format changed.
template <class Change>
std::int64_t withFormat(Seam& seam, Change change) {
  change(seam.mix);
  return seam.initialize(seam.client());
}

// Leaves the error of the call that comes before it.
std::int64_t errorAfter(BOOL result) { return result ? 0 : os::GetLastError(); }
std::int64_t errorAfter(DWORD result) { return result == WAIT_FAILED ? os::GetLastError() : 0; }

const struct {
  std::string says;
  std::int64_t gives;  // the error
  std::int64_t (*broken)(Seam&);
} kRules[] = {
    // Handles and waits.
    {"CloseHandle: not an open handle", ERROR_INVALID_HANDLE,
     [](Seam&) { return errorAfter(os::CloseHandle(nullptr)); }},
    {"SetEvent: not an open handle of its kind", ERROR_INVALID_HANDLE,
     [](Seam& s) { return errorAfter(os::SetEvent(s.open())); }},
    {"WaitForSingleObject: not an open handle of its kind", ERROR_INVALID_HANDLE,
     [](Seam&) { return errorAfter(os::WaitForSingleObject(nullptr, 0)); }},
    {"WaitForMultipleObjects: none, or more than 64, to wait for", ERROR_INVALID_PARAMETER,
     [](Seam&) { return errorAfter(os::WaitForMultipleObjects(0, nullptr, FALSE, 0)); }},
    {"WaitForMultipleObjects: not an open handle", ERROR_INVALID_HANDLE,
     [](Seam&) {
       const HANDLE none = nullptr;
       return errorAfter(os::WaitForMultipleObjects(1, &none, FALSE, 0));
     }},
    {"ReleaseMutex: the thread does not own it", ERROR_NOT_OWNER,
     [](Seam&) { return errorAfter(os::ReleaseMutex(os::CreateMutexW(nullptr, FALSE, nullptr))); }},
    {"SetWaitableTimer: no due time, or a negative period", ERROR_INVALID_PARAMETER,
     [](Seam&) {
       const HANDLE timer = os::CreateWaitableTimerW(nullptr, FALSE, nullptr);
       return errorAfter(os::SetWaitableTimer(timer, nullptr, 0, nullptr, nullptr, FALSE));
     }},
    // Files and HID.
    {"ReadFile: the handle was not opened for that", ERROR_ACCESS_DENIED,
     [](Seam& s) { return errorAfter(os::ReadFile(s.open(GENERIC_WRITE), s.report.data(), 64, &s.count, nullptr)); }},
    {"WriteFile: the handle was not opened for that", ERROR_ACCESS_DENIED,
     [](Seam& s) { return errorAfter(os::WriteFile(s.open(GENERIC_READ), s.report.data(), 64, &s.count, nullptr)); }},
    {"ReadFile: no buffer, no count, or an overlapped call on a synchronous file", ERROR_INVALID_PARAMETER,
     [](Seam& s) { return errorAfter(os::ReadFile(s.open(), s.report.data(), 64, nullptr, nullptr)); }},
    {"SetCommTimeouts: not an open handle of its kind", ERROR_INVALID_HANDLE,
     [](Seam&) { return errorAfter(os::SetCommTimeouts(nullptr, nullptr)); }},
    {"HidD_GetAttributes: Size is not that of the structure", ERROR_INVALID_USER_BUFFER,
     [](Seam& s) {
       HIDD_ATTRIBUTES attributes{};
       return errorAfter(BOOL{os::HidD_GetAttributes(s.open(), &attributes)});
     }},
    {"HidD_SetNumInputBuffers: not 2 to 512 reports", ERROR_INVALID_PARAMETER,
     [](Seam& s) { return errorAfter(BOOL{os::HidD_SetNumInputBuffers(s.open(), 1)}); }},
    {"HidD_FreePreparsedData: not preparsed data, or freed before", 0,
     [](Seam& s) {
       PHIDP_PREPARSED_DATA parsed = nullptr;
       os::HidD_GetPreparsedData(s.open(), &parsed);
       os::HidD_FreePreparsedData(parsed);
       return std::int64_t{os::HidD_FreePreparsedData(parsed)};
     }},
    {"SetupDiEnumDeviceInterfaces: cbSize is not that of the structure", ERROR_INVALID_USER_BUFFER,
     [](Seam& s) {
       SP_DEVICE_INTERFACE_DATA entry{};
       GUID hid;
       os::HidD_GetHidGuid(&hid);
       return errorAfter(os::SetupDiEnumDeviceInterfaces(s.list(), nullptr, &hid, 0, &entry));
     }},
    {"SetupDiGetDeviceInterfaceDetailW: cbSize is not that of the structure", ERROR_INVALID_USER_BUFFER,
     [](Seam& s) {
       SP_DEVICE_INTERFACE_DATA entry{};
       entry.cbSize = sizeof entry;
       alignas(8) std::array<char, 1024> room{};
       auto* detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(room.data());
       detail->cbSize = 1024;
       return errorAfter(os::SetupDiGetDeviceInterfaceDetailW(s.list(), &entry, detail, 1024, nullptr, nullptr));
     }},
    {"SetupDiEnumDeviceInfo: cbSize is not that of the structure", ERROR_INVALID_USER_BUFFER,
     [](Seam& s) {
       SP_DEVINFO_DATA device{};
       return errorAfter(os::SetupDiEnumDeviceInfo(s.list(), 0, &device));
     }},
    {"SetupDiDestroyDeviceInfoList: not an open device list", ERROR_INVALID_HANDLE,
     [](Seam& s) {
       const HDEVINFO list = s.list();
       os::SetupDiDestroyDeviceInfoList(list);
       return errorAfter(os::SetupDiDestroyDeviceInfoList(list));
     }},
    {"GetProcAddress: no library", ERROR_INVALID_HANDLE,
     [](Seam&) { return errorAfter(BOOL{os::GetProcAddress(nullptr, "ASC_Decoder") != nullptr}); }},
    // Wave-in.
    {"waveInOpen: a format that contradicts itself", WAVERR_BADFORMAT,
     [](Seam& s) {
       s.format.nAvgBytesPerSec = 16000;
       HWAVEIN handle = nullptr;
       return std::int64_t{os::waveInOpen(&handle, 0, &s.format, os::GetCurrentThreadId(), 0, CALLBACK_THREAD)};
     }},
    {"waveInPrepareHeader: no header, one without data, or one of another size", MMSYSERR_INVALPARAM,
     [](Seam& s) { return std::int64_t{os::waveInPrepareHeader(s.wave(), &s.header, 8)}; }},
    {"waveInPrepareHeader: prepared already", 0,
     [](Seam& s) { return std::int64_t{os::waveInPrepareHeader(s.prepared(), &s.header, sizeof s.header)}; }},
    {"waveInAddBuffer: it is not prepared", WAVERR_UNPREPARED,
     [](Seam& s) { return std::int64_t{os::waveInAddBuffer(s.wave(), &s.header, sizeof s.header)}; }},
    {"waveInAddBuffer: it is in the queue already", WAVERR_STILLPLAYING,
     [](Seam& s) { return std::int64_t{os::waveInAddBuffer(s.queued(), &s.header, sizeof s.header)}; }},
    {"waveInUnprepareHeader: it is in the queue", WAVERR_STILLPLAYING,
     [](Seam& s) { return std::int64_t{os::waveInUnprepareHeader(s.queued(), &s.header, sizeof s.header)}; }},
    {"waveInAddBuffer: a header whose data was changed while it was prepared", 0,
     [](Seam& s) {
       const HWAVEIN handle = s.prepared();
       s.header.dwBufferLength = 8;
       return std::int64_t{os::waveInAddBuffer(handle, &s.header, sizeof s.header)};
     }},
    {"waveInUnprepareHeader: a header that was moved while it was prepared", 0,
     [](Seam& s) {
       const HWAVEIN handle = s.prepared();
       WAVEHDR moved = s.header;
       return std::int64_t{os::waveInUnprepareHeader(handle, &moved, sizeof moved)};
     }},
    {"waveInClose: buffers are in its queue", WAVERR_STILLPLAYING,
     [](Seam& s) { return std::int64_t{os::waveInClose(s.queued())}; }},
    {"waveInClose: headers are still prepared", 0, [](Seam& s) { return std::int64_t{os::waveInClose(s.prepared())}; }},
    // Mixers.
    {"mixerGetLineInfoW: not an open handle of its kind", MMSYSERR_INVALHANDLE,
     [](Seam&) {
       MIXERLINEW line{};
       line.cbStruct = sizeof line;
       return std::int64_t{os::mixerGetLineInfoW(nullptr, &line, MIXER_OBJECTF_HMIXER | MIXER_GETLINEINFOF_SOURCE)};
     }},
    {"mixerGetLineInfoW: cbStruct is not the size of the structure", MMSYSERR_INVALPARAM,
     [](Seam& s) {
       MIXERLINEW line{};
       return std::int64_t{os::mixerGetLineInfoW(s.mixer(), &line, MIXER_OBJECTF_HMIXER | MIXER_GETLINEINFOF_SOURCE)};
     }},
    {"mixerGetLineControlsW: no room for a control, or cbmxctrl is not its size", MMSYSERR_INVALPARAM,
     [](Seam& s) {
       MIXERCONTROLW control{};
       MIXERLINECONTROLSW controls{};
       controls.cbStruct = sizeof controls;
       controls.dwLineID = 1;
       controls.dwControlType = MIXERCONTROL_CONTROLTYPE_VOLUME;
       controls.cControls = 1;
       controls.pamxctrl = &control;
       const DWORD query = MIXER_OBJECTF_HMIXER | MIXER_GETLINECONTROLSF_ONEBYTYPE;
       return std::int64_t{os::mixerGetLineControlsW(s.mixer(), &controls, query)};
     }},
    {"mixerGetControlDetailsW: cbStruct is not the size of the structure", MMSYSERR_INVALPARAM,
     [](Seam& s) { return getDetails(s, [](MIXERCONTROLDETAILS& d) { d.cbStruct = 8; }); }},
    {"mixerGetControlDetailsW: cbDetails is not the size of a volume's value", MMSYSERR_INVALPARAM,
     [](Seam& s) { return getDetails(s, [](MIXERCONTROLDETAILS& d) { d.cbDetails = 8; }); }},
    {"mixerGetControlDetailsW: cChannels is not that of a volume", MMSYSERR_INVALPARAM,
     [](Seam& s) { return getDetails(s, [](MIXERCONTROLDETAILS& d) { d.cChannels = 0; }); }},
    {"mixerGetControlDetailsW: not a control of this mixer", MIXERR_INVALCONTROL,
     [](Seam& s) { return getDetails(s, [](MIXERCONTROLDETAILS& d) { d.dwControlID = 77; }); }},
    // COM.
    {"CoUninitialize: without a CoInitialize that succeeded", 0,
     [](Seam&) {
       EXPECT_EQ(os::CoInitialize(nullptr), S_OK);
       EXPECT_EQ(os::CoInitialize(nullptr), S_FALSE);
       for (int i = 0; i < 3; ++i) os::CoUninitialize();
       return std::int64_t{0};
     }},
    {"CoUninitialize: without a CoInitialize that succeeded", RPC_E_CHANGED_MODE,
     [](Seam& s) {
       s.machine.failCall(1);
       const std::int64_t result = os::CoInitialize(nullptr);
       os::CoUninitialize();
       return result;
     }},
    {"CoCreateInstance: COM is not initialised on this thread", CO_E_NOTINITIALIZED,
     [](Seam&) {
       ComPtr<IMMDeviceEnumerator> enumerator;
       return std::int64_t{MakeDeviceEnumerator(enumerator)};
     }},
    {"CoCreateInstance: a context in which the class is not", REGDB_E_CLASSNOTREG,
     [](Seam&) {
       os::CoInitialize(nullptr);
       void* made = nullptr;
       return std::int64_t{os::CoCreateInstance(kClassDeviceEnumerator, nullptr, 0, kIidDeviceEnumerator, &made)};
     }},
    {"IMMDevice::Activate: a context in which the interface is not", E_INVALIDARG,
     [](Seam& s) {
       void* made = nullptr;
       return std::int64_t{s.speaker()->Activate(kIidAudioClient, 0, nullptr, &made)};
     }},
    {"IAudioClient::Start: COM is not initialised on this thread", CO_E_NOTINITIALIZED,
     [](Seam& s) {
       IAudioClient* client = s.initialized();
       os::CoUninitialize();
       return std::int64_t{client->Start()};
     }},
    {"IAudioClient: Release of an interface that has been released", 0,
     [](Seam& s) {
       IAudioClient* client = s.client();
       client->Release();
       return std::int64_t{client->Release()};
     }},
    {"IAudioClient::Stop: the interface has been released", E_FAIL,
     [](Seam& s) {
       IAudioClient* client = s.initialized();
       client->Release();
       return std::int64_t{client->Stop()};
     }},
    {"CoTaskMemFree: not task memory, or freed before", 0,
     [](Seam& s) {
       WAVEFORMATEX* mix = nullptr;
       s.client()->GetMixFormat(&mix);
       os::CoTaskMemFree(mix);
       os::CoTaskMemFree(mix);
       return std::int64_t{0};
     }},
    {"AvRevertMmThreadCharacteristics: not a task of this thread", ERROR_INVALID_HANDLE,
     [](Seam& s) {
       DWORD index = 0;
       const HANDLE task = os::AvSetMmThreadCharacteristicsW(L"Capture", &index);
       std::int64_t error = 0;
       s.machine.spawn([&] { error = errorAfter(os::AvRevertMmThreadCharacteristics(task)); }).join();
       EXPECT_TRUE(os::AvRevertMmThreadCharacteristics(task));
       return error;
     }},
    // Audio clients.
    {"IAudioClient::Start: before Initialize", AUDCLNT_E_NOT_INITIALIZED,
     [](Seam& s) { return std::int64_t{s.client()->Start()}; }},
    {"IAudioClient::Initialize: initialised already", AUDCLNT_E_ALREADY_INITIALIZED,
     [](Seam& s) { return std::int64_t{s.initialize(s.initialized())}; }},
    {"IAudioClient::Initialize: a shared stream has the engine's period", E_INVALIDARG,
     [](Seam& s) {
       return std::int64_t{s.initialize(s.client(), Seam::kLoopback, AUDCLNT_SHAREMODE_SHARED, 100'000)};
     }},
    {"IAudioClient::Initialize: a loopback is shared", E_INVALIDARG,
     [](Seam& s) { return std::int64_t{s.initialize(s.client(), Seam::kLoopback, AUDCLNT_SHAREMODE_EXCLUSIVE)}; }},
    {"IAudioClient::Initialize: the format tag", AUDCLNT_E_UNSUPPORTED_FORMAT,
     [](Seam& s) { return withFormat(s, [](WAVEFORMATEX& mix) { mix.wFormatTag = WAVE_FORMAT_IEEE_FLOAT; }); }},
    {"IAudioClient::Initialize: cbSize of an extensible format", AUDCLNT_E_UNSUPPORTED_FORMAT,
     [](Seam& s) { return withFormat(s, [](WAVEFORMATEX& mix) { mix.wFormatTag = WAVE_FORMAT_EXTENSIBLE; }); }},
    {"IAudioClient::Initialize: the rate is not that of the mix", AUDCLNT_E_UNSUPPORTED_FORMAT,
     [](Seam& s) { return withFormat(s, [](WAVEFORMATEX& mix) { mix.nSamplesPerSec = 16000; }); }},
    {"IAudioClient::Initialize: the channels are not those of the mix", AUDCLNT_E_UNSUPPORTED_FORMAT,
     [](Seam& s) { return withFormat(s, [](WAVEFORMATEX& mix) { mix.nChannels = 1; }); }},
    {"IAudioClient::Initialize: the bits", AUDCLNT_E_UNSUPPORTED_FORMAT,
     [](Seam& s) { return withFormat(s, [](WAVEFORMATEX& mix) { mix.wBitsPerSample = 32; }); }},
    {"IAudioClient::Initialize: the block align", AUDCLNT_E_UNSUPPORTED_FORMAT,
     [](Seam& s) { return withFormat(s, [](WAVEFORMATEX& mix) { mix.nBlockAlign = 8; }); }},
    {"IAudioClient::Initialize: the average bytes", AUDCLNT_E_UNSUPPORTED_FORMAT,
     [](Seam& s) { return withFormat(s, [](WAVEFORMATEX& mix) { mix.nAvgBytesPerSec = 384'000; }); }},
    {"IAudioClient::Start: before SetEventHandle", AUDCLNT_E_EVENTHANDLE_NOT_SET,
     [](Seam& s) { return std::int64_t{s.initialized(Seam::kEvents)->Start()}; }},
    {"IAudioClient::SetEventHandle: the stream has no events", AUDCLNT_E_EVENTHANDLE_NOT_EXPECTED,
     [](Seam& s) {
       return std::int64_t{s.initialized()->SetEventHandle(os::CreateEventW(nullptr, FALSE, FALSE, nullptr))};
     }},
    {"IAudioClient::SetEventHandle: not an open event", E_INVALIDARG,
     [](Seam& s) { return std::int64_t{s.initialized(Seam::kEvents)->SetEventHandle(nullptr)}; }},
    {"IAudioClient::Start: already started", AUDCLNT_E_NOT_STOPPED,
     [](Seam& s) {
       IAudioClient* client = s.initialized();
       EXPECT_EQ(client->Stop(), S_FALSE) << "no rule is broken by this";
       client->Start();
       return std::int64_t{client->Start()};
     }},
    {"IAudioClient::SetEventHandle: the event was closed while the stream runs", 0,
     [](Seam& s) {
       IAudioClient* client = s.initialized(Seam::kEvents);
       const HANDLE event = os::CreateEventW(nullptr, FALSE, FALSE, nullptr);
       client->SetEventHandle(event);
       client->Start();
       os::CloseHandle(event);
       s.machine.sleep(11ms);
       return std::int64_t{client->Stop()};
     }},
    {"IAudioCaptureClient::GetBuffer: the packet before was not released", AUDCLNT_E_OUT_OF_ORDER,
     [](Seam& s) {
       IAudioCaptureClient* capture = s.capture();
       s.take(capture);
       return std::int64_t{s.take(capture)};
     }},
    {"IAudioCaptureClient::ReleaseBuffer: neither the whole packet nor nothing", AUDCLNT_E_INVALID_SIZE,
     [](Seam& s) {
       IAudioCaptureClient* capture = s.capture();
       s.take(capture);
       return std::int64_t{capture->ReleaseBuffer(s.frames - 1)};
     }},
    {"IAudioCaptureClient::ReleaseBuffer: no packet was taken", AUDCLNT_E_OUT_OF_ORDER,
     [](Seam& s) {
       IAudioCaptureClient* capture = s.capture();
       for (int i = 0; i < 2; ++i) {
         s.take(capture);
         capture->ReleaseBuffer(s.frames);
       }
       EXPECT_EQ(s.take(capture), AUDCLNT_S_BUFFER_EMPTY) << "no rule is broken by this, nor by giving nothing back";
       EXPECT_EQ(capture->ReleaseBuffer(0), S_OK);
       return std::int64_t{capture->ReleaseBuffer(480)};
     }},
};

TEST(Seam, ARuleThatIsBrokenIsNamedAndGivesItsError) {
  for (const auto& rule : kRules) {
    SCOPED_TRACE(rule.says);
    Seam seam;
    const auto gives = rule.broken(seam);
    // Errors are compared in the width that they have.
    EXPECT_EQ(static_cast<std::uint32_t>(gives), static_cast<std::uint32_t>(rule.gives));
    EXPECT_EQ(seam.machine.misuses(), std::vector{rule.says});
  }
}

TEST(Seam, AnEngineKeepsWhatItsBufferHoldsAndSaysWhereItLost) {
  Seam seam;
  IAudioCaptureClient* capture = seam.capture();  // two packets of 10 ms: the least there is
  for (std::size_t i = 0; i < 96'000; ++i) seam.machine.sound().speaker.plays[i] = static_cast<std::int16_t>(i / 960);
  ASSERT_EQ(seam.take(capture), S_OK);
  seam.machine.sleep(100ms);
  // The one that is taken stays; of the others, the last two.
  EXPECT_EQ(seam.flags, 0U);
  EXPECT_EQ(capture->ReleaseBuffer(480), S_OK);
  for (const int packet : {10, 11}) {
    ASSERT_EQ(seam.take(capture), S_OK);
    EXPECT_EQ(*reinterpret_cast<std::int16_t*>(seam.packet), packet);
    EXPECT_EQ(seam.flags, packet == 10 ? DWORD{AUDCLNT_BUFFERFLAGS_DATA_DISCONTINUITY} : 0U);
    EXPECT_EQ(capture->ReleaseBuffer(480), S_OK);
  }
  EXPECT_EQ(seam.take(capture), AUDCLNT_S_BUFFER_EMPTY);
}

TEST(Text, IsUtf8OrWideInEitherWidth) {
  const std::pair<const char*, const wchar_t*> pairs[] = {
      {"a", L"a"}, {"\xC3\xA9", L"\u00E9"}, {"\xE9\xB9\xB0", L"\u9E70"}, {"<\xF0\x9F\x8E\xA4>", L"<\U0001F3A4>"}};
  for (const auto& [narrow, wide] : pairs) {
    EXPECT_EQ(sim::utf8(wide), narrow);
    EXPECT_EQ(sim::wide(narrow), wide);
  }
  EXPECT_EQ(sim::utf8(std::wstring{L'a', wchar_t{0xD83C}, L'b'}),
            "a\xEF\xBF\xBD"
            "b")
      << "half a pair";
  EXPECT_EQ(sim::wide("a\xFF"), L"a\uFFFD");
}

TEST(Wav, IsReadWrittenAndExplained) {
  const Folder folder;
  const std::string path = (folder / "test.wav").string();
  std::string error;
  const std::vector<std::int16_t> samples{0, 1, -1, 32767, -32768};
  ASSERT_TRUE(sim::writeWav(path, samples, 16000, error)) << error;
  EXPECT_EQ(sim::readSpeech(path, error), samples);
  ASSERT_TRUE(sim::writeWav(path, samples, 44100, error));
  EXPECT_TRUE(sim::readSpeech(path, error).empty());
  EXPECT_EQ(error, path +
                       ": expected 16000 Hz, 1 channel, 16-bit PCM; found 44100 Hz, 1 channel, 16-bit PCM. "
                       "Convert it with: sox " +
                       path + " -r 16000 -c 1 -b 16 -e signed-integer speech16k.wav");
  error.clear();
  EXPECT_TRUE(sim::readSpeech("/nowhere.wav", error).empty());
  EXPECT_EQ(error, "/nowhere.wav: No such file or directory");
  // Every beginning of a file, as if it had been cut off there.
  ASSERT_TRUE(sim::writeWav(path, samples, 16000, error));
  for (std::size_t size = 54; size-- > 0;) {
    std::filesystem::resize_file(path, size);
    error.clear();
    const auto read = sim::readSpeech(path, error);
    EXPECT_EQ(read.empty(), !error.empty()) << size;
    EXPECT_EQ(read.size(), size < 46 ? 0 : (size - 44) / 2) << size;
  }
}

}  // namespace
