#!/usr/bin/env python3
"""Records what a device hears while its voice key is held: record.py FILE.wav. voxdevice.py is in bindings/python."""
import sys

import voxdevice

path = sys.argv[1] if len(sys.argv) > 1 else "recording.wav"
with voxdevice.Hub() as hub:
    print("Hold the voice key of a device and speak.", file=sys.stderr)
    pressed = hub.wait_for(lambda event: event.is_button("left", "down"))
    with hub.recording(pressed.device) as recording:
        hub.wait_for(lambda event: event.is_button("left", "up"))
voxdevice.write_wav(path, recording.samples)
print(f"{path}: {len(recording.samples) / voxdevice.RATE:.2f} s")
