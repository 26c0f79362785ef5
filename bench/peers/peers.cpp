// The decoder and the converter beside other libraries, as far as they are installed: CPU time per sample in 15 rounds,
// in each of which all take their turn. docs/performance.md records a run.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "audio/ConvertTo16kMono.h"
#include "audio/SbcDecoder.h"
#include "sim/devices/SbcEncoder.h"
#ifdef HAVE_SBC
#include <sbc/sbc.h>
#endif
extern "C" {
#ifdef HAVE_LIBAVCODEC
#include <libavcodec/avcodec.h>
#endif
#ifdef HAVE_LIBSWRESAMPLE
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
#endif
}
#ifdef HAVE_SPEEXDSP
#include <speex/speex_resampler.h>
#endif
#ifdef HAVE_SAMPLERATE
#include <samplerate.h>
#endif
#ifdef HAVE_SOXR
#include <soxr.h>
#endif

namespace {

constexpr int kRounds = 15;
constexpr double kTurnSeconds = 0.1;

using Pcm = std::vector<std::int16_t>;

// run() handles a second of sound, 16000 samples of output.
struct Contender {
  std::string name;
  std::function<void()> run;
  std::vector<double> ns{};  // per sample, by round
};

double cpuSeconds() {
  timespec now;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void printSpread(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  std::printf(" | %.2f (%.2f to %.2f)", values[values.size() / 2], values.front(), values.back());
}

// The first is ours.
void compare(const std::string& title, std::vector<Contender> contenders) {
  std::printf("\n| %s | ns per sample | times ours |\n| --- | --- | --- |\n", title.c_str());
  for (int round = -1; round < kRounds; ++round) {  // the first warms up
    for (Contender& contender : contenders) {
      const double start = cpuSeconds();
      double end = start;
      int seconds = 0;
      for (; end - start < kTurnSeconds; end = cpuSeconds()) {
        for (int n = 0; n < 50; ++n, ++seconds) contender.run();
      }
      if (round >= 0) contender.ns.push_back((end - start) * 1e9 / (seconds * 16000.0));
    }
  }
  for (const Contender& contender : contenders) {
    std::printf("| %s", contender.name.c_str());
    printSpread(contender.ns);
    std::vector<double> ratios;
    for (std::size_t i = 0; i < kRounds; ++i) ratios.push_back(contender.ns[i] / contenders[0].ns[i]);
    printSpread(ratios);
    std::printf(" |\n");
  }
}

// A second of a voice-like sound.
Pcm voice(int rate) {
  Pcm pcm;
  for (int i = 0; i < rate; ++i) {
    const double t = static_cast<double>(i) / rate;
    pcm.push_back(static_cast<std::int16_t>(6000 * std::sin(2 * 3.14159265 * 180 * t) * (1 + std::sin(40 * t)) +
                                            1500 * std::sin(2 * 3.14159265 * 2300 * t)));
  }
  return pcm;
}

[[maybe_unused]] void require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "peers: %s\n", what);
  std::exit(1);
}

using Frame = std::array<std::uint8_t, CSbcDecoder::kFrameBytes>;

Contender ourDecoder(const std::vector<Frame>& frames) {
  auto decoder = std::make_shared<CSbcDecoder>();
  return {"ours", [decoder, frames] {
            for (const Frame& frame : frames) {
              decoder->Input() = frame;
              if (decoder->DecodeFrame() < 0) std::abort();
            }
          }};
}

// The frames of a Wren, which no other decoder knows.
void compareWren() {
  const Pcm pcm = voice(16000);
  sim::SbcEncoder encoder;
  std::vector<Frame> frames;
  for (std::size_t at = 0; at < pcm.size(); at += sim::SbcEncoder::kSamples) {
    const auto chunk = encoder.encode(std::span<const std::int16_t, sim::SbcEncoder::kSamples>(pcm.data() + at, 80));
    Frame frame{0xAD, 0x31, 0x0C};
    std::copy(chunk.begin(), chunk.end(), frame.begin() + 3);
    frames.push_back(frame);
  }
  compare("SBC decoding, 10 blocks", {ourDecoder(frames)});
}

#ifdef HAVE_SBC
// The same format with 8 blocks, as the standard has it.
void compareDecoders() {
  const Pcm pcm = voice(16000);
  sbc_t encoder;
  require(sbc_init(&encoder, 0) == 0, "no SBC encoder");
  encoder.frequency = SBC_FREQ_16000;
  encoder.blocks = SBC_BLK_8;
  encoder.subbands = SBC_SB_8;
  encoder.mode = SBC_MODE_MONO;
  encoder.allocation = SBC_AM_LOUDNESS;
  encoder.bitpool = 12;
  std::vector<Frame> frames;
  for (std::size_t at = 0; at < pcm.size(); at += 64) {
    Frame frame{};
    ssize_t written = 0;
    sbc_encode(&encoder, pcm.data() + at, 128, frame.data(), frame.size(), &written);
    require(written == 20, "frames of an unexpected length");
    frames.push_back(frame);
  }
  sbc_finish(&encoder);
  std::vector<Contender> contenders{ourDecoder(frames)};

  auto* sbc = new sbc_t;
  sbc_init(sbc, 0);
  // Both must hear the same, ours at half the level.
  CSbcDecoder ours;
  double difference = 0, power = 0;
  for (const Frame& frame : frames) {
    std::int16_t theirs[64];
    std::size_t written = 0;
    sbc_decode(sbc, frame.data(), 20, theirs, sizeof theirs, &written);
    ours.Input() = frame;
    require(written == sizeof theirs && ours.DecodeFrame() == 20, "a frame was refused");
    const auto* samples = reinterpret_cast<const std::int16_t*>(ours.Pcm().data());
    for (int i = 0; i < 64; ++i) {
      difference += std::pow(2 * samples[i] - theirs[i], 2);
      power += std::pow(theirs[i], 2);
    }
  }
  require(power > 0 && difference < power / 10'000, "the decoders differ by more than -40 dB");
  contenders.push_back({"libsbc", [sbc, frames] {
                          for (const Frame& frame : frames) {
                            std::int16_t out[64];
                            std::size_t written = 0;
                            if (sbc_decode(sbc, frame.data(), 20, out, sizeof out, &written) != 20) std::abort();
                          }
                        }});
#ifdef HAVE_LIBAVCODEC
  AVCodecContext* context = avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_SBC));
  require(context && avcodec_open2(context, nullptr, nullptr) == 0, "no decoder in libavcodec");
  AVPacket* packet = av_packet_alloc();
  AVFrame* out = av_frame_alloc();
  contenders.push_back({"libavcodec", [=] {
                          for (Frame frame : frames) {
                            packet->data = frame.data();
                            packet->size = 20;
                            if (avcodec_send_packet(context, packet) < 0 || avcodec_receive_frame(context, out) < 0 ||
                                out->nb_samples != 64) {
                              std::abort();
                            }
                          }
                        }});
#endif
  compare("SBC decoding, 8 blocks", contenders);
}
#endif

// Packets of 10 ms, as a sound card gives them.
void compareConverters(int rate) {
  const auto packet = static_cast<std::size_t>(rate / 100);
  std::vector<Contender> contenders;
  const auto add = [&](const std::string& name, auto convert) {
    contenders.push_back({name, [=, in = voice(rate)] {
                            std::int16_t out[2000];
                            for (std::size_t at = 0; at < in.size(); at += packet) convert(in.data() + at, out);
                          }});
  };
  add("ours", [=](const std::int16_t* in, std::int16_t* out) {
    To16kMono(rate, 1).Convert({in, packet}, 0, {out, 160});
  });
#ifdef HAVE_SPEEXDSP
  for (const int quality : {0, 3}) {
    SpeexResamplerState* state = speex_resampler_init(1, static_cast<unsigned>(rate), 16000, quality, nullptr);
    require(state, "no converter in libspeexdsp");
    add("libspeexdsp, quality " + std::to_string(quality), [=](const std::int16_t* in, std::int16_t* out) {
      auto taken = static_cast<spx_uint32_t>(packet);
      spx_uint32_t made = 2000;
      speex_resampler_process_int(state, 0, in, &taken, out, &made);
    });
  }
#endif
#ifdef HAVE_SAMPLERATE
  for (const int type : {SRC_LINEAR, SRC_SINC_FASTEST}) {
    SRC_STATE* state = src_new(type, 1, nullptr);
    require(state, "no converter in libsamplerate");
    add(std::string("libsamplerate, ") + src_get_name(type), [=](const std::int16_t* in, std::int16_t* out) {
      float wide[480];
      float made[200];
      src_short_to_float_array(in, wide, static_cast<int>(packet));
      SRC_DATA data{wide, made, static_cast<long>(packet), 200, 0, 0, 0, 16000.0 / rate};
      src_process(state, &data);
      src_float_to_short_array(made, out, static_cast<int>(data.output_frames_gen));
    });
  }
#endif
#ifdef HAVE_SOXR
  for (const int quality : {SOXR_QQ, SOXR_LQ}) {
    const soxr_io_spec_t io = soxr_io_spec(SOXR_INT16_I, SOXR_INT16_I);
    const soxr_quality_spec_t spec = soxr_quality_spec(static_cast<unsigned>(quality), 0);
    soxr_t state = soxr_create(rate, 16000, 1, nullptr, &io, &spec, nullptr);
    require(state, "no converter in libsoxr");
    add(std::string("libsoxr, ") + (quality == SOXR_QQ ? "quick" : "low"),
        [=](const std::int16_t* in, std::int16_t* out) {
          std::size_t made = 0;
          soxr_process(state, in, packet, nullptr, out, 2000, &made);
        });
  }
#endif
#ifdef HAVE_LIBSWRESAMPLE
  AVChannelLayout mono;
  av_channel_layout_default(&mono, 1);
  SwrContext* swr = nullptr;
  swr_alloc_set_opts2(&swr, &mono, AV_SAMPLE_FMT_S16, 16000, &mono, AV_SAMPLE_FMT_S16, rate, 0, nullptr);
  require(swr && swr_init(swr) == 0, "no converter in libswresample");
  add("libswresample", [=](const std::int16_t* in, std::int16_t* out) {
    auto* to = reinterpret_cast<std::uint8_t*>(out);
    const auto* from = reinterpret_cast<const std::uint8_t*>(in);
    swr_convert(swr, &to, 2000, &from, static_cast<int>(packet));
  });
#endif
  compare("conversion to 16 kHz, mono, from " + std::to_string(rate) + " Hz", contenders);
}

}  // namespace

int main() {
  compareWren();
#ifdef HAVE_SBC
  compareDecoders();
#endif
  compareConverters(44100);
  compareConverters(48000);
}
