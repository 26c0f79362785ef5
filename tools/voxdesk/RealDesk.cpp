// The desk that the computer stands on: whatever is plugged in.
#include <process.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <thread>

#include "Desk.h"
#include "System.h"
#include "audio/CoreAudio.h"
#include "sim/Text.h"

namespace {

using SteadyClock = std::chrono::steady_clock;

class RealDesk final : public Desk {
 public:
  void setUp() override {}
  double seconds() override { return std::chrono::duration<double>(SteadyClock::now() - begin_).count(); }
  void run(std::chrono::milliseconds time) override { std::this_thread::sleep_for(time); }
  std::string greeting() const override { return "Looking for voice mice ..."; }
  std::string advice() const override { return "plug one in, or try a simulated desk: voxdesk --desk default"; }
  std::optional<std::size_t> expectedDevices() const override { return std::nullopt; }
  std::string voiceKeyOwner() const override { return {}; }
  void holdVoiceKey(bool) override {}
  std::optional<double> speechSeconds() const override { return std::nullopt; }

  std::vector<SoundSource> microphones() override {
    std::vector<SoundSource> sources;
    const UINT count = os::waveInGetNumDevs();
    for (UINT i = 0; i < count; ++i) {
      WAVEINCAPSW caps{};
      os::waveInGetDevCapsW(i, &caps, sizeof caps);
      const auto end = std::find(std::begin(caps.szPname), std::end(caps.szPname), L'\0');
      sources.push_back({sim::utf8({caps.szPname, static_cast<std::size_t>(end - caps.szPname)}), std::nullopt});
    }
    return sources;
  }

  std::vector<SoundEndpoint> endpoints() override {
    const ComApartment com;
    std::vector<SoundEndpoint> all;
    ComPtr<IMMDeviceEnumerator> enumerator;
    ComPtr<IMMDeviceCollection> collection;
    UINT count = 0;
    if (!com.Ok() || FAILED(MakeDeviceEnumerator(enumerator)) ||
        FAILED(enumerator->EnumAudioEndpoints(eCapture, DEVICE_STATE_ACTIVE, collection.Put())) ||
        FAILED(collection->GetCount(&count))) {
      return all;
    }
    for (UINT i = 0; i < count; ++i) {
      ComPtr<IMMDevice> device;
      if (SUCCEEDED(collection->Item(i, device.Put()))) all.push_back(describe(*device.Get()));
    }
    return all;
  }

  std::optional<SoundOutput> speaker() override {
    const ComApartment com;
    ComPtr<IMMDeviceEnumerator> enumerator;
    ComPtr<IMMDevice> device;
    ComPtr<IAudioClient> client;
    WAVEFORMATEX* format = nullptr;
    if (!com.Ok() || FAILED(MakeDeviceEnumerator(enumerator)) ||
        FAILED(enumerator->GetDefaultAudioEndpoint(eRender, eConsole, device.Put())) ||
        FAILED(device->Activate(kIidAudioClient, CLSCTX_ALL, nullptr, client.PutVoid())) ||
        FAILED(client->GetMixFormat(&format))) {
      return std::nullopt;
    }
    const SoundOutput output{static_cast<int>(format->nSamplesPerSec), format->nChannels, std::nullopt};
    os::CoTaskMemFree(format);
    return output;
  }

  std::size_t legacyHids() override { return 0; }
  // Windows does not tell whose a handle is.
  std::string leftOpen(const LeftOpen&) override { return {}; }

 private:
  static SoundEndpoint describe(IMMDevice& device) {
    SoundEndpoint endpoint;
    ComPtr<IPropertyStore> store;
    PROPVARIANT name{};
    if (SUCCEEDED(device.OpenPropertyStore(STGM_READ, store.Put())) &&
        SUCCEEDED(store->GetValue(kKeyFriendlyName, &name))) {
      if (name.vt == VT_LPWSTR && name.pwszVal) endpoint.name = sim::utf8(name.pwszVal);
      os::PropVariantClear(&name);
    }
    ComPtr<IAudioEndpointVolume> volume;
    float level = 0;
    BOOL muted = FALSE;
    if (SUCCEEDED(device.Activate(kIidEndpointVolume, CLSCTX_ALL, nullptr, volume.PutVoid())) &&
        SUCCEEDED(volume->GetMasterVolumeLevelScalar(&level))) {
      endpoint.volume = static_cast<double>(level);
      if (SUCCEEDED(volume->GetMute(&muted))) endpoint.muted = muted != FALSE;
    }
    return endpoint;
  }

  const SteadyClock::time_point begin_ = SteadyClock::now();
};

BOOL WINAPI leaveItToTheOther(DWORD) { return TRUE; }

// As Windows programs take their command line apart.
std::wstring quoted(const std::wstring& argument) {
  std::wstring text = L"\"";
  std::size_t backslashes = 0;
  for (const wchar_t c : argument) {
    if (c == L'"') text.append(backslashes + 1, L'\\');
    backslashes = c == L'\\' ? backslashes + 1 : 0;
    text += c;
  }
  return text.append(backslashes, L'\\') + L"\"";
}

}  // namespace

const bool kSimulated = false;
const char* const kAbout =
    "A client of VoxDevice for the voice mice that are plugged in.\n"
    "Without a command: shows them, and records into a WAV file what is spoken while a voice key is held.";

std::unique_ptr<Desk> makeDesk(const Options&, bool) { return std::make_unique<RealDesk>(); }

void rehearseUpdate(const Options&) { throw Failure("an update is rehearsed by voxdesk-simulated.exe"); }

// A simulated desk is another program: the library there is linked with another computer. So is a rehearsal, which
// cannot reach what is plugged in here.
std::optional<int> runOther(int argc, char** argv) {
  bool asked = false;
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    const bool hardware = argument == "--desk=" + kHardware || (i + 1 < argc && argv[i + 1] == kHardware);
    asked = asked || argument == "--virtual-time" || argument == "--rehearse" ||
            ((argument == "--desk" || argument.starts_with("--desk=")) && !hardware);
  }
  if (!asked) return std::nullopt;
  const std::filesystem::path program = programFolder() / "voxdesk-simulated.exe";
  std::vector<std::wstring> arguments{quoted(program.wstring())};
  for (int i = 1; i < argc; ++i) arguments.push_back(quoted(sim::wide(argv[i])));
  std::vector<const wchar_t*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (const std::wstring& argument : arguments) pointers.push_back(argument.c_str());
  pointers.push_back(nullptr);
  // A Ctrl-C reaches that program too, which stops cleanly.
  SetConsoleCtrlHandler(&leaveItToTheOther, TRUE);
  const auto code = _wspawnv(_P_WAIT, program.c_str(), pointers.data());
  if (code == -1) {
    std::fprintf(stderr, "voxdesk: %s: %s\n", program.string().c_str(), std::strerror(errno));
    return 1;
  }
  return static_cast<int>(code);
}
