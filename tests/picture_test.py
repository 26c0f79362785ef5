"""Pictures of recordings show what was recorded, at its time, frequency and level: picture_test.py VOXDESK."""
import array
import fcntl
import json
import math
import os
import pathlib
import pty
import re
import struct
import subprocess
import sys
import tempfile
import termios
import wave
import zlib

# Where the plots are in the file.
LEFT, WIDTH, WAVE_TOP, WAVE_HEIGHT, TOP, HEIGHT, SCALE = 80, 1024, 44, 200, 272, 256, 1128
INK, PAPER, BLACK, WAVES = (50, 50, 50), (255, 255, 255), (0, 0, 8), ((120, 160, 215), (40, 80, 150))


def pixels(file: pathlib.Path) -> list:
    data, at, packed = file.read_bytes(), 8, b""
    while at < len(data):
        length, kind = struct.unpack(">I4s", data[at:at + 8])
        body = data[at + 8:at + 8 + length]
        if kind == b"IHDR":
            width, height, depth, colour = struct.unpack(">IIBB", body[:10])
            assert (depth, colour) == (8, 2), "not RGB"
        packed += body if kind == b"IDAT" else b""
        at += 12 + length
    raw, stride, before, rows = zlib.decompress(packed), 3 * width, bytes(3 * width), []
    for y in range(height):
        kind, line = raw[y * (stride + 1)], bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        for i in range(stride):
            a, b, c = line[i - 3] if i > 2 else 0, before[i], before[i - 3] if i > 2 else 0
            near = min((abs(b - c), 0, a), (abs(a - c), 1, b), (abs(a + b - 2 * c), 2, c))[2]
            line[i] = (line[i] + (0, a, b, (a + b) // 2, near)[kind]) & 255
        before = bytes(line)
        rows.append([tuple(line[3 * x:3 * x + 3]) for x in range(width)])
    return rows


def main() -> int:
    wrong, voxdesk = [], os.path.abspath(sys.argv[1])

    def check(what: str, found, expected, slack=0) -> None:
        if abs(found - expected) > slack if slack else found != expected:
            wrong.append(f"{what}: {found} instead of {expected}")

    with tempfile.TemporaryDirectory() as folder:
        os.chdir(folder)
        desk, sound, picture = (pathlib.Path(name) for name in ("desk.json", "sound.wav", "sound.png"))
        desk.write_text(json.dumps({"sound": {"speaker": {"plays": str(sound)}}}))
        command = [voxdesk, "--virtual-time", "--desk", str(desk), "speaker", "--out", "out.wav"]

        def play(parts: list) -> None:  # (Hz, amplitude, seconds)
            with wave.open(str(sound), "wb") as file:
                file.setparams((1, 2, 16000, 0, "NONE", ""))
                for hertz, amplitude, seconds in parts:
                    file.writeframes(array.array("h", [round(32767 * amplitude * math.sin(2 * math.pi * hertz * i / 16000))
                                                       for i in range(int(16000 * seconds))]).tobytes())

        def at(second: float, seconds: float) -> int:
            return LEFT + int(second / seconds * WIDTH)

        # Short, and so long that columns have been put together twice.
        for length in (1, 12):
            parts = [(0, 0, length), (1000, 0.5, length), (0, 0, length), (7000, 0.05, length)]
            play(parts)
            subprocess.run([*command, "--picture", str(picture)], check=True, stdout=subprocess.DEVNULL, timeout=120)
            rows = pixels(picture)
            for number, (hertz, amplitude, _) in enumerate(parts):
                x, name = at((number + 0.5) * length, 4 * length), f"{length} s, {hertz} Hz"
                column = [rows[y][x] for y in range(TOP, TOP + HEIGHT)]
                waves = [y for y in range(WAVE_TOP, WAVE_TOP + WAVE_HEIGHT) if rows[y][x] in WAVES]
                check(name + ": highest", waves[0], WAVE_TOP + (1 - amplitude) * (WAVE_HEIGHT - 1) / 2, 1)
                check(name + ": lowest", waves[-1], WAVE_TOP + (1 + amplitude) * (WAVE_HEIGHT - 1) / 2, 1)
                if amplitude == 0:
                    check(name + ": silent", set(column), {BLACK})
                    continue
                brightest = max(range(HEIGHT), key=lambda y: sum(column[y]))
                check(name + ": frequency", HEIGHT - 1 - brightest, hertz / 8000 * HEIGHT, 1)
                scale = rows[TOP + round(-20 * math.log10(amplitude) / 100 * (HEIGHT - 1))][SCALE]
                check(name + ": level", max(abs(a - b) for a, b in zip(column[brightest], scale)), 0, 12)
            # The tones begin and end where the axis says so.
            y = TOP + HEIGHT - 1 - 32
            loud = [x for x in range(LEFT, LEFT + WIDTH) if sum(rows[y][x]) > 300]
            check(f"{length} s: beginning", loud[0], at(1, 4), 5)
            check(f"{length} s: end", loud[-1], at(2, 4), 5)
            marks = [x for x in range(LEFT - 3, LEFT + WIDTH + 3) if rows[TOP + HEIGHT + 4][x] == INK]
            step, count = {1: (0.5, 8), 12: (5, 9)}[length]
            ticks = [LEFT + round(i * step / (4 * length) * WIDTH) for i in range(count)]
            check(f"{length} s: time axis", marks, [*ticks, LEFT + WIDTH])
            check("kHz axis", [y for y in range(TOP - 3, TOP + HEIGHT + 3) if rows[y][LEFT - 6] == INK],
                  [TOP + HEIGHT // 8 * i for i in range(9)])

        # Nothing gets lost when columns are put together.
        play([(0, 0, 0.733), (1000, 0.5, 0.016)] * 60)
        subprocess.run([*command, "--picture", str(picture)], check=True, stdout=subprocess.DEVNULL, timeout=120)
        rows = pixels(picture)
        clicks = "".join(str(int(rows[WAVE_TOP + 70][x] in WAVES)) for x in range(LEFT, LEFT + WIDTH)).split("0")
        check("clicks", sum(map(bool, clicks)), 60)
        play(parts)

        # In the terminal, as wide as it is; without a terminal, or quiet, not at all.
        def lines(columns: int, locale: str, *more: str) -> list:
            ours, theirs = pty.openpty()
            fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
            child = subprocess.Popen([*command, *more], stdout=theirs, stderr=theirs,
                                     env={**os.environ, "LC_ALL": locale})
            os.close(theirs)
            shown = b""
            try:
                while piece := os.read(ours, 65536):
                    shown += piece
            except OSError:  # its end
                pass
            child.wait(timeout=60)
            os.close(ours)
            # (The address sanitizer has a word to say about fibers.)
            text = shown.decode().replace("\r\n", "\n").replace("\x1b[K", "")
            return [line.split("\r")[-1] for line in text.split("\n") if "ASan does" not in line]

        for columns in (60, 80, 120, 300):
            for locale, full, bright in (("C.UTF-8", "█", "█"), ("C", "#", "#")):
                shown, name = lines(columns, locale), f"{columns} columns, {locale}"
                plots = {line[:9].strip(): line[9:] for line in shown if re.match(r"(  \d|-\d\d) ", line[:5])}
                width = min(columns - 1, 120)
                check(name + ": longest", [line for line in shown if len(line) > width and "wrote" not in line], [])
                check(name + ": rows", list(plots), ["0 dBFS", "-15", "-30", "-45", "8 kHz", "6", "4", "2"])
                tone, silence = int((width - 9) * 0.375), int((width - 9) * 0.125)
                check(name + ": tone", [plots[row][tone] for row in ("-15", "8 kHz", "2")], [full, " ", bright])
                check(name + ": silence", {plots[row][silence] for row in plots}, {" "})
                check(name + ": end", shown[-2].endswith("48 s") and len(shown[-2]) == width, True)
                check(name + ": ASCII", all(line.isascii() for line in shown), locale == "C")
        check("quiet", [line for line in lines(80, "C", "-q") if line and "wrote out.wav" not in line], [])
        for picture, said in (("./out.wav", "is the file of --out, too"), ("-", "name a file"), ("nowhere/a.png", "No such file or directory")):
            ended = subprocess.run([*command, "--picture", picture], capture_output=True, text=True, timeout=60)
            check(picture, ended.returncode > 0 and said in ended.stderr, True)
        named = [word.replace("out.wav", "ü ☃.wav") for word in command] + ["--picture", "ü ☃.png"]
        ended = subprocess.run(named, capture_output=True, text=True, timeout=60, env={**os.environ, "LC_ALL": "C"})
        check("other letters", (ended.returncode, pathlib.Path(folder, "ü ☃.png").exists()), (0, True))
    print("\n".join(wrong))
    return len(wrong) > 0


if __name__ == "__main__":
    sys.exit(main())
