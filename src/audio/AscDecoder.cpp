#include "audio/AscDecoder.h"

#include <cstring>

namespace {

// The library's parameter block: 13 consecutive 16-bit integers, whose meaning is its own.
constexpr std::array<std::int16_t, 13> kVadParameters = {0, 30, 20000, 5, 6226, 160, 400, 16000, 0, 0, 164, 3200, 1024};
static_assert(sizeof kVadParameters == 26 && alignof(decltype(kVadParameters)) == 2);

// The library writes here, one packet at a time; the decoder exists once per process.
std::array<short, CAscDecoder::kPacketSamples> outputBuffer;

template <class Function>
bool Resolve(HMODULE library, const char* name, Function& function) {
  const FARPROC address = os::GetProcAddress(library, name);
  function = reinterpret_cast<Function>(reinterpret_cast<void*>(address));
  return address != nullptr;
}

}  // namespace

void CAscDecoder::Load() {
  const HMODULE library = os::LoadLibraryW(L"asc_lib.dll");  // never unloaded
  if (!library) return;
  loaded = Resolve(library, "ASC_Decoder_Init", pfnDecoderInit) &&
           Resolve(library, "ASC_Set_Parameter", pfnSetParameter) && Resolve(library, "ASC_Decoder", pfnDecoder) &&
           Resolve(library, "ASC_Set_VAD_Parameter", pfnSetVadParameter) &&
           Resolve(library, "Output_Decoder_PCM_File", pfnOutputPcmFile) &&
           Resolve(library, "Output_Decoder_Tail_File", pfnOutputTailFile);
  if (!loaded) {
    pfnDecoderInit = nullptr;
    pfnSetParameter = nullptr;
    pfnDecoder = nullptr;
    pfnSetVadParameter = nullptr;
    pfnOutputPcmFile = nullptr;
    pfnOutputTailFile = nullptr;
    return;
  }
  vadParams = kVadParameters;
  decoderId = pfnDecoderInit(1);
  pfnSetParameter(0, 1);
  pfnSetVadParameter(vadParams.data());
}

int CAscDecoder::Decode(const unsigned char* packet, int length, unsigned char* out) {
  if (!packet || length <= 0 || !out || !loaded) return 0;
  if (pfnDecoder(packet, outputBuffer.data(), decoderId, 1) != kPacketSamples) return 0;
  std::memcpy(out, outputBuffer.data(), sizeof outputBuffer);
  return static_cast<int>(sizeof outputBuffer);
}
