/* Records what a device hears while its voice key is held: record FILE.wav. In C, for any compiler. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "VoxDevice/voxdevice.h"

static int16_t speech[60 * 16000];

static void number(FILE* file, uint32_t value, int bytes) {
  for (; bytes-- > 0; value >>= 8) fputc((int)(value & 0xFF), file);
}

static int write_wav(const char* path, const int16_t* samples, uint32_t count) {
  FILE* file = fopen(path, "wb");
  if (!file) return 0;
  fputs("RIFF", file);
  number(file, 36 + 2 * count, 4);
  fputs("WAVEfmt ", file);
  number(file, 16, 4);    /* PCM, mono */
  number(file, 0x10001, 4);
  number(file, 16000, 4); /* samples and bytes a second */
  number(file, 32000, 4);
  number(file, 0x100002, 4);
  fputs("data", file);
  number(file, 2 * count, 4);
  for (uint32_t i = 0; i < count; ++i) number(file, (uint16_t)samples[i], 2);
  return fclose(file) == 0;
}

static vox_result check(vox_result result, const char* what) {
  if (result >= 0) return result;
  fprintf(stderr, "%s: %s\n", what, vox_error_text(result));
  exit(1);
}

/* The device whose voice key goes down (or up), or -1 when none does within so many milliseconds. */
static int32_t voice_key(int32_t what, uint32_t milliseconds) {
  vox_event event = {sizeof event, 0, 0, {0}};
  while (check(vox_next_event(&event, milliseconds), "waiting") == 1) {
    if (event.kind == VOX_EVENT_CONNECT) fprintf(stderr, "device %d\n", (int)event.device);
    if (event.kind == VOX_EVENT_BUTTON && event.value[0] == VOX_BUTTON_LEFT && event.value[1] == what) return event.device;
  }
  return -1;
}

int main(int argc, char** argv) {
  const char* path = argc > 1 ? argv[1] : "recording.wav";
  const int32_t most = (int32_t)(sizeof speech / sizeof *speech);
  int32_t count = 0, device;
  vox_result read = 0;
  const vox_handle hub = check(vox_hub_create(), "no hub");
  check(vox_hub_open(hub), "no discovery");
  fputs("Hold the voice key of a device and speak.\n", stderr);
  device = voice_key(VOX_DOWN, 60000);
  if (device < 0) return fputs("Nobody has pressed a voice key within a minute.\n", stderr), 1;
  check(vox_hub_choose(hub, device), "the device");
  check(vox_record_start(hub), "the voice channel");
  while (voice_key(VOX_UP, 0) < 0 && (read = vox_read(hub, speech + count, most - count, 100)) >= 0) count += read;
  if (vox_record_stop(hub) < 0) fputs("The device has not confirmed the end.\n", stderr);
  while ((read = vox_read(hub, speech + count, most - count, 1000)) > 0) count += read;
  vox_destroy(hub);
  if (!write_wav(path, speech, (uint32_t)count)) return perror(path), 1;
  printf("%s: %.2f s\n", path, count / 16000.0);
  return 0;
}
