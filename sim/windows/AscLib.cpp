// asc_lib.dll for tests: the simulated machine's stand-in for the closed codec, as a library that Windows loads.
#include "sim/devices/AscCodec.h"

namespace {

template <class Function>
Function* entry(const char* name) {
  static const sim::Library library = sim::ascLibrary();
  return reinterpret_cast<Function*>(reinterpret_cast<void*>(library.at(name)));
}

}  // namespace

#define ASC_API extern "C" __declspec(dllexport)

ASC_API std::uint16_t ASC_Decoder_Init(int channels) { return entry<std::uint16_t(int)>("ASC_Decoder_Init")(channels); }
ASC_API int ASC_Set_Parameter(int first, int second) {
  return entry<int(int, int)>("ASC_Set_Parameter")(first, second);
}
ASC_API std::int16_t ASC_Decoder(const unsigned char* packet, short* pcm, unsigned short decoder, int one) {
  return entry<std::int16_t(const unsigned char*, short*, unsigned short, int)>("ASC_Decoder")(packet, pcm, decoder,
                                                                                               one);
}
ASC_API int ASC_Set_VAD_Parameter(void* parameters) { return entry<int(void*)>("ASC_Set_VAD_Parameter")(parameters); }
ASC_API void Output_Decoder_PCM_File() {}
#ifndef WITHOUT_TAIL_FILE
ASC_API void Output_Decoder_Tail_File() {}
#endif
