#!/usr/bin/env python3
"""Runs a client of the flat interface: check.py PROGRAM [ARGUMENT ...]. It gets the name of a WAV file as its last
argument, and must end with what the firmware has sent in it: the same samples as everywhere."""
import os
import subprocess
import sys
import tempfile
import wave

SAMPLES = 24000
HASH = 16367590662949372471  # FNV-1a of them, as in tests/Sentence.h


def main() -> int:
    with tempfile.TemporaryDirectory(dir=os.environ.get("TMPDIR")) as folder:
        path = os.path.join(folder, "take.wav")
        subprocess.run([*sys.argv[1:], path], check=True, timeout=120)
        with wave.open(path) as file:
            assert file.getparams()[:3] == (1, 2, 16000), file.getparams()
            samples = file.readframes(file.getnframes())
    assert len(samples) >= 2 * SAMPLES, f"{len(samples) // 2} samples"
    value = 0xCBF29CE484222325
    for byte in samples[: 2 * SAMPLES]:
        value = (value ^ byte) * 0x100000001B3 & 0xFFFFFFFFFFFFFFFF
    assert value == HASH, f"the samples are others: {value}"
    print(f"{len(samples) // 2} samples, the first {SAMPLES} as sent")
    return 0


if __name__ == "__main__":
    sys.exit(main())
