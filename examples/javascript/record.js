// Records what a device hears while its voice key is held: node record.js FILE.wav. Needs koffi (npm install koffi).
const fs = require('fs');
const koffi = require('koffi');

const library = koffi.load(process.platform === 'win32' ? 'VoxDeviceC.dll' : 'libVoxDeviceC.so');
koffi.struct('vox_event', {size: 'uint32', kind: 'int32', device: 'int32', value: koffi.array('int32', 6)});
const vox = {};
for (const [name, prototype] of Object.entries({
  hub_create: 'int32 vox_hub_create()',
  hub_open: 'int32 vox_hub_open(int32 hub)',
  hub_choose: 'int32 vox_hub_choose(int32 hub, int32 device)',
  record_start: 'int32 vox_record_start(int32 source)',
  record_stop: 'int32 vox_record_stop(int32 source)',
  read: 'int32 vox_read(int32 source, _Out_ int16 *samples, int32 capacity, uint32 ms)',
  next_event: 'int32 vox_next_event(_Inout_ vox_event *next, uint32 ms)',
  destroy: 'int32 vox_destroy(int32 handle)',
  error_text: 'const char *vox_error_text(int32 code)',
})) {
  vox[name] = library.func(prototype);
}

function check(result) {
  if (result < 0) throw new Error(vox.error_text(result));
  return result;
}

// On a worker thread of koffi's: the main one stays free.
const later = (name, ...args) =>
  new Promise((resolve, reject) => vox[name].async(...args, (error, result) => (error ? reject(error) : resolve(result))));

// The device whose voice key goes down (or up), or 0 when none does within so many milliseconds.
async function voiceKey(what, ms) {
  for (;;) {
    const next = {size: 36, kind: 0, device: 0, value: [0, 0, 0, 0, 0, 0]};
    if (check(await later('next_event', next, ms)) === 0) return 0;
    if (next.kind === 16 && next.value[0] === 0 && next.value[1] === what) return next.device;
  }
}

async function main() {
  const path = process.argv[2] || 'recording.wav';
  const hub = check(vox.hub_create());
  check(vox.hub_open(hub));
  console.error('Hold the voice key of a device and speak.');
  check(vox.hub_choose(hub, await voiceKey(1, 60000)));
  check(await later('record_start', hub));
  const blocks = [];
  for (let count = 0; count >= 0; ) {
    const block = new Int16Array(4096);
    count = await later('read', hub, block, block.length, 100);
    if (count > 0) blocks.push(Buffer.from(block.buffer, 0, 2 * count));
    if ((await voiceKey(0, 0)) !== 0) await later('record_stop', hub); // what is left is still read
  }
  vox.destroy(hub);
  const speech = Buffer.concat(blocks);
  const header = Buffer.alloc(44);
  header.write('RIFF', 0);
  header.writeUInt32LE(36 + speech.length, 4);
  header.write('WAVEfmt ', 8);
  [16, 0x10001, 16000, 32000, 0x100002].forEach((value, i) => header.writeUInt32LE(value, 16 + 4 * i));
  header.write('data', 36);
  header.writeUInt32LE(speech.length, 40);
  fs.writeFileSync(path, Buffer.concat([header, speech]));
  console.log(`${path}: ${(speech.length / 32000).toFixed(2)} s`);
}

main().catch((error) => {
  console.error(error.message);
  process.exit(1);
});
