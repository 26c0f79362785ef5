// The smallest useful client: it waits for a voice mouse whose voice key is held, and records what is spoken meanwhile.
// Usage: client [SECONDS [CAPTURE.pcapng]], the time to wait at most, and where everything that passes between the
// library and the devices is recorded. Exit code: 0 recorded, 1 not.
#include <VoxDevice/VoxDevice.h>
#include <VoxDevice/capture/Recorder.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <thread>

namespace {

// What the library tells its client, on threads of its own.
class Listener : public VoxMessageSink {
 public:
  void HidConnect(int device) override { std::printf("device %d is there\n", device); }
  void HidDisconnect(int device) override { std::printf("device %d has gone\n", device); }
};

std::atomic<int> samples{0};

// 16 kHz, mono, signed 16-bit; (null, 0) is the end of a recording.
void onAudio(const unsigned char* data, int byteCount, void*) {
  if (data) samples += byteCount / 2;
}

}  // namespace

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::atof(argv[1]) : 10;
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  std::setvbuf(stdout, nullptr, _IONBF, 0);

  std::optional<capture::Recorder> recorder;
  if (argc > 2) {
    recorder.emplace(argv[2]);
    VoxObserver::SetCallback(&capture::Recorder::observe, &*recorder);
  }
  Listener listener;
  VoxMessage::SetSink(&listener);
  CAudioHidCenter hub;
  hub.OpenDevice(reinterpret_cast<void*>(&onAudio), nullptr);
  std::printf("hold a voice key, speak, and release it\n");
  bool recorded = false;
  bool held = false;
  while (!recorded && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (held == (hub.GetButtonState_Left() == ButtonDown)) continue;
    held = !held;
    if (held) {
      std::printf(hub.OpenHidRecord() ? "recording ...\n" : "the device did not open its voice channel\n");
    } else {
      hub.CloseHidRecord();
      recorded = samples > 0;
      std::printf("recorded %.1f s\n", samples / 16000.0);
    }
  }
  if (!recorded) std::printf("nobody has held a voice key\n");
  hub.CloseDevice();
  hub.Release();
  VoxMessage::SetSink(nullptr);
  VoxObserver::SetCallback(nullptr, nullptr);
  return recorded ? 0 : 1;
}
