// Speech in HID reports: decoding, staging, delivery.
#include <algorithm>
#include <memory>

#include "audio/AscDecoder.h"
#include "audio/SbcDecoder.h"
#include "hub/HidDeviceEntry.h"
#include "support/CLock.h"

namespace {

// The staging buffer is delivered as soon as it holds more than this.
constexpr int kDeliveryBytes = 3600;
constexpr int kTernPcmBytes = 640;
constexpr int kWrenPayload = 60;
constexpr int kWrenChunk = 20;
// The header that a Wren leaves out of its frames: 16 kHz, mono, loudness, 8 subbands, bitpool 12, 10 blocks.
constexpr std::uint8_t kWrenFrameHeader[] = {0xAD, 0x31, 0x0C};

// Both decoders exist once per process, so only one device's stream can be decoded at a time.
std::unique_ptr<CAscDecoder> ascDecoder;

CSbcDecoder& SbcDecoder() {
  static CSbcDecoder decoder;
  return decoder;
}

}  // namespace

// Audio on its way to the callback, copied out so that no lock is held while the callback runs. On the stack: nothing
// is allocated per report, and a thread that is ended by force in the callback loses nothing.
struct CAudioHidCenter::AudioChunk {
  std::array<unsigned char, sizeof(CAudioHidCenter::audioBuffer)> bytes;
  int count = 0;
};

// With audioLock held.
void CAudioHidCenter::TakeAudio(AudioChunk& chunk) {
  std::copy_n(audioBuffer.begin(), audioBytes, chunk.bytes.begin());
  chunk.count = audioBytes;
  audioBytes = 0;
}

// With audioLock held. `full` takes the staged audio when it is enough for a delivery.
void CAudioHidCenter::AppendAudio(const unsigned char* data, int byteCount, AudioChunk& full) {
  std::copy_n(data, byteCount, audioBuffer.begin() + audioBytes);
  audioBytes += byteCount;
  if (audioBytes > kDeliveryBytes) TakeAudio(full);
}

void CAudioHidCenter::OnProcAudioData_Tern(int, CHidData& reply) {
  AudioChunk full;
  {
    const CAutoLock lock(*audioLock);
    if (!ascDecoder) ascDecoder = std::make_unique<CAscDecoder>();
    std::array<unsigned char, kTernPcmBytes> pcm;
    const int count = ascDecoder->Decode(reply.data, reply.length, pcm.data());
    AppendAudio(pcm.data(), count, full);
  }
  if (full.count > 0) audioCallback(full.bytes.data(), full.count);
}

void CAudioHidCenter::OnProcAudioData_Wren(int, CHidData& reply) {
  if (!reply.Has(kWrenPayload)) return;
  AudioChunk full;  // three chunks never fill the buffer twice
  {
    const CAutoLock lock(*audioLock);
    CSbcDecoder& decoder = SbcDecoder();
    for (int offset = 0; offset < kWrenPayload; offset += kWrenChunk) {
      auto& input = decoder.Input();
      std::copy_n(reply.data + offset, kWrenChunk,
                  std::copy(std::begin(kWrenFrameHeader), std::end(kWrenFrameHeader), input.begin()));
      if (decoder.DecodeFrame() < 0) continue;
      const auto pcm = decoder.Pcm();
      AppendAudio(pcm.data(), static_cast<int>(pcm.size()), full);
    }
  }
  if (full.count > 0) audioCallback(full.bytes.data(), full.count);
}

void CAudioHidCenter::ResetHidAudio() {
  const CAutoLock lock(*audioLock);
  audioBytes = 0;
  SbcDecoder().Reset();
}

void CAudioHidCenter::FlushHidAudio() {
  const auto callback = audioCallback.Get();
  if (!callback.function) return;
  AudioChunk rest;
  {
    const CAutoLock lock(*audioLock);
    TakeAudio(rest);
  }
  if (rest.count > 0) callback.function(rest.bytes.data(), rest.count, callback.context);
  callback.function(nullptr, 0, callback.context);
}

void CAudioHidCenter::UnloadAscDecoder() {
  const CAutoLock lock(*audioLock);
  ascDecoder.reset();
}
