// The binding to the closed speech codec of the Tern, a library that may be absent.
#pragma once

#include <array>
#include <cstdint>

#include "platform/os.h"

class CAscDecoder {
 public:
  // Samples that one packet decodes to.
  static constexpr int kPacketSamples = 320;

  // Loads and initialises the library. Without it, or without one of its names, the decoder yields nothing.
  CAscDecoder() { Load(); }

  // packet: one packet of the codec, `length` bytes. out: room for 640 bytes of 16-bit PCM.
  // Returns the bytes written: 640, or 0 when the packet is not decoded.
  int Decode(const unsigned char* packet, int length, unsigned char* out);
  bool Loaded() const { return loaded; }

 private:
  using DecoderInit = std::uint16_t (*)(int);
  using SetParameter = int (*)(int, int);
  using Decoder = std::int16_t (*)(const unsigned char*, short*, unsigned short, int);
  using SetVadParameter = int (*)(void*);

  void Load();

  DecoderInit pfnDecoderInit = nullptr;
  SetParameter pfnSetParameter = nullptr;
  Decoder pfnDecoder = nullptr;
  SetVadParameter pfnSetVadParameter = nullptr;
  FARPROC pfnOutputPcmFile = nullptr;   // resolved, never called
  FARPROC pfnOutputTailFile = nullptr;  // resolved, never called
  std::uint16_t decoderId = 0xFFFF;
  std::array<std::int16_t, 13> vadParams{};
  bool loaded = false;
};
