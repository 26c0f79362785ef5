// What the library and the simulated machine cost. docs/performance.md records figures.
#include <benchmark/benchmark.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "VoxDevice/VoxDevice.h"
#include "VoxDevice/voxdevice.h"
#include "audio/ConvertTo16kMono.h"
#include "audio/SbcDecoder.h"
#include "bench/Allocations.h"
#include "bindings/c/Objects.h"
#include "hid/ReaderVariants.h"
#include "platform/os.h"
#include "sim/Machine.h"
#include "sim/devices/Mice.h"
#include "support/HidFile.h"
#include "support/Observer.h"
#include "tools/capture/Recorder.h"

namespace {

using namespace std::chrono_literals;

using Frame = std::array<std::uint8_t, CSbcDecoder::kFrameBytes>;

// A second of a voice-like sound in the frames of a Wren.
std::vector<Frame> wrenFrames() {
  sim::SbcEncoder encoder;
  std::vector<Frame> frames;
  for (int n = 0; n < 200; ++n) {
    std::array<std::int16_t, sim::SbcEncoder::kSamples> pcm;
    for (std::size_t i = 0; i < pcm.size(); ++i) {
      const double t = (n * 80.0 + static_cast<double>(i)) / 16000;
      pcm[i] = static_cast<std::int16_t>(6000 * std::sin(2 * 3.14159265 * 180 * t) * (1 + std::sin(40 * t)) +
                                         1500 * std::sin(2 * 3.14159265 * 2300 * t));
    }
    const auto chunk = encoder.encode(pcm);
    Frame frame{0xAD, 0x31, 0x0C};
    std::copy(chunk.begin(), chunk.end(), frame.begin() + 3);
    frames.push_back(frame);
  }
  return frames;
}

void SbcDecoding(benchmark::State& state) {
  const auto frames = wrenFrames();
  CSbcDecoder decoder;
  for ([[maybe_unused]] auto _ : state) {
    for (const Frame& frame : frames) {
      decoder.Input() = frame;
      benchmark::DoNotOptimize(decoder.DecodeFrame());
      benchmark::DoNotOptimize(decoder.Pcm().data());
    }
  }
  state.counters["per sample"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * static_cast<double>(frames.size()) * 80,
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(SbcDecoding)->Unit(benchmark::kMicrosecond);

using Bytes = std::vector<std::uint8_t>;

// The same second in input reports, three frames in each.
std::vector<Bytes> speech() {
  const auto frames = wrenFrames();
  std::vector<Bytes> reports;
  for (std::size_t n = 0; n + 3 <= frames.size(); n += 3) {
    Bytes& report = reports.emplace_back(Bytes{0x05, 0xAD});
    for (std::size_t k = n; k < n + 3; ++k) report.insert(report.end(), frames[k].begin() + 3, frames[k].end());
  }
  return reports;
}

// An input report through the reader's own handling and the hub's dispatch, as the read thread does it.
class ReadThread {
 public:
  void handle(Bytes& report) {
    CHidData reply;
    ParseReport(report, DataChannel_Usb, reply);
    reader_.OnReport(reply);
    CAudioHidCenter::HidDeviceReaderCallback(1, MouseType_Wren, DataChannel_Usb, report.data(), 64, &hub_);
  }

 private:
  sim::Machine machine_;
  CAudioHidCenter hub_;
  CVoxHidDeviceReader reader_{MouseType_Wren};
};

// One report after the other.
void Report(benchmark::State& state, std::vector<Bytes> reports) {
  ReadThread thread;
  for (Bytes& report : reports) report.resize(64);
  for (Bytes& report : reports) thread.handle(report);
  const std::int64_t before = allocations();
  std::size_t next = 0;
  for ([[maybe_unused]] auto _ : state) {
    thread.handle(reports[next]);
    if (++next == reports.size()) next = 0;
  }
  state.counters["allocations"] =
      benchmark::Counter(static_cast<double>(allocations() - before), benchmark::Counter::kAvgIterations);
}
BENCHMARK_CAPTURE(Report, key, {{0x05, 0xFF, 0xF1, 0xFE, 0xC0, 0x9F, 1, '9', 0xEF}});
BENCHMARK_CAPTURE(Report, heartbeat, {{0x05, 0xFF, 0xF1, 0xFE, 0xC0, 0x68, 0, 0xEF}});
BENCHMARK_CAPTURE(Report, state, {{0x05, 0xFF, 0xF1, 0xFE, 0xC0, 0x9C, 11, 0, 1, 6, 64, 80, 1, 2, 3, 4, 5, 6, 0xEF}});
BENCHMARK_CAPTURE(Report, speech, speech());

// One report after much else has been through the processor's caches, as 15 ms of other programs.
void ColdReport(benchmark::State& state) {
  ReadThread thread;
  auto reports = speech();
  std::vector<char> others(64 << 20);
  std::size_t next = 0;
  for ([[maybe_unused]] auto _ : state) {
    Bytes& report = reports[next++ % reports.size()];
    report.resize(64);
    for (std::size_t i = 0; i < others.size(); i += 64) ++others[i];
    const auto start = std::chrono::steady_clock::now();
    thread.handle(report);
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
}
BENCHMARK(ColdReport)->UseManualTime()->Iterations(300);

// A simulated second with one discovery pass over foreign interfaces and its twenty ticks.
void DiscoveryPass(benchmark::State& state) {
  sim::Machine machine;
  for (int i = 0; i < state.range(0); ++i) {
    machine.plug(
        std::make_shared<sim::SilentHidDevice>(sim::usbHidPath("046d", "c077", "7&" + std::to_string(i) + "&0&0000"),
                                               std::uint16_t{0x046D}, std::uint16_t{0xC077}));
  }
  CAudioHidCenter hub;
  hub.OpenDevice(nullptr, nullptr);
  for ([[maybe_unused]] auto _ : state) machine.sleep(1s);
  hub.CloseDevice();
  hub.Release();
}
BENCHMARK(DiscoveryPass)->Arg(0)->Arg(10)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond);

// Waits that the virtual clock carries: two threads wake each other in turn, and a third sleeps.
void VirtualWaits(benchmark::State& state) {
  sim::Machine machine;
  static HANDLE ping, pong;
  ping = os::CreateEventW(nullptr, FALSE, FALSE, nullptr);
  pong = os::CreateEventW(nullptr, FALSE, FALSE, nullptr);
  machine.spawn([] {
    for (;;) {
      os::WaitForSingleObject(ping, INFINITE);
      os::SetEvent(pong);
    }
  });
  machine.spawn([] {
    for (;;) os::Sleep(1);
  });
  const std::uint64_t before = machine.waits();
  for ([[maybe_unused]] auto _ : state) {
    os::SetEvent(ping);
    os::WaitForSingleObject(pong, 1000);
    os::Sleep(1);
  }
  state.counters["waits/s"] =
      benchmark::Counter(static_cast<double>(machine.waits() - before), benchmark::Counter::kIsRate);
}
BENCHMARK(VirtualWaits);

// A firmware image of 256 KiB, from the file to the last answer, to a device that thinks for no time at all.
void FirmwareUpdate(benchmark::State& state, const char* model) {
  sim::Machine machine;
  CAudioHidCenter hub;
  auto mouse = sim::makeMouse(model, sim::Link::usb, "7&1&0&0000");
  mouse->latency = sim::Time{0};
  machine.plug(mouse);
  hub.OpenDevice(nullptr, nullptr);
  machine.sleep(3s);
  constexpr std::size_t kSize = 256 * 1024;
  const std::string file = "voxbench-firmware.bin";
  std::ofstream(file, std::ios::binary) << std::string(kSize, 'f');
  static std::atomic<bool> over;
  const CAudioHidCenter::FwOtaResultCallbackFn callback = [](int, DataChannel, FwUpdateState result, void*) {
    over = result == FwUpdate_Over;
  };
  hub.SetCallback_FwOtaResult(reinterpret_cast<void*>(callback), nullptr);
  std::size_t steps = 0;
  for ([[maybe_unused]] auto _ : state) {
    state.PauseTiming();
    mouse->update(sim::VirtualMouse::Updated::mouse, {.size = kSize});
    mouse->forget();
    over = false;
    state.ResumeTiming();
    hub.StartOTA(1, FwUpdate_First, file, "");
    while (!over) machine.sleep(1s);
    steps += mouse->received(0x09).size();
  }
  std::remove(file.c_str());
  state.counters["per step"] =
      benchmark::Counter(static_cast<double>(steps), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  hub.CloseDevice();
  hub.Release();
}
BENCHMARK_CAPTURE(FirmwareUpdate, standard, "Wren")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(FirmwareUpdate, Zh, "Heron Plus")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(FirmwareUpdate, Tern, "Tern")->Unit(benchmark::kMillisecond);

// A packet of 10 ms of what the computer plays, to 16 kHz mono.
void Conversion(benchmark::State& state) {
  const auto rate = static_cast<int>(state.range(0));
  const auto channels = static_cast<int>(state.range(1));
  std::vector<std::int16_t> packet(static_cast<std::size_t>(rate / 100 * channels));
  for (std::size_t i = 0; i < packet.size(); ++i) packet[i] = static_cast<std::int16_t>(i * 321);
  const To16kMono convert(rate, channels);
  std::vector<std::int16_t> out(convert.Count(packet.size()));
  const std::int64_t before = allocations();
  for ([[maybe_unused]] auto _ : state) {
    convert.Convert(packet, 0, out);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.counters["allocations"] =
      benchmark::Counter(static_cast<double>(allocations() - before), benchmark::Counter::kAvgIterations);
  state.counters["per sample"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * static_cast<double>(out.size()),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(Conversion)->ArgsProduct({{16000, 44100, 48000}, {1, 2}});

// A simulated minute of the older mouse's key poller.
void KeyPolling(benchmark::State& state) {
  sim::Machine machine;
  CFormerMouse_Usb usb;
  usb.StartCheck();
  for ([[maybe_unused]] auto _ : state) machine.sleep(60s);
}
BENCHMARK(KeyPolling)->Unit(benchmark::kMillisecond);

// A simulated second of speech, from the virtual microphone to the client's callback: most of it is the encoder, which
// SpeechEncoding shows alone.
void SpeechSecond(benchmark::State& state) {
  sim::Machine machine;
  CAudioHidCenter hub;
  auto wren = sim::makeMouse("Wren", sim::Link::usb, "7&1&0&0000");
  wren->hear(std::vector<std::int16_t>(16000 * 3600, 1000));
  machine.plug(wren);
  const CAudioHidCenter::AudioCallback callback = [](const unsigned char*, int, void*) {};
  hub.OpenDevice(reinterpret_cast<void*>(callback), nullptr);
  machine.sleep(3s);
  hub.ChooseWorkHidDevice(1);
  if (!hub.OpenHidRecord()) state.SkipWithError("the voice channel did not open");
  for ([[maybe_unused]] auto _ : state) machine.sleep(1s);
  hub.CloseHidRecord();
  hub.CloseDevice();
  hub.Release();
}
BENCHMARK(SpeechSecond)->Unit(benchmark::kMillisecond);

// A report that is written to a device: nobody observes (0), an observer that does nothing (1), the recorder (2).
void ObservedReport(benchmark::State& state) {
  sim::Machine machine;
  const auto device = std::make_shared<sim::SilentHidDevice>(sim::usbHidPath("248a", "8100", "1"), 0x248A, 0x8100);
  machine.plug(device);
  HidFile file(device->path(), DataChannel_Usb);
  if (!file.Open(40, 100)) state.SkipWithError("not opened");
  std::optional<capture::Recorder> recorder;
  if (state.range(0) == 1) VoxObserver::SetCallback([](const VoxObservation&, void*) {}, nullptr);
  if (state.range(0) == 2) {
    recorder.emplace("/dev/null");
    VoxObserver::SetCallback(&capture::Recorder::observe, &*recorder);
  }
  const std::array<std::uint8_t, 64> report{5, 0xFF, 0xF1, 0xFE, 0xC0, 5, 0, 0xEF};
  for ([[maybe_unused]] auto _ : state) file.WriteReport(report);
  VoxObserver::SetCallback(nullptr, nullptr);
}
BENCHMARK(ObservedReport)->Arg(0)->Arg(1)->Arg(2);

// What the library asks before each report: whether anybody observes.
void AskForObserver(benchmark::State& state) {
  for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(CObserver::IsListening());
}
BENCHMARK(AskForObserver);

// The flat interface: a call through a handle, and the way of an event from a report to who asks for it.
void FlatCall(benchmark::State& state) {
  sim::Machine machine;
  const vox_handle hub = vox_hub_create();
  for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(vox_hub_button(hub, VOX_BUTTON_LEFT));
  vox_destroy(hub);
  flat::Restart();
}
BENCHMARK(FlatCall);

void ClassCall(benchmark::State& state) {
  sim::Machine machine;
  CAudioHidCenter hub;
  for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(hub.GetButtonState_Left());
}
BENCHMARK(ClassCall);

void FlatEvent(benchmark::State& state) {
  sim::Machine machine;
  const vox_handle click = vox_click_create();
  vox_event event{sizeof event, 0, 0, {}};
  for ([[maybe_unused]] auto _ : state) {
    VoxMessage::HidConnect(1);
    if (vox_next_event(&event, 0) != 1) state.SkipWithError("no event");
  }
  vox_destroy(click);
  flat::Restart();
}
BENCHMARK(FlatEvent);

void SpeechEncoding(benchmark::State& state) {
  sim::SbcEncoder encoder;
  const std::vector<std::int16_t> pcm(sim::SbcEncoder::kSamples, 1000);
  for ([[maybe_unused]] auto _ : state) {
    for (int n = 0; n < 200; ++n) benchmark::DoNotOptimize(encoder.encode(std::span<const std::int16_t, 80>(pcm)));
  }
}
BENCHMARK(SpeechEncoding)->Unit(benchmark::kMillisecond);

}  // namespace
