// Speech in HID reports: decoding, staging, delivery.
#include <algorithm>
#include <memory>
#include <utility>

#include "audio/AscDecoder.h"
#include "audio/SbcDecoder.h"
#include "hub/Hub.h"
#include "support/CLock.h"

namespace {

// The staging buffer is delivered as soon as it holds more than this.
constexpr int kDeliveryBytes = 3600;
constexpr int kTernPcmBytes = 640;
constexpr int kWrenChunk = 20;
// The header that a Wren leaves out of its frames: 16 kHz, mono, loudness, 8 subbands, bitpool 12, 10 blocks.
constexpr std::uint8_t kWrenFrameHeader[] = {0xAD, 0x31, 0x0C};

}  // namespace

// Both decoders exist once per process, however many hubs there are, so only one device's stream can be decoded at a
// time. They go with the last hub.
struct CHub::Decoders {
  CLock lock;
  CSbcDecoder sbc GUARDED_BY(lock);
  std::unique_ptr<CAscDecoder> asc GUARDED_BY(lock);
  int ascUsers GUARDED_BY(lock) = 0;  // hubs that have decoded with it since their last Release
};

std::shared_ptr<CHub::Decoders> CHub::SharedDecoders() {
  static std::mutex mutex;
  static std::weak_ptr<Decoders> shared;
  auto made = std::make_shared<Decoders>();
  const CMutexGuard guard(mutex);
  if (auto known = shared.lock()) return known;
  shared = made;
  return made;
}

// Audio on its way to the callback, copied out so that no lock is held while the callback runs. On the stack: nothing
// is allocated per report, and a thread that is ended by force in the callback loses nothing.
struct CHub::AudioChunk {
  std::array<unsigned char, sizeof(CHub::audioBuffer)> bytes;
  int count = 0;
};

// With the decoders' lock held.
void CHub::TakeAudio(AudioChunk& chunk) {
  std::copy_n(audioBuffer.begin(), audioBytes, chunk.bytes.begin());
  chunk.count = audioBytes;
  audioBytes = 0;
}

// With the decoders' lock held. `full` takes the staged audio when it is enough for a delivery.
void CHub::AppendAudio(const unsigned char* data, int byteCount, AudioChunk& full) {
  std::copy_n(data, byteCount, audioBuffer.begin() + audioBytes);
  audioBytes += byteCount;
  if (audioBytes > kDeliveryBytes) TakeAudio(full);
}

void CHub::OnProcAudioData_Tern(int, CHidData& reply) {
  AudioChunk full;
  {
    const CAutoLock lock(decoders_->lock);
    auto& decoder = decoders_->asc;
    if (!decoder) decoder = std::make_unique<CAscDecoder>();
    if (!std::exchange(usesAsc_, true)) ++decoders_->ascUsers;
    // The codec reads a whole packet, whatever the length of this one.
    std::array<unsigned char, kMaxPayload> packet{};
    if (reply.data) std::copy_n(reply.data, reply.length, packet.begin());
    std::array<unsigned char, kTernPcmBytes> pcm;
    const int count = decoder->Decode(reply.data ? packet.data() : nullptr, reply.length, pcm.data());
    AppendAudio(pcm.data(), count, full);
  }
  if (full.count > 0) audioCallback(full.bytes.data(), full.count);
}

void CHub::OnProcAudioData_Wren(int, CHidData& reply) {
  if (!reply.Has(kWrenPayload)) return;
  AudioChunk full;  // three chunks never fill the buffer twice
  {
    const CAutoLock lock(decoders_->lock);
    CSbcDecoder& decoder = decoders_->sbc;
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

void CHub::ResetHidAudio() {
  const CAutoLock lock(decoders_->lock);
  audioBytes = 0;
  decoders_->sbc.Reset();
}

void CHub::FlushHidAudio() {
  const auto callback = audioCallback.Get();
  if (!callback.function) return;
  AudioChunk rest;
  {
    const CAutoLock lock(decoders_->lock);
    TakeAudio(rest);
  }
  const CClientCode client;
  if (!client) return;
  if (rest.count > 0) callback.function(rest.bytes.data(), rest.count, callback.context);
  if (!closed_) callback.function(nullptr, 0, callback.context);
}

void CHub::CopyAudioFrom(CHub& other) {
  const CAutoLock lock(decoders_->lock);
  audioBytes = other.audioBytes;
  audioBuffer = other.audioBuffer;
}

// Unless another hub is decoding with it.
void CHub::UnloadAscDecoder() {
  const CAutoLock lock(decoders_->lock);
  if (std::exchange(usesAsc_, false) && --decoders_->ascUsers == 0) decoders_->asc.reset();
}
