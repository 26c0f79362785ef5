// The Windows types and constants of wave-in, mixers and Core Audio that the seam and the library use. Interfaces
// are whole, in the order of their tables.
#pragma once

#include "platform/types.h"

#ifdef _WIN32

#include <mmsystem.h>
// The Core Audio headers rely on the COM ones.
#include <audioclient.h>
#include <audiopolicy.h>
#include <endpointvolume.h>
#include <mmdeviceapi.h>
#include <mmreg.h>
#include <objbase.h>
#include <propsys.h>

#else

using UINT = std::uint32_t;
using UINT32 = std::uint32_t;
using UINT64 = std::uint64_t;
using BYTE = std::uint8_t;
using LONG = std::int32_t;
using FLOAT = float;
using HRESULT = std::int32_t;
using REFERENCE_TIME = std::int64_t;  // 100 ns
using DWORD_PTR = std::uintptr_t;
using UINT_PTR = std::uintptr_t;
using WPARAM = std::uintptr_t;
using LPARAM = std::intptr_t;
using MMRESULT = UINT;
using HWAVEIN = void*;
using HMIXER = void*;
using HMIXEROBJ = void*;

// ---- Thread messages ----

struct MSG {
  HWND hwnd;
  UINT message;
  WPARAM wParam;
  LPARAM lParam;
};
constexpr UINT WM_QUIT = 0x0012;
constexpr UINT MM_WIM_OPEN = 0x3BE;
constexpr UINT MM_WIM_CLOSE = 0x3BF;
constexpr UINT MM_WIM_DATA = 0x3C0;
constexpr UINT PM_NOREMOVE = 0;
constexpr int THREAD_PRIORITY_ABOVE_NORMAL = 1;

// ---- Waitable timers and events ----

union LARGE_INTEGER {
  std::int64_t QuadPart;
};
using PTIMERAPCROUTINE = void (*)(void*, DWORD, DWORD);
constexpr DWORD EVENT_MODIFY_STATE = 0x0002;
constexpr DWORD SYNCHRONIZE = 0x00100000;

// ---- Wave-in ----

constexpr MMRESULT MMSYSERR_NOERROR = 0;
constexpr MMRESULT MMSYSERR_BADDEVICEID = 2;
constexpr MMRESULT MMSYSERR_ALLOCATED = 4;
constexpr MMRESULT MMSYSERR_INVALHANDLE = 5;
constexpr MMRESULT MMSYSERR_NODRIVER = 6;
constexpr MMRESULT MMSYSERR_NOMEM = 7;
constexpr MMRESULT MMSYSERR_INVALFLAG = 10;
constexpr MMRESULT MMSYSERR_INVALPARAM = 11;
constexpr MMRESULT WAVERR_BADFORMAT = 32;
constexpr MMRESULT WAVERR_STILLPLAYING = 33;
constexpr MMRESULT WAVERR_UNPREPARED = 34;
constexpr DWORD CALLBACK_THREAD = 0x00020000;
constexpr DWORD WHDR_DONE = 0x1;
constexpr DWORD WHDR_PREPARED = 0x2;
constexpr DWORD WHDR_INQUEUE = 0x10;
constexpr std::size_t MAXPNAMELEN = 32;

#pragma pack(push, 1)
struct WAVEFORMATEX {
  WORD wFormatTag;
  WORD nChannels;
  DWORD nSamplesPerSec;
  DWORD nAvgBytesPerSec;
  WORD nBlockAlign;
  WORD wBitsPerSample;
  WORD cbSize;  // bytes behind this structure
};
struct WAVEFORMATEXTENSIBLE {
  WAVEFORMATEX Format;
  union {
    WORD wValidBitsPerSample;
    WORD wSamplesPerBlock;
    WORD wReserved;
  } Samples;
  DWORD dwChannelMask;
  GUID SubFormat;
};
#pragma pack(pop)
constexpr WORD WAVE_FORMAT_PCM = 1;
constexpr WORD WAVE_FORMAT_IEEE_FLOAT = 3;
constexpr WORD WAVE_FORMAT_EXTENSIBLE = 0xFFFE;

struct WAVEHDR {
  char* lpData;
  DWORD dwBufferLength;  // bytes
  DWORD dwBytesRecorded;
  DWORD_PTR dwUser;
  DWORD dwFlags;
  DWORD dwLoops;
  WAVEHDR* lpNext;
  DWORD_PTR reserved;
};

struct WAVEINCAPSW {
  WORD wMid;
  WORD wPid;
  UINT vDriverVersion;
  WCHAR szPname[MAXPNAMELEN];
  DWORD dwFormats;
  WORD wChannels;
  WORD wReserved1;
};

// ---- Mixers ----

constexpr DWORD MIXER_OBJECTF_MIXER = 0;
constexpr DWORD MIXER_OBJECTF_HMIXER = 0x80000000U;
constexpr DWORD MIXER_GETLINEINFOF_SOURCE = 1;
constexpr DWORD MIXER_GETLINEINFOF_COMPONENTTYPE = 3;
constexpr DWORD MIXER_GETLINECONTROLSF_ONEBYTYPE = 2;
constexpr DWORD MIXER_GETCONTROLDETAILSF_VALUE = 0;
constexpr DWORD MIXER_SETCONTROLDETAILSF_VALUE = 0;
constexpr DWORD MIXERLINE_COMPONENTTYPE_DST_WAVEIN = 7;
constexpr DWORD MIXERLINE_COMPONENTTYPE_SRC_LINE = 0x1002;
constexpr DWORD MIXERLINE_COMPONENTTYPE_SRC_MICROPHONE = 0x1003;
constexpr DWORD MIXERCONTROL_CONTROLTYPE_VOLUME = 0x50030001;
constexpr MMRESULT MIXERR_INVALLINE = 1024;
constexpr MMRESULT MIXERR_INVALCONTROL = 1025;

struct MIXERLINEW {
  DWORD cbStruct;
  DWORD dwDestination;
  DWORD dwSource;
  DWORD dwLineID;
  DWORD fdwLine;
  DWORD_PTR dwUser;
  DWORD dwComponentType;
  DWORD cChannels;
  DWORD cConnections;
  DWORD cControls;
  WCHAR szShortName[16];
  WCHAR szName[64];
  struct {
    DWORD dwType;
    DWORD dwDeviceID;
    WORD wMid;
    WORD wPid;
    UINT vDriverVersion;
    WCHAR szPname[MAXPNAMELEN];
  } Target;
};

struct MIXERCONTROLW {
  DWORD cbStruct;
  DWORD dwControlID;
  DWORD dwControlType;
  DWORD fdwControl;
  DWORD cMultipleItems;
  WCHAR szShortName[16];
  WCHAR szName[64];
  struct {
    DWORD dwMinimum;
    DWORD dwMaximum;
    DWORD dwReserved[4];
  } Bounds;
  DWORD Metrics[6];
};

struct MIXERLINECONTROLSW {
  DWORD cbStruct;
  DWORD dwLineID;
  union {
    DWORD dwControlID;
    DWORD dwControlType;
  };
  DWORD cControls;
  DWORD cbmxctrl;
  MIXERCONTROLW* pamxctrl;
};

struct MIXERCONTROLDETAILS {
  DWORD cbStruct;
  DWORD dwControlID;
  DWORD cChannels;
  union {
    HWND hwndOwner;
    DWORD cMultipleItems;
  };
  DWORD cbDetails;
  void* paDetails;
};

struct MIXERCONTROLDETAILS_UNSIGNED {
  DWORD dwValue;
};

// ---- COM ----

#define STDMETHODCALLTYPE  // the convention of COM methods on 32-bit Windows

constexpr HRESULT S_OK = 0;
constexpr HRESULT S_FALSE = 1;
constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002);
constexpr HRESULT E_NOTIMPL = static_cast<HRESULT>(0x80004001);
constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003);
constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005);
constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057);
constexpr HRESULT E_OUTOFMEMORY = static_cast<HRESULT>(0x8007000E);
constexpr HRESULT CLASS_E_NOAGGREGATION = static_cast<HRESULT>(0x80040110);
constexpr HRESULT REGDB_E_CLASSNOTREG = static_cast<HRESULT>(0x80040154);
constexpr HRESULT CO_E_NOTINITIALIZED = static_cast<HRESULT>(0x800401F0);
constexpr HRESULT RPC_E_CHANGED_MODE = static_cast<HRESULT>(0x80010106);
constexpr DWORD CLSCTX_INPROC_SERVER = 0x1;
constexpr DWORD CLSCTX_ALL = 0x17;
constexpr DWORD STGM_READ = 0;
constexpr WORD VT_EMPTY = 0;
constexpr WORD VT_LPWSTR = 31;
constexpr bool SUCCEEDED(HRESULT result) { return result >= 0; }
constexpr bool FAILED(HRESULT result) { return result < 0; }

struct PROPERTYKEY {
  GUID fmtid;
  DWORD pid;
};

struct PROPVARIANT {
  WORD vt;
  WORD wReserved1;
  WORD wReserved2;
  WORD wReserved3;
  union {
    WCHAR* pwszVal;
    std::int64_t reserved[2];
  };
};

struct IUnknown {
  virtual HRESULT STDMETHODCALLTYPE QueryInterface(const GUID& iid, void** object) = 0;
  virtual ULONG STDMETHODCALLTYPE AddRef() = 0;
  virtual ULONG STDMETHODCALLTYPE Release() = 0;

 protected:
  ~IUnknown() = default;
};

// ---- Core Audio ----

enum EDataFlow { eRender, eCapture, eAll };
enum ERole { eConsole, eMultimedia, eCommunications };
constexpr DWORD DEVICE_STATE_ACTIVE = 1;
enum AUDCLNT_SHAREMODE { AUDCLNT_SHAREMODE_SHARED, AUDCLNT_SHAREMODE_EXCLUSIVE };
constexpr DWORD AUDCLNT_STREAMFLAGS_LOOPBACK = 0x20000;
constexpr DWORD AUDCLNT_STREAMFLAGS_EVENTCALLBACK = 0x40000;
constexpr DWORD AUDCLNT_BUFFERFLAGS_DATA_DISCONTINUITY = 1;
constexpr DWORD AUDCLNT_BUFFERFLAGS_SILENT = 2;
constexpr HRESULT AUDCLNT_S_BUFFER_EMPTY = 0x08890001;
constexpr HRESULT AUDCLNT_E_NOT_INITIALIZED = static_cast<HRESULT>(0x88890001);
constexpr HRESULT AUDCLNT_E_ALREADY_INITIALIZED = static_cast<HRESULT>(0x88890002);
constexpr HRESULT AUDCLNT_E_WRONG_ENDPOINT_TYPE = static_cast<HRESULT>(0x88890003);
constexpr HRESULT AUDCLNT_E_DEVICE_INVALIDATED = static_cast<HRESULT>(0x88890004);
constexpr HRESULT AUDCLNT_E_NOT_STOPPED = static_cast<HRESULT>(0x88890005);
constexpr HRESULT AUDCLNT_E_OUT_OF_ORDER = static_cast<HRESULT>(0x88890007);
constexpr HRESULT AUDCLNT_E_UNSUPPORTED_FORMAT = static_cast<HRESULT>(0x88890008);
constexpr HRESULT AUDCLNT_E_INVALID_SIZE = static_cast<HRESULT>(0x88890009);
constexpr HRESULT AUDCLNT_E_EVENTHANDLE_NOT_EXPECTED = static_cast<HRESULT>(0x88890011);
constexpr HRESULT AUDCLNT_E_EVENTHANDLE_NOT_SET = static_cast<HRESULT>(0x88890014);
constexpr HRESULT AUDCLNT_E_INVALID_STREAM_FLAG = static_cast<HRESULT>(0x88890021);

struct IPropertyStore : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetCount(DWORD* count) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetAt(DWORD index, PROPERTYKEY* key) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetValue(const PROPERTYKEY& key, PROPVARIANT* value) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetValue(const PROPERTYKEY& key, const PROPVARIANT& value) = 0;
  virtual HRESULT STDMETHODCALLTYPE Commit() = 0;
};

struct IMMDevice : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE Activate(const GUID& iid, DWORD context, PROPVARIANT* parameters,
                                             void** object) = 0;
  virtual HRESULT STDMETHODCALLTYPE OpenPropertyStore(DWORD access, IPropertyStore** store) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetId(WCHAR** id) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetState(DWORD* state) = 0;
};

struct IMMDeviceCollection : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetCount(UINT* count) = 0;
  virtual HRESULT STDMETHODCALLTYPE Item(UINT index, IMMDevice** device) = 0;
};

struct IMMNotificationClient;

struct IMMDeviceEnumerator : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE EnumAudioEndpoints(EDataFlow flow, DWORD states, IMMDeviceCollection** devices) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetDefaultAudioEndpoint(EDataFlow flow, ERole role, IMMDevice** device) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetDevice(const WCHAR* id, IMMDevice** device) = 0;
  virtual HRESULT STDMETHODCALLTYPE RegisterEndpointNotificationCallback(IMMNotificationClient* client) = 0;
  virtual HRESULT STDMETHODCALLTYPE UnregisterEndpointNotificationCallback(IMMNotificationClient* client) = 0;
};

struct IAudioSessionControl;

struct ISimpleAudioVolume : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE SetMasterVolume(float level, const GUID* context) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetMasterVolume(float* level) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetMute(BOOL mute, const GUID* context) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetMute(BOOL* mute) = 0;
};

struct IAudioSessionManager : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetAudioSessionControl(const GUID* session, DWORD crossProcess,
                                                           IAudioSessionControl** control) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetSimpleAudioVolume(const GUID* session, DWORD crossProcess,
                                                         ISimpleAudioVolume** volume) = 0;
};

struct IAudioEndpointVolumeCallback;

struct IAudioEndpointVolume : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE RegisterControlChangeNotify(IAudioEndpointVolumeCallback* notify) = 0;
  virtual HRESULT STDMETHODCALLTYPE UnregisterControlChangeNotify(IAudioEndpointVolumeCallback* notify) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetChannelCount(UINT* count) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetMasterVolumeLevel(float decibels, const GUID* context) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetMasterVolumeLevelScalar(float level, const GUID* context) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetMasterVolumeLevel(float* decibels) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetMasterVolumeLevelScalar(float* level) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetChannelVolumeLevel(UINT channel, float decibels, const GUID* context) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetChannelVolumeLevelScalar(UINT channel, float level, const GUID* context) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetChannelVolumeLevel(UINT channel, float* decibels) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetChannelVolumeLevelScalar(UINT channel, float* level) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetMute(BOOL mute, const GUID* context) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetMute(BOOL* mute) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetVolumeStepInfo(UINT* step, UINT* stepCount) = 0;
  virtual HRESULT STDMETHODCALLTYPE VolumeStepUp(const GUID* context) = 0;
  virtual HRESULT STDMETHODCALLTYPE VolumeStepDown(const GUID* context) = 0;
  virtual HRESULT STDMETHODCALLTYPE QueryHardwareSupport(DWORD* features) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetVolumeRange(float* least, float* most, float* step) = 0;
};

struct IAudioClient : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE Initialize(AUDCLNT_SHAREMODE mode, DWORD flags, REFERENCE_TIME bufferDuration,
                                               REFERENCE_TIME periodicity, const WAVEFORMATEX* format,
                                               const GUID* session) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetBufferSize(UINT32* frames) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetStreamLatency(REFERENCE_TIME* latency) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetCurrentPadding(UINT32* frames) = 0;
  virtual HRESULT STDMETHODCALLTYPE IsFormatSupported(AUDCLNT_SHAREMODE mode, const WAVEFORMATEX* format,
                                                      WAVEFORMATEX** closest) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetMixFormat(WAVEFORMATEX** format) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetDevicePeriod(REFERENCE_TIME* defaultPeriod, REFERENCE_TIME* minimumPeriod) = 0;
  virtual HRESULT STDMETHODCALLTYPE Start() = 0;
  virtual HRESULT STDMETHODCALLTYPE Stop() = 0;
  virtual HRESULT STDMETHODCALLTYPE Reset() = 0;
  virtual HRESULT STDMETHODCALLTYPE SetEventHandle(HANDLE event) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetService(const GUID& iid, void** service) = 0;
};

struct IAudioCaptureClient : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetBuffer(BYTE** data, UINT32* frames, DWORD* flags, UINT64* devicePosition,
                                              UINT64* performanceCounter) = 0;
  virtual HRESULT STDMETHODCALLTYPE ReleaseBuffer(UINT32 frames) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetNextPacketSize(UINT32* frames) = 0;
};

#endif
